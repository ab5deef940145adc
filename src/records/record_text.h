// Reading the text of an audit record: header, fields, numbers and encoded values.
//
// These are pure functions of a text and a place in it; they log, keep and change nothing. A field
// is found by plain substring search for its name, and its value ends at the next space. The kernel
// writes fields in a fixed order, each after one space. So the next field is first looked for right
// where the last one ended, and searched for only when it is not there. A record is therefore read
// about once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "records/digits.h"
#include "records/sixteen_chars.h"

namespace qel {

// Reads the serial of "audit(SECONDS.MILLISECONDS:SERIAL)". Returns whether there is a readable
// one. When the text begins as the kernel writes it, `header` becomes the front of the text up to
// and including the colon after the parenthesis; otherwise it is empty. Two records with the same
// header have the same serial.
bool parse_serial(std::string_view text, std::uint32_t& serial, std::string_view& header);

// Converts as strtoull(3) does: leading blanks, a sign, a prefix for base 16 and base 0, and digits
// up to the first other character. A number that does not fit gives the largest one; no digits give
// 0.
std::uint64_t to_number(std::string_view value, int base);

// Decodes pairs of hexadecimal digits from the start of `source` into at most `room` bytes. An odd
// last digit is ignored. Returns the number of bytes. No terminator is written.
std::size_t decode_hex(std::string_view source, void* destination, std::size_t room);

// Stores the text that a value stands for: the part inside quotes or parentheses, or the bytes that
// hexadecimal digits encode. Terminates it and cuts it to `room` bytes, which must be at least 1
// and include the terminator. The destination may be the place of the value itself.
void decode_field_value(std::string_view value, char* destination, std::size_t room);

// The same, as a new text in malloc(3) storage. Returns null when memory is exhausted.
char* decode_field_value(std::string_view value);

// The place of the first `name` at or after `from`, or null.
const char* find_field(const char* from, const char* end, std::string_view name);

// The place of the first "key=" at or after `from` that is not part of the value of "exe=", or
// null. The kernel writes exe before key and does not escape "=", so a program's path could pose as
// a key.
const char* find_key(const char* from, const char* end);

inline const char* end_of_value(const char* from, const char* end) {
  if (end - from >= kSixteen) [[likely]] {
    const unsigned length = count_before_space(from);
    from += length;
    if (length < kSixteen) return from;
  }
  if (from == end) return end;
  const void* space = std::memchr(from, ' ', static_cast<std::size_t>(end - from));
  return space != nullptr ? static_cast<const char*>(space) : end;
}

template <std::size_t Size>
bool stands_at(const char* at, const char* end, const char (&literal)[Size]) {
  return end - at >= static_cast<std::ptrdiff_t>(Size - 1) &&
         std::memcmp(at, literal, Size - 1) == 0;
}

// Walks the fields of a record from left to right. Each reader looks for its field, whose name is a
// literal, after the value of the last field found. When there is none, it leaves its result and
// the place unchanged.
class FieldWalk {
 public:
  explicit FieldWalk(std::string_view text) : at_(text.data()), end_(at_ + text.size()) {}

  template <std::size_t Size, typename Number>
  bool hex(const char (&name)[Size], Number& result) {
    return number<16>(find(name), result);
  }

  template <std::size_t Size>
  bool decimal(const char (&name)[Size], std::uint32_t& result) {
    return number<10>(find(name), result);
  }

  // A number in any base that strtoull(3) recognises with base 0.
  template <std::size_t Size>
  bool any_base(const char (&name)[Size], std::int32_t& result) {
    const char* const from = find(name);
    if (from == nullptr) return false;
    if (from != end_ && *from >= '1' && *from <= '9') return number<10>(from, result);
    std::string_view value;
    take_value(from, value);
    result = static_cast<std::int32_t>(to_number(value, 0));
    return true;
  }

  template <std::size_t Size>
  bool text(const char (&name)[Size], std::string_view& value) {
    return take_value(find(name), value);
  }

  bool key(std::string_view& value) {
    const char* name = find_key(at_, end_);
    return take_value(name == nullptr ? nullptr : name + std::strlen("key="), value);
  }

  // Steps over an unneeded field if it comes next. Its value cannot match the name looked for next,
  // which must begin with a blank.
  template <std::size_t Size>
  void skip(const char (&name)[Size]) {
    if (const char* value = find_next(name)) at_ = end_of_value(value, end_);
  }

 private:
  // The place of the value if the field comes next, or null.
  template <std::size_t Size>
  const char* find_next(const char (&name)[Size]) const {
    if (at_ == end_ || *at_ != ' ') return nullptr;
    const char* const at = name[0] == ' ' ? at_ : at_ + 1;
    return stands_at(at, end_, name) ? at + Size - 1 : nullptr;
  }

  // The place of the field's value, or null.
  template <std::size_t Size>
  const char* find(const char (&name)[Size]) const {
    if (const char* next = find_next(name)) [[likely]]
      return next;
    const char* found = find_field(at_, end_, {name, Size - 1});
    return found == nullptr ? nullptr : found + Size - 1;
  }

  bool take_value(const char* from, std::string_view& value) {
    if (from == nullptr) return false;
    at_ = end_of_value(from, end_);
    value = {from, static_cast<std::size_t>(at_ - from)};
    return true;
  }

  // Digits up to the space are read here; anything else is converted as strtoull(3) does.
  template <int Base, typename Number>
  bool number(const char* from, Number& result) {
    if (from == nullptr) return false;
    std::uint64_t plain = 0;
    const char* const behind =
        from + (Base == 16 ? hex_digits(from, plain) : decimal_digits(from, plain));
    if (behind != end_ && *behind == ' ' && behind != from) [[likely]] {
      at_ = behind;
      result = static_cast<Number>(plain);
      return true;
    }
    std::string_view value;
    take_value(from, value);
    result = static_cast<Number>(to_number(value, Base));
    return true;
  }

  // Reads digits at `from`. Returns how many there are. Returns 0 near the end of the text as well,
  // where sixteen characters cannot be read.
  unsigned hex_digits(const char* from, std::uint64_t& number) const {
    if (end_ - from < kSixteen) return 0;
    const HexDigits digits = read_hex_digits(from);
    if (digits.count != 0) number = number_of(digits);
    return digits.count;
  }

  // The same for decimal digits. Reads only as many digits as are sure to fit.
  unsigned decimal_digits(const char* from, std::uint64_t& number) const {
    constexpr std::ptrdiff_t kSafeDigits = 19;
    const char* const last = end_ - from > kSafeDigits ? from + kSafeDigits : end_;
    const char* at = from;
    for (; at != last; ++at) {
      const auto digit = static_cast<unsigned char>(*at - '0');
      if (digit > 9) break;
      number = number * 10 + digit;
    }
    return static_cast<unsigned>(at - from);
  }

  const char* at_;
  const char* const end_;
};

}  // namespace qel
