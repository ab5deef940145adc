// Keys of hash tables. A numeric key is the number itself, widened to a pointer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qel {

inline const void* number_key(std::uint32_t number) {
  return reinterpret_cast<const void*>(static_cast<std::uintptr_t>(number));
}

inline std::uint32_t hash_number(const void* key, std::size_t) {
  return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(key));
}

inline int compare_numbers(const void* a, std::size_t, const void* b, std::size_t) {
  return a == b ? 0 : 1;
}

// The hash of a text: starting from 5318, the hash times 33 plus the next byte, terminator
// included.
inline std::uint32_t hash_text(const char* text) {
  std::uint32_t hash = 5318;
  do {
    hash = hash * 33 + static_cast<unsigned char>(*text);
  } while (*text++ != '\0');
  return hash;
}

}  // namespace qel
