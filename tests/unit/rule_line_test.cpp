// The line that tells of a deleted rule: a table of rules and their lines.
#include "rule_line.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::uint32_t kAll = 0xffffffff;

struct Field {
  std::uint32_t field;
  std::uint32_t value;
  std::uint32_t op = AUDIT_EQUAL;
};

// A rule as the kernel lists it. Without system calls its mask covers all of them.
struct RuleCase {
  std::string name;
  std::uint32_t flags = AUDIT_FILTER_EXIT;
  std::uint32_t action = AUDIT_ALWAYS;
  std::vector<Field> fields;
  std::string text;
  std::vector<unsigned> syscalls;
  std::string line;
};

void PrintTo(const RuleCase& rule, std::ostream* out) {
  *out << rule.name;
}

struct FreeRule {
  void operator()(audit_rule_data* rule) const { std::free(rule); }
};
using Rule = std::unique_ptr<audit_rule_data, FreeRule>;

// No byte behind the text is readable, so that a sanitizer sees every read too many.
Rule make_rule(const RuleCase& from) {
  Rule rule(
      static_cast<audit_rule_data*>(std::calloc(1, sizeof(audit_rule_data) + from.text.size())));
  rule->flags = from.flags;
  rule->action = from.action;
  for (const Field& field : from.fields) {
    rule->fields[rule->field_count] = field.field;
    rule->values[rule->field_count] = field.value;
    rule->fieldflags[rule->field_count++] = field.op;
  }
  if (from.syscalls.empty()) std::fill_n(rule->mask, AUDIT_BITMASK_SIZE - 1, kAll);
  for (const unsigned number : from.syscalls) rule->mask[number / 32] |= 1U << (number % 32);
  rule->buflen = static_cast<std::uint32_t>(from.text.size());
  std::memcpy(rule->buf, from.text.data(), from.text.size());
  return rule;
}

std::string printed(const audit_rule_data& rule) {
  testing::internal::CaptureStdout();
  print_rule_line(rule);
  return testing::internal::GetCapturedStdout();
}

class RuleLine : public testing::TestWithParam<RuleCase> {};

TEST_P(RuleLine, ShowsTheRule) {
  EXPECT_EQ(printed(*make_rule(GetParam())), "LIST_RULES: " + GetParam().line + "\n");
}

RuleCase with_fields(const std::string& name, std::vector<Field> fields, const std::string& text,
                     const std::string& line) {
  return {.name = name, .fields = std::move(fields), .text = text, .syscalls = {}, .line = line};
}

RuleCase with_syscalls(const std::string& name, std::vector<Field> fields,
                       std::vector<unsigned> syscalls, const std::string& line) {
  return {.name = name,
          .fields = std::move(fields),
          .text = {},
          .syscalls = std::move(syscalls),
          .line = line};
}

RuleCase on_list(const std::string& name, std::uint32_t flags, std::uint32_t action,
                 const std::string& line) {
  return {.name = name,
          .flags = flags,
          .action = action,
          .fields = {},
          .text = {},
          .syscalls = {},
          .line = line};
}

std::vector<Field> many_fields(std::size_t count) {
  return std::vector<Field>(count, Field{AUDIT_UID, 0});
}

std::string repeated(const std::string& text, std::size_t count) {
  std::string all;
  while (count-- > 0) all += text;
  return all;
}

