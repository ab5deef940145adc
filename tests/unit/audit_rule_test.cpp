// The audit connection, the purge and the rules: what is asked of the kernel and in what order, the
// rules as it receives them, and what each failure leaves.
#include "audit_rule.h"

#include <gtest/gtest.h>
#include <libaudit.h>
#include <linux/netlink.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "offline_test.h"

namespace {

using namespace std::chrono_literals;
using offline::Call;
using offline::Rule;

constexpr int kRefused = -EPERM;
constexpr char kRecord[] = "audit(1700000000.000:1): cwd=\"/\"";

// A rule of somebody else.
Rule foreign_rule(std::uint32_t uid, std::uint32_t list = AUDIT_FILTER_EXIT,
                  std::uint32_t action = AUDIT_ALWAYS) {
  Rule rule(static_cast<audit_rule_data*>(std::calloc(1, sizeof(audit_rule_data))));
  rule->flags = list;
  rule->action = action;
  rule->field_count = 1;
  rule->fields[0] = AUDIT_UID;
  rule->fieldflags[0] = AUDIT_EQUAL;
  rule->values[0] = uid;
  rule->mask[0] = 1;
  return rule;
}

void preload_three_rules() {
  for (const std::uint32_t uid : {1U, 2U, 3U}) offline::preload_rule(*foreign_rule(uid));
}

template <typename Payload>
void feed_reply(int type, const Payload& payload, std::uint32_t sequence) {
  offline::feed(type, {reinterpret_cast<const char*>(&payload), sizeof(payload)}, sequence);
}

// The errors since the log was cleared, without their source.
std::string errors() {
  return std::regex_replace(test::errors(), std::regex("audit_rule: "), "");
}

class AuditRule : public test::OfflineTest {
 protected:
  ~AuditRule() override { close(); }

  // Each returns what was printed.
  static std::string open() {
    return test::printed_by([] { EXPECT_EQ(audit_subsys_init(), 0); });
  }
  static std::string close() { return test::printed_by(audit_subsys_fini); }

