// Start, stop, poller, registration and dispatch, as a client and the kernel see them.
#include <qel_frame.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <regex>

#include "audit_rule.h"
#include "callback_registry.h"
#include "stage.h"

namespace {

using namespace test;
using offline::Call;
using Results = std::vector<int>;

const std::string kCat = "execve result=0 user=root process=cat pid=11 ppid=10 argc=1 cat\n";
const std::string kExecveRuleLine = "LIST_RULES: exit,always key=execve_rule syscall=execve\n";

class Lifecycle : public Stage {
 protected:
  static std::string heard_of_cat() { return heard_of({}, {execve_record({"cat"})}); }

  // What was heard, with the addresses of callbacks left out.
  static std::string told() {
    return std::regex_replace(heard(), std::regex("cb=0x[0-9a-f]+"), "cb=F");
  }

  // Deletes every rule behind the registrations' back.
  static void remove_rules() {
    for (const auto remove : {audit_del_wtmp_rule, audit_del_passwd_rule, audit_del_shadow_rule,
                              audit_del_execve_rule, audit_del_bind_rule}) {
      remove();
    }
    audit_del_syscall_rule("read");
  }

  static void expect_stopped() {
    EXPECT_EQ(audit_fd, -1);
    EXPECT_FALSE(offline::is_open());
    EXPECT_EQ(offline::receiver_pid(), 0U);
    EXPECT_EQ(audit_cb_list[0].buckets, nullptr);
  }
};

// ---- Start and stop ----------------------------------------------------------------------------

TEST_F(Lifecycle, AStartThatFailsUndoesWhatItDidAndTheNextOneWorks) {
  EXPECT_EQ(start(), 0);
  EXPECT_EQ(start(), 0) << "it runs already";
  EXPECT_EQ(offline::calls(Call::kOpen), 1U);
  stop();
  expect_stopped();
  stop();

  offline::fail_utmpname(true);
  EXPECT_EQ(start(), -1);
  EXPECT_EQ(heard(), "error wtmp: utmpname /var/log/wtmp failed\nerror wtmp: parse_wtmp failed\n");
  expect_stopped();
  EXPECT_EQ(walks.passwd.started, 1) << "the accounts come after the logins";
  offline::fail(Call::kOpen, -1);
  EXPECT_EQ(start(), -1);
  EXPECT_EQ(heard(), "error audit_rule: audit_open failed: Operation not permitted\n");
  offline::fail_utmpname(false);

  refuse_poller(true);
  EXPECT_EQ(on_execve("A"), -1);
  EXPECT_EQ(heard(), "error qel_audit: qel_mainloop_reg_poller failed\n");
  expect_stopped();
  refuse_poller(false);
  EXPECT_EQ(on_execve("A"), 0);
  EXPECT_EQ(heard_of_cat(), "A: " + kCat);
}

// With every call of libaudit failing once: nothing may stay behind, and the library has to start
// again.
class EveryCall : public Lifecycle, public testing::WithParamInterface<offline::AckOrder> {
 protected:
  static void reset_kernel() {
    Stage::reset_kernel();
    offline::set_config_records(true);
    offline::set_auditing(true);
    offline::set_ack_order(GetParam());
  }

  Results start_register_and_stop() {
    const Results results = {listen(qel_audit_init),    on_login("L", "eve"),  on_user("U", "eve"),
                             on_syscall("S", "openat"), on_execve("E", "cat"), on_bind("B", 80)};
    stop();
    return results;
  }

  static auto open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  }
};

TEST_P(EveryCall, MayFailAndLeavesNothing) {
  unsigned calls = 30;
  int stayed_receiver = 0;
  for (unsigned n = 1; n <= calls; ++n) {
    SCOPED_TRACE("call number " + std::to_string(n));
    reset_kernel();
    const auto descriptors = open_descriptors();
    offline::fail_call_number(n, -EPERM);
    const Results results = start_register_and_stop();
    EXPECT_GE(std::count(results.begin(), results.end(), 0), 5) << "one failure fails one call";
    const std::string lines = heard();
    EXPECT_TRUE(offline::rules().empty() || lines.find("deleting rule failed") != lines.npos ||
                lines.find("audit_request_rules_list_data failed") != lines.npos)
        << lines;
    EXPECT_FALSE(offline::is_open());
    EXPECT_EQ(open_descriptors(), descriptors);
    if (offline::receiver_pid() != 0) ++stayed_receiver;

    reset_kernel();
    EXPECT_EQ(start_register_and_stop(), Results(6, 0)) << "a second start works";
    EXPECT_EQ(heard().find("error"), std::string::npos);
    EXPECT_TRUE(offline::rules().empty());
    expect_stopped();
    calls = offline::calls(Call::kCount);
  }
  EXPECT_GT(calls, 25U);
  EXPECT_LE(stayed_receiver, 1) << "only when giving the role up fails";
}

