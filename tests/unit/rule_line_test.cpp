// The line that tells of a deleted rule: tables of rules and their lines.
#include "rules/rule_line.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Field {
  std::uint32_t field, value, op = AUDIT_EQUAL;
};
using Fields = std::vector<Field>;

struct FreeRule {
  void operator()(audit_rule_data* rule) const { std::free(rule); }
};
using Rule = std::unique_ptr<audit_rule_data, FreeRule>;

// A rule as the kernel lists it, for every system call. No byte behind the text is readable, so
// that a sanitizer sees every read too many.
Rule make_rule(const Fields& fields, const std::string& text = "") {
  Rule rule(static_cast<audit_rule_data*>(std::calloc(1, sizeof(audit_rule_data) + text.size())));
  rule->flags = AUDIT_FILTER_EXIT;
  rule->action = AUDIT_ALWAYS;
  for (const Field& field : fields) {
    rule->fields[rule->field_count] = field.field;
    rule->values[rule->field_count] = field.value;
    rule->fieldflags[rule->field_count++] = field.op;
  }
  std::fill_n(rule->mask, AUDIT_BITMASK_SIZE - 1, 0xffffffff);
  rule->buflen = static_cast<std::uint32_t>(text.size());
  std::memcpy(rule->buf, text.data(), text.size());
  return rule;
}

std::string printed(const Rule& rule) {
  testing::internal::CaptureStdout();
  print_rule_line(*rule);
  return testing::internal::GetCapturedStdout();
}

TEST(RuleLine, ShowsListAndActionByNameOrNumber) {
  constexpr struct {
    std::uint32_t flags, action;
    const char* line;
  } kCases[] = {{AUDIT_FILTER_USER, AUDIT_ALWAYS, "user,always"},
                {AUDIT_FILTER_TASK, AUDIT_NEVER, "task,never"},
                {AUDIT_FILTER_EXCLUDE, AUDIT_NEVER, "exclude,never"},
                {AUDIT_FILTER_EXIT, AUDIT_POSSIBLE, "exit,possible syscall=all"},
                {7, 3, "7,3 syscall=all"},
                {AUDIT_FILTER_EXIT | AUDIT_FILTER_PREPEND, 0xffffffff, "20,-1 syscall=all"},
                {AUDIT_FILTER_USER | AUDIT_FILTER_PREPEND, AUDIT_ALWAYS, "16,always"}};
  for (const auto& [flags, action, line] : kCases) {
    const Rule rule = make_rule({});
    rule->flags = flags;
    rule->action = action;
    EXPECT_EQ(printed(rule), "LIST_RULES: " + std::string(line) + "\n");
  }
}

struct FieldCase {
  Fields fields;
  std::string text, line;
};

