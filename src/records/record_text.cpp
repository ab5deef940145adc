#include "records/record_text.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "base/memory.h"

namespace qel {
namespace {

constexpr char kHeader[] = "audit(";
constexpr std::size_t kHeaderLength = sizeof(kHeader) - 1;

const char* skip_blanks(const char* at, const char* end) {
  return std::find_if_not(at, end, is_blank);
}

// Takes a sign off the front. Returns true for a minus.
bool take_sign(const char*& at, const char* end) {
  if (at == end || (*at != '+' && *at != '-')) return false;
  return *at++ == '-';
}

// Takes digits off the front. A number that does not fit becomes the largest one, whatever its
// sign.
std::uint64_t take_digits(const char*& at, const char* end, unsigned base, bool negative) {
  constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t sum = 0;
  bool overflow = false;
  for (; at != end && hex_value(*at) < base; ++at) {
    overflow |= __builtin_mul_overflow(sum, base, &sum);
    overflow |= __builtin_add_overflow(sum, hex_value(*at), &sum);
  }
  if (overflow) return kLargest;
  return negative ? 0 - sum : sum;
}

bool has_hex_prefix(const char* at, const char* end) {
  return end - at > 2 && at[0] == '0' && (at[1] | 0x20) == 'x' && hex_value(at[2]) < 16;
}

// Reads a number as scanf(3)'s "%u" does. Returns false when there are no digits.
bool scan_number(const char*& at, const char* end, std::uint64_t& number) {
  at = skip_blanks(at, end);
  const bool negative = take_sign(at, end);
  if (at == end || !is_decimal(*at)) return false;
  number = take_digits(at, end, 10, negative);
  return true;
}

bool scan_character(const char*& at, const char* end, char expected) {
  if (at == end || *at != expected) return false;
  ++at;
  return true;
}

// Reads the text between the parentheses as scanf(3)'s "%*u.%*u:%u" would.
bool scan_stamp(std::string_view stamp, std::uint32_t& serial) {
  const char* at = stamp.data();
  const char* const end = at + stamp.size();
  std::uint64_t number = 0;
  if (!scan_number(at, end, number) || !scan_character(at, end, '.')) return false;
  if (!scan_number(at, end, number) || !scan_character(at, end, ':')) return false;
  if (!scan_number(at, end, number)) return false;
  serial = static_cast<std::uint32_t>(number);
  return true;
}

// Takes decimal digits off the front. Returns how many there were; the number is right when there
// are at most ten.
std::ptrdiff_t take_plain_digits(const char*& at, const char* end, std::uint64_t& number) {
  const char* const from = at;
  number = 0;
  for (; at != end && is_decimal(*at); ++at) number = number * 10 + hex_value(*at);
  return at - from;
}

// Reads a header exactly as the kernel writes it.
bool read_plain_header(std::string_view text, std::uint32_t& serial, std::string_view& header) {
  constexpr std::ptrdiff_t kMaxDigits = 10;
  const char* const end = text.data() + text.size();
  if (!stands_at(text.data(), end, kHeader)) return false;
  const char* at = text.data() + kHeaderLength;
  std::uint64_t number = 0;
  if (take_plain_digits(at, end, number) == 0 || !scan_character(at, end, '.')) return false;
  if (take_plain_digits(at, end, number) == 0 || !scan_character(at, end, ':')) return false;
  const std::ptrdiff_t digits = take_plain_digits(at, end, number);
  if (digits == 0 || digits > kMaxDigits) return false;
  if (!scan_character(at, end, ')') || !scan_character(at, end, ':')) return false;
  serial = static_cast<std::uint32_t>(number);
  header = text.substr(0, static_cast<std::size_t>(at - text.data()));
  return true;
}

bool is_hexadecimal(std::string_view value) {
  return value.empty() || (value.front() != '"' && value.front() != '(');
}

// The part of a value after its opening character, up to the closing one if there is one.
std::string_view inside(std::string_view value) {
  const char closing = value.front() == '"' ? '"' : ')';
  value.remove_prefix(1);
  return value.substr(0, value.find(closing));
}

// Whether a name of three letters, without its "=", lies right before `equals` and does not begin
// before `from`.
bool stands_before(const char* equals, const char* from, const char (&name)[4]) {
  return equals - from >= 3 && std::memcmp(equals - 3, name, 3) == 0;
}

const char* find_character(const char* from, const char* end, char wanted) {
  if (from == end) return nullptr;
  return static_cast<const char*>(std::memchr(from, wanted, static_cast<std::size_t>(end - from)));
}

}  // namespace

bool parse_serial(std::string_view text, std::uint32_t& serial, std::string_view& header) {
  if (read_plain_header(text, serial, header)) [[likely]]
    return true;
  header = {};
  const std::size_t place = text.find(kHeader);
  if (place == text.npos) return false;
  const std::string_view stamp = text.substr(place + kHeaderLength);
  return scan_stamp(stamp.substr(0, stamp.find(')')), serial);
}

std::uint64_t to_number(std::string_view value, int base) {
  const char* const end = value.data() + value.size();
  const char* at = skip_blanks(value.data(), end);
  const bool negative = take_sign(at, end);
  if ((base == 16 || base == 0) && has_hex_prefix(at, end)) {
    at += 2;
    base = 16;
  }
  if (base == 0) base = at != end && *at == '0' ? 8 : 10;
  return take_digits(at, end, static_cast<unsigned>(base), negative);
}

std::size_t decode_hex(std::string_view source, void* destination, std::size_t room) {
  auto* const to = static_cast<std::uint8_t*>(destination);
  const char* const from = source.data();
  const std::size_t most = std::min(source.size() / 2, room);
  std::size_t written = 0;
  for (constexpr std::size_t kBytes = sizeof(HexDigits::bytes); most - written >= kBytes;) {
    const HexDigits digits = read_hex_digits(from + 2 * written);
    if (digits.count < kSixteen) break;
    std::memcpy(to + written, digits.bytes, kBytes);
    written += kBytes;
  }
  for (; written < most; ++written) {
    const unsigned high = hex_value(from[2 * written]);
    const unsigned low = hex_value(from[2 * written + 1]);
    if ((high | low) > 0xF) break;
    to[written] = static_cast<std::uint8_t>(high << 4 | low);
  }
  return written;
}

void decode_field_value(std::string_view value, char* destination, std::size_t room) {
  if (is_hexadecimal(value)) {
    destination[decode_hex(value, destination, room - 1)] = '\0';
    return;
  }
  const std::string_view text = inside(value).substr(0, room - 1);
  std::memmove(destination, text.data(), text.size());
  destination[text.size()] = '\0';
}

char* decode_field_value(std::string_view value) {
  if (!is_hexadecimal(value)) return copy_of(inside(value));
  const std::size_t room = value.size() / 2 + 1;
  auto* text = static_cast<char*>(std::malloc(room));
  if (text != nullptr) text[decode_hex(value, text, room - 1)] = '\0';
  return text;
}

const char* find_field(const char* from, const char* end, std::string_view name) {
  const auto length = static_cast<std::ptrdiff_t>(name.size());
  while (end - from >= length) {
    from = find_character(from, end - length + 1, name.front());
    if (from == nullptr || std::memcmp(from, name.data(), name.size()) == 0) return from;
    ++from;
  }
  return nullptr;
}

const char* find_key(const char* from, const char* end) {
  const char* at = from;
  while ((at = find_character(at, end, '=')) != nullptr) {
    if (stands_before(at, from, "key")) return at - std::strlen("key");
    if (stands_before(at, from, "exe")) {
      from = end_of_value(at + 1, end);
      at = from;
    } else {
      ++at;
    }
  }
  return nullptr;
}

}  // namespace qel
