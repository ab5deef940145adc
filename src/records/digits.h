// Blanks and digits as libc's number functions know them.
#pragma once

#include <array>
#include <cstdint>

namespace qel {

inline constexpr unsigned kNoDigit = 0xFF;

// The value of each character as a hexadecimal digit, or kNoDigit.
inline constexpr auto kDigitValues = [] {
  std::array<std::uint8_t, 256> values;
  values.fill(kNoDigit);
  for (unsigned i = 0; i < 10; ++i) values['0' + i] = static_cast<std::uint8_t>(i);
  for (unsigned i = 0; i < 6; ++i) {
    values['a' + i] = values['A' + i] = static_cast<std::uint8_t>(10 + i);
  }
  return values;
}();

inline unsigned hex_value(char c) {
  return kDigitValues[static_cast<unsigned char>(c)];
}

inline bool is_blank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

inline bool is_decimal(char c) {
  return c >= '0' && c <= '9';
}

}  // namespace qel
