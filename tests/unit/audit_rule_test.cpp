// The audit connection, the purge and the rules, against the audit kernel in memory: what is asked
// of the kernel and in what order, the rules as it receives them, and what each failure leaves.
#include "audit_rule.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <libaudit.h>
#include <linux/netlink.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "captured_log.h"
#include "clock.h"
#include "databases.h"
#include "offline_kernel.h"

namespace {

using offline::Call;
using offline::Rule;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr int kError = 2;
constexpr int kDebug = 4;
constexpr int kRefused = -EPERM;
constexpr std::time_t kStart_s = 1'700'000'000;

// Results that libaudit's rule building is told to give, and what was asked of it.
struct RuleBuilding {
  std::optional<int> syscall_result;
  std::optional<int> pair_result;
  std::vector<std::string> pairs;
  int watches = 0;
};
RuleBuilding building;

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// In place of libaudit's functions, which they call unless the test says otherwise.
extern "C" {

int audit_rule_syscallbyname_data(audit_rule_data* rule, const char* name) {
  if (building.syscall_result) return *building.syscall_result;
  return real<decltype(audit_rule_syscallbyname_data)>(__func__)(rule, name);
}

int audit_rule_fieldpair_data(audit_rule_data** rule, const char* pair, int flags) {
  EXPECT_EQ(flags, AUDIT_FILTER_EXIT);
  building.pairs.push_back(pair);
  if (building.pair_result) return *building.pair_result;
  return real<decltype(audit_rule_fieldpair_data)>(__func__)(rule, pair, flags);
}

int audit_add_watch_dir(int type, audit_rule_data** rule, const char* path) {
  ++building.watches;
  return real<decltype(audit_add_watch_dir)>(__func__)(type, rule, path);
}
}

namespace {

// Everything in a rule that is not zero.
std::string bits_of(const audit_rule_data& rule) {
  std::ostringstream text;
  text << "flags " << rule.flags << " action " << rule.action << " fields " << rule.field_count;
  for (std::size_t i = 0; i < AUDIT_MAX_FIELDS; ++i) {
    if ((rule.fields[i] | rule.values[i] | rule.fieldflags[i]) == 0) continue;
    text << ", [" << i << "] " << rule.fields[i] << " " << std::hex << rule.fieldflags[i]
         << std::dec << " " << rule.values[i];
  }
  text << std::hex;
  for (std::size_t i = 0; i < AUDIT_BITMASK_SIZE; ++i) {
    if (rule.mask[i] != 0) text << ", mask " << std::dec << i << " " << std::hex << rule.mask[i];
  }
  text << ", text " << std::string(rule.buf, rule.buflen);
  return text.str();
}

std::string mask_of(long number) {
  std::ostringstream text;
  text << ", mask " << number / 32 << " " << std::hex << (1U << (number % 32));
  return text.str();
}

std::string mask_of_all() {
  std::ostringstream text;
  for (int word = 0; word < AUDIT_BITMASK_SIZE; ++word) text << ", mask " << word << " ffffffff";
  return text.str();
}

std::string syscall_bits(const std::string& mask, const std::string& key) {
  return "flags 20 action 2 fields 1, [0] 210 40000000 " + std::to_string(key.size()) + mask +
         ", text " + key;
}

// `type` is AUDIT_WATCH or AUDIT_DIR, `permissions` the kernel's bits.
std::string watch_bits(int type, const std::string& path, int permissions, const std::string& key) {
  std::ostringstream text;
  text << "flags 20 action 2 fields 3, [0] " << type << " 40000000 " << path.size()
       << ", [1] 106 40000000 " << permissions << ", [2] 210 40000000 " << key.size()
       << mask_of_all() << ", text " << path << key;
  return text.str();
}

// A rule of somebody else: no text, so that only its numbers tell it apart.
Rule foreign_rule(std::uint32_t list, std::uint32_t action, std::uint32_t field,
                  std::uint32_t value) {
  Rule rule(static_cast<audit_rule_data*>(std::calloc(1, sizeof(audit_rule_data))));
  rule->flags = list;
  rule->action = action;
  rule->field_count = 1;
  rule->fields[0] = field;
  rule->fieldflags[0] = AUDIT_EQUAL;
  rule->values[0] = value;
  rule->mask[0] = 1;
  return rule;
}

void preload_three_rules() {
  for (const std::uint32_t uid : {1U, 2U, 3U}) {
    offline::preload_rule(*foreign_rule(AUDIT_FILTER_EXIT, AUDIT_ALWAYS, AUDIT_UID, uid));
  }
}

std::string requested_bits(std::size_t index) {
  const auto& requests = offline::requests();
  return index < requests.size() ? bits_of(*requests[index].rule) : "no such request";
}

std::string errors() {
  return test::log_text(kError);
}

std::string pid_failure(const char* call) {
  return std::string("audit_rule: ") + call + " failed, uid=4711 pid=" + std::to_string(getpid());
}

// An unlocked kernel whose requests return their true outcome.
class AuditRule : public testing::Test {
 protected:
  AuditRule() {
    offline::switch_on();
    offline::set_config_records(false);
    offline::set_path_check([](const std::string&) { return true; });
    offline::set_loginuid(4711);
    test::reset_databases();
    for (const char* path : {"/etc/passwd", "/etc/shadow", "/var/log/wtmp"}) {
      test::redirect(path, "/dev/null");
    }
    offline::set_clock(kStart_s);
    test::clear_log();
    building = {};
  }
  ~AuditRule() override {
    building = {};
    CaptureStdout();
    audit_subsys_fini();
    GetCapturedStdout();
    offline::switch_off();
    offline::release_clock();
    test::reset_databases();
  }