INSTANTIATE_TEST_SUITE_P(
    Headers, RuleLine,
    testing::Values(on_list("User", AUDIT_FILTER_USER, AUDIT_ALWAYS, "user,always"),
                    on_list("Task", AUDIT_FILTER_TASK, AUDIT_NEVER, "task,never"),
                    on_list("Exclude", AUDIT_FILTER_EXCLUDE, AUDIT_NEVER, "exclude,never"),
                    on_list("Exit", AUDIT_FILTER_EXIT, AUDIT_POSSIBLE, "exit,possible syscall=all"),
                    on_list("FileSystem", AUDIT_FILTER_FS, AUDIT_NEVER,
                            "filesystem,never syscall=all"),
                    on_list("UnnamedList", 7, 3, "7,3 syscall=all"),
                    on_list("UnnamedFlags", AUDIT_FILTER_EXIT | AUDIT_FILTER_PREPEND, 0xffffffff,
                            "20,-1 syscall=all"),
                    on_list("UserListWithMoreFlags", AUDIT_FILTER_USER | AUDIT_FILTER_PREPEND,
                            AUDIT_ALWAYS, "16,always")),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Fields, RuleLine,
    testing::Values(
        with_fields("Watch", {{AUDIT_WATCH, 11}, {AUDIT_PERM, 10}, {AUDIT_FILTERKEY, 11}},
                    "/etc/passwdpasswd_rule",
                    "exit,always watch=/etc/passwd perm=wa key=passwd_rule"),
        with_fields("DirectoryShowsItsLength", {{AUDIT_DIR, 4}, {AUDIT_PERM, 15}}, "/etc",
                    "exit,always dir=/etc (0x4) perm=rwxa"),
        with_fields("NoPermission", {{AUDIT_PERM, 0}}, "", "exit,always perm="),
        with_fields("UnknownPermissionBits", {{AUDIT_PERM, 0xf2}}, "", "exit,always perm=w"),
        with_fields("SeveralKeys", {{AUDIT_FILTERKEY, 11}}, "\x01one\x01\x01two\x01\x01",
                    "exit,always key=one key=two syscall=all"),
        with_fields("EmptyKey", {{AUDIT_FILTERKEY, 0}}, "", "exit,always syscall=all"),
        with_fields("OnlySeparators", {{AUDIT_FILTERKEY, 2}}, "\x01\x01",
                    "exit,always syscall=all"),
        with_fields("TextsInFieldOrder",
                    {{AUDIT_FILTERKEY, 2}, {AUDIT_SUBJ_USER, 3}, {AUDIT_OBJ_LEV_HIGH, 4}},
                    "k1abcdefg",
                    "exit,always key=k1 subj_user=abc obj_lev_high=defg (0x4) syscall=all"),
        with_fields("SubjectLabelsHideTheirLength",
                    {{AUDIT_SUBJ_USER, 1, AUDIT_NOT_EQUAL}, {AUDIT_SUBJ_CLR, 1}}, "ab",
                    "exit,always subj_user!=a subj_clr=b syscall=all"),
        with_fields("ObjectLabelsShowTheirLength", {{AUDIT_OBJ_USER, 1}, {AUDIT_OBJ_LEV_LOW, 1}},
                    "ab", "exit,always obj_user=a (0x1) obj_lev_low=b (0x1) syscall=all"),
        with_fields("ParentPidIsNoLabel", {{AUDIT_PPID, 2}}, "xy",
                    "exit,always ppid=2 (0x2) syscall=all"),
        with_fields("MessageTypes", {{AUDIT_MSGTYPE, 1300}, {AUDIT_MSGTYPE, 0xffff}}, "",
                    "exit,always msgtype=SYSCALL (0x514) msgtype=65535 (0xffff) syscall=all"),
        with_fields("InodeIsUnsigned", {{AUDIT_INODE, 0xfffffffe}, {AUDIT_INODE, 0}}, "",
                    "exit,always inode=4294967294 (0xfffffffe) inode=0 syscall=all"),
        with_fields("OtherNumbersAreSigned", {{AUDIT_EXIT, 0xfffffff3}, {AUDIT_SUCCESS, 0}}, "",
                    "exit,always exit=-13 (0xfffffff3) success=0 syscall=all"),
        with_fields("UnnamedFieldsShowTheWholeWord",
                    {{99, 0xffffffff}, {0x08000000 | 99, 1}, {0xf8000000 | 99, 0}}, "",
                    "exit,always f99=-1 (0xffffffff) f134217827=1 (0x1) f-134217629=0 syscall=all"),
        with_fields("FieldWordsAreMasked", {{0x40000000 | AUDIT_UID, 7}}, "",
                    "exit,always uid=7 (0x7) syscall=all"),
        with_fields("Operators",
                    {{AUDIT_UID, 1, AUDIT_NOT_EQUAL},
                     {AUDIT_UID, 2, AUDIT_LESS_THAN},
                     {AUDIT_UID, 3, AUDIT_GREATER_THAN_OR_EQUAL | 0x123},
                     {AUDIT_UID, 4, AUDIT_BIT_TEST}},
                    "",
                    "exit,always uid!=1 (0x1) uid<2 (0x2) uid>=3 (0x3) uid&=4 (0x4) syscall=all"),
        with_fields("UnnamedOperators", {{AUDIT_UID, 1, 0}, {AUDIT_UID, 0, 0x80000000}}, "",
                    "exit,always uid01 (0x1) uid-21474836480 syscall=all"),
        with_fields("AsManyFieldsAsFit", many_fields(AUDIT_MAX_FIELDS), "",
                    "exit,always" + repeated(" uid=0", AUDIT_MAX_FIELDS) + " syscall=all")),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    LengthsThatLie, RuleLine,
    testing::Values(with_fields("LongerThanTheText", {{AUDIT_WATCH, 5000}}, "/etc",
                                "exit,always watch=/etc syscall=all"),
                    with_fields("NothingIsLeft", {{AUDIT_WATCH, 4}, {AUDIT_FILTERKEY, 9}}, "/etc",
                                "exit,always watch=/etc syscall=all"),
                    with_fields("AKeyIsCut", {{AUDIT_FILTERKEY, 0xffffffff}, {AUDIT_SUBJ_ROLE, 3}},
                                "key", "exit,always key=key subj_role= syscall=all"),
                    with_fields("TextThatNoFieldClaims", {{AUDIT_FILTERKEY, 1}}, "key",
                                "exit,always key=k syscall=all")),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Syscalls, RuleLine,
    testing::Values(
        with_syscalls("One", {}, {SYS_bind}, "exit,always syscall=bind"),
        with_syscalls("SeveralInRisingOrder", {}, {SYS_openat, SYS_read, SYS_execve},
                      "exit,always syscall=read,execve,openat"),
        with_syscalls("NumbersWithoutNames", {}, {SYS_read, 1999, 2047},
                      "exit,always syscall=read,1999,2047"),
        with_syscalls("NamesOfTheRulesMachine", {{AUDIT_ARCH, AUDIT_ARCH_I386}}, {11, 361},
                      "exit,always arch=1073741827 (0x40000003) syscall=execve,bind"),
        with_syscalls("UnknownMachine", {{AUDIT_ARCH, 0xc0001234}}, {0, 1},
                      "exit,always arch=3221230132 (0xc0001234) syscall=0,1"),
        with_syscalls("TheLastArchCounts",
                      {{AUDIT_ARCH, AUDIT_ARCH_I386}, {AUDIT_ARCH, AUDIT_ARCH_X86_64}}, {59},
                      "exit,always arch=1073741827 (0x40000003) arch=3221225534 (0xc000003e) "
                      "syscall=execve"),
        with_syscalls("APermissionStandsForThem", {{AUDIT_PERM, 1}}, {SYS_read},
                      "exit,always perm=x")),
    [](const auto& test) { return test.param.name; });

