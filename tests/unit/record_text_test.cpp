// Reading the text of a record: numbers as libc reads them, values decoded, fields found in order.
//
// Texts stand in blocks of their own size, so that the address sanitizer sees every read beyond.
#include "record_text.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using namespace std::string_literals;

class Block {
 public:
  explicit Block(std::string_view text) : bytes_(text.begin(), text.end()) {}
  std::string_view view() const { return {bytes_.data(), bytes_.size()}; }
  const char* begin() const { return bytes_.data(); }
  const char* end() const { return bytes_.data() + bytes_.size(); }
  qel::FieldWalk walk() const { return qel::FieldWalk(view()); }

 private:
  const std::vector<char> bytes_;
};

const std::string kNumbers[] = {"",
                                "0",
                                "00",
                                "7",
                                "08",
                                "017",
                                "-13",
                                "+13",
                                "--1",
                                "-",
                                "+",
                                "\t5",
                                "\v\f\r\n5",
                                "\t-\t5",
                                "12abc",
                                "abc12",
                                "ffffffffffffff9c",
                                "FfFf",
                                "g",
                                "0x",
                                "0X1F",
                                "0xg",
                                "-0x1f",
                                "0x-1",
                                "x1",
                                "1x",
                                "0b11",
                                "9999999999999999",
                                "99999999999999999",
                                "4294967295",
                                "4294967296",
                                "2147483648",
                                "-2147483649",
                                "18446744073709551615",
                                "18446744073709551616",
                                "-18446744073709551615",
                                "-18446744073709551616",
                                "00000000000000000000000012",
                                "1ffffffffffffffff",
                                "10000000000000000",
                                "\xff",
                                "1.5",
                                "3(",
                                "5\t6",
                                "1\""};

TEST(Numbers, AreReadAsStrtoullReadsThem) {
  for (const std::string& number : kNumbers) {
    for (const int base : {10, 16, 0}) {
      EXPECT_EQ(qel::to_number(Block(number).view(), base),
                std::strtoull(number.c_str(), nullptr, base))
          << testing::PrintToString(number) << " in base " << base;
    }
  }
}

TEST(Numbers, OfFieldsAreReadAsStrtoullReadsThem) {
  for (const std::string& number : kNumbers) {
    for (const std::string& behind : {""s, " "s, " n=1"s}) {
      const std::string text = "n=" + number + behind;
      SCOPED_TRACE(testing::PrintToString(text));
      const Block block(text);
      std::uint64_t wide = 77;
      std::uint32_t narrow_hex = 77;
      std::uint32_t decimal = 77;
      std::int32_t any = 77;
      EXPECT_TRUE(block.walk().hex("n=", wide));
      EXPECT_TRUE(block.walk().hex("n=", narrow_hex));
      EXPECT_TRUE(block.walk().decimal("n=", decimal));
      EXPECT_TRUE(block.walk().any_base("n=", any));
      const auto expected = [&](int base) { return std::strtoull(number.c_str(), nullptr, base); };
      EXPECT_EQ(wide, expected(16));
      EXPECT_EQ(narrow_hex, static_cast<std::uint32_t>(expected(16)));
      EXPECT_EQ(decimal, static_cast<std::uint32_t>(expected(10)));
      EXPECT_EQ(any, static_cast<std::int32_t>(expected(0)));
    }
  }
}

// ---- Header ------------------------------------------------------------------------------------

