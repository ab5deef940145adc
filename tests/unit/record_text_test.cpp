// Reading the text of a record where sixteen characters are looked at together: numbers, ends of
// values, texts in hexadecimal. Whole records are compared with a reference parser in another test.
#include "records/record_text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "guarded_text.h"

namespace {

using namespace std::string_literals;
using test::guarded;

TEST(Numbers, AreReadAsStrtoullReadsThemAlsoAtTheEndOfATextAndBesideSixteenCharacters) {
  const std::string digits = "1029384756aBcDeF2210";
  for (std::size_t length = 0; length <= digits.size(); ++length) {
    for (const std::string& behind : {""s, " "s, " n=1"s, "g"s, " subj=unconfined key=n"s}) {
      const std::string number = digits.substr(0, length);
      const std::string text = "n=" + number + behind;
      const auto expected = [&](int base) { return std::strtoull(number.c_str(), nullptr, base); };
      std::uint64_t hex = 77;
      std::uint32_t decimal = 77;
      std::int32_t any = 77;
      EXPECT_TRUE(qel::FieldWalk(guarded(text)).hex("n=", hex));
      EXPECT_TRUE(qel::FieldWalk(guarded(text)).decimal("n=", decimal));
      EXPECT_TRUE(qel::FieldWalk(guarded(text)).any_base("n=", any));
      EXPECT_EQ(hex, expected(16)) << text;
      EXPECT_EQ(decimal, static_cast<std::uint32_t>(expected(10))) << text;
      EXPECT_EQ(any, static_cast<std::int32_t>(expected(0))) << text;
    }
  }
}

TEST(Values, AreDecodedIntoAnyRoom) {
  const std::pair<std::string, std::string> rows[] = {
      {"\"ls\"", "ls"},  {"\"ls", "ls"},      {"\"", ""},
      {"\"a\"b\"", "a"}, {"\"(x)\"", "(x)"},  {"(null)", "null"},
      {"(a(b)c", "a(b"}, {"(a\"b)", "a\"b"},  {"6c737", "ls"},
      {"", ""},          {"6C7G73", "l"},     {"g6C73", ""},
      {"6100", "a"},     {"C3A9", "\xc3\xa9"}};
  for (const auto& [value, text] : rows) {
    SCOPED_TRACE(value);
    const std::unique_ptr<char, decltype(&std::free)> copy(qel::decode_field_value(guarded(value)),
                                                           std::free);
    EXPECT_EQ(copy.get(), text);
    for (std::size_t room = 1; room <= text.size() + 2; ++room) {
      std::string buffer(text.size() + 3, '~');
      qel::decode_field_value(guarded(value), buffer.data(), room);
      EXPECT_EQ(buffer.c_str(), text.substr(0, room - 1)) << room;
      EXPECT_EQ(buffer.substr(room), std::string(buffer.size() - room, '~')) << room;
    }
  }
}

TEST(Values, InHexadecimalEndAtTheFirstCharacterThatIsNoDigit) {
  const std::string digits = "00112233445566778899AABBccddeeff0F1e2D3c4B5a69788796a5b4C3D2E1F0";
  for (const char other : {'g', 'G', '/', ':', '@', '`', ' ', '\x11', '\xb1', '\0'}) {
    for (std::size_t place = 0; place <= digits.size(); ++place) {
      std::string text = digits;
      if (place < text.size()) text[place] = other;
      std::string expected;
      for (std::size_t i = 0; i + 2 <= place; i += 2)
        expected += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
      std::string bytes(digits.size() / 2, '\xEE');
      bytes.resize(qel::decode_hex(guarded(text), bytes.data(), bytes.size()));
      EXPECT_EQ(bytes, expected) << static_cast<int>(other) << " at " << place;
    }
  }
}

}  // namespace
