// The audit connection, the purge and the rules: what is asked of the kernel and in what order, the
// rules as it receives them, and what each failure leaves.
#include "audit_rule.h"

#include <gtest/gtest.h>
#include <libaudit.h>
#include <linux/netlink.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "offline_test.h"

namespace {

using offline::Call;
using offline::Rule;

constexpr int kRefused = -EPERM;
constexpr char kRecord[] = "audit(1700000000.000:1): cwd=\"/\"";

// What is set in a rule: "FLAGS,ACTION FIELDS [FIELD=VALUE]... @FIRST_SYSCALL*COUNT TEXT".
std::string bits_of(const audit_rule_data& rule) {
  std::ostringstream text;
  text << rule.flags << "," << rule.action << " " << rule.field_count;
  for (std::size_t i = 0; i < AUDIT_MAX_FIELDS; ++i) {
    if ((rule.fields[i] | rule.values[i] | rule.fieldflags[i]) == 0) continue;
    const char* op = rule.fieldflags[i] == AUDIT_EQUAL ? "=" : "?";
    text << " [" << rule.fields[i] << op << rule.values[i] << "]";
  }
  unsigned first = 0, count = 0;
  for (unsigned i = 0; i < AUDIT_BITMASK_SIZE * 32; ++i) {
    if ((rule.mask[i / 32] >> (i % 32) & 1) != 0 && count++ == 0) first = i;
  }
  text << " @" << first << "*" << count << " " << std::string(rule.buf, rule.buflen);
  return text.str();
}

// The request with this index, as "+" or "-" and its bits.
std::string request(std::size_t index) {
  const auto& requests = offline::requests();
  if (index >= requests.size()) return "nothing";
  return (requests[index].add ? "+" : "-") + bits_of(*requests[index].rule);
}

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
  std::string text;
  for (const test::LogLine& line : test::log_lines()) {
    if (line.level == QEL_LOG_ERROR) text += line.message;
  }
  return text;
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
  EXPECT_EQ(request(0), "-0,2 1 [1=5] @0*1 ");
  EXPECT_EQ(request(1), "-5,0 1 [1=9] @0*1 ");
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
  const std::string purge = "audit_request_rules_list_data failed\ndelete_all_audit_rules failed\n";
  const struct {
    unsigned number;
    int result;
    bool starts;
    std::string message;
  } cases[] = {{1, -EMFILE, false, "audit_open failed: Too many open files\n"},
               {2, -EEXIST, false, "audit_set_pid" + process},
               {3, 2, false, "audit is locked\n"},
               {4, kRefused, false, "audit_set_enabled" + process},
               {5, kRefused, true, "audit_set_rate_limit failed\n"},
               {5, 0, true, "audit_set_rate_limit failed\n"},
               {6, kRefused, true, "audit_set_backlog_limit failed\n"},
               {6, 0, true, "audit_set_backlog_limit failed\n"},
               {7, kRefused, true, purge},
               {7, 0, true, purge}};
  for (const auto& [number, result, starts, message] : cases) {
    SCOPED_TRACE("call " + std::to_string(number) + " gives " + std::to_string(result));
    reset_kernel();
    offline::set_loginuid(4711);
    offline::fail_call_number(number, result);
    EXPECT_EQ(audit_subsys_init(), starts ? 0 : -1);
    EXPECT_EQ(errors(), message);
    EXPECT_EQ(audit_fd >= 0, starts);
    EXPECT_EQ(offline::is_open(), starts);
    EXPECT_EQ(offline::receiver_pid() != 0, starts);
    EXPECT_EQ(offline::calls(Call::kRequestStatus), starts ? 1U : 0U);
    close();
  }
}

