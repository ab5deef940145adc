// Argument lists put together from EXECVE records. Many more are compared with a reference parser
// in another test.
#include "records/execve_args.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "audit_msg.h"

namespace {

using Texts = std::vector<std::string>;

// A context of its own, whose argument buffers the address sanitizer guards.
class Assembly {
 public:
  Assembly() = default;
  ~Assembly() { clear_audit_ctx(&ctx); }
  Assembly(const Assembly&) = delete;
  Assembly& operator=(const Assembly&) = delete;

  // The fields stand behind a header, in a block of their own size.
  bool add(const std::string& fields) {
    const std::string text = "audit(1.000:7): " + fields;
    const std::vector<char> block(text.begin(), text.end());
    return add_execve_args(ctx, {block.data(), block.size()});
  }

  // "-" stands for a slot without text.
  Texts arguments() const {
    Texts texts;
    for (std::int32_t i = 0; ctx.argv != nullptr && i < ctx.argc; ++i)
      texts.emplace_back(ctx.argv[i] != nullptr ? ctx.argv[i] : "-");
    return texts;
  }

  audit_ctx ctx = {};
};

struct Case {
  Texts records;
  Texts arguments;
  int filled;    // slots below arg_index
  int left = 0;  // arg_left
};

TEST(ExecveArguments, AreReassembled) {
  const Case cases[] = {
      {{"argc=3 a0=\"a1=x\" a1=612062 a2="}, {"a1=x", "a b", ""}, 3},
      {{"a0=\"no\" argc=3 a0=\"x\"", " a1=\"y\" a2=\"z\""}, {"x", "y", "z"}, 3},
      {{"argc=1 a0=\"x\" a1=\"y\"", "argc=2 a0=\"z\""}, {"x"}, 1},
      // Missing slots, and fields that are no argument's.
      {{"argc=5 a0=\"x\" a3=\"y\""}, {"x", "", "", "y", "-"}, 4},
      {{"argc=3 a2=\"z\" a0=\"x\" a1=\"y\""}, {"x", "y", "-"}, 2},
      {{"argc=2 b0=x a=1 ax=2 a0 a0] =a0 a0=\"x\" a-=1  a1=\"y\""}, {"x", "y"}, 2},
      // A word counts as an argument's with any number that scanf's "%d" takes.
      {{"argc=2 a00=\"x\" b", "a0=\"y\""}, {"", ""}, 2},
      {{"argc=2 a \r-5=\"x\" a1=\"y\""}, {"", "y"}, 2},
      // Split arguments.
      {{"argc=1 a0_len=10 a0[0]=\"abcde\" a0[1]=\"fghij\""}, {"abcdefghij"}, 1},
      {{"argc=2 a0_len=6", "a0[0]=612", "a0[1]=062 a1=\"y\""}, {"a b", "y"}, 2},
      {{"argc=1 a0_len=6 a0[0]=\"ab\" a0[2]=\"ef\" a0[1]=\"cd\"", "a0[2]=\"ef\""}, {"abcdef"}, 1},
      {{"argc=2 a0_len=9 a0[5]=61 a1_len=4 a1[9]=62 xa1[0]=6162"}, {"", "ab"}, 2},
      {{"argc=2 a0_len=3 a0[0]=\"abcdefgh\" a0[1]=\"no\" a1=\"y\""}, {"abc", "y"}, 2},
      {{"argc=1 a0_len=2 a0[0]=\" a0[1]=\"ab"}, {"ab"}, 0, 2},
      // Another argument's field ends a split one.
      {{"argc=2 a0_len=9 a0[0]=\"ab\" a1_len=2 a1[0]=\"cd\""}, {"\"ab\"", "cd"}, 2},
      {{"argc=2 a0_len=9 a0_len=2 a0[0]=\"ab\" a1=\"y\""}, {"", ""}, 2},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.records.front());
    Assembly list;
    for (const std::string& record : row.records) EXPECT_TRUE(list.add(record));
    EXPECT_EQ(list.arguments(), row.arguments);
    EXPECT_EQ(list.ctx.arg_index, row.filled);
    EXPECT_EQ(list.ctx.arg_left, row.left);
  }
}

TEST(ExecveArguments, AreRefusedWithACountOrLengthThatIsNotPositive) {
  for (const std::string number : {"0", "", "x", "4294967296", "-1", "2147483648"}) {
    SCOPED_TRACE(number);
    const bool negative = number == "-1" || number == "2147483648";
    Assembly list;
    EXPECT_FALSE(list.add("argc=" + number));
    EXPECT_TRUE(list.add("argc=1 a0=\"y\""));
    complete_execve_args(list.ctx);
    EXPECT_EQ(list.arguments(), negative ? Texts{} : Texts{"y"}) << "0 awaits the count again";
    Assembly other;
    EXPECT_FALSE(other.add("argc=3 a0=\"x\" a1_len=" + number + " a1[0]=\"ab\""));
    EXPECT_TRUE(other.add("a1=\"y\" a2=\"z\""));
    EXPECT_EQ(other.arguments(), (Texts{"x", "y", "z"})) << "what came before stays";
  }
}

TEST(ExecveLimits, AreFortyThousandArgumentsOfThirtyTwoThousandCharacters) {
  for (const int count : {39999, 40000, 40001, 2147483647}) {
    Assembly list;
    ASSERT_TRUE(list.add("argc=" + std::to_string(count) + " a39998=\"x\" a39999=\"y\""));
    ASSERT_EQ(list.ctx.argc, std::min(count, 40000));
    EXPECT_STREQ(list.ctx.argv[39998], "x");
    EXPECT_STREQ(list.ctx.argv[list.ctx.argc - 1], count < 40000 ? "x" : "y");
  }
  constexpr std::size_t kMost = 32768;
  for (const std::size_t length : {kMost - 1, kMost, kMost + 1, 3 * kMost}) {
    const std::size_t kept = std::min(length, kMost);
    const std::string piece(length, '6');
    Assembly list;
    ASSERT_TRUE(list.add("argc=3 a0_len=" + std::to_string(length) + " a0[0]=\"" + piece + "\""));
    ASSERT_TRUE(list.add("a1_len=" + std::to_string(length) + " a1[0]=" + piece + " a2=next"));
    EXPECT_EQ(list.arguments(), (Texts{std::string(kept, '6'), std::string(kept / 2, 'f'), ""}));
    EXPECT_EQ(list.ctx.arg_index, 3);
  }
}

TEST(ExecveText, IsNotReadBehindItsEnd) {
  const std::string whole(
      "argc=4 a0=\"x\" a1_len=4 a1[0]=\"ab\" a1[1]=\"cd\" a2_x a 3= a-3[ a03=\"y\"");
  for (std::size_t length = 0; length <= whole.size(); ++length) {
    const std::string cut = whole.substr(0, length);
    Assembly exact;  // the address sanitizer sees what lies behind ...
    Assembly stale;  // ... or it makes a difference
    EXPECT_EQ(exact.add(cut), add_execve_args(stale.ctx, {whole.data(), length})) << cut;
    EXPECT_EQ(exact.arguments(), stale.arguments()) << cut;
    EXPECT_EQ(exact.ctx.arg_left, stale.ctx.arg_left) << cut;
  }
}

TEST(ExecveCompletion, FillsWhatNoRecordFilled) {
  Assembly list;
  ASSERT_TRUE(list.add("argc=4 a0=\"x\" a1_len=9 a1[0]=\"ab\""));
  complete_execve_args(list.ctx);
  EXPECT_EQ(list.arguments(), (Texts{"x", "", "", ""}));
}

}  // namespace