const FieldCase kFieldCases[] = {
    {{{AUDIT_WATCH, 11}, {AUDIT_PERM, 10}, {AUDIT_FILTERKEY, 11}},
     "/etc/passwdpasswd_rule",
     "watch=/etc/passwd perm=wa key=passwd_rule"},
    {{{AUDIT_DIR, 4}, {AUDIT_PERM, 15}}, "/etc", "dir=/etc (0x4) perm=rwxa"},
    {{{AUDIT_PERM, 0xf2}}, "", "perm=w"},
    {{{AUDIT_FILTERKEY, 11}}, "\x01one\x01\x01two\x01\x01", "key=one key=two syscall=all"},
    {{{AUDIT_FILTERKEY, 2}}, "\x01\x01", "syscall=all"},
    {{{AUDIT_FILTERKEY, 2}, {AUDIT_SUBJ_USER, 3, AUDIT_NOT_EQUAL}, {AUDIT_OBJ_LEV_HIGH, 4}},
     "k1abcdefg",
     "key=k1 subj_user!=abc obj_lev_high=defg (0x4) syscall=all"},
    {{{AUDIT_SUBJ_CLR, 1}, {AUDIT_OBJ_USER, 1}}, "ab", "subj_clr=a obj_user=b (0x1) syscall=all"},
    {{{AUDIT_PPID, 2}}, "xy", "ppid=2 (0x2) syscall=all"},
    {{{AUDIT_MSGTYPE, 1300}, {AUDIT_MSGTYPE, 0xffff}},
     "",
     "msgtype=SYSCALL (0x514) msgtype=65535 (0xffff) syscall=all"},
    {{{AUDIT_INODE, 0xfffffffe}, {AUDIT_EXIT, 0xfffffff3}, {AUDIT_SUCCESS, 0}},
     "",
     "inode=4294967294 (0xfffffffe) exit=-13 (0xfffffff3) success=0 syscall=all"},
    {{{99, 0xffffffff}, {0xf8000000 | 99, 0}, {0x40000000 | AUDIT_UID, 7}},
     "",
     "f99=-1 (0xffffffff) f-134217629=0 uid=7 (0x7) syscall=all"},
    {{{AUDIT_UID, 2, AUDIT_LESS_THAN},
      {AUDIT_UID, 3, AUDIT_GREATER_THAN_OR_EQUAL | 0x123},
      {AUDIT_UID, 1, 0},
      {AUDIT_UID, 0, 0x80000000}},
     "",
     "uid<2 (0x2) uid>=3 (0x3) uid01 (0x1) uid-21474836480 syscall=all"},
    // Lengths that lie are cut to what is there.
    {{{AUDIT_WATCH, 5000}}, "/etc", "watch=/etc syscall=all"},
    {{{AUDIT_FILTERKEY, 0xffffffff}, {AUDIT_SUBJ_ROLE, 3}},
     "key",
     "key=key subj_role= syscall=all"},
    {{{AUDIT_FILTERKEY, 1}}, "key", "key=k syscall=all"},
};

TEST(RuleLine, ShowsEachFieldInItsOwnWay) {
  for (const auto& [fields, text, line] : kFieldCases) {
    EXPECT_EQ(printed(make_rule(fields, text)), "LIST_RULES: exit,always " + line + "\n");
  }
}

TEST(RuleLine, ShowsSystemCallsByNameOfTheRulesMachineInRisingOrder) {
  const struct {
    Fields fields;
    std::vector<unsigned> syscalls;
    std::string line;
  } cases[] = {
      {{}, {}, "syscall="},
      {{}, {SYS_openat, SYS_read, 2047, 1999}, "syscall=read,openat,1999,2047"},
      {{{AUDIT_ARCH, AUDIT_ARCH_I386}}, {11}, "arch=1073741827 (0x40000003) syscall=execve"},
      {{{AUDIT_ARCH, 0xc0001234}}, {0, 1}, "arch=3221230132 (0xc0001234) syscall=0,1"},
      {{{AUDIT_PERM, 1}}, {SYS_read}, "perm=x"},
  };
  for (const auto& [fields, syscalls, line] : cases) {
    const Rule rule = make_rule(fields);
    std::fill_n(rule->mask, AUDIT_BITMASK_SIZE, 0U);
    for (const unsigned number : syscalls) rule->mask[number / 32] |= 1U << (number % 32);
    EXPECT_EQ(printed(rule), "LIST_RULES: exit,always " + line + "\n");
  }
}

TEST(RuleLine, CallsTheSystemCallsAllWhateverTheLastWordHolds) {
  const Rule rule = make_rule({});
  rule->mask[AUDIT_BITMASK_SIZE - 1] = 0xffffffff;
  EXPECT_EQ(printed(rule), "LIST_RULES: exit,always syscall=all\n");
  rule->mask[AUDIT_BITMASK_SIZE - 2] &= ~1U;
  EXPECT_TRUE(printed(rule).starts_with("LIST_RULES: exit,always syscall=read,write,"));
}

TEST(RuleLine, ReadsNoMoreFieldsThanARuleHasRoomFor) {
  const Rule rule = make_rule(Fields(AUDIT_MAX_FIELDS, {AUDIT_UID, 0}));
  const std::string line = printed(rule);
  EXPECT_EQ(line.size(), std::strlen("LIST_RULES: exit,always syscall=all\n") + 6 * 64);
  rule->field_count = 0xffffffff;
  EXPECT_EQ(printed(rule), line);
}

}  // namespace