  // Sets up and returns what was printed.
  static std::string open() {
    CaptureStdout();
    EXPECT_EQ(audit_subsys_init(), 0);
    return GetCapturedStdout();
  }

  // Reads what waits, so that the next request returns its true outcome.
  static void read_waiting() {
    audit_reply reply;
    while (audit_get_reply(audit_fd, &reply, GET_REPLY_NONBLOCKING, 0) > 0) continue;
  }

  static void start() {
    open();
    read_waiting();
  }

  // Tears down and returns what was printed.
  static std::string close() {
    CaptureStdout();
    EXPECT_EQ(audit_subsys_fini(), 0);
    return GetCapturedStdout();
  }

  static std::int64_t passed_ms() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return (now.tv_sec - kStart_s) * 1000 + now.tv_nsec / 1'000'000;
  }
};

// ---- Connection --------------------------------------------------------------------------------

TEST_F(AuditRule, SetUpMakesTheProcessTheReceiverAndTearDownGivesTheRoleUp) {
  ASSERT_EQ(audit_fd, -1);
  EXPECT_EQ(open(), "");
  EXPECT_GE(audit_fd, 0);
  EXPECT_EQ(offline::receiver_pid(), static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(offline::enabled(), 1U);
  EXPECT_EQ(offline::rate_limit(), 0U);
  EXPECT_EQ(offline::backlog_limit(), 102400U);
  EXPECT_EQ(test::logged(kDebug, "audit_rule", "begin deleting old rules\n"), 1U);
  EXPECT_EQ(errors(), "");
  EXPECT_EQ(offline::waiting(), 1U) << "the answer to the status request is the poller's";
  EXPECT_EQ(offline::calls(Call::kIsEnabled), 1U) << "asked again only without an answer";

  EXPECT_EQ(close(), "");
  EXPECT_EQ(audit_fd, -1);
  EXPECT_FALSE(offline::is_open());
  EXPECT_EQ(offline::receiver_pid(), 0U);
  EXPECT_EQ(offline::enabled(), 1U) << "auditing stays on";
  EXPECT_EQ(offline::backlog_limit(), 102400U);
  EXPECT_EQ(errors(), "");
}

// Which call is the n-th tells the order of the steps as well.
struct FailingCall {
  const char* name;
  unsigned number;
  int result;
  bool starts;
  std::string message;
  int level = kError;
};

class AuditRuleSetUp : public AuditRule, public testing::WithParamInterface<FailingCall> {};

TEST_P(AuditRuleSetUp, TellsOfAFailingCall) {
  const FailingCall& call = GetParam();
  offline::fail_call_number(call.number, call.result);
  EXPECT_EQ(audit_subsys_init(), call.starts ? 0 : -1);
  EXPECT_EQ(test::log_text(call.level), call.message);
  EXPECT_EQ(audit_fd >= 0, call.starts);
  EXPECT_EQ(offline::is_open(), call.starts);
  EXPECT_EQ(offline::receiver_pid() != 0, call.starts);
  EXPECT_EQ(offline::calls(Call::kRequestStatus), call.starts ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(
    EachCall, AuditRuleSetUp,
    testing::Values(
        FailingCall{"Open", 1, -EMFILE, false,
                    "audit_rule: audit_open failed: Too many open files\n"},
        FailingCall{"SetPid", 2, -EEXIST, false, pid_failure("audit_set_pid")},
        FailingCall{"IsEnabled", 3, 2, false, "audit_rule: audit is locked\n"},
        FailingCall{"SetEnabled", 4, kRefused, false, pid_failure("audit_set_enabled")},
        FailingCall{"SetRateLimit", 5, kRefused, true, "audit_rule: audit_set_rate_limit failed\n"},
        FailingCall{"SetRateLimitZero", 5, 0, true, "audit_rule: audit_set_rate_limit failed\n"},
        FailingCall{"SetBacklogLimit", 6, kRefused, true,
                    "audit_rule: audit_set_backlog_limit failed\n"},
        FailingCall{"SetBacklogLimitZero", 6, 0, true,
                    "audit_rule: audit_set_backlog_limit failed\n"},
        FailingCall{"RequestRules", 7, kRefused, true,
                    "audit_rule: audit_request_rules_list_data failed\n"
                    "audit_rule: delete_all_audit_rules failed\n"},
        FailingCall{"RequestRulesZero", 7, 0, true,
                    "audit_rule: audit_request_rules_list_data failed\n"
                    "audit_rule: delete_all_audit_rules failed\n"},
        FailingCall{"GetReply", 8, -EAGAIN, true, ""},
        FailingCall{"RequestStatus", 9, kRefused, true,
                    "audit_rule: begin deleting old rules\n"
                    "audit_rule: audit_request_status failed\n",
                    kDebug}),
    [](const auto& test) { return test.param.name; });

TEST_F(AuditRule, GivesTheRoleUpOnlyWhenItHadIt) {
  offline::set_other_receiver(true);
  EXPECT_EQ(audit_subsys_init(), -1);
  EXPECT_EQ(errors(), pid_failure("audit_set_pid"));
  EXPECT_EQ(offline::calls(Call::kSetPid), 1U);
  EXPECT_EQ(offline::calls(Call::kClose), 1U);
  EXPECT_EQ(offline::calls(Call::kIsEnabled), 0U);
}

TEST_F(AuditRule, GoesOnWhenNobodyKnowsWhetherAuditingIsEnabled) {
  offline::fail(Call::kIsEnabled, -1, 2);
  EXPECT_EQ(open(), "");
  EXPECT_EQ(errors(), "");
  EXPECT_EQ(offline::enabled(), 1U);
}

class LockedKernel : public AuditRule, public testing::WithParamInterface<offline::AckOrder> {};

// In one of the orders the first question only meets the acknowledgement of audit_set_pid.
TEST_P(LockedKernel, IsLeftAsItIs) {
  preload_three_rules();
  offline::set_config_records(true);
  offline::set_ack_order(GetParam());
  offline::set_locked(true);
  EXPECT_EQ(audit_subsys_init(), -1);
  EXPECT_EQ(errors(), "audit_rule: audit is locked\n");
  EXPECT_EQ(audit_fd, -1);
  EXPECT_FALSE(offline::is_open());
  EXPECT_EQ(offline::receiver_pid(), 0U);
  EXPECT_EQ(offline::calls(Call::kSetPid), 2U);
  EXPECT_EQ(offline::calls(Call::kSetEnabled), 0U);
  EXPECT_EQ(offline::rules().size(), 3U);
}

INSTANTIATE_TEST_SUITE_P(BothOrders, LockedKernel,
                         testing::Values(offline::AckOrder::kAckFirst,
                                         offline::AckOrder::kRecordFirst));

TEST_F(AuditRule, TearDownWhileClosedOnlyForgetsWhatIsLoaded) {
  start();
  ASSERT_EQ(audit_add_execve_rule(), 1);
  ASSERT_EQ(audit_add_passwd_rule(), 1);
  ASSERT_EQ(audit_add_syscall_rule("openat"), 1);
  const unsigned calls = offline::calls(Call::kCount);
  const int fd = audit_fd;
  audit_fd = -1;
  EXPECT_EQ(audit_subsys_fini(), 0);
  EXPECT_EQ(audit_subsys_fini(), 0);
  EXPECT_EQ(offline::calls(Call::kCount), calls);
  audit_fd = fd;
  EXPECT_EQ(audit_add_execve_rule(), 1);
  EXPECT_EQ(audit_add_passwd_rule(), 1);
  EXPECT_EQ(audit_add_syscall_rule("openat"), 1);
}

// ---- Purge -------------------------------------------------------------------------------------

TEST_F(AuditRule, SetUpDeletesAndPrintsTheRulesOfOthersAsTheKernelListsThem) {
  offline::preload_rule(*foreign_rule(AUDIT_FILTER_EXCLUDE, AUDIT_NEVER, AUDIT_MSGTYPE, 1327));
  offline::preload_rule(*foreign_rule(AUDIT_FILTER_USER, AUDIT_ALWAYS, AUDIT_UID, 5));
  EXPECT_EQ(open(),
            "LIST_RULES: user,always uid=5 (0x5)\n"
            "LIST_RULES: exclude,never msgtype=PROCTITLE (0x52f)\n");
  EXPECT_TRUE(offline::rules().empty());
  ASSERT_EQ(offline::requests().size(), 2U);
  EXPECT_FALSE(offline::requests()[0].add);
  EXPECT_EQ(requested_bits(0), "flags 0 action 2 fields 1, [0] 1 40000000 5, mask 0 1, text ");
  EXPECT_EQ(requested_bits(1), "flags 5 action 0 fields 1, [0] 12 40000000 1327, mask 0 1, text ");
  EXPECT_EQ(errors(), "");
}

TEST_F(AuditRule, TearDownDeletesEveryRule) {
  start();
  ASSERT_EQ(audit_add_passwd_rule(), 1);
  ASSERT_EQ(audit_add_bind_rule(), 1);
  EXPECT_EQ(close(),
            "LIST_RULES: exit,always key=bind_rule syscall=bind\n"
            "LIST_RULES: exit,always watch=/etc/passwd perm=wa key=passwd_rule\n");
  EXPECT_TRUE(offline::rules().empty());
}

TEST_F(AuditRule, ADeletionThatFailsLeavesTheRulesFromThereOn) {
  preload_three_rules();
  offline::fail_call_number(13, kRefused);  // the seventh lists, four reads follow
  EXPECT_EQ(open(), "LIST_RULES: exit,always uid=1 (0x1) syscall=read\n");
  EXPECT_EQ(offline::calls(Call::kDeleteRule), 2U);
  EXPECT_EQ(errors(),
            "audit_rule: deleting rule failed: Operation not permitted\n"
            "audit_rule: delete_all_audit_rules failed\n");
  ASSERT_EQ(offline::rules().size(), 2U);
  EXPECT_EQ(offline::rules()[0]->values[0], 2U);
}

TEST_F(AuditRule, ASilentKernelIsGivenUpAfterFourSeconds) {
  preload_three_rules();
  offline::set_silent(true);
  EXPECT_EQ(open(), "");
  EXPECT_EQ(offline::calls(Call::kGetReply), 40U);
  EXPECT_EQ(passed_ms(), 4000);
  EXPECT_EQ(test::logged(kDebug, "audit_rule", "begin deleting old rules\n"), 1U);
  EXPECT_EQ(errors(), "");
  EXPECT_EQ(offline::rules().size(), 3U);
}

TEST_F(AuditRule, AnyReplyStartsTheCountOfEmptyReadsAnewAtOne) {
  open();
  offline::set_silent(true);
  const unsigned before = offline::calls(Call::kGetReply);
  const std::size_t waiting = offline::waiting() + 1;
  offline::feed(AUDIT_SYSCALL, "audit(1700000000.000:1): arch=c000003e syscall=59");
  close();
  // The acknowledgement of the request is still there behind the waiting messages.
  EXPECT_EQ(offline::calls(Call::kGetReply) - before, waiting + 1 + 39);
  EXPECT_EQ(passed_ms(), 3900);
}

TEST_F(AuditRule, AWaitIsRepeatedWhenInterruptedAndCountsAsAnEmptyReadWhenItFails) {
  preload_three_rules();
  offline::fail_poll(EINTR, 100);
  open();
  EXPECT_TRUE(offline::rules().empty());
  EXPECT_EQ(offline::calls(Call::kGetReply), 4U);

  offline::fail_poll(ENOMEM, 39);
  close();
  EXPECT_EQ(offline::calls(Call::kGetReply), 4U + 3U)
      << "the answer to the status request, the acknowledgement and the end of the list";
}

TEST_F(AuditRule, AWaitThatFailsFortyTimesEndsTheCollecting) {
  preload_three_rules();
  offline::fail_poll(ENOMEM, 40);
  open();
  EXPECT_EQ(offline::calls(Call::kGetReply), 0U);
  EXPECT_EQ(offline::rules().size(), 3U);
  EXPECT_EQ(errors(), "");
}

TEST_F(AuditRule, RepliesToOtherRequestsAndRecordsAreDropped) {
  open();
  ASSERT_EQ(audit_add_bind_rule(), 1);
  const Rule stranger = foreign_rule(AUDIT_FILTER_EXIT, AUDIT_ALWAYS, AUDIT_UID, 9);
  const nlmsgerr failure = {.error = -ENOENT, .msg = {}};
  offline::feed(AUDIT_SYSCALL, "audit(1700000000.000:1): arch=c000003e syscall=59");
  offline::feed(AUDIT_LIST_RULES,
                {reinterpret_cast<const char*>(stranger.get()), sizeof(*stranger)}, 4000);
  offline::feed(NLMSG_ERROR, {reinterpret_cast<const char*>(&failure), sizeof(failure)}, 4000);
  offline::feed(NLMSG_DONE, {}, 4000);
  EXPECT_EQ(close(), "LIST_RULES: exit,always key=bind_rule syscall=bind\n");
  EXPECT_EQ(offline::calls(Call::kDeleteRule), 1U);
  EXPECT_EQ(errors(), "");
}

TEST_F(AuditRule, AnErrorInTheListDeletesNothing) {
  start();
  ASSERT_EQ(audit_add_bind_rule(), 1);
  const auto sequence = static_cast<std::uint32_t>(audit_request_status(audit_fd)) + 1;
  const Rule listed = foreign_rule(AUDIT_FILTER_EXIT, AUDIT_ALWAYS, AUDIT_UID, 9);
  const nlmsgerr failure = {.error = kRefused, .msg = {}};
  offline::feed(AUDIT_LIST_RULES, {reinterpret_cast<const char*>(listed.get()), sizeof(*listed)},
                sequence);
  offline::feed(NLMSG_ERROR, {reinterpret_cast<const char*>(&failure), sizeof(failure)}, sequence);
  EXPECT_EQ(close(), "");
  EXPECT_EQ(errors(), "audit_rule: receiving rules list failed: Operation not permitted\n");
  EXPECT_EQ(offline::calls(Call::kDeleteRule), 0U);
  EXPECT_EQ(audit_fd, -1) << "the connection is closed all the same";
}

TEST_F(AuditRule, AListedRuleWhoseLengthLiesIsNotReadBeyondItsReply) {
  open();
  const int sequence = audit_request_status(audit_fd);
  Rule liar = foreign_rule(AUDIT_FILTER_EXIT, AUDIT_ALWAYS, AUDIT_UID, 9);
  liar->buflen = 0x7fffffff;
  offline::feed(AUDIT_LIST_RULES, {reinterpret_cast<const char*>(liar.get()), sizeof(*liar)},
                static_cast<std::uint32_t>(sequence) + 1);
  EXPECT_EQ(close(), "");
  EXPECT_EQ(errors(), "");
}

// ---- An overrun socket -------------------------------------------------------------------------

// The kernel has carried out, or refused, a request whose answer was dropped.
TEST_F(AuditRule, ARequestWithoutAnAnswerDoesNotEndTheSetUp) {
  for (const Call call :
       {Call::kSetPid, Call::kSetEnabled, Call::kSetRateLimit, Call::kSetBacklogLimit}) {
    offline::fail(call, -ENOBUFS);
    EXPECT_EQ(open(), "");
    EXPECT_EQ(errors(), "");
    close();
  }
}

TEST_F(AuditRule, ARuleWithoutAnAnswerCountsAsLoaded) {
  start();
  offline::fail(Call::kAddRule, -ENOBUFS);
  EXPECT_EQ(audit_add_bind_rule(), 1);
  EXPECT_EQ(errors(), "");
}

TEST_F(AuditRule, ThePurgeIsRepeatedAfterAnOverrun) {
  for (const Call call : {Call::kGetReply, Call::kDeleteRule, Call::kRequestRules}) {
    preload_three_rules();
    const unsigned before = offline::calls(Call::kRequestRules);
    offline::fail(call, -ENOBUFS);
    open();
    EXPECT_GE(offline::calls(Call::kRequestRules) - before, 2U);
    EXPECT_TRUE(offline::rules().empty());
    EXPECT_EQ(errors(), "");
    close();
  }
}

TEST_F(AuditRule, ThePurgeIsGivenUpWhenEveryOneOverruns) {
  preload_three_rules();
  offline::fail(Call::kDeleteRule, -ENOBUFS, 1000);
  open();
  EXPECT_EQ(offline::calls(Call::kRequestRules), 10U);
  EXPECT_EQ(errors(), "audit_rule: delete_all_audit_rules failed\n");
  offline::fail(Call::kDeleteRule, 0, 0);
}

TEST_F(AuditRule, AnOverrunIsForgottenWithItsConnection) {
  offline::fail(Call::kSetPid, -ENOBUFS);
  offline::fail(Call::kSetEnabled, kRefused);
  EXPECT_EQ(audit_subsys_init(), -1);
  open();
  EXPECT_EQ(offline::calls(Call::kGetReply), 1U) << "nothing is thrown away";
}

TEST_F(AuditRule, ALockedKernelIsRecognisedBehindUnreadMessages) {
  offline::set_locked(true);
  offline::fail(Call::kIsEnabled, -1, 2);
  for (int i = 0; i < 100; ++i) {
    offline::feed(AUDIT_CWD, "audit(1700000000.000:1): cwd=\"/\"");
  }
  EXPECT_EQ(audit_subsys_init(), -1);
  EXPECT_EQ(errors(), "audit_rule: audit is locked\n");
}

TEST(AuditRuleTypes, AreTheKeysInTheOrderOfTheirIds) {
  const char* const names[] = {"passwd_rule", "shadow_rule", "wtmp_rule",    "lastlogin_rule",
                               "execve_rule", "bind_rule",   "syscall_rule", "fakelogin_rule"};
  static_assert(sizeof(audit_rule_type) == 68 && std::size(audit_rule_types) == std::size(names));
  for (std::size_t i = 0; i < std::size(names); ++i) {
    char row[64] = {};
    std::strcpy(row, names[i]);
    EXPECT_EQ(audit_rule_types[i].id, static_cast<std::int32_t>(i));
    EXPECT_EQ(std::memcmp(audit_rule_types[i].name, row, sizeof(row)), 0) << names[i];
  }
}

// ---- Rules loaded once -------------------------------------------------------------------------

struct FixedRule {
  const char* name;
  int (*add)();
  void (*remove)();
  std::string bits;
};

void PrintTo(const FixedRule& rule, std::ostream* out) {
  *out << rule.bits;
}

std::vector<FixedRule> fixed_rules() {
  return {
      {"Execve", audit_add_execve_rule, audit_del_execve_rule,
       syscall_bits(mask_of(SYS_execve), "execve_rule")},
      {"Bind", audit_add_bind_rule, audit_del_bind_rule,
       syscall_bits(mask_of(SYS_bind), "bind_rule")},
      {"Openat", [] { return audit_add_syscall_rule("openat"); },
       [] { audit_del_syscall_rule("openat"); }, syscall_bits(mask_of(SYS_openat), "syscall_rule")},
      {"AllSyscalls", [] { return audit_add_syscall_rule("all"); },
       [] { audit_del_syscall_rule("all"); }, syscall_bits(mask_of_all(), "syscall_rule")},
      {"Passwd", audit_add_passwd_rule, audit_del_passwd_rule,
       watch_bits(105, "/etc/passwd", 10, "passwd_rule")},
      {"Shadow", audit_add_shadow_rule, audit_del_shadow_rule,
       watch_bits(105, "/etc/shadow", 10, "shadow_rule")},
      {"Wtmp", audit_add_wtmp_rule, audit_del_wtmp_rule,
       watch_bits(105, "/var/log/wtmp", 10, "wtmp_rule")},
  };
}

class LoadedOnce : public AuditRule, public testing::WithParamInterface<FixedRule> {
 protected:
  LoadedOnce() { start(); }
};

TEST_P(LoadedOnce, IsSentBitByBitAndOnlyOnce) {
  EXPECT_EQ(GetParam().add(), 1);
  EXPECT_EQ(GetParam().add(), 0);
  ASSERT_EQ(offline::requests().size(), 1U);
  EXPECT_TRUE(offline::requests()[0].add);
  EXPECT_EQ(requested_bits(0), GetParam().bits);
  close();
  start();
  EXPECT_EQ(GetParam().add(), 1);
  EXPECT_EQ(errors(), "");
}

TEST_P(LoadedOnce, IsLoadableAgainAfterARefusal) {
  offline::fail(Call::kAddRule, kRefused);
  EXPECT_EQ(GetParam().add(), -1);
  EXPECT_EQ(errors(), "audit_rule: audit_add_rule_data failed\n");
  GetParam().remove();
  EXPECT_EQ(offline::calls(Call::kDeleteRule), 0U) << "what is not loaded is not taken back";
  EXPECT_EQ(GetParam().add(), 1);
}

TEST_P(LoadedOnce, IsTakenBackWithTheFlagsOfTheAddAndThenWithTheListedOnes) {
  ASSERT_EQ(GetParam().add(), 1);
  GetParam().remove();
  EXPECT_TRUE(offline::rules().empty());
  ASSERT_EQ(offline::requests().size(), 3U);
  std::string listed = GetParam().bits;
  EXPECT_FALSE(offline::requests()[1].add);
  EXPECT_EQ(requested_bits(1), listed);
  EXPECT_FALSE(offline::requests()[2].add);
  EXPECT_EQ(requested_bits(2), listed.replace(0, 8, "flags 4"));
  EXPECT_EQ(errors(), "") << "only a second refusal is a failure";
  GetParam().remove();
  EXPECT_EQ(offline::requests().size(), 3U);
  EXPECT_EQ(GetParam().add(), 1);
}

TEST_P(LoadedOnce, IsNotDeletedTwiceWhenTheFirstFormIsTaken) {
  ASSERT_EQ(GetParam().add(), 1);
  offline::fail(Call::kDeleteRule, 0);
  GetParam().remove();
  EXPECT_EQ(offline::calls(Call::kDeleteRule), 1U);
}

TEST_P(LoadedOnce, StaysLoadedWhenTheKernelDoesNotLetGo) {
  ASSERT_EQ(GetParam().add(), 1);
  offline::fail(Call::kDeleteRule, kRefused, 2);
  GetParam().remove();
  EXPECT_EQ(errors(), "audit_rule: audit_del_rule_data failed\n");
  EXPECT_EQ(GetParam().add(), 0);
}

TEST_P(LoadedOnce, TellsOfARefusedKeyWithItsWholePair) {
  building.pair_result = -5;
  EXPECT_EQ(GetParam().add(), -1);
  ASSERT_EQ(building.pairs.size(), 1U);
  EXPECT_EQ(errors(), "audit_rule: audit_rule_fieldpair_data failed: " + building.pairs[0] + "\n");
  EXPECT_TRUE(offline::requests().empty());
}

INSTANTIATE_TEST_SUITE_P(EachRule, LoadedOnce, testing::ValuesIn(fixed_rules()),
                         [](const auto& test) { return test.param.name; });

// libaudit looks only at the first waiting message for the kernel's refusal of the first form.
TEST_F(AuditRule, ARuleIsTakenBackWhenAnUnreadMessageHidesTheAnswer) {
  start();
  ASSERT_EQ(audit_add_bind_rule(), 1);
  offline::feed(AUDIT_CWD, "audit(1700000000.000:1): cwd=\"/\"");
  audit_del_bind_rule();
  EXPECT_TRUE(offline::rules().empty());
  EXPECT_EQ(errors(), "");
}

TEST_F(AuditRule, ARuleIsTakenBackWhenTheRecordOfTheRequestHidesTheAnswer) {
  start();
  offline::set_config_records(true);
  offline::set_ack_order(offline::AckOrder::kRecordFirst);
  ASSERT_EQ(audit_add_bind_rule(), 1);
  read_waiting();
  audit_del_bind_rule();
  EXPECT_TRUE(offline::rules().empty());
  EXPECT_EQ(errors(), "");
}

// ---- The first key of a process ----------------------------------------------------------------

// Until a process has built a permission field, libaudit refuses keys on rules with only a system
// call, so this needs a process of its own.
TEST(FirstKeyOfAProcess, IsAcceptedOnASyscallRule) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto add_first_rules = [] {
    Rule plain(static_cast<audit_rule_data*>(std::calloc(1, sizeof(audit_rule_data))));
    audit_rule_syscallbyname_data(plain.get(), "execve");
    audit_rule_data* address = plain.release();
    char pair[] = "key=execve_rule";
    const int refused = audit_rule_fieldpair_data(&address, pair, AUDIT_FILTER_EXIT);
    plain.reset(address);
    building = {};

    offline::switch_on();
    audit_subsys_init();
    const int first = audit_add_execve_rule();
    const int watches_for_first = building.watches;
    const int second = audit_add_bind_rule();
    std::fprintf(stderr, "refused %d, first %d with %d watches, second %d with %d, requests %zu\n",
                 refused, first, watches_for_first, second, building.watches,
                 offline::requests().size());
    std::fprintf(stderr, "%s\n%s\n", requested_bits(0).c_str(), errors().c_str());
    plain.reset();
    std::exit(requested_bits(0) == syscall_bits(mask_of(SYS_execve), "execve_rule") ? 0 : 1);
  };
  EXPECT_EXIT(add_first_rules(), testing::ExitedWithCode(0),
              "refused -19, first 1 with 1 watches, second 1 with 1, requests 2");
}

TEST_F(AuditRule, AKeyThatIsRefusedForGoodIsTriedOnceMore) {
  start();
  building.pair_result = -19;
  EXPECT_EQ(audit_add_execve_rule(), -1);
  EXPECT_EQ(building.pairs, (std::vector<std::string>{"key=execve_rule", "key=execve_rule"}));
  EXPECT_EQ(errors(), "audit_rule: audit_rule_fieldpair_data failed: key=execve_rule\n");
}

// ---- System call rules -------------------------------------------------------------------------

TEST_F(AuditRule, NoNameStandsForEverySystemCall) {
  start();
  EXPECT_EQ(audit_add_syscall_rule(nullptr), 1);
  EXPECT_EQ(audit_add_syscall_rule(""), 0);
  EXPECT_EQ(audit_add_syscall_rule("all"), 0);
  audit_del_syscall_rule("");
  EXPECT_EQ(errors(), "audit_rule: invalid param\n");
  EXPECT_EQ(offline::rules().size(), 1U);
  audit_del_syscall_rule(nullptr);
  EXPECT_TRUE(offline::rules().empty());
  EXPECT_EQ(audit_add_syscall_rule("all"), 1);
}

struct RefusedName {
  const char* name;
  const char* syscall;
  std::optional<int> libaudit_result;
  const char* message;
};

class RefusedSyscall : public AuditRule, public testing::WithParamInterface<RefusedName> {};

TEST_P(RefusedSyscall, SendsNothing) {
  start();
  building.syscall_result = GetParam().libaudit_result;
  EXPECT_EQ(audit_add_syscall_rule(GetParam().syscall), -1);
  EXPECT_EQ(errors(), GetParam().message);
  building.syscall_result = std::nullopt;
  audit_del_syscall_rule(GetParam().syscall);
  EXPECT_TRUE(offline::requests().empty());
}

INSTANTIATE_TEST_SUITE_P(
    EachReason, RefusedSyscall,
    testing::Values(
        RefusedName{"ReservedExecve", "execve", {}, "audit_rule: syscall execve reserved inside\n"},
        RefusedName{"ReservedBind", "bind", {}, "audit_rule: syscall bind reserved inside\n"},
        RefusedName{"Unknown", "no_such", {}, "audit_rule: unknown syscall name: no_such\n"},
        RefusedName{"UnknownMachine", "read", -2, "audit_rule: unknown elf type\n"},
        RefusedName{"SomethingElse", "read", -3, ""}),
    [](const auto& test) { return test.param.name; });

TEST_F(AuditRule, ANameTakenBackLeavesTheOthersLoaded) {
  start();
  const std::vector<const char*> names = {"read", "write", "openat", "close", "connect"};
  for (const char* name : names) ASSERT_EQ(audit_add_syscall_rule(name), 1) << name;
  audit_del_syscall_rule("openat");
  audit_del_syscall_rule("never_added");
  EXPECT_EQ(offline::rules().size(), 4U);
  for (const char* name : names) {
    EXPECT_EQ(audit_add_syscall_rule(name), std::string(name) == "openat" ? 1 : 0) << name;
  }
  EXPECT_EQ(errors(), "");
}

// Names of this machine's system calls that have no class of their own.
std::vector<std::string> syscall_names(std::size_t count) {
  std::vector<std::string> names;
  for (int number = 0; names.size() < count && number < AUDIT_BITMASK_SIZE * 32; ++number) {
    const char* name = audit_syscall_to_name(number, audit_detect_machine());
    if (name != nullptr && number != SYS_execve && number != SYS_bind) names.emplace_back(name);
  }
  return names;
}

TEST_F(AuditRule, TheRegistryHolds256Names) {
  start();
  const std::vector<std::string> names = syscall_names(257);
  ASSERT_EQ(names.size(), 257U);
  for (std::size_t i = 0; i < 256; ++i) ASSERT_EQ(audit_add_syscall_rule(names[i].c_str()), 1);
  EXPECT_EQ(audit_add_syscall_rule(names[256].c_str()), -1);
  EXPECT_EQ(errors(), "audit_rule: too many syscall rule\n");
  EXPECT_EQ(audit_add_syscall_rule(names[0].c_str()), 0);
  EXPECT_EQ(audit_add_syscall_rule(names[255].c_str()), 0);
  EXPECT_EQ(audit_add_execve_rule(), 1) << "the fixed rules need no place";
  EXPECT_EQ(offline::rules().size(), 257U);

  audit_del_syscall_rule(names[255].c_str());
  audit_del_syscall_rule(names[0].c_str());
  EXPECT_EQ(audit_add_syscall_rule(names[256].c_str()), 1);
  EXPECT_EQ(audit_add_syscall_rule(names[254].c_str()), 0);
}

TEST_F(AuditRule, KeepsItsOwnCopyOfAName) {
  start();
  char name[] = "openat";
  ASSERT_EQ(audit_add_syscall_rule(name), 1);
  std::strcpy(name, "close");
  EXPECT_EQ(audit_add_syscall_rule("openat"), 0);
  EXPECT_EQ(audit_add_syscall_rule("close"), 1);
}

// ---- Watches -----------------------------------------------------------------------------------

// A path of this length whose components are as long as they may be.
std::string path_of(std::size_t length, std::size_t component = 255) {
  std::string path;
  while (path.size() < length) path += "/" + std::string(component, 'x');
  path.resize(length);
  if (path.back() == '/') path.back() = 'x';
  return path;
}

struct WatchCase {
  std::string name;
  std::string path;
  std::string permissions;
  std::string message;
  std::string bits;  // empty when nothing is sent
};

void PrintTo(const WatchCase& watch, std::ostream* out) {
  *out << watch.path.substr(0, 100) << " " << watch.permissions;
}

std::vector<WatchCase> watch_cases() {
  const std::string longest = path_of(4095);
  const std::string missing = "audit_rule: file ";
  const auto sent = [](const std::string& path, int permissions = 10, int type = 105) {
    return watch_bits(type, path, permissions, "passwd_rule");
  };
  return {
      {"PathTooLong", path_of(4096), "wa", "audit_rule: path too long\n", ""},
      {"RelativeAndTooLong", std::string(4096, 'x'), "wa", "audit_rule: path too long\n", ""},
      {"LongestPath", longest, "wa", missing + longest + " not exist\n", sent(longest)},
      {"EmptyPath", "", "wa", "audit_rule: must use absolute path\n", ""},
      {"RelativePath", "etc/../" + std::string(256, '*'), "wa",
       "audit_rule: must use absolute path\n", ""},
      {"FileNameTooLong", "/../" + std::string(256, '*'), "wa",
       "audit_rule: dirname or filename too long\n", ""},
      {"FileNameTooLongBeforeSlashes", "/tmp/" + std::string(256, 'x') + "//", "wa",
       "audit_rule: dirname or filename too long\n", ""},
      {"LongestFileName", "/proc/" + std::string(255, 'x'), "wa",
       missing + "/proc/" + std::string(255, 'x') + " not exist\n",
       sent("/proc/" + std::string(255, 'x'))},
      {"ParentDirectory", "/etc/../etc/passwd", "wa", "audit_rule: relative path not supported\n",
       sent("/etc/../etc/passwd")},
      {"Wildcards", "/proc/..no*/such?", "wa",
       "audit_rule: relative path not supported\naudit_rule: wildcard is not supported\n" +
           missing + "/proc/..no*/such? not exist\n",
       sent("/proc/..no*/such?")},
      {"QuestionMark", "/proc/no?", "wa",
       "audit_rule: wildcard is not supported\n" + missing + "/proc/no? not exist\n",
       sent("/proc/no?")},
      {"Directory", "/proc///", "wa", "", sent("/proc", 10, 107)},
      {"File", "/proc/self/status", "wa", "", sent("/proc/self/status")},
      {"MissingFile", "/proc/no_such/", "wa", missing + "/proc/no_such not exist\n",
       sent("/proc/no_such")},
      {"OnlySlashes", "//", "wa", missing + " not exist\naudit_rule: audit_add_rule_data failed\n",
       sent("")},
      {"UpperCase", "/proc", "WA", "", sent("/proc", 10, 107)},
      {"EveryPermission", "/proc", "rwxa", "", sent("/proc", 15, 107)},
      {"RepeatedPermission", "/proc", "rRrr", "", sent("/proc", 4, 107)},
      {"ExecutePermission", "/proc", "x", "", sent("/proc", 1, 107)},
      {"NoPermission", "/proc", "", "audit_rule: invalid file permission: \n", ""},
      {"FivePermissions", "/proc", "rwxaw", "audit_rule: invalid file permission: rwxaw\n", ""},
      {"UnknownPermission", "/proc", "wQ", "audit_rule: permission Q not support\n", ""},
  };
}

class Watch : public AuditRule, public testing::WithParamInterface<WatchCase> {};

TEST_P(Watch, IsCheckedAndSent) {
  const WatchCase& watch = GetParam();
  start();
  send_watch_rule(Request::kAdd, watch.path.c_str(), watch.permissions.c_str(), kPasswdRule);
  EXPECT_EQ(errors(), watch.message);
  EXPECT_EQ(offline::requests().size(), watch.bits.empty() ? 0U : 1U);
  if (watch.bits.empty()) return;
  EXPECT_EQ(requested_bits(0), watch.bits);
}

INSTANTIATE_TEST_SUITE_P(EachPath, Watch, testing::ValuesIn(watch_cases()),
                         [](const auto& test) { return test.param.name; });

TEST_F(AuditRule, AWatchOfAMissingFileIsLoadedAllTheSame) {
  test::reset_databases();
  start();
  EXPECT_EQ(audit_add_wtmp_rule(), 1);
  EXPECT_EQ(errors(), "audit_rule: file /var/log/wtmp not exist\n");
}

TEST_F(AuditRule, TheThreeWatchesAndTheTwoSyscallRulesAreLoadedIndependently) {
  start();
  const std::vector<FixedRule> rules = fixed_rules();
  for (const FixedRule& rule : rules) EXPECT_EQ(rule.add(), 1) << rule.name;
  for (const FixedRule& removed : rules) {
    removed.remove();
    EXPECT_EQ(offline::rules().size(), rules.size() - 1) << removed.name;
    for (const FixedRule& rule : rules) EXPECT_EQ(rule.add(), rule.name == removed.name ? 1 : 0);
  }
}

}  // namespace