INSTANTIATE_TEST_SUITE_P(BothOrders, EveryCall,
                         testing::Values(offline::AckOrder::kAckFirst,
                                         offline::AckOrder::kRecordFirst));

// ---- Poller ------------------------------------------------------------------------------------

TEST_F(Lifecycle, APollReadsOneMessageAndGoesOnAfterAFailure) {
  start();
  const int fd = audit_fd;
  for (int i = 0; i < 2; ++i) feed({AUDIT_LOGIN, "pid=1"});
  offline::fail(Call::kGetReply, 0);
  EXPECT_EQ(poll_once(), 0);
  offline::fail_poll(EINTR);
  EXPECT_EQ(poll_once(), 0);
  audit_fd = 100000;
  EXPECT_EQ(poll_once(), 0);
  audit_fd = fd;
  EXPECT_EQ(heard(),
            "error qel_audit: audit_get_reply failed\n"
            "error qel_audit: select failed, error=Interrupted system call\n"
            "error qel_audit: select failed, error=Bad file descriptor\n");
  for (const int result : {1, 1, 0}) EXPECT_EQ(poll_once(), result);
  EXPECT_EQ(heard(), "error audit_msg: parse_login failed\nerror audit_msg: parse_login failed\n");
}

TEST_F(Lifecycle, AnOverrunThatThePollerMeetsHasTheNextPurgeThrowAwayWhatWaits) {
  on_bind("B");
  poll_all();
  offline::fail(Call::kGetReply, -ENOBUFS);
  const auto next = static_cast<std::uint32_t>(audit_request_status(audit_fd)) + 1;
  offline::feed(NLMSG_DONE, {}, next);  // would end the list of rules
  EXPECT_EQ(poll_once(), 0);
  stop();
  EXPECT_EQ(heard(),
            "error qel_audit: audit_get_reply failed\n"
            "LIST_RULES: exit,always key=bind_rule syscall=bind\n");
}

TEST_F(Lifecycle, APollLooksForLateWritesWhileRecordsKeepComingButNotBehindAFailedCheck) {
  on_user("U", "eve", QEL_USER_ADDED);
  feed_group({.key = "passwd_rule", .comm = "vi"});
  poll_all();
  account("eve", 1000, 0);
  offline::advance_clock(100ms);
  offline::fail_poll(EBADF);
  EXPECT_EQ(poll_once(), 0);
  EXPECT_EQ(heard(), "error qel_audit: select failed, error=Bad file descriptor\n");
  for (int i = 0; i < 2; ++i) feed({AUDIT_CWD, "cwd=\"/\""});
  EXPECT_EQ(poll_once(), 1);
  EXPECT_EQ(heard(), "U: added eve group=root\n");
}

// In a process of its own, whose first scan it is: a stop does not reset the time of the next one.
TEST_F(Lifecycle, ContextsExpireAtScansThatAreMoreThanThreeSecondsApartAlsoBeyond2038) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto expire = [](std::time_t start_s) {
    offline::set_clock(start_s);
    start();
    set_level(QEL_LOG_DEBUG);
    unsigned serial = 0;
    for (const auto pause : {3s, 4s, 4s, 3s, 1s}) {
      feed(syscall_record({.serial = ++serial}));
      poll_all();
      heard();
      pass(pause);
      std::fputs(("," + heard()).c_str(), stderr);
    }
    _exit(0);
  };
  for (const std::time_t start_s : {1'700'000'000L, 0x7ffffffaL, 0x80000010L}) {
    EXPECT_EXIT(expire(start_s), testing::ExitedWithCode(0),
                "^,,,debug audit_msg: audit ctx timeout: 2\n"
                ",,debug audit_msg: audit ctx timeout: 3\n$");
  }
}

// ---- Registration ------------------------------------------------------------------------------