TEST(Serial, IsReadAsScanfReadsIt) {
  const std::string stamps[] = {"1714557610.448:95",
                                "1.0:0",
                                "0.0:4294967295",
                                "1.0:4294967296",
                                "1.0:99999999999",
                                "1.0:18446744073709551616",
                                "1.0:-1",
                                "1.0:+5",
                                "1.0: \t5",
                                " 1.\n0:5",
                                "-1.+2:3",
                                "1 .0:5",
                                "1.0 :5",
                                "1,0:5",
                                "1.0;5",
                                "1:5",
                                ".0:5",
                                "1.:5",
                                "1.0:",
                                "1.0",
                                "1.0:x",
                                "1.0:5x",
                                "1.0:5.6",
                                "99999999999999999999.1:7",
                                "1.0:0000000000000000000000008",
                                "1.0:0x10",
                                ""};
  for (const std::string& stamp : stamps) {
    std::uint32_t expected = 77;
    const bool readable = std::sscanf(stamp.c_str(), "%*u.%*u:%u", &expected) == 1;
    for (const std::string& behind : {"): arch="s, ")"s, ") "s, ")5: "s, ""s}) {
      for (const std::string& before : {""s, "x"s, "audit audit"s}) {
        const std::string text = before + "audit(" + stamp + behind;
        SCOPED_TRACE(testing::PrintToString(text));
        const Block block(text);
        std::uint32_t serial = 77;
        std::string_view header;
        ASSERT_EQ(qel::read_serial(block.view(), serial, header), readable);
        if (!readable) continue;
        EXPECT_EQ(serial, expected);
        // Whoever begins with the same header has the same serial, and no field in it.
        ASSERT_TRUE(text.starts_with(header));
        EXPECT_TRUE(header.empty() || header.ends_with("):")) << header;
        EXPECT_EQ(header.find('='), header.npos);
      }
    }
  }
}

TEST(Serial, IsMissingWithoutHeader) {
  for (const std::string_view text : {"", "a", "audit", "audi(1.0:5): ", "Audit(1.0:5): "}) {
    std::uint32_t serial = 0;
    std::string_view header;
    EXPECT_FALSE(qel::read_serial(Block(text).view(), serial, header)) << text;
  }
}

// ---- Values ------------------------------------------------------------------------------------

struct Decoded {
  std::string_view value;
  std::string_view text;
};
constexpr Decoded kDecoded[] = {
    {"\"ls\"", "ls"},
    {"\"ls", "ls"},
    {"\"\"", ""},
    {"\"", ""},
    {"\"a\"b\"", "a"},
    {"\"(x)\"", "(x)"},
    {"(null)", "null"},
    {"(null", "null"},
    {"(a(b)c)", "a(b"},
    {"()", ""},
    {"(", ""},
    {"(a\"b)", "a\"b"},
    {"6C73", "ls"},
    {"6c73", "ls"},
    {"612062", "a b"},
    {"6C737", "ls"},
    {"6", ""},
    {"", ""},
    {"6C7G73", "l"},
    {"g6C73", ""},
    {"6C\"73\"", "l"},
    {"6100", "a"},
    {"C3A9", "\xc3\xa9"},
    {"?", ""},
};

TEST(Values, AreDecodedInAllTheirForms) {
  for (const Decoded& row : kDecoded) {
    SCOPED_TRACE(row.value);
    const Block block(row.value);
    const std::unique_ptr<char, decltype(&std::free)> text(qel::decode_field_value(block.view()),
                                                           std::free);
    EXPECT_STREQ(text.get(), row.text.data());
    for (std::size_t room = 1; room <= row.text.size() + 2; ++room) {
      std::vector<char> buffer(room, '#');
      qel::decode_field_value(block.view(), buffer.data(), room);
      EXPECT_STREQ(buffer.data(), std::string(row.text.substr(0, room - 1)).c_str()) << room;
    }
  }
}

TEST(Values, InDigitsFillNoMoreThanTheRoom) {
  const std::pair<std::string, std::string> rows[] = {{"", ""},
                                                      {"0", ""},
                                                      {"0g01", ""},
                                                      {"000102ff", "\x00\x01\x02\xff"s},
                                                      {"00010", "\x00\x01"s},
                                                      {"01 02", "\x01"s},
                                                      {"0102030", "\x01\x02\x03"s},
                                                      {"01020304f", "\x01\x02\x03\x04"s},
                                                      {"0102030405", "\x01\x02\x03\x04"s}};
  for (const auto& [digits, expected] : rows) {
    std::vector<char> room(4, '#');
    const std::size_t written = qel::decode_hex(Block(digits).view(), room.data(), room.size());
    EXPECT_EQ(std::string(room.data(), written), expected) << digits;
    EXPECT_EQ(std::string(room.data() + written, 4 - written), std::string(4 - written, '#'));
  }
}

