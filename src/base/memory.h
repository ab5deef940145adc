// Memory of the library. It is malloc(3) storage, because clients and contexts own it as C does.
// When it is exhausted, the process logs a line at level 0 and ends with exit(0), so no caller has
// to handle a null pointer.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/log.h"

// The pointer that an allocating call returned; ends the process when it is null.
#define QEL_CHECKED(call) qel::checked((call), kLogSource, __LINE__, "Out of memory\n")

namespace qel {

template <typename T>
T* checked(T* memory, const char* source, int line, const char* message) {
  if (memory != nullptr) [[likely]]
    return memory;
  error_output(QEL_LOG_FATAL, source, line, "%s", message);
  std::exit(0);
}

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};

// Owns one malloc(3) block.
template <typename T>
using Owned = std::unique_ptr<T, FreeMemory>;

// Makes a zeroed `T`. Null when memory is exhausted.
template <typename T>
T* new_zeroed() {
  return static_cast<T*>(std::calloc(1, sizeof(T)));
}

// Makes a zero-terminated copy of `text`. Null when memory is exhausted.
inline char* copy_of(std::string_view text) {
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}

// Fills the character field of an event with `text`, cut to fit. Does what str_snprintf does for
// "%s", but saves the time for parsing a format: every event needs about three of these copies.
template <std::size_t Size>
void copy_text(char (&field)[Size], const char* text, std::size_t limit = Size) {
  std::size_t length = 0;
  for (; length < limit - 1 && text[length] != '\0'; ++length) field[length] = text[length];
  field[length] = '\0';
}

}  // namespace qel