TEST_F(Lifecycle, ARegistrationThatIsWrongIsToldBeforeTheLibraryIsStarted) {
  const Results results = {on_login("A", "eve", 0),
                           qel_user_reg_callback("eve", -1, nullptr, nullptr),
                           on_syscall("A", "", 2),
                           on_syscall("A", "read", -2),
                           qel_syscall_reg_callback("read", 1, nullptr, nullptr),
                           on_syscall("A", nullptr),
                           on_syscall("A", "", 0),
                           qel_execve_reg_callback("cat", nullptr, nullptr),
                           qel_bind_reg_callback(80, nullptr, nullptr)};
  EXPECT_EQ(results, Results(9, -1));
  EXPECT_EQ(told(),
            "error qel_audit: invalid cb param, ev_mask=0, cb=F\n"
            "error qel_audit: invalid cb param, ev_mask=-1, cb=(nil)\n"
            "error qel_audit: invalid cb param, success=2, cb=F\n"
            "error qel_audit: invalid cb param, success=-2, cb=F\n"
            "error qel_audit: invalid cb param, success=1, cb=(nil)\n"
            "error qel_audit: use param \"all\" to audit all syscall event\n"
            "error qel_audit: use param \"all\" to audit all syscall event\n"
            "error qel_audit: execve cb cant be null\n"
            "error qel_audit: bind cb cant be null\n");
  EXPECT_EQ(offline::calls(Call::kCount), 0U);
}

TEST_F(Lifecycle, EachRegistrationIsToldAndADuplicateIsRefused) {
  start();
  set_level(QEL_LOG_NOTICE);
  const Results results = {on_syscall("A", "read", 0), on_syscall("A"),
                           on_syscall("A", "read", 1), on_syscall("A", "read", 1),
                           on_syscall("B", "read", 1), on_bind("A", 80),
                           on_bind("A", 80 + 0x10000), on_user("A", "eve", 15)};
  EXPECT_EQ(results, (Results{0, 0, 2, -1, 3, 0, -1, 0})) << "a port has 16 bits";
  EXPECT_EQ(told(),
            "notice qel_audit: add event callback for syscall: read, success=0, cb_index=0, cb=F\n"
            "notice qel_audit: add global syscall event callback: success=4294967295, cb_index=1, "
            "cb=F\n"
            "notice qel_audit: add event callback for syscall: read, success=1, cb_index=2, cb=F\n"
            "error qel_audit: callback already exist for syscall: read, success=1, cb_index=2, "
            "cb=F\n"
            "notice qel_audit: add event callback for syscall: read, success=1, cb_index=3, cb=F\n"
            "notice qel_audit: add event callback for bind: 80, none, cb_index=0, cb=F\n"
            "error qel_audit: callback already exist for bind: 80, none, cb_index=0, cb=F\n"
            "notice qel_audit: add event callback for user: eve, event=15, cb_index=0, cb=F\n");
}

TEST_F(Lifecycle, TheNinthCallbackOfAKeyAndTheOneBehindThe4096thOfAClassAreRefused) {
  for (int i = 0; i < 8; ++i) EXPECT_EQ(on_execve(std::to_string(i), "cat"), i);
  EXPECT_EQ(on_execve("8", "cat"), -1);
  EXPECT_EQ(on_execve("8", "ls"), 8) << "a refused one uses no entry";
  for (int i = 9; i < 4095; ++i) ASSERT_EQ(on_execve(std::to_string(i)), 0);
  EXPECT_EQ(on_execve("0", "dog"), 4095);
  EXPECT_EQ(on_execve("4096"), -1);
  EXPECT_EQ(on_execve("1", "dog"), -1);
  EXPECT_EQ(heard(),
            "error qel_audit: too many callback for execve: cat\n"
            "error qel_audit: too many audit callbacks\n"
            "error qel_audit: too many audit callbacks\n");
  EXPECT_EQ(on_bind("B", 80), 0) << "classes do not share";
}

TEST_F(Lifecycle, NothingIsRegisteredWithoutItsRuleAndNoRuleKeptWithoutARegistration) {
  const std::pair<const char*, std::function<int(const char* name)>> cases[] = {
      {"wtmp_rule", [&](auto name) { return on_login(name, "eve"); }},
      {"passwd_rule", [&](auto name) { return on_user(name, "eve", QEL_USER_GROUP); }},
      {"shadow_rule", [&](auto name) { return on_user(name, "eve", QEL_USER_PASSWORD); }},
      {"syscall_rule", [&](auto name) { return on_syscall(name, "read"); }},
      {"execve_rule", [&](auto name) { return on_execve(name, "cat"); }},
      {"bind_rule", [&](auto name) { return on_bind(name, 80); }}};
  for (const auto& [rule, add] : cases) {
    SCOPED_TRACE(rule);
    start();
    offline::fail(Call::kAddRule, -EPERM);
    EXPECT_EQ(add("A"), -1);
    EXPECT_EQ(heard(), "error audit_rule: audit_add_rule_data failed\n");
    EXPECT_EQ(add("A"), 0);
    EXPECT_EQ(add("A"), -1) << "a duplicate";
    EXPECT_EQ(rules(), rule) << "the rule is the first one's";
    remove_rules();
    EXPECT_EQ(add("A"), -1);
    EXPECT_EQ(rules(), "") << "loaded for the duplicate and taken back";
    EXPECT_EQ(add("B"), 1);
    stop();
    heard();
  }
}