TEST(Values, OfADigitAreThoseOfStrtoul) {
  for (int c = 0; c < 256; ++c) {
    const char digit[] = {static_cast<char>(c), '\0'};
    const unsigned value = qel::digit_value(digit[0]);
    EXPECT_EQ(value == qel::kNoDigit ? 0 : value, std::strtoul(digit, nullptr, 16)) << c;
    EXPECT_EQ(value != qel::kNoDigit, std::isxdigit(c) != 0) << c;
  }
}

// ---- Fields ------------------------------------------------------------------------------------

TEST(Fields, AreFoundAnywhereInAWord) {
  const Block block("xname=1 name=2");
  EXPECT_EQ(qel::find_field(block.begin(), block.end(), "name=") - block.begin(), 1);
  EXPECT_EQ(qel::find_field(block.begin() + 2, block.end(), "name=") - block.begin(), 8);
  EXPECT_EQ(qel::find_field(block.begin(), block.end(), " name=") - block.begin(), 7);
  EXPECT_EQ(qel::find_field(block.begin() + 9, block.end(), "name="), nullptr);
  const Block cut("a name");
  EXPECT_EQ(qel::find_field(cut.begin(), cut.end(), "name="), nullptr);
  EXPECT_EQ(qel::find_field(cut.end(), cut.end(), "name="), nullptr);
}

TEST(Fields, AreWalkedFromLeftToRight) {
  const Block block(": a=1 b=2 a=3 ppid=4 pid=5 c=6");
  qel::FieldWalk fields = block.walk();
  std::uint32_t number = 77;
  std::string_view text = "kept";
  EXPECT_FALSE(fields.decimal("f=", number));
  EXPECT_FALSE(fields.text("e=", text));
  EXPECT_EQ(number, 77U);
  EXPECT_EQ(text, "kept");
  ASSERT_TRUE(fields.decimal("b=", number));
  EXPECT_EQ(number, 2U);
  ASSERT_TRUE(fields.decimal("a=", number));  // the second one: the first lies behind
  EXPECT_EQ(number, 3U);
  EXPECT_FALSE(fields.decimal("b=", number));
  ASSERT_TRUE(fields.decimal(" pid=", number));
  EXPECT_EQ(number, 5U);
  ASSERT_TRUE(fields.text("c=", text));
  EXPECT_EQ(text, "6");
  EXPECT_FALSE(fields.text("c=", text));
}

TEST(Fields, AreFoundInsideOtherValuesToo) {
  const Block block("x=a=5 a=6");
  std::uint64_t number = 0;
  ASSERT_TRUE(block.walk().hex("a=", number));
  EXPECT_EQ(number, 5U);
}

struct KeyPlace {
  std::string_view text;
  std::string_view value;  // "none" when no key counts
};
constexpr KeyPlace kKeyPlaces[] = {
    {" exe=\"/bin/ls\" subj=x key=\"k\"", "\"k\""},
    {" key=\"k\" exe=\"/bin/ls\"", "\"k\""},
    {" exe=\"/key=a/ls\" key=\"k\"", "\"k\""},
    {" exe=key=a key=b", "b"},
    {" exe=a=key=a key=b", "b"},
    {" exe=\"/key=a/ls\"", "none"},
    {" exe=\"/exe=key=a/key=b\" key=c", "c"},
    {" exe=\"/x\" exe=\"key=a\" key=c", "c"},
    {" exe=exe=key=a", "none"},
    {" subj=key=a exe=\"/x\" key=b", "a"},
    {" exe=\"/x\" subj=key=a key=b", "a"},
    {" monkey=a key=b", "a"},
    {" exe= key=a", "a"},
    {" exe=", "none"},
    {" exe", "none"},
    {"key=", ""},
    {" key", "none"},
    {"", "none"},
    {" exe=\"key=a\tkey=b\" key=c", "c"},
};

TEST(Fields, KeyInTheProgramsPathDoesNotCount) {
  for (const KeyPlace& row : kKeyPlaces) {
    const Block block(row.text);
    std::string_view value = "none";
    block.walk().key(value);
    EXPECT_EQ(value, row.value) << row.text;
  }
}

}  // namespace
