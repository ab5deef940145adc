// Reading the text of a record: numbers as libc reads them, values decoded, keys found. How
// fields are found in whole records is compared with a reference parser in another test.
#include "records/record_text.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "guarded_text.h"

namespace {

using namespace std::string_literals;

using test::guarded;

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c != '|') parts.back() += c;
    if (c == '|') parts.emplace_back();
  }
  return parts;
}

TEST(Numbers, AreReadAsStrtoullReadsThem) {
  const std::string numbers =
      "|0|00|7|08|017|-13|+13|--1|-|+|\t5|\v\f\r\n5|\t-\t5|12abc|abc12|ffffffffffffff9c|FfFf|g|0x|"
      "0X1F|0xg|-0x1f|0x-1|x1|1x|9999999999999999|99999999999999999|4294967295|4294967296|"
      "2147483648|-2147483649|18446744073709551615|18446744073709551616|-18446744073709551615|"
      "-18446744073709551616|00000000000000000000000012|1ffffffffffffffff|10000000000000000|\xff|"
      "1.5|3(|5\t6|1\"";
  for (const std::string& number : split(numbers)) {
    for (const std::string& behind : {""s, " "s, " n=1"s, " subj=unconfined key=n"s}) {
      SCOPED_TRACE(testing::PrintToString(number + behind));
      const auto expected = [&](int base) { return std::strtoull(number.c_str(), nullptr, base); };
      EXPECT_EQ(qel::to_number(guarded(number), 0), expected(0));
      const std::string_view text = guarded("n=" + number + behind);
      std::uint64_t hex = 77;
      std::uint32_t decimal = 77;
      std::int32_t any = 77;
      EXPECT_TRUE(qel::FieldWalk(text).hex("n=", hex) &&
                  qel::FieldWalk(text).decimal("n=", decimal) &&
                  qel::FieldWalk(text).any_base("n=", any));
      EXPECT_EQ(hex, expected(16));
      EXPECT_EQ(decimal, static_cast<std::uint32_t>(expected(10)));
      EXPECT_EQ(any, static_cast<std::int32_t>(expected(0)));
    }
  }
}

TEST(Serial, IsReadAsScanfReadsIt) {
  const std::string stamps =
      "1714557610.448:95|1.0:0|0.0:4294967295|1.0:4294967296|1.0:99999999999|1.0:-1|1.0:+5|"
      "1.0:18446744073709551616|1.0: \t5| 1.\n0:5|-1.+2:3|1 .0:5|1.0 :5|1,0:5|1.0;5|1:5|.0:5|1.:5|"
      "1.0:|1.0|1.0:x|1.0:5x|1.0:5.6|99999999999999999999.1:7|1.0:0000000000000000000000008|"
      "1.0:0x10|";
  for (const std::string& stamp : split(stamps)) {
    std::uint32_t expected = 77;
    const bool readable = std::sscanf(stamp.c_str(), "%*u.%*u:%u", &expected) == 1;
    for (const std::string& before : {"audit("s, "xaudit("s, "audit audit("s, "audi("s, ""s}) {
      for (const std::string& behind : {"): arch="s, ")"s, ") "s, ")5: "s, ""s}) {
        const std::string text = before + stamp + behind;
        SCOPED_TRACE(testing::PrintToString(text));
        std::uint32_t serial = 77;
        std::string_view header;
        const bool good = readable && before.ends_with("audit(");
        ASSERT_EQ(qel::parse_serial(guarded(text), serial, header), good);
        if (!good) continue;
        EXPECT_EQ(serial, expected);
        // Whoever begins with the same header has the same serial, and no field in it.
        ASSERT_TRUE(text.starts_with(header));
        EXPECT_TRUE(header.empty() || header.ends_with("):")) << header;
        EXPECT_EQ(header.find('='), header.npos);
      }
    }
  }
}

TEST(Values, AreDecodedIntoAnyRoom) {
  const std::pair<std::string, std::string> rows[] = {
      {"\"ls\"", "ls"},   {"\"ls", "ls"},     {"\"\"", ""},        {"\"", ""},
      {"\"a\"b\"", "a"},  {"\"(x)\"", "(x)"}, {"(null)", "null"},  {"(null", "null"},
      {"(a(b)c)", "a(b"}, {"()", ""},         {"(a\"b)", "a\"b"},  {"6C73", "ls"},
      {"6c73", "ls"},     {"612062", "a b"},  {"6C737", "ls"},     {"6", ""},
      {"", ""},           {"6C7G73", "l"},    {"6C\"73\"", "l"},   {"g6C73", ""},
      {"6100", "a"},      {"?", ""},          {"C3A9", "\xc3\xa9"}};
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

TEST(Values, EndAtTheFirstCharacterThatIsNoDigit) {
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

TEST(Fields, KeyInTheProgramsPathDoesNotCount) {
  const std::pair<std::string, std::string_view> rows[] = {
      {" exe=\"/bin/ls\" subj=x key=\"k\"", "\"k\""},
      {" key=\"k\" exe=\"/bin/ls\"", "\"k\""},
      {" exe=\"/key=a/ls\" key=\"k\"", "\"k\""},
      {" exe=a=key=a key=b", "b"},
      {" exe=\"/key=a/ls\"", "none"},
      {" exe=\"/exe=key=a/key=b\" key=c", "c"},
      {" exe=\"/x\" exe=\"key=a\" key=c", "c"},
      {" exe=\"/x\" monkey=a key=b", "a"},
      {" exe= key=a", "a"},
      {" exe=", "none"},
      {"key=", ""},
      {"ey=a", "none"},
      {" exe=\"key=a\tkey=b\" key=c", "c"}};
  for (const auto& [text, expected] : rows) {
    std::string_view value = "none";
    qel::FieldWalk(guarded(text)).key(value);
    EXPECT_EQ(value, expected) << text;
  }
}

}  // namespace
