// Reading sixteen characters of a text at a time. Nearly every value of a record is shorter than
// that, and values of all lengths follow each other. A plain loop would cost several instructions
// per character and end with a branch that processors mispredict.
#pragma once

#include <endian.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#else
#include <algorithm>

#include "records/digits.h"
#endif

namespace qel {

inline constexpr std::ptrdiff_t kSixteen = 16;

// What hexadecimal digits at the front of sixteen characters stand for.
struct HexDigits {
  unsigned count;
  std::uint8_t bytes[8];  // one per pair of digits; an odd last digit fills the upper half
};

#ifdef __SSE2__

// The number of characters before the first space of the sixteen at `at`; 16 when there is none.
inline unsigned count_before_space(const char* at) {
  const __m128i chars = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
  const auto spaces =
      static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chars, _mm_set1_epi8(' '))));
  return static_cast<unsigned>(std::countr_zero(spaces | 0x10000U));
}

// Reads the digits that the sixteen characters at `at` begin with.
inline HexDigits read_hex_digits(const char* at) {
  const __m128i chars = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
  const __m128i decimal = _mm_sub_epi8(chars, _mm_set1_epi8('0'));
  const __m128i letter = _mm_sub_epi8(_mm_or_si128(chars, _mm_set1_epi8(0x20)), _mm_set1_epi8('a'));
  const __m128i is_decimal = _mm_cmpeq_epi8(decimal, _mm_min_epu8(decimal, _mm_set1_epi8(9)));
  const __m128i is_letter = _mm_cmpeq_epi8(letter, _mm_min_epu8(letter, _mm_set1_epi8(5)));
  const auto is_digit =
      static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(is_decimal, is_letter)));

  const __m128i values =
      _mm_or_si128(_mm_and_si128(is_decimal, decimal),
                   _mm_and_si128(is_letter, _mm_add_epi8(letter, _mm_set1_epi8(10))));
  const __m128i pairs = _mm_or_si128(_mm_slli_epi16(values, 4), _mm_srli_epi16(values, 8));
  const __m128i bytes =
      _mm_packus_epi16(_mm_and_si128(pairs, _mm_set1_epi16(0xFF)), _mm_setzero_si128());
  HexDigits digits = {.count = static_cast<unsigned>(std::countr_one(is_digit)), .bytes = {}};
  _mm_storel_epi64(reinterpret_cast<__m128i*>(digits.bytes), bytes);
  return digits;
}

#else

inline unsigned count_before_space(const char* at) {
  return static_cast<unsigned>(std::find(at, at + kSixteen, ' ') - at);
}

inline HexDigits read_hex_digits(const char* at) {
  HexDigits digits = {};
  for (; digits.count < kSixteen; ++digits.count) {
    const unsigned value = hex_value(at[digits.count]);
    if (value == kNoDigit) break;
    digits.bytes[digits.count / 2] |=
        static_cast<std::uint8_t>(digits.count % 2 == 0 ? value << 4 : value);
  }
  return digits;
}

#endif

// The number that the digits stand for. There must be at least one digit.
inline std::uint64_t number_of(const HexDigits& digits) {
  std::uint64_t word;
  std::memcpy(&word, digits.bytes, sizeof(word));
  return be64toh(word) >> (64 - 4 * digits.count);
}

}  // namespace qel
