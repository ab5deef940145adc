#include "escape.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>

namespace {

struct Character {
  std::uint32_t code;
  std::size_t size;  // bytes of UTF-8
};

// The first byte of a character determines its length. A longer form than needed is not valid
// UTF-8.
struct Lead {
  unsigned mask;
  unsigned bits;
  std::size_t size;
  std::uint32_t smallest;
};
constexpr Lead kLeads[] = {
    {0x80, 0x00, 1, 0x00}, {0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}};

struct Range {
  std::uint32_t first;
  std::uint32_t last;
};
constexpr Range kNoCharacters[] = {{0xd800, 0xdfff}, {0x110000, UINT32_MAX}};
constexpr Range kUnprintable[] = {
    {0x00, 0x1f},        // controls
    {0x7f, 0x9f},        // and more controls, which some terminals obey too
    {0x61c, 0x61c},      // a direction mark
    {0x200b, 0x200f},    // zero-width characters and direction marks
    {0x2028, 0x202e},    // line ends and overrides of direction
    {0x2060, 0x206f},    // isolates and invisible operators
    {0xfeff, 0xfeff},    // byte order mark
    {0xe0000, 0xe007f},  // tags
};

template <std::size_t kSize>
bool lies_in(const Range (&ranges)[kSize], std::uint32_t code) {
  return std::any_of(std::begin(ranges), std::end(ranges), [code](const Range& range) {
    return range.first <= code && code <= range.last;
  });
}

unsigned byte_of(char c) {
  return static_cast<unsigned char>(c);
}

// The character at the front of `bytes`, which is not empty.
std::optional<Character> decode_first(std::string_view bytes) {
  const unsigned first = byte_of(bytes.front());
  const auto* lead = std::find_if(std::begin(kLeads), std::end(kLeads), [first](const Lead& known) {
    return (first & known.mask) == known.bits;
  });
  if (lead == std::end(kLeads) || bytes.size() < lead->size) return std::nullopt;
  std::uint32_t code = first & ~lead->mask;
  for (const char c : bytes.substr(1, lead->size - 1)) {
    if ((byte_of(c) & 0xc0) != 0x80) return std::nullopt;
    code = code << 6 | (byte_of(c) & 0x3f);
  }
  if (code < lead->smallest || lies_in(kNoCharacters, code)) return std::nullopt;
  return Character{code, lead->size};
}

void append_hex(std::string& text, std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (const char c : bytes) {
    text += "\\x";
    text += kDigits[byte_of(c) >> 4];
    text += kDigits[byte_of(c) & 0xf];
  }
}

}  // namespace

std::string escape_bytes(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const auto character = decode_first(bytes);
    const std::string_view taken = bytes.substr(0, character ? character->size : 1);
    if (!character || lies_in(kUnprintable, character->code)) {
      append_hex(text, taken);
    } else {
      text += taken == "\\" ? "\\\\" : taken;
    }
    bytes.remove_prefix(taken.size());
  }
  return text;
}

std::string quote_word(std::string_view bytes) {
  const std::string escaped = escape_bytes(bytes);
  if (!escaped.empty() && escaped.find_first_of(" \"'") == escaped.npos) return escaped;
  std::string word = "\"";
  for (const char c : escaped) {
    if (c == '"') word += '\\';
    word += c;
  }
  return word + '"';
}
