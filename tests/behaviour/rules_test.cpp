// The audit connection, the purge and the rules: what is asked of the kernel and in what order, the
// rules as it receives them, and what each failure leaves.
#include <linux/netlink.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <iterator>
#include <utility>

#include "audit_rule.h"
#include "rules/audit_replies.h"
#include "stage.h"

namespace {

// What the socket was asked for, and the signals that were blocked then.
struct {
  std::string options;
  sigset_t blocked;
} socket_setup;

}  // namespace

// Refuses the first of the two ways to get more room.
extern "C" int setsockopt(int, int, int option, const void* value, socklen_t) noexcept {
  socket_setup.options +=
      std::to_string(option) + "=" + std::to_string(*static_cast<const int*>(value)) + " ";
  pthread_sigmask(SIG_BLOCK, nullptr, &socket_setup.blocked);
  return option == SO_RCVBUFFORCE ? -1 : 0;
}

namespace {

using namespace test;
using offline::Call;

constexpr int kRefused = -EPERM;

// A rule of somebody else for read(2).
audit_rule_data foreign_rule(std::uint32_t uid, std::uint32_t list = AUDIT_FILTER_EXIT) {
  return {.flags = list,
          .action = AUDIT_ALWAYS,
          .field_count = 1,
          .mask = {1},
          .fields = {AUDIT_UID},
          .values = {uid},
          .fieldflags = {AUDIT_EQUAL},
          .buflen = 0};
}

const std::string kOne = "LIST_RULES: exit,always uid=1 (0x1) syscall=read\n";
const std::string kTwo = "LIST_RULES: exit,always uid=2 (0x2) syscall=read\n";

void preload_two_rules() {
  for (const std::uint32_t uid : {1U, 2U}) offline::preload_rule(foreign_rule(uid));
}

template <typename Payload>
void feed_reply(int type, const Payload& payload, std::uint32_t sequence) {
  offline::feed(type, {reinterpret_cast<const char*>(&payload), sizeof(payload)}, sequence);
}

std::string error(const std::string& text) {
  return "error audit_rule: " + text + "\n";
}

const std::string kPurgeFailed = error("delete_all_audit_rules failed");

// How long the calls took by the clock, in seconds.
std::time_t time_of(const std::function<void()>& calls) {
  const std::time_t began = std::time(nullptr);
  calls();
  return std::time(nullptr) - began;
}

using Rules = Stage;

// ---- Connection --------------------------------------------------------------------------------

TEST_F(Rules, AStartTakesTheReceiversRoleAndDeletesTheRulesOfOthersAndAStopGivesTheRoleUp) {
  offline::preload_rule(foreign_rule(9, AUDIT_FILTER_EXCLUDE));
  offline::preload_rule(foreign_rule(5, AUDIT_FILTER_USER));
  EXPECT_EQ(listen(qel_audit_init), 0);
  EXPECT_EQ(heard(),
            "LIST_RULES: user,always uid=5 (0x5)\nLIST_RULES: exclude,always uid=9 (0x9)\n");
  EXPECT_TRUE(offline::rules().empty());
  EXPECT_EQ(offline::receiver_pid(), static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(offline::enabled(), 1U);
  EXPECT_EQ(offline::rate_limit(), 0U);
  EXPECT_EQ(offline::backlog_limit(), 102400U);
  EXPECT_EQ(offline::waiting(), 1U) << "the answer to the status request is the poller's";
  stop();
  EXPECT_EQ(offline::receiver_pid(), 0U);
  EXPECT_EQ(offline::enabled(), 1U) << "auditing stays on";
}

TEST_F(Rules, AStartAsksForEightMebibytesAndIsDisturbedByNoSignalButFaults) {
  socket_setup.options = "";
  start();
  EXPECT_EQ(socket_setup.options,
            std::to_string(SO_RCVBUFFORCE) + "=8388608 " + std::to_string(SO_RCVBUF) + "=8388608 ");
  std::string open;
  for (int signal = 1; signal < SIGSYS + 1; ++signal) {
    if (sigismember(&socket_setup.blocked, signal) == 0) open += std::to_string(signal) + " ";
  }
  EXPECT_EQ(open, "4 5 6 7 8 9 11 19 31 ") << "the faults, SIGKILL and SIGSTOP";
  sigset_t after;
  pthread_sigmask(SIG_BLOCK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), 0);
}

// The number of the failing call tells the order of the steps as well.
TEST_F(Rules, AFailingStepOfAStartIsToldAndOnlyTheFirstFourEndIt) {
  const std::string process = " failed, uid=4711 pid=" + std::to_string(getpid());
  const std::pair<int, std::string> cases[] = {
      {-EMFILE, error("audit_open failed: Too many open files")},
      {-EEXIST, error("audit_set_pid" + process)},
      {2, error("audit is locked")},
      {kRefused, error("audit_set_enabled" + process)},
      {0, error("audit_set_rate_limit failed")},
      {0, error("audit_set_backlog_limit failed")},
      {0, error("audit_request_rules_list_data failed") + kPurgeFailed}};
  for (unsigned number = 1; number <= std::size(cases); ++number) {
    const auto& [result, lines] = cases[number - 1];
    reset_kernel();
    offline::set_loginuid(4711);
    offline::fail_call_number(number, result);
    EXPECT_EQ(start(), number <= 4 ? -1 : 0);
    EXPECT_EQ(heard(), lines);
    EXPECT_EQ(offline::is_open(), number > 4);
    EXPECT_EQ(offline::receiver_pid() != 0, number > 4);
    stop();
  }
}

TEST_F(Rules, ALockedKernelIsRecognisedBehindUnreadMessages) {
  offline::fail(Call::kIsEnabled, -1, 2);
  EXPECT_EQ(start(), 0) << "goes on when nobody knows";
  stop();
  offline::set_locked(true);
  offline::fail(Call::kIsEnabled, -1, 2);
  for (int i = 0; i < 100; ++i) feed({AUDIT_CWD, "cwd=\"/\""});
  EXPECT_EQ(start(), -1);
  EXPECT_EQ(heard(), error("audit is locked"));
  EXPECT_EQ(offline::calls(Call::kSetEnabled), 1U) << "it is left as it is";
}

// ---- Purge -------------------------------------------------------------------------------------

TEST_F(Rules, ADeletionThatFailsLeavesTheRulesFromThereOn) {
  preload_two_rules();
  offline::fail_call_number(12, kRefused);  // the seventh lists, three reads and a deletion follow
  start();
  EXPECT_EQ(heard(), error("deleting rule failed: Operation not permitted") + kOne + kPurgeFailed);
  EXPECT_EQ(offline::rules().size(), 1U);
}

TEST_F(Rules, ASilentKernelIsGivenUpAfterFortyReadsOfWhichAReplyIsOne) {
  offline::set_silent(true);
  EXPECT_EQ(time_of([] { listen(qel_audit_init); }), 4);
  EXPECT_EQ(offline::calls(Call::kGetReply), 40U);
  feed({AUDIT_CWD, "cwd=\"/\""});
  offline::advance_clock(900ms);
  EXPECT_EQ(time_of(stop), 4) << "3.9 seconds";
}

TEST_F(Rules, AWaitThatFailsCountsAsAnEmptyRead) {
  preload_two_rules();
  offline::fail_poll(ENOMEM, 40);
  listen(qel_audit_init);
  EXPECT_EQ(offline::calls(Call::kGetReply), 0U);
  EXPECT_EQ(offline::rules().size(), 2U);
}

TEST_F(Rules, NeitherSignalsNorRecordsHoldAStartOrAStopUpForMoreThanTenSeconds) {
  offline::set_silent(true);
  offline::set_clock_tick(1ms);
  offline::fail_poll(EINTR, 1'000'000);
  EXPECT_LE(time_of([] { listen(qel_audit_init); }), 5);
  EXPECT_LE(time_of(stop), 5);
  EXPECT_EQ(heard(), "");
  offline::fail_poll(0, 0);
  offline::set_flood(true);
  EXPECT_LE(time_of([] { listen(qel_audit_init); }), 10);
  EXPECT_EQ(heard(), kPurgeFailed);
  EXPECT_LE(time_of(stop), 10);
  offline::set_flood(false);
}

TEST_F(Rules, RepliesToOtherRequestsAndRulesWhoseLengthLiesAreDroppedAndAnErrorEndsTheList) {
  for (const int result : {0, kRefused}) {
    on_bind("B");
    poll_all();
    const auto next = static_cast<std::uint32_t>(audit_request_status(audit_fd)) + 1;
    audit_rule_data rule = foreign_rule(9);
    feed_reply(AUDIT_LIST_RULES, rule, 4000);
    feed_reply(NLMSG_ERROR, nlmsgerr{-ENOENT, {}}, 4000);
    offline::feed(NLMSG_DONE, {}, 4000);
    if (result != 0) feed_reply(AUDIT_LIST_RULES, rule, next);
    feed_reply(NLMSG_ERROR, nlmsgerr{result, {}}, next);
    rule.buflen = MAX_AUDIT_MESSAGE_LENGTH - sizeof(rule) + 1;
    feed_reply(AUDIT_LIST_RULES, rule, next);
    stop();
    EXPECT_FALSE(offline::is_open());
  }
  EXPECT_EQ(heard(), "LIST_RULES: exit,always key=bind_rule syscall=bind\n" +
                         error("receiving rules list failed: Operation not permitted"));
}

// ---- Overruns: the kernel has carried out, or refused, a request whose answer was dropped -------

TEST_F(Rules, AnOverrunFailsNothingAndHasThePurgeRepeatedTenTimesAtMost) {
  const std::pair<Call, unsigned> cases[] = {{Call::kSetPid, 1},       {Call::kSetEnabled, 1},
                                             {Call::kSetRateLimit, 1}, {Call::kSetBacklogLimit, 1},
                                             {Call::kGetReply, 2},     {Call::kDeleteRule, 2},
                                             {Call::kRequestRules, 3}};
  for (const auto& [call, lists] : cases) {
    reset_kernel();
    preload_two_rules();
    offline::fail(call, -ENOBUFS);
    listen(qel_audit_init);
    EXPECT_EQ(heard(), kOne + kTwo);
    EXPECT_TRUE(offline::rules().empty());
    EXPECT_EQ(offline::calls(Call::kRequestRules), lists);
    stop();
  }
  preload_two_rules();
  const unsigned before = offline::calls(Call::kRequestRules);
  offline::fail(Call::kDeleteRule, -ENOBUFS, 1000);
  start();
  EXPECT_EQ(offline::calls(Call::kRequestRules) - before, 10U);
  EXPECT_TRUE(heard().ends_with(kTwo + kPurgeFailed));
  offline::fail(Call::kDeleteRule, 0, 0);
}

TEST_F(Rules, ARequestIsMadeAgainWhenAnOverrunHidTheAnswer) {
  offline::fail(Call::kSetEnabled, -ENOBUFS);
  offline::fail_call_number(5, kRefused);
  EXPECT_EQ(start(), -1);
  EXPECT_TRUE(heard().starts_with("error audit_rule: audit_set_enabled failed"));

  start();
  offline::fail(Call::kAddRule, -ENOBUFS);
  EXPECT_EQ(audit_add_bind_rule(), 1);
  ASSERT_EQ(rules(), "bind_rule");
  const auto loaded = offline::copy_rule(*offline::rules()[0]);
  offline::fail(Call::kDeleteRule, -ENOBUFS);
  audit_del_bind_rule();
  EXPECT_EQ(rules(), "");
  offline::preload_rule(*loaded);
  offline::fail(Call::kAddRule, -ENOBUFS);
  EXPECT_EQ(audit_add_bind_rule(), 1);
  EXPECT_EQ(rules(), "bind_rule") << "the kernel had loaded it: not twice";
  offline::set_locked(true);
  offline::fail(Call::kDeleteRule, -ENOBUFS);
  audit_del_bind_rule();
  offline::set_locked(false);
  audit_del_bind_rule();
  offline::set_locked(true);
  offline::fail(Call::kAddRule, -ENOBUFS);
  EXPECT_EQ(audit_add_bind_rule(), -1);
  EXPECT_EQ(heard(), error("audit_del_rule_data failed") + error("audit_add_rule_data failed"));
}

TEST_F(Rules, ARequestWhoseOutcomeNobodyKnowsCountsAsDone) {
  for (const Call call : {Call::kSetEnabled, Call::kSetRateLimit, Call::kSetBacklogLimit}) {
    offline::fail(call, -ENOBUFS, 2);
  }
  EXPECT_EQ(start(), 0);
  for (const unsigned unknown_deletions : {1U, 3U}) {
    offline::fail(Call::kAddRule, -ENOBUFS, 2);
    EXPECT_EQ(audit_add_bind_rule(), 1);
    offline::fail(Call::kDeleteRule, -ENOBUFS, unknown_deletions);
    audit_del_bind_rule();
  }
  EXPECT_EQ(audit_add_bind_rule(), 1);
}

TEST_F(Rules, AnOverrunIsForgottenWithItsConnection) {
  offline::fail(Call::kSetPid, -ENOBUFS);
  offline::fail(Call::kSetEnabled, kRefused);
  EXPECT_EQ(start(), -1);
  heard();
  EXPECT_TRUE(has_overrun());
  EXPECT_EQ(audit_subsys_fini(), 0) << "nothing is left to do";
  const unsigned reads = offline::calls(Call::kGetReply);
  listen(qel_audit_init);
  EXPECT_EQ(offline::calls(Call::kGetReply) - reads, 1U) << "nothing is thrown away";
  EXPECT_FALSE(has_overrun());
}

// ---- Rules loaded once -------------------------------------------------------------------------

struct Loader {
  int (*add)();
  void (*remove)();
  std::string line;  // as the purge tells it
};

// libaudit refuses a key on a rule without permissions until the process has built a watch: ctest
// runs each of these in a process of its own, of which it is the first rule.
class EachRule : public Rules, public testing::WithParamInterface<Loader> {};

TEST_P(EachRule, IsSentOnceAndCountsAsLoadedWhileTheKernelHasIt) {
  const auto& [add, remove, line] = GetParam();
  start();
  offline::fail(Call::kAddRule, kRefused);
  EXPECT_EQ(add(), -1);
  remove();  // nothing: it is not loaded
  EXPECT_EQ(add(), 1);
  EXPECT_EQ(add(), 0);
  offline::fail(Call::kDeleteRule, kRefused, 2);
  remove();
  EXPECT_EQ(heard(), error("audit_add_rule_data failed") + error("audit_del_rule_data failed"));
  EXPECT_EQ(add(), 0);
  remove();
  remove();
  EXPECT_TRUE(offline::rules().empty());
  std::vector<std::uint32_t> flags;
  for (const auto& request : offline::requests()) flags.push_back(request.flags);
  EXPECT_EQ(flags, (std::vector<std::uint32_t>{20, 20, 20, 4, 20, 4}))
      << "taken back with the flags of the add and then with the listed ones";
  EXPECT_EQ(add(), 1);
  feed({AUDIT_CWD, "cwd=\"/\""});  // libaudit looks for the answer only at the first message
  remove();
  EXPECT_TRUE(offline::rules().empty());
  EXPECT_EQ(add(), 1);
  stop();
  EXPECT_EQ(heard(), "LIST_RULES: exit,always " + line + "\n");
  start();
  EXPECT_EQ(add(), 1) << "a stop forgets what was loaded";
}

const Loader kLoaders[] = {
    {audit_add_execve_rule, audit_del_execve_rule, "key=execve_rule syscall=execve"},
    {audit_add_bind_rule, audit_del_bind_rule, "key=bind_rule syscall=bind"},
    {[] { return audit_add_syscall_rule("openat"); }, [] { audit_del_syscall_rule("openat"); },
     "key=syscall_rule syscall=openat"},
    {[] { return audit_add_syscall_rule(nullptr); }, [] { audit_del_syscall_rule(nullptr); },
     "key=syscall_rule syscall=all"},
    {audit_add_passwd_rule, audit_del_passwd_rule, "watch=/etc/passwd perm=wa key=passwd_rule"},
    {audit_add_shadow_rule, audit_del_shadow_rule, "watch=/etc/shadow perm=wa key=shadow_rule"},
    {audit_add_wtmp_rule, audit_del_wtmp_rule, "watch=/var/log/wtmp perm=wa key=wtmp_rule"}};

INSTANTIATE_TEST_SUITE_P(All, EachRule, testing::ValuesIn(kLoaders));

TEST_F(Rules, NoNameStandsForEverySystemCallAndSomeNamesAreRefused) {
  start();
  for (const std::string name : {"execve", "bind", "no_such", "EXECVE", "OpenAt", "59", "0x31"}) {
    EXPECT_EQ(audit_add_syscall_rule(name.c_str()), -1);
    audit_del_syscall_rule(name.c_str());
    const bool reserved = name == "execve" || name == "bind";
    EXPECT_EQ(heard(), error(reserved ? "syscall " + name + " reserved inside"
                                      : "unknown syscall name: " + name));
  }
  EXPECT_TRUE(offline::requests().empty());
  EXPECT_EQ(audit_add_syscall_rule(""), 1);
  EXPECT_EQ(audit_add_syscall_rule("all"), 0);
  audit_del_syscall_rule("");
  EXPECT_EQ(rules(), "syscall_rule");
  EXPECT_EQ(heard(), error("invalid param"));
}

TEST_F(Rules, TheRegistryHoldsCopiesOf256Names) {
  const auto name = [](int i) { return std::to_string(600 + i) + "_c000003e"; };  // nameless calls
  const auto add = [&](int i) { return audit_add_syscall_rule(name(i).c_str()); };
  start();
  for (int i = 0; i < 256; ++i) ASSERT_EQ(add(i), 1);
  EXPECT_EQ(add(256), -1);
  for (const int i : {255, 0, 100}) audit_del_syscall_rule(name(i).c_str());
  EXPECT_EQ(offline::rules().size(), 253U);
  EXPECT_EQ(add(256), 1);
  for (int i = 0; i < 255; ++i) EXPECT_EQ(add(i), i == 0 || i == 100 ? 1 : 0) << i;
  EXPECT_EQ(add(255), -1);
  EXPECT_EQ(heard(), error("too many syscall rule") + error("too many syscall rule"));
}

TEST_F(Rules, PathsAndPermissionsOfWatchesAreCheckedBeforeTheyAreSent) {
  const std::string name(255, 'n');
  std::string longest;
  for (int i = 0; i < 16; ++i) longest += "/" + name;
  longest.pop_back();  // 4095 characters
  const struct {
    std::string path, permissions;
    std::string sent;  // "TYPE PATH PERMISSIONS" in the kernel's numbers
    std::string line;
  } cases[] = {{longest + "y", "wa", "", "path too long"},
               {longest, "wa", "105 " + longest + " 10", "file " + longest + " not exist"},
               {"etc/x*", "wa", "", "must use absolute path"},
               {"/" + name + "x", "wa", "", "dirname or filename too long"},
               {"/" + name, "wa", "105 /" + name + " 10", "file /" + name + " not exist"},
               {"/proc/../proc", "wa", "107 /proc/../proc 10", "relative path not supported"},
               {"/dev/null?", "wa", "105 /dev/null? 10",
                "wildcard is not supported\nerror audit_rule: file /dev/null? not exist"},
               {"/proc///", "WA", "107 /proc 10", ""},
               {"/dev/null", "rRxr", "105 /dev/null 5", ""},
               {"/proc", "", "", "invalid file permission: "},
               {"/proc", "rwxaw", "", "invalid file permission: rwxaw"},
               {"/proc", "wQ", "", "permission Q not support"}};
  start();
  for (const auto& [path, permissions, sent, line] : cases) {
    const std::size_t before = offline::requests().size();
    send_watch_rule(Request::kAdd, path.c_str(), permissions.c_str(), kPasswdRule);
    EXPECT_EQ(heard(), line.empty() ? "" : error(line));
    ASSERT_EQ(offline::requests().size() - before, sent.empty() ? 0U : 1U) << path;
    if (sent.empty()) continue;
    const audit_rule_data& rule = *offline::requests().back().rule;
    EXPECT_EQ(std::to_string(rule.fields[0]) + " " + std::string(rule.buf, rule.values[0]) + " " +
                  std::to_string(rule.values[1]),
              sent);
  }
}

}  // namespace
