// Argument lists put together from EXECVE records.
#include "execve_args.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

constexpr std::string_view kHeader = "audit(1.000:7): ";

// A context of its own, whose argument buffers the address sanitizer guards.
class Assembly {
 public:
  Assembly() = default;
  ~Assembly() { clear_audit_ctx(&ctx); }
  Assembly(const Assembly&) = delete;
  Assembly& operator=(const Assembly&) = delete;

  // The fields stand behind a header, in a block of their own size.
  bool add(std::string_view fields) {
    std::string text(kHeader);
    text += fields;
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
  const char* name;
  Texts records;
  Texts arguments;
  int filled;    // slots below arg_index
  int left = 0;  // arg_left
};

void PrintTo(const Case& row, std::ostream* out) {
  *out << testing::PrintToString(row.records);
}

const Case kCases[] = {
    {"QuotedArguments", {"argc=3 a0=\"ls\" a1=\"-l\" a2=\"/tmp\""}, {"ls", "-l", "/tmp"}, 3},
    {"HexadecimalArguments", {"argc=2 a0=612062 a1=C3A9"}, {"a b", "\xc3\xa9"}, 2},
    {"EmptyArgument", {"argc=2 a0=\"\" a1="}, {"", ""}, 2},
    {"ArgumentThatLooksLikeAField",
     {"argc=3 a0=\"a1=x\" a1=\"argc=9\" a2=\"(null)\""},
     {"a1=x", "argc=9", "(null)"},
     3},
    {"TwoRecords", {"argc=3 a0=\"x\"", " a1=\"y\" a2=\"z\""}, {"x", "y", "z"}, 3},
    {"TextAheadOfTheCount", {"a0=\"no\" argc=1 a0=\"yes\""}, {"yes"}, 1},
    {"NothingBehindTheCount", {"argc=2"}, {"-", "-"}, 0},
    {"MoreArgumentsThanCounted", {"argc=1 a0=\"x\" a1=\"y\"", "a0=\"z\""}, {"x"}, 1},
    {"RecordBehindACompleteList", {"argc=1 a0=\"x\"", "argc=2 a0=\"y\""}, {"x"}, 1},
    {"CountInSignedAndOddForms", {"argc=+2x a0=\"x\""}, {"x", "-"}, 1},
    {"CountOfWhichTheLowBitsAreLeft", {"argc=4294967298 a0=\"x\""}, {"x", "-"}, 1},

    {"MissingSlot", {"argc=3 a0=\"x\" a2=\"z\""}, {"x", "", "z"}, 3},
    {"MissingSlots", {"argc=5 a0=\"x\" a3=\"y\""}, {"x", "", "", "y", "-"}, 4},
    {"MissingLastSlots", {"argc=4 a0=\"x\" a9=\"y\""}, {"x", "", "", ""}, 4},
    {"MissingSlotBeforeASplitOne", {"argc=3 a0=\"x\" a2_len=2 a2[0]=\"zz\""}, {"x", "", "zz"}, 3},
    {"ArgumentsOutOfOrder", {"argc=3 a2=\"z\" a0=\"x\" a1=\"y\""}, {"x", "y", "-"}, 2},
    {"ArgumentOutOfOrderInALaterRecord",
     {"argc=3 a1=\"y\"", "a0=\"x\" a2=\"z\""},
     {"", "y", "z"},
     3},
    {"FirstOfTwoFieldsOfOneName", {"argc=2 a0=\"x\" a0=\"X\" a1=\"y\" a1=\"Y\""}, {"x", "y"}, 2},
    {"FieldInsideAnotherWord", {"argc=2 a5=\"b\" xa1=\"y\" za0=\"x\""}, {"x", "-"}, 1},
    {"WordsThatAreNoArguments",
     {"argc=2 b0=x a=1 ax=2 a0 a0] =a0 a0=\"x\" a-=1 a1=\"y\""},
     {"x", "y"},
     2},
    {"DoubledSpaces", {"argc=2  a0=\"x\"   a1=\"y\" "}, {"x", "y"}, 2},

    // A word counts as an argument's with any number scanf's "%d" takes; only the slot is searched.
    {"NumberWithLeadingZeros", {"argc=2 a00=\"x\" b", "a0=\"y\""}, {"", ""}, 2},
    {"NumberOfTenDigits", {"argc=2 a1234567890=\"x\" b"}, {"", ""}, 2},
    {"NumberBeyondTheRange", {"argc=2 a99999999999999999999=\"x\" a1=\"y\""}, {"", "y"}, 2},
    {"NumberWithASign", {"argc=2 a-1=\"x\" b"}, {"", ""}, 2},
    {"NumberBehindASpace", {"argc=2 a 5=\"x\" a1=\"y\""}, {"", "y"}, 2},
    {"TwoNumbersAreNone", {"argc=2 a01 2=\"x\" a0=\"y\""}, {"y", "-"}, 1},
    {"NumberWithLeadingZerosAbandonsASplit",
     {"argc=2 a0_len=4 a0[0]=\"ab\" a00=\"x\" a1=\"y\""},
     {"\"ab\"", "y"},
     2},

    {"SplitQuoted", {"argc=1 a0_len=10 a0[0]=\"abcde\" a0[1]=\"fghij\""}, {"abcdefghij"}, 1},
    {"SplitHexadecimal", {"argc=1 a0_len=8 a0[0]=6120 a0[1]=6263"}, {"a bc"}, 1},
    {"SplitWithinAByte", {"argc=1 a0_len=4 a0[0]=612 a0[1]=0"}, {"a "}, 1},
    {"SplitOverRecords",
     {"argc=2 a0_len=6 a0[0]=\"ab\"", "a0[1]=\"cd\"", "a0[2]=\"ef\" a1=\"y\""},
     {"abcdef", "y"},
     2},
    {"AnnouncementInARecordOfItsOwn",
     {"argc=1 a0_len=4", "a0[0]=\"ab\"", "a0[1]=\"cd\""},
     {"abcd"},
     1},
    {"SplitInOnePiece", {"argc=2 a0_len=3 a0[0]=\"abc\" a1=\"y\""}, {"abc", "y"}, 2},
    {"SplitIncomplete", {"argc=2 a0_len=9 a0[0]=\"ab\""}, {"\"ab\"", "-"}, 0, 7},
    {"SplitWithALostPiece", {"argc=1 a0_len=6 a0[0]=\"ab\" a0[2]=\"ef\""}, {"\"ab\""}, 0, 4},
    {"SplitWithALostPieceThatComes",
     {"argc=1 a0_len=6 a0[0]=\"ab\" a0[2]=\"ef\" a0[1]=\"cd\"", "a0[2]=\"ef\""},
     {"abcdef"},
     1},
    {"PiecesOfOtherArguments",
     {"argc=2 a0_len=4 a1[0]=\"no\" a0[0]=\"abcd\" a1=\"y\""},
     {"abcd", "y"},
     2},
    {"PieceInsideAnotherWordBehindALostOne",
     {"argc=2 a0_len=9 a0[5]=61 a1_len=4 a1[9]=62 xa1[0]=6162"},
     {"", "ab"},
     2},
    {"PieceWithoutAnnouncement", {"argc=1 a0[0]=\"no\" a0=\"x\""}, {"x"}, 1},
    {"PieceLongerThanAnnounced",
     {"argc=2 a0_len=3 a0[0]=\"abcdefgh\" a0[1]=\"no\" a1=\"y\""},
     {"abc", "y"},
     2},
    {"LaterPieceLongerThanAnnounced",
     {"argc=2 a0_len=5 a0[0]=\"abc\" a0[1]=\"defgh\" a1=\"y\""},
     {"abcde", "y"},
     2},
    {"DigitsLongerThanAnnounced", {"argc=2 a0_len=5 a0[0]=616263646566 a1=\"y\""}, {"ab", "y"}, 2},
    {"LaterDigitsLongerThanAnnounced", {"argc=1 a0_len=6 a0[0]=6162 a0[1]=636465"}, {"abc"}, 1},

    {"EmptyPieces",
     {"argc=1 a0_len=4 a0[0]=\"\" a0[1]=\"ab\" a0[2]=\"\" a0[3]=\"cd\""},
     {"abcd"},
     1},
    {"EmptyPiecesInDigits", {"argc=1 a0_len=4 a0[0]= a0[1]=61 a0[2]= a0[3]=62"}, {"ab"}, 1},
    {"LoneQuoteAsFirstPiece", {"argc=1 a0_len=2 a0[0]=\" a0[1]=\"ab"}, {"ab"}, 0, 2},
    {"LoneQuoteAsLaterPiece", {"argc=1 a0_len=4 a0[0]=\"ab\" a0[1]=\" a0[2]=\"cd\""}, {"abcd"}, 1},
    {"LoneQuotesWithoutEnd",
     {"argc=1 a0_len=2 a0[0]=\" a0[1]=\" a0[2]=\" a0[3]=\" a0[4]=\""},
     {""},
     0,
     3},
    {"PiecesWithoutClosingQuote", {"argc=1 a0_len=6 a0[0]=\"abc a0[1]=\"def"}, {"\"abdef"}, 0, 2},
    {"DigitsBehindAQuotedPiece", {"argc=1 a0_len=4 a0[0]=\"ab\" a0[1]=6364"}, {"ab63"}, 1},
    {"QuotedBehindDigits", {"argc=1 a0_len=6 a0[0]=6162 a0[1]=\"63\""}, {"abc"}, 1},

    {"AbandonedWithoutPiece", {"argc=2 a0_len=9 a1=\"y\""}, {"", "y"}, 2},
    {"AbandonedWithPieces",
     {"argc=2 a0_len=9 a0[0]=\"ab\" a0[1]=\"cd\" a1=\"y\""},
     {"\"abcd\"", "y"},
     2},
    {"AbandonedInDigits", {"argc=2 a0_len=9 a0[0]=6162", "a1=\"y\""}, {"6162", "y"}, 2},
    {"AbandonedForAnotherSplit",
     {"argc=2 a0_len=9 a0[0]=\"ab\" a1_len=2 a1[0]=\"cd\""},
     {"\"ab\"", "cd"},
     2},
    {"AbandonedLastArgument", {"argc=1 a0_len=9 a0[0]=\"ab\" a1=\"y\""}, {"\"ab\""}, 1},
    {"AbandonedByItsOwnField", {"argc=2 a0_len=9 a0=\"x\" a1=\"y\""}, {"", "y"}, 2},
    {"AnnouncedTwice", {"argc=2 a0_len=9 a0_len=2 a0[0]=\"ab\" a1=\"y\""}, {"", ""}, 2},
    {"LengthFieldOfAnotherName", {"argc=2 a0_lenx=5 a0_x=5 b"}, {"", ""}, 2},
    {"LengthThatIsNotThere", {"argc=3 a0_x=5 a2_len=2 a2[0]=\"cd\""}, {"", "", "cd"}, 3},
    {"LengthOfWhichTheLowBitsAreLeft", {"argc=1 a0_len=4294967298 a0[0]=\"ab\""}, {"ab"}, 1},
};

class ExecveArgs : public testing::TestWithParam<Case> {};

TEST_P(ExecveArgs, AreReassembled) {
  Assembly list;
  for (const std::string& record : GetParam().records) EXPECT_TRUE(list.add(record)) << record;
  EXPECT_EQ(list.arguments(), GetParam().arguments);
  EXPECT_EQ(list.ctx.arg_index, GetParam().filled);
  EXPECT_EQ(list.ctx.arg_left, GetParam().left);
}

INSTANTIATE_TEST_SUITE_P(Cases, ExecveArgs, testing::ValuesIn(kCases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(ExecveCount, IsRefusedWhenItIsMissingOrNotPositive) {
  for (const char* fields :
       {"a0=\"x\"", "argc= a0=\"x\"", "argc=0 a0=\"x\"", "argc=4294967296", "argc=x", "ARGC=1"}) {
    Assembly list;
    EXPECT_FALSE(list.add(fields)) << fields;
    EXPECT_EQ(list.ctx.argc, 0) << fields;
    EXPECT_TRUE(list.add("argc=1 a0=\"y\"")) << "a later record may still bring the count";
    EXPECT_EQ(list.arguments(), Texts{"y"});
  }
}

TEST(ExecveCount, ThatIsNegativeStays) {
  for (const auto& [fields, count] : {std::pair("argc=-1 a0=\"x\"", -1),
                                      std::pair("argc=2147483648 a0=\"x\"", -2147483647 - 1)}) {
    Assembly list;
    EXPECT_FALSE(list.add(fields));
    EXPECT_TRUE(list.add("argc=1 a0=\"y\"")) << "nothing is awaited any more";
    EXPECT_EQ(list.ctx.argc, count);
    EXPECT_EQ(list.ctx.argv, nullptr);
    complete_execve_args(list.ctx);
  }
}

TEST(ExecveCount, IsCutToFortyThousand) {
  for (const auto& [count, slots] : {std::pair("39999", 39999), std::pair("40000", 40000),
                                     std::pair("40001", 40000), std::pair("2147483647", 40000)}) {
    Assembly list;
    ASSERT_TRUE(list.add("argc=" + std::string(count) + " a39998=\"x\" a39999=\"y\" a40000=\"z\""));
    ASSERT_EQ(list.ctx.argc, slots);
    EXPECT_EQ(list.ctx.arg_index, slots);
    EXPECT_STREQ(list.ctx.argv[0], "");
    EXPECT_STREQ(list.ctx.argv[39998], "x");
    if (slots == 40000) {
      EXPECT_STREQ(list.ctx.argv[39999], "y");
    }
  }
}

TEST(ExecveLength, IsRefusedUnlessItIsPositive) {
  for (const char* length : {"0", "", "x", "-1", "2147483648", "4294967296"}) {
    Assembly list;
    EXPECT_FALSE(list.add("argc=3 a0=\"x\" a1_len=" + std::string(length) + " a1[0]=\"ab\""))
        << length;
    EXPECT_EQ(list.arguments(), (Texts{"x", "-", "-"})) << "what came before stays";
    EXPECT_TRUE(list.add("a1=\"y\" a2=\"z\""));
    EXPECT_EQ(list.arguments(), (Texts{"x", "y", "z"}));
  }
}

// Feeds one argument of `length` characters in pieces, announced with its length.
void add_split(Assembly& list, int length, bool quoted) {
  constexpr int kPieceLength = 5000;
  const std::string quote = quoted ? "\"" : "";
  ASSERT_TRUE(list.add("argc=2 a0_len=" + std::to_string(length)));
  for (int piece = 0; piece * kPieceLength < length; ++piece) {
    const int left = std::min(kPieceLength, length - piece * kPieceLength);
    ASSERT_TRUE(list.add("a0[" + std::to_string(piece) + "]=" + quote +
                         std::string(static_cast<std::size_t>(left), '6') + quote));
  }
  ASSERT_TRUE(list.add("a1=\"next\""));
}

TEST(ExecveLength, IsCutToThirtyTwoThousand) {
  constexpr std::size_t kMost = 32768;
  for (const int length : {32767, 32768, 32769, 100000}) {
    const std::size_t kept = std::min(static_cast<std::size_t>(length), kMost);
    for (const bool quoted : {true, false}) {
      Assembly list;
      add_split(list, length, quoted);
      const std::string expected = quoted ? std::string(kept, '6') : std::string(kept / 2, 'f');
      EXPECT_EQ(list.arguments(), (Texts{expected, "next"})) << length;
    }
  }
}

TEST(ExecveBuffers, AreNeverLeftWhateverLengthIsAnnounced) {
  const Texts pieces = {"\"", "\"\"", "\"ab\"", "\"abcdefgh\"", "61", "6162636465", ""};
  for (int length = 1; length <= 9; ++length) {
    for (std::size_t mix = 0; mix < pieces.size() * pieces.size() * pieces.size(); ++mix) {
      Assembly list;
      ASSERT_TRUE(list.add("argc=1 a0_len=" + std::to_string(length)));
      std::size_t rest = mix;
      for (int piece = 0; piece < 6; ++piece) {
        const std::string& value = pieces[rest % pieces.size()];
        rest = rest >= pieces.size() ? rest / pieces.size() : mix;
        ASSERT_TRUE(list.add("a0[" + std::to_string(piece) + "]=" + value));
      }
      // A first piece that is only a quote counts as one character more to come.
      EXPECT_LE(std::string_view(list.ctx.argv[0]).size(), static_cast<std::size_t>(length) + 2);
      EXPECT_LE(list.ctx.arg_left, length + 1);
    }
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

TEST(ExecveCompletion, LeavesACompleteListAlone) {
  Assembly list;
  ASSERT_TRUE(list.add("argc=2 a0=\"x\" a1=\"y\""));
  complete_execve_args(list.ctx);
  EXPECT_EQ(list.arguments(), (Texts{"x", "y"}));
}

}  // namespace