// In one of the orders the first question only meets the acknowledgement of audit_set_pid.
TEST_F(AuditRule, ALockedKernelIsRecognisedInEitherOrderAndLeftAsItIs) {
  for (const auto order : {offline::AckOrder::kAckFirst, offline::AckOrder::kRecordFirst}) {
    reset_kernel();
    preload_three_rules();
    offline::set_config_records(true);
    offline::set_ack_order(order);
    offline::set_locked(true);
    EXPECT_EQ(audit_subsys_init(), -1);
    EXPECT_EQ(errors(), "audit is locked\n");
    EXPECT_FALSE(offline::is_open());
    EXPECT_EQ(offline::receiver_pid(), 0U);
    EXPECT_EQ(offline::calls(Call::kSetEnabled), 0U);
    EXPECT_EQ(offline::rules().size(), 3U);
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
}

// ---- Purge -------------------------------------------------------------------------------------

TEST_F(AuditRule, ADeletionThatFailsLeavesTheRulesFromThereOn) {
  preload_three_rules();
  offline::fail_call_number(13, kRefused);  // the seventh lists, four reads follow
  EXPECT_EQ(open(), "LIST_RULES: exit,always uid=1 (0x1) syscall=read\n");
  EXPECT_EQ(errors(),
            "deleting rule failed: Operation not permitted\ndelete_all_audit_rules failed\n");
  ASSERT_EQ(offline::rules().size(), 2U);
  EXPECT_EQ(offline::rules()[0]->values[0], 2U);
}

TEST_F(AuditRule, ASilentKernelIsGivenUpAfterFortyReadsOfWhichAReplyIsOne) {
  preload_three_rules();
  offline::set_silent(true);
  open();
  EXPECT_EQ(offline::calls(Call::kGetReply), 40U);
  EXPECT_EQ(std::time(nullptr), test::kStart_s + 4);
  EXPECT_EQ(errors(), "");
  offline::feed(AUDIT_CWD, kRecord);
  close();
  EXPECT_EQ(std::time(nullptr), test::kStart_s + 7) << "7.9 seconds";
  EXPECT_EQ(offline::rules().size(), 3U);
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

TEST_F(AuditRule, RepliesToOtherRequestsAndRulesWhoseLengthLiesAreDropped) {
  open();
  ASSERT_EQ(audit_add_bind_rule(), 1);
  const auto sequence = static_cast<std::uint32_t>(audit_request_status(audit_fd)) + 1;
  const Rule liar = foreign_rule(9);
  feed_reply(AUDIT_LIST_RULES, *liar, 4000);
  feed_reply(NLMSG_ERROR, nlmsgerr{-ENOENT, {}}, 4000);
  offline::feed(NLMSG_DONE, {}, 4000);
  offline::feed(AUDIT_CWD, kRecord);
  liar->buflen = 0x7fffffff;
  feed_reply(AUDIT_LIST_RULES, *liar, sequence);
  EXPECT_EQ(close(), "LIST_RULES: exit,always key=bind_rule syscall=bind\n");
  EXPECT_EQ(offline::calls(Call::kDeleteRule), 1U);
  EXPECT_EQ(errors(), "");
}

TEST_F(AuditRule, AnErrorInTheListDeletesNothing) {
  start();
  ASSERT_EQ(audit_add_bind_rule(), 1);
  const auto sequence = static_cast<std::uint32_t>(audit_request_status(audit_fd)) + 1;
  feed_reply(AUDIT_LIST_RULES, *foreign_rule(9), sequence);
  feed_reply(NLMSG_ERROR, nlmsgerr{kRefused, {}}, sequence);
  EXPECT_EQ(close(), "");
  EXPECT_EQ(errors(), "receiving rules list failed: Operation not permitted\n");
  EXPECT_EQ(offline::calls(Call::kDeleteRule), 0U);
  EXPECT_EQ(audit_fd, -1) << "the connection is closed all the same";
}

// ---- An overrun socket -------------------------------------------------------------------------

// The kernel has carried out, or refused, a request whose answer was dropped.
TEST_F(AuditRule, ARequestWithoutAnAnswerCountsAsCarriedOut) {
  for (const Call call :
       {Call::kSetPid, Call::kSetEnabled, Call::kSetRateLimit, Call::kSetBacklogLimit}) {
    offline::fail(call, -ENOBUFS);
    open();
    close();
  }
  start();
  offline::fail(Call::kAddRule, -ENOBUFS);
  EXPECT_EQ(audit_add_bind_rule(), 1);
  EXPECT_EQ(errors(), "");
}

TEST_F(AuditRule, ThePurgeIsRepeatedAfterAnOverrunTenTimesAtMost) {
  for (const Call call : {Call::kGetReply, Call::kDeleteRule, Call::kRequestRules}) {
    preload_three_rules();
    offline::fail(call, -ENOBUFS);
    open();
    EXPECT_TRUE(offline::rules().empty());
    EXPECT_EQ(errors(), "");
    close();
  }
  preload_three_rules();
  const unsigned before = offline::calls(Call::kRequestRules);
  offline::fail(Call::kDeleteRule, -ENOBUFS, 1000);
  open();
  EXPECT_EQ(offline::calls(Call::kRequestRules) - before, 10U);
  EXPECT_EQ(errors(), "delete_all_audit_rules failed\n");
  offline::fail(Call::kDeleteRule, 0, 0);
}

TEST_F(AuditRule, AnOverrunIsForgottenWithItsConnection) {
  offline::fail(Call::kSetPid, -ENOBUFS);
  offline::fail(Call::kSetEnabled, kRefused);
  EXPECT_EQ(audit_subsys_init(), -1);
  open();
  EXPECT_EQ(offline::calls(Call::kGetReply), 1U) << "nothing is thrown away";
}

// ---- Rules loaded once -------------------------------------------------------------------------

struct FixedRule {
  const char* name;
  int (*add)();
  void (*remove)();
  std::string bits;
};

class LoadedOnce : public AuditRule, public testing::WithParamInterface<FixedRule> {
 protected:
  LoadedOnce() { start(); }
  const FixedRule& rule_ = GetParam();
};

TEST_P(LoadedOnce, IsSentBitByBitAndTakenBackWithTheFlagsOfTheAddAndThenWithTheListedOnes) {
  EXPECT_EQ(rule_.add(), 1);
  EXPECT_EQ(rule_.add(), 0);
  rule_.remove();
  rule_.remove();
  EXPECT_EQ(offline::requests().size(), 3U);
  EXPECT_EQ(request(0), "+" + rule_.bits);
  EXPECT_EQ(request(1), "-" + rule_.bits);
  EXPECT_EQ(request(2), "-4" + rule_.bits.substr(2));
  EXPECT_TRUE(offline::rules().empty());
  EXPECT_EQ(rule_.add(), 1);
  close();
  start();
  EXPECT_EQ(rule_.add(), 1);
  EXPECT_EQ(errors(), "") << "only a second refusal is a failure";
}

TEST_P(LoadedOnce, CountsAsLoadedWhileTheKernelHasIt) {
  offline::fail(Call::kAddRule, kRefused);
  EXPECT_EQ(rule_.add(), -1);
  rule_.remove();
  EXPECT_EQ(offline::calls(Call::kDeleteRule), 0U) << "what is not loaded is not taken back";
  EXPECT_EQ(rule_.add(), 1);
  offline::fail(Call::kDeleteRule, kRefused, 2);
  rule_.remove();
  EXPECT_EQ(errors(), "audit_add_rule_data failed\naudit_del_rule_data failed\n");
  EXPECT_EQ(rule_.add(), 0);
  offline::fail(Call::kDeleteRule, 0);
  rule_.remove();
  EXPECT_EQ(offline::calls(Call::kDeleteRule), 3U) << "the first form was taken";
}

const FixedRule kFixedRules[] = {
    {"Execve", audit_add_execve_rule, audit_del_execve_rule, "20,2 1 [210=11] @59*1 execve_rule"},
    {"Bind", audit_add_bind_rule, audit_del_bind_rule, "20,2 1 [210=9] @49*1 bind_rule"},
    {"Openat", [] { return audit_add_syscall_rule("openat"); },
     [] { audit_del_syscall_rule("openat"); }, "20,2 1 [210=12] @257*1 syscall_rule"},
    {"AllSyscalls", [] { return audit_add_syscall_rule(nullptr); },
     [] { audit_del_syscall_rule(nullptr); }, "20,2 1 [210=12] @0*2048 syscall_rule"},
    {"Passwd", audit_add_passwd_rule, audit_del_passwd_rule,
     "20,2 3 [105=11] [106=10] [210=11] @0*2048 /etc/passwdpasswd_rule"},
    {"Shadow", audit_add_shadow_rule, audit_del_shadow_rule,
     "20,2 3 [105=11] [106=10] [210=11] @0*2048 /etc/shadowshadow_rule"},
    {"Wtmp", audit_add_wtmp_rule, audit_del_wtmp_rule,
     "20,2 3 [105=13] [106=10] [210=9] @0*2048 /var/log/wtmpwtmp_rule"},
};

INSTANTIATE_TEST_SUITE_P(EachRule, LoadedOnce, testing::ValuesIn(kFixedRules),
                         [](const auto& test) { return test.param.name; });

// libaudit looks only at the first waiting message for the kernel's refusal of the first form.
TEST_F(AuditRule, ARuleIsTakenBackWhenAnotherMessageHidesTheAnswer) {
  start();
  ASSERT_EQ(audit_add_bind_rule(), 1);
  offline::feed(AUDIT_CWD, kRecord);
  audit_del_bind_rule();
  EXPECT_TRUE(offline::rules().empty());
  EXPECT_EQ(errors(), "");
}

// Until a process has built a permission field, libaudit refuses keys on rules with only a system
// call, so this needs a process of its own.
TEST(FirstKeyOfAProcess, IsAcceptedOnASyscallRule) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto add_first_rule = [] {
    offline::switch_on();
    audit_subsys_init();
    audit_add_execve_rule();
    std::fprintf(stderr, "%s", request(0).c_str());
    std::exit(0);
  };
  EXPECT_EXIT(add_first_rule(), testing::ExitedWithCode(0), "20,2 1 .210=11. @59.1 execve_rule");
}

// ---- System call rules -------------------------------------------------------------------------

TEST_F(AuditRule, NoNameStandsForEverySystemCallAndSomeNamesAreRefused) {
  start();
  for (const char* name : {"execve", "bind", "no_such"}) {
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
            "unknown syscall name: no_such\ninvalid param\n");
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

// ---- Watches -----------------------------------------------------------------------------------

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
      {"etc/../" + name + "*", "wa", "must use absolute path\n", ""},
      {"/../" + name + "*//", "wa", "dirname or filename too long\n", ""},
      {"/" + name, "wa", missing("/" + name), "105 /" + name + " 10"},
      {"/proc/../proc", "wa", "relative path not supported\n", "107 /proc/../proc 10"},
      {"/no*", "wa", "wildcard is not supported\n" + missing("/no*"), "105 /no* 10"},
      {"/no?", "wa", "wildcard is not supported\n" + missing("/no?"), "105 /no? 10"},
      {"/proc///", "WA", "", "107 /proc 10"},
      {"/proc/self/status", "wa", "", "105 /proc/self/status 10"},
      {"/proc", "rwxa", "", "107 /proc 15"},
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
    ASSERT_EQ(offline::requests().size(), sent.empty() ? before : before + 1);
    if (sent.empty()) continue;
    const audit_rule_data& rule = *offline::requests().back().rule;
    std::ostringstream text;
    text << rule.fields[0] << " " << std::string(rule.buf, rule.values[0]) << " " << rule.values[1];
    EXPECT_EQ(text.str(), sent);
  }
}

}  // namespace
