// A copy of a text that ends where readable memory ends: reading one byte further crashes, in every
// build.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <stdexcept>
#include <string_view>

namespace test {

// Each copy takes the place of the one before.
inline std::string_view guarded(std::string_view text) {
  constexpr std::size_t kRoom = 1 << 20;
  constexpr std::size_t kGuard = 1 << 16;  // as large as any page
  static char* const end = [] {
    void* area =
        mmap(nullptr, kRoom + kGuard, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char* const guard = static_cast<char*>(area) + kRoom;
    if (area == MAP_FAILED || mprotect(guard, kGuard, PROT_NONE) != 0)
      throw std::runtime_error("no guarded memory");
    return guard;
  }();
  if (text.size() > kRoom) throw std::length_error("text too long to be guarded");
  text.copy(end - text.size(), text.size());
  return {end - text.size(), text.size()};
}

}  // namespace test