  // Sets up and reads what waits then, so that the next request returns its true outcome.
  static void start() {
    open();
    audit_reply reply;
    while (audit_get_reply(audit_fd, &reply, GET_REPLY_NONBLOCKING, 0) > 0) continue;
  }
};

// ---- Connection --------------------------------------------------------------------------------

TEST_F(AuditRule, SetUpTakesTheReceiversRoleAndDeletesTheRulesOfOthersAndTearDownGivesTheRoleUp) {
  offline::preload_rule(*foreign_rule(9, AUDIT_FILTER_EXCLUDE, AUDIT_NEVER));
  offline::preload_rule(*foreign_rule(5, AUDIT_FILTER_USER));
  EXPECT_EQ(open(), "LIST_RULES: user,always uid=5 (0x5)\nLIST_RULES: exclude,never uid=9 (0x9)\n");
  EXPECT_TRUE(offline::rules().empty());
  EXPECT_EQ(offline::receiver_pid(), static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(offline::enabled(), 1U);
  EXPECT_EQ(offline::rate_limit(), 0U);
  EXPECT_EQ(offline::backlog_limit(), 102400U);
  EXPECT_EQ(offline::waiting(), 1U) << "the answer to the status request is the poller's";
  close();
  EXPECT_EQ(audit_fd, -1);
  EXPECT_FALSE(offline::is_open());
  EXPECT_EQ(offline::receiver_pid(), 0U);
  EXPECT_EQ(offline::enabled(), 1U) << "auditing stays on";
  EXPECT_EQ(errors(), "");
}

// The number of the failing call tells the order of the steps as well.
TEST_F(AuditRule, AFailingStepOfTheSetUpIsToldAndOnlyTheFirstOnesEndIt) {
  const std::string process = " failed, uid=4711 pid=" + std::to_string(getpid());
  const struct {
    unsigned number;
    int result;
    bool starts;
    std::string message;
  } cases[] = {
      {1, -EMFILE, false, "audit_open failed: Too many open files\n"},
      {2, -EEXIST, false, "audit_set_pid" + process},
      {3, 2, false, "audit is locked\n"},
      {4, kRefused, false, "audit_set_enabled" + process},
      {5, 0, true, "audit_set_rate_limit failed\n"},
      {6, 0, true, "audit_set_backlog_limit failed\n"},
      {7, 0, true, "audit_request_rules_list_data failed\ndelete_all_audit_rules failed\n"}};
  for (const auto& [number, result, starts, message] : cases) {
    SCOPED_TRACE(number);
    reset_kernel();
    offline::set_loginuid(4711);
    offline::fail_call_number(number, result);
    EXPECT_EQ(audit_subsys_init(), starts ? 0 : -1);
    EXPECT_EQ(errors(), message);
    EXPECT_EQ(offline::is_open(), starts);
    EXPECT_EQ(offline::receiver_pid() != 0, starts);
    close();
  }
}

TEST_F(AuditRule, ALockedKernelIsRecognisedBehindUnreadMessages) {
  offline::fail(Call::kIsEnabled, -1, 2);
  open();
  EXPECT_EQ(offline::enabled(), 1U) << "goes on when nobody knows";
  close();
  offline::set_locked(true);
  offline::fail(Call::kIsEnabled, -1, 2);
  for (int i = 0; i < 100; ++i) offline::feed(AUDIT_CWD, kRecord);
  EXPECT_EQ(audit_subsys_init(), -1);
  EXPECT_EQ(errors(), "audit is locked\n");
  EXPECT_EQ(offline::calls(Call::kSetEnabled), 1U) << "it is left as it is";
}

// ---- Purge -------------------------------------------------------------------------------------

TEST_F(AuditRule, ADeletionThatFailsLeavesTheRulesFromThereOn) {
  preload_three_rules();
  offline::fail_call_number(13, kRefused);  // the seventh lists, four reads follow
  EXPECT_EQ(open(), "LIST_RULES: exit,always uid=1 (0x1) syscall=read\n");
  EXPECT_EQ(errors(),
            "deleting rule failed: Operation not permitted\ndelete_all_audit_rules failed\n");
  EXPECT_EQ(offline::rules().size(), 2U);
}

TEST_F(AuditRule, ASilentKernelIsGivenUpAfterFortyReadsOfWhichAReplyIsOne) {
  offline::set_silent(true);
  open();
  EXPECT_EQ(offline::calls(Call::kGetReply), 40U);
  EXPECT_EQ(std::time(nullptr), test::kStart_s + 4);
  EXPECT_EQ(errors(), "");
  offline::feed(AUDIT_CWD, kRecord);
  close();
  EXPECT_EQ(std::time(nullptr), test::kStart_s + 7) << "7.9 seconds";
}

TEST_F(AuditRule, AWaitIsRepeatedWhenInterruptedAndCountsAsAnEmptyReadWhenItFails) {
  preload_three_rules();
  offline::fail_poll(ENOMEM, 40);
  open();
  EXPECT_EQ(offline::calls(Call::kGetReply), 0U);
  EXPECT_EQ(offline::rules().size(), 3U);
  offline::fail_poll(EINTR, 100);
  close();
  EXPECT_TRUE(offline::rules().empty());
}

// Signals that interrupt each wait, and an unanswered list among records that keep coming.
TEST_F(AuditRule, NeitherSignalsNorRecordsHoldAStartOrAStopUpForMoreThanTenSeconds) {
  offline::set_silent(true);
  offline::set_clock_tick(1ms);
  offline::fail_poll(EINTR, 1'000'000);
  open();
  EXPECT_LE(std::time(nullptr), test::kStart_s + 5);
  close();
  EXPECT_LE(std::time(nullptr), test::kStart_s + 10);
  EXPECT_EQ(errors(), "");

  offline::fail_poll(0, 0);
  offline::set_clock(test::kStart_s);
  offline::set_flood(true);
  open();
  EXPECT_LE(std::time(nullptr), test::kStart_s + 10);
  close();
  EXPECT_LE(std::time(nullptr), test::kStart_s + 20);
  EXPECT_EQ(errors(), "delete_all_audit_rules failed\n");
}

TEST_F(AuditRule, RepliesToOtherRequestsAndRulesWhoseLengthLiesAreDropped) {
  start();
  ASSERT_EQ(audit_add_bind_rule(), 1);
  const auto sequence = static_cast<std::uint32_t>(audit_request_status(audit_fd)) + 1;
  const Rule liar = foreign_rule(9);
  feed_reply(AUDIT_LIST_RULES, *liar, 4000);
  feed_reply(NLMSG_ERROR, nlmsgerr{-ENOENT, {}}, 4000);
  offline::feed(NLMSG_DONE, {}, 4000);
  liar->buflen = 0x7fffffff;
  feed_reply(AUDIT_LIST_RULES, *liar, sequence);
  EXPECT_EQ(close(), "LIST_RULES: exit,always key=bind_rule syscall=bind\n");
  EXPECT_EQ(errors(), "");
}

TEST_F(AuditRule, AnErrorInTheListDeletesNothing) {
  start();
  const auto sequence = static_cast<std::uint32_t>(audit_request_status(audit_fd)) + 1;
  feed_reply(AUDIT_LIST_RULES, *foreign_rule(9), sequence);
  feed_reply(NLMSG_ERROR, nlmsgerr{kRefused, {}}, sequence);
  EXPECT_EQ(close(), "");
  EXPECT_EQ(errors(), "receiving rules list failed: Operation not permitted\n");
  EXPECT_EQ(audit_fd, -1) << "the connection is closed all the same";
}

// The kernel has carried out, or refused, a request whose answer was dropped.
TEST_F(AuditRule, AnOverrunFailsNothingAndHasThePurgeRepeatedTenTimesAtMost) {
  for (const Call call :
       {Call::kSetPid, Call::kSetEnabled, Call::kSetRateLimit, Call::kSetBacklogLimit,
        Call::kGetReply, Call::kDeleteRule, Call::kRequestRules}) {
    preload_three_rules();
    offline::fail(call, -ENOBUFS);
    open();
    EXPECT_TRUE(offline::rules().empty());
    close();
  }
  EXPECT_EQ(errors(), "");

  preload_three_rules();
  const unsigned before = offline::calls(Call::kRequestRules);
  offline::fail(Call::kDeleteRule, -ENOBUFS, 1000);
  open();
  EXPECT_EQ(offline::calls(Call::kRequestRules) - before, 10U);
  EXPECT_EQ(errors(), "delete_all_audit_rules failed\n");
  offline::fail(Call::kDeleteRule, 0, 0);
}

TEST_F(AuditRule, ARuleIsAskedForAgainWhenAnOverrunHidTheAnswer) {
  start();
  offline::fail(Call::kAddRule, -ENOBUFS);
  EXPECT_EQ(audit_add_bind_rule(), 1);
  ASSERT_EQ(offline::rules().size(), 1U);
  const Rule loaded = offline::copy_rule(*offline::rules()[0]);
  offline::fail(Call::kDeleteRule, -ENOBUFS);
  audit_del_bind_rule();
  EXPECT_TRUE(offline::rules().empty());
  offline::preload_rule(*loaded);
  offline::fail(Call::kAddRule, -ENOBUFS);
  EXPECT_EQ(audit_add_bind_rule(), 1);
  EXPECT_EQ(offline::rules().size(), 1U) << "the kernel had loaded it";
  audit_del_bind_rule();
  EXPECT_EQ(errors(), "");

  offline::set_locked(true);
  offline::fail(Call::kAddRule, -ENOBUFS);
  EXPECT_EQ(audit_add_bind_rule(), -1);
  EXPECT_EQ(errors(), "audit_add_rule_data failed\n");
}

TEST_F(AuditRule, ARequestWhoseOutcomeNobodyKnowsCountsAsDone) {
  start();
  offline::fail(Call::kAddRule, -ENOBUFS, 2);
  EXPECT_EQ(audit_add_bind_rule(), 1);
  offline::fail(Call::kDeleteRule, -ENOBUFS, 3);
  audit_del_bind_rule();
  EXPECT_EQ(audit_add_bind_rule(), 1);
  EXPECT_EQ(errors(), "");
}

TEST_F(AuditRule, AnOverrunIsForgottenWithItsConnection) {
  offline::fail(Call::kSetPid, -ENOBUFS);
  offline::fail(Call::kSetEnabled, kRefused);
  EXPECT_EQ(audit_subsys_init(), -1);
  open();
  EXPECT_EQ(offline::calls(Call::kGetReply), 1U) << "nothing is thrown away";
}

// ---- Rules loaded once -------------------------------------------------------------------------

TEST_F(AuditRule, ARuleIsSentOnceAndCountsAsLoadedWhileTheKernelHasIt) {
  // A rule with only a system call comes first: libaudit refuses its key until the process has
  // built a permission field.
  const struct {
    int (*add)();
    void (*remove)();
    std::string line;  // as the purge tells it
  } cases[] = {
      {audit_add_execve_rule, audit_del_execve_rule, "key=execve_rule syscall=execve"},
      {audit_add_bind_rule, audit_del_bind_rule, "key=bind_rule syscall=bind"},
      {[] { return audit_add_syscall_rule("openat"); }, [] { audit_del_syscall_rule("openat"); },
       "key=syscall_rule syscall=openat"},
      {[] { return audit_add_syscall_rule(nullptr); }, [] { audit_del_syscall_rule(nullptr); },
       "key=syscall_rule syscall=all"},
      {audit_add_passwd_rule, audit_del_passwd_rule, "watch=/etc/passwd perm=wa key=passwd_rule"},
      {audit_add_shadow_rule, audit_del_shadow_rule, "watch=/etc/shadow perm=wa key=shadow_rule"},
      {audit_add_wtmp_rule, audit_del_wtmp_rule, "watch=/var/log/wtmp perm=wa key=wtmp_rule"}};
  for (const auto& [add, remove, line] : cases) {
    SCOPED_TRACE(line);
    reset_kernel();
    start();
    offline::fail(Call::kAddRule, kRefused);
    EXPECT_EQ(add(), -1);
    remove();
    EXPECT_EQ(offline::calls(Call::kDeleteRule), 0U) << "what is not loaded is not taken back";
    EXPECT_EQ(add(), 1);
    EXPECT_EQ(add(), 0);
    offline::fail(Call::kDeleteRule, kRefused, 2);
    remove();
    EXPECT_EQ(errors(), "audit_add_rule_data failed\naudit_del_rule_data failed\n");
    EXPECT_EQ(add(), 0);
    remove();
    remove();
    EXPECT_TRUE(offline::rules().empty());
    std::vector<std::uint32_t> flags;
    for (const auto& request : offline::requests()) flags.push_back(request.flags);
    EXPECT_EQ(flags, (std::vector<std::uint32_t>{20, 20, 20, 4, 20, 4}))
        << "taken back with the flags of the add and then with the listed ones";
    EXPECT_EQ(add(), 1);
    offline::feed(AUDIT_CWD, kRecord);  // libaudit looks for the answer only at the first message
    remove();
    EXPECT_TRUE(offline::rules().empty());
    EXPECT_EQ(add(), 1);
    EXPECT_EQ(close(), "LIST_RULES: exit,always " + line + "\n");
    start();
    EXPECT_EQ(add(), 1) << "a stop forgets what was loaded";
    close();
  }
}

TEST_F(AuditRule, NoNameStandsForEverySystemCallAndSomeNamesAreRefused) {
  start();
  for (const char* name : {"execve", "bind", "no_such", "EXECVE", "Bind", "OpenAt", "59", "0x31"}) {
    EXPECT_EQ(audit_add_syscall_rule(name), -1);
    audit_del_syscall_rule(name);
  }
  EXPECT_TRUE(offline::requests().empty());
  EXPECT_EQ(audit_add_syscall_rule(""), 1);
  EXPECT_EQ(audit_add_syscall_rule("all"), 0);
  audit_del_syscall_rule("");
  EXPECT_EQ(offline::rules().size(), 1U);
  EXPECT_EQ(errors(),
            "syscall execve reserved inside\nsyscall bind reserved inside\n"
            "unknown syscall name: no_such\nunknown syscall name: EXECVE\n"
            "unknown syscall name: Bind\nunknown syscall name: OpenAt\n"
            "unknown syscall name: 59\nunknown syscall name: 0x31\ninvalid param\n");
  EXPECT_EQ(audit_add_syscall_rule("1999_c000003e"), 1) << "a call that libaudit has no name for";
}

TEST_F(AuditRule, TheRegistryHoldsCopiesOf256Names) {
  start();
  std::vector<std::string> names;
  for (int number = 0; names.size() < 257; ++number) {
    const char* name = audit_syscall_to_name(number, audit_detect_machine());
    if (name != nullptr && number != SYS_execve && number != SYS_bind) names.emplace_back(name);
  }
  const auto add = [&names](std::size_t index) {
    const std::string scratch = names[index];
    return audit_add_syscall_rule(scratch.c_str());
  };
  for (std::size_t i = 0; i < 256; ++i) ASSERT_EQ(add(i), 1);
  EXPECT_EQ(add(256), -1);
  EXPECT_EQ(errors(), "too many syscall rule\n");
  for (const std::size_t i : {255U, 0U, 100U}) audit_del_syscall_rule(names[i].c_str());
  EXPECT_EQ(offline::rules().size(), 253U);
  EXPECT_EQ(add(256), 1);
  for (std::size_t i = 0; i < 255; ++i) EXPECT_EQ(add(i), i == 0 || i == 100 ? 1 : 0) << names[i];
  EXPECT_EQ(add(255), -1) << "full again";
}

TEST_F(AuditRule, PathsAndPermissionsOfWatchesAreCheckedBeforeTheyAreSent) {
  std::string longest;
  while (longest.size() < 4095) longest += "/" + std::string(255, 'x');
  longest.resize(4095);
  const std::string name(255, 'n');
  const auto missing = [](const std::string& path) { return "file " + path + " not exist\n"; };
  const struct {
    std::string path, permissions, message;
    std::string sent;  // "TYPE PATH PERMISSIONS" in the kernel's numbers
  } cases[] = {
      {longest + "y", "wa", "path too long\n", ""},
      {longest, "wa", missing(longest), "105 " + longest + " 10"},
      {"etc/x*", "wa", "must use absolute path\n", ""},
      {"/" + name + "x", "wa", "dirname or filename too long\n", ""},
      {"/" + name, "wa", missing("/" + name), "105 /" + name + " 10"},
      {"/proc/../proc", "wa", "relative path not supported\n", "107 /proc/../proc 10"},
      {"/no?", "wa", "wildcard is not supported\n" + missing("/no?"), "105 /no? 10"},
      {"/proc///", "WA", "", "107 /proc 10"},
      {"/proc", "rRxr", "", "107 /proc 5"},
      {"/proc", "", "invalid file permission: \n", ""},
      {"/proc", "rwxaw", "invalid file permission: rwxaw\n", ""},
      {"/proc", "wQ", "permission Q not support\n", ""},
  };
  start();
  for (const auto& [path, permissions, message, sent] : cases) {
    SCOPED_TRACE(path.substr(0, 100) + " " + permissions);
    test::clear_log();
    const std::size_t before = offline::requests().size();
    send_watch_rule(Request::kAdd, path.c_str(), permissions.c_str(), kPasswdRule);
    EXPECT_EQ(errors(), message);
    std::ostringstream text;
    if (offline::requests().size() > before) {
      const audit_rule_data& rule = *offline::requests().back().rule;
      text << rule.fields[0] << " " << std::string(rule.buf, rule.values[0]) << " "
           << rule.values[1];
    }
    EXPECT_EQ(text.str(), sent);
  }
}

}  // namespace