TEST(RuleLineOfAMask, WithoutAnySyscallEndsBehindTheSign) {
  const Rule rule = make_rule(with_fields("", {}, "", ""));
  std::fill_n(rule->mask, AUDIT_BITMASK_SIZE, 0U);
  EXPECT_EQ(printed(*rule), "LIST_RULES: exit,always syscall=\n");
}

TEST(RuleLineOfAMask, IsAllWhateverTheLastWordHolds) {
  const Rule rule = make_rule(with_fields("", {}, "", ""));
  for (const std::uint32_t word : {0U, 0x0000ffffU, kAll}) {
    rule->mask[AUDIT_BITMASK_SIZE - 1] = word;
    EXPECT_EQ(printed(*rule), "LIST_RULES: exit,always syscall=all\n") << word;
  }
}

TEST(RuleLineOfAMask, IsNotAllWhenOneSyscallIsMissing) {
  const Rule rule = make_rule(with_fields("", {}, "", ""));
  rule->mask[AUDIT_BITMASK_SIZE - 2] &= ~1U;
  EXPECT_TRUE(printed(*rule).starts_with("LIST_RULES: exit,always syscall=read,write,"));
}

TEST(RuleLineOfALie, FieldsBeyondTheRulesRoomAreNotRead) {
  const Rule rule = make_rule(with_fields("", many_fields(AUDIT_MAX_FIELDS), "", ""));
  rule->field_count = 0xffffffff;
  EXPECT_EQ(printed(*rule),
            "LIST_RULES: exit,always" + repeated(" uid=0", AUDIT_MAX_FIELDS) + " syscall=all\n");
}

}  // namespace
