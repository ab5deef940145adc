// The line that tells of a deleted rule: tables of rules and their lines.
#include "rules/rule_line.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "guarded_text.h"

namespace {

using Words = std::vector<std::uint32_t>;

// A rule as the kernel lists it, without the texts behind it, for every system call. `fields` are
// pairs of a field and its value.
audit_rule_data make_rule(const Words& fields = {}, const Words& operators = {}) {
  audit_rule_data rule = {};
  rule.flags = AUDIT_FILTER_EXIT;
  rule.action = AUDIT_ALWAYS;
  std::fill_n(rule.fieldflags, AUDIT_MAX_FIELDS, AUDIT_EQUAL);
  std::copy(operators.begin(), operators.end(), rule.fieldflags);
  for (; 2 * rule.field_count < fields.size(); ++rule.field_count) {
    rule.fields[rule.field_count] = fields[2 * rule.field_count];
    rule.values[rule.field_count] = fields[2 * rule.field_count + 1];
  }
  std::fill_n(rule.mask, AUDIT_BITMASK_SIZE - 1, 0xffffffff);
  return rule;
}

// What is printed behind the type. Of what stands behind the rule's texts, only what fills a word
// can be read.
std::string printed(audit_rule_data rule, const std::string& text = "") {
  rule.buflen = static_cast<std::uint32_t>(text.size());
  const std::string bytes = std::string(reinterpret_cast<const char*>(&rule), sizeof(rule)) + text +
                            std::string(-text.size() % 4, '!');
  testing::internal::CaptureStdout();
  print_rule_line(*reinterpret_cast<const audit_rule_data*>(test::guarded(bytes).data()));
  const std::string line = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(line.starts_with("LIST_RULES: ") && line.ends_with("\n")) << line;
  return line.substr(12, line.size() - 13);
}

TEST(RuleLine, ShowsListAndActionByNameOrNumber) {
  constexpr struct {
    std::uint32_t flags, action;
    const char* line;
  } kCases[] = {{AUDIT_FILTER_TASK, AUDIT_NEVER, "task,never"},
                {AUDIT_FILTER_EXCLUDE, AUDIT_NEVER, "exclude,never"},
                {AUDIT_FILTER_EXIT, AUDIT_POSSIBLE, "exit,possible syscall=all"},
                {7, 0xffffffff, "7,-1 syscall=all"},
                {AUDIT_FILTER_USER | AUDIT_FILTER_PREPEND, AUDIT_ALWAYS, "16,always"}};
  for (const auto& [flags, action, line] : kCases) {
    audit_rule_data rule = make_rule();
    rule.flags = flags;
    rule.action = action;
    EXPECT_EQ(printed(rule), line);
  }
}

TEST(RuleLine, ShowsEachFieldInItsOwnWay) {
  const struct {
    std::string text, line;
    Words fields, operators = {};
  } cases[] = {
      {"/dir/filekey",
       "watch=/dir/file perm=rwxa key=key",
       {AUDIT_WATCH, 9, AUDIT_PERM, 0xff, AUDIT_FILTERKEY, 3}},
      {"/etc", "dir=/etc (0x4) perm=w", {AUDIT_DIR, 4, AUDIT_PERM, 0xf2}},
      {"\x01one\x01\x01two\x01\x01", "key=one key=two syscall=all", {AUDIT_FILTERKEY, 11}},
      {"k1abcdefgx",
       "key=k1 subj_user!=abc obj_lev_high=defg (0x4) ppid=2 (0x2) subj_clr=x syscall=all",
       {AUDIT_FILTERKEY, 2, AUDIT_SUBJ_USER, 3, AUDIT_OBJ_LEV_HIGH, 4, AUDIT_PPID, 2,
        AUDIT_SUBJ_CLR, 1},
       {AUDIT_EQUAL, AUDIT_NOT_EQUAL}},
      {"",
       "msgtype=SYSCALL (0x514) msgtype=65535 (0xffff) inode=4294967294 (0xfffffffe) success=0 "
       "syscall=all",
       {AUDIT_MSGTYPE, 1300, AUDIT_MSGTYPE, 0xffff, AUDIT_INODE, 0xfffffffe, AUDIT_SUCCESS, 0}},
      {"",
       "f99=-1 (0xffffffff) f-134217629=0 uid=7 (0x7) syscall=all",
       {99, 0xffffffff, 0xf8000000 | 99, 0, 0x40000000 | AUDIT_UID, 7}},
      {"",
       "uid<2 (0x2) uid>=3 (0x3) uid01 (0x1) uid-21474836480 syscall=all",
       {AUDIT_UID, 2, AUDIT_UID, 3, AUDIT_UID, 1, AUDIT_UID, 0},
       {AUDIT_LESS_THAN, AUDIT_GREATER_THAN_OR_EQUAL | 0x123, 0, 0x80000000}},
      // Lengths that lie are cut to what is there.
      {"key", "key=key subj_role= syscall=all", {AUDIT_FILTERKEY, 0xffffffff, AUDIT_SUBJ_ROLE, 3}},
      {"key", "key=k syscall=all", {AUDIT_FILTERKEY, 1}}};
  for (const auto& [text, line, fields, operators] : cases)
    EXPECT_EQ(printed(make_rule(fields, operators), text), "exit,always " + line);
}

TEST(RuleLine, ShowsSystemCallsByNameOfTheRulesMachineInRisingOrder) {
  const struct {
    Words fields, syscalls;
    std::string line;
  } cases[] = {{{}, {}, "syscall="},
               {{}, {SYS_openat, SYS_read, 2047, 1999}, "syscall=read,openat,1999,2047"},
               {{AUDIT_ARCH, AUDIT_ARCH_I386}, {11}, "arch=1073741827 (0x40000003) syscall=execve"},
               {{AUDIT_ARCH, 0xc0001234}, {0, 1}, "arch=3221230132 (0xc0001234) syscall=0,1"},
               {{AUDIT_PERM, 1}, {SYS_read}, "perm=x"}};
  for (const auto& [fields, syscalls, line] : cases) {
    audit_rule_data rule = make_rule(fields);
    std::fill_n(rule.mask, AUDIT_BITMASK_SIZE, 0U);
    for (const unsigned number : syscalls) rule.mask[number / 32] |= 1U << (number % 32);
    EXPECT_EQ(printed(rule), "exit,always " + line);
  }
}

// The kernel fills the last word in its own way.
TEST(RuleLine, ReadsNeitherTheLastWordNorMoreFieldsThanARuleHasRoomFor) {
  audit_rule_data rule = make_rule(Words(2 * AUDIT_MAX_FIELDS, 0));
  const std::string line = printed(rule);
  EXPECT_EQ(line.size(), std::strlen("exit,always syscall=all") + 6 * 64);
  rule.field_count = rule.mask[AUDIT_BITMASK_SIZE - 1] = 0xffffffff;
  EXPECT_EQ(printed(rule), line);
  rule.mask[AUDIT_BITMASK_SIZE - 2] &= ~1U;
  EXPECT_TRUE(printed(rule).ends_with(",2046,2047"));
}

}  // namespace