TEST_F(Lifecycle, AMaskHasTheFilesWatchedThatItNeedsAndARefusalTakesBackWhatItLoadedPasswdFirst) {
  for (const auto& [mask, watched] : {std::pair<int, const char*>{QEL_USER_GROUP, "passwd_rule"},
                                      {QEL_USER_PASSWORD, "shadow_rule"},
                                      {5, "shadow_rule passwd_rule"}}) {
    EXPECT_EQ(on_user("A", "eve", mask), 0);
    EXPECT_EQ(rules(), watched);
    if (mask != 5) stop();
  }
  audit_del_shadow_rule();
  EXPECT_EQ(on_user("A", "eve", 5), -1);
  EXPECT_EQ(rules(), "passwd_rule") << "a watch from before stays";

  audit_del_passwd_rule();
  const std::size_t before = offline::requests().size();
  EXPECT_EQ(on_user("A", "eve", 5), -1);
  std::string requests;
  for (std::size_t i = before; i < offline::requests().size(); ++i) {
    const offline::RuleRequest& request = offline::requests()[i];
    requests += (request.add ? " +" : " -") + std::string(request.rule->buf + 5, 6);
  }
  EXPECT_EQ(requests, " +passwd +shadow -passwd -passwd -shadow -shadow") << "in both forms each";
  heard();
}

// ---- Dispatch ----------------------------------------------------------------------------------

TEST_F(Lifecycle, CallbacksOfTheKeyRunBeforeThoseForAllEachInOrderAlsoThoseThatCallbacksRegister) {
  EXPECT_EQ(on_execve("all 1", nullptr, [&] { on_execve("all 2"); }), 0);
  EXPECT_EQ(on_execve("cat 1", "cat",
                      [&] {
                        EXPECT_EQ(on_execve("cat 2", "cat"), 2);
                        on_bind("B");
                      }),
            1);
  EXPECT_EQ(qel_execve_unreg_callback("cat", nullptr, nullptr), 0) << "does nothing";
  EXPECT_EQ(heard_of_cat(),
            "cat 1: " + kCat + "cat 2: " + kCat + "all 1: " + kCat + "all 2: " + kCat);
}

TEST_F(Lifecycle, AnEventReachesThoseWhoseKeyAndFilterMatch) {
  on_bind("80", 80);
  on_bind("any");
  on_syscall("failed", "openat", QEL_SYSCALL_FAILED);
  on_syscall("succeeded", "openat", QEL_SYSCALL_SUCCEEDED);
  on_syscall("either", "openat");
  feed_group({.key = "bind_rule"}, {{AUDIT_SOCKADDR, "saddr=020000507F0000010000000000000000"}});
  feed_group({.key = "syscall_rule", .success = false, .exit = "-2"});
  feed_group({.key = "syscall_rule", .exit = "3"});
  poll_all();
  const std::string bind = "bind result=0 user=root process=cat pid=11 ppid=10 127.0.0.1:80\n";
  const std::string ids = " user=root process=cat pid=11 ppid=10 args=1,2,3,4\n";
  EXPECT_EQ(heard(), "80: " + bind + "any: " + bind + "failed: syscall openat success=0 result=-2" +
                         ids + "either: syscall openat success=0 result=-2" + ids +
                         "succeeded: syscall openat success=1 result=3" + ids +
                         "either: syscall openat success=1 result=3" + ids);
}

TEST_F(Lifecycle, AStopInsideACallbackWaitsForTheEndOfTheRecordAndNothingStartsOrIsReadMeanwhile) {
  on_execve("A", "cat", [&] {
    EXPECT_EQ(poll_once(), 0);
    EXPECT_EQ(qel_audit_init(), 0);
    qel_audit_fini();
    qel_audit_fini();
    EXPECT_TRUE(offline::is_open());
    EXPECT_EQ(qel_audit_init(), -1);
    EXPECT_EQ(on_execve("C"), -1);
  });
  on_execve("B");
  feed_group({}, {execve_record({"cat"})});
  const std::string refusal = "error qel_audit: the library is about to stop\n";
  EXPECT_EQ(heard_of_cat(), "A: " + kCat + refusal + refusal + "B: " + kCat + kExecveRuleLine);
  expect_stopped();
  EXPECT_EQ(offline::waiting(), 0U);
  const unsigned polls = offline::poll_calls();
  EXPECT_EQ(poll_once(), 0);
  EXPECT_EQ(offline::poll_calls(), polls) << "a poll after the stop touches nothing";
  on_execve("C");
  EXPECT_EQ(heard_of_cat(), "C: " + kCat) << "the stop was carried out once";
}

}  // namespace
