// Start, stop, poller and registration. The parts that are started and the functions that the
// poller calls are wrapped by the linker, so that a test sees their order and can have them fail.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libaudit.h>
#include <qel_audit.h>
#include <qel_frame.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "audit_event.h"
#include "audit_rule.h"
#include "callback_registry.h"
#include "callbacks.h"
#include "captured_log.h"
#include "clock.h"
#include "databases.h"
#include "offline_kernel.h"
#include "passwd.h"
#include "wtmp.h"

namespace {

using offline::Call;

using Texts = std::vector<std::string>;

constexpr int kError = 2;
constexpr int kNotice = 3;

// The registries are data of the binary interface.
static_assert(sizeof(callback_entry) == 32 && offsetof(callback_entry, filter) == 8 &&
              offsetof(callback_entry, callback) == 16);
static_assert(offsetof(key_bucket, count) == 8 && offsetof(key_bucket, indexes) == 12);
static_assert(offsetof(callback_registry, entries) == 8 &&
              offsetof(callback_registry, global_indexes) == 8 + 4096 * 32 &&
              offsetof(callback_registry, buckets) == 8 + 4096 * 34 &&
              offsetof(callback_registry, ops) == 8 + 4096 * 34 + 8);

// What was called, and what is to fail.
struct Calls {
  Texts parts;
  std::vector<std::int64_t> scans;
  int messages = 0;
  std::string failing_part;
  bool failing_registration = false;
};
Calls calls;

// The main loop's side of the poller.
struct {
  qel_poller_fn function;
  void* argument;
  int registrations;
} poller;

int poll_once() {
  return poller.function(poller.argument);
}

template <typename Start>
int start_part(const char* name, Start start) {
  calls.parts.push_back(name);
  return calls.failing_part == name ? 1 : start();
}

void stop_part(const char* name, void (*stop)()) {
  calls.parts.push_back(name);
  stop();
}

}  // namespace

extern "C" {

int __real_audit_msg_init();
int __wrap_audit_msg_init() {
  return start_part("audit_msg_init", __real_audit_msg_init);
}
int __real_audit_subsys_init();
int __wrap_audit_subsys_init() {
  return start_part("audit_subsys_init", __real_audit_subsys_init);
}
int __real_login_log_init(const char* path);
int __wrap_login_log_init(const char* path) {
  EXPECT_EQ(path, nullptr);
  return start_part("login_log_init", [path] { return __real_login_log_init(path); });
}
int __real_passwd_init();
int __wrap_passwd_init() {
  return start_part("passwd_init", __real_passwd_init);
}
void __real_audit_msg_fini();
void __wrap_audit_msg_fini() {
  stop_part("audit_msg_fini", __real_audit_msg_fini);
}
int __real_audit_subsys_fini();
int __wrap_audit_subsys_fini() {
  calls.parts.push_back("audit_subsys_fini");
  return __real_audit_subsys_fini();
}
void __real_login_log_fini();
void __wrap_login_log_fini() {
  stop_part("login_log_fini", __real_login_log_fini);
}
void __real_passwd_fini();
void __wrap_passwd_fini() {
  stop_part("passwd_fini", __real_passwd_fini);
}

void __real_scan_audit_ctx(std::int64_t now);
void __wrap_scan_audit_ctx(std::int64_t now) {
  calls.scans.push_back(now);
  __real_scan_audit_ctx(now);
}
int __real_handle_audit_msg(audit_reply* reply);
int __wrap_handle_audit_msg(audit_reply* reply) {
  ++calls.messages;
  return __real_handle_audit_msg(reply);
}

int qel_mainloop_reg_poller(qel_poller_fn function, void* argument) {
  if (calls.failing_registration) return 1;
  poller = {function, argument, poller.registrations + 1};
  return 0;
}
}

namespace {

// The records of one execution of `cat`.
void feed_execution(unsigned serial) {
  const std::string header = "audit(1700000000.000:" + std::to_string(serial) + "): ";
  offline::feed(AUDIT_SYSCALL,
                header +
                    "arch=c000003e syscall=59 success=yes exit=0 a0=1 a1=2 a2=3 a3=4 items=2 "
                    "ppid=10 pid=11 auid=0 uid=0 gid=0 euid=0 suid=0 fsuid=0 egid=0 sgid=0 fsgid=0 "
                    "tty=pts0 ses=1 comm=\"cat\" exe=\"/bin/cat\" key=\"execve_rule\"");
  offline::feed(AUDIT_EXECVE, header + "argc=1 a0=\"cat\"");
  offline::feed(AUDIT_EOE, header);
}

std::string errors() {
  return test::log_text(kError);
}

std::string pointer_text(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof(text), "%p", pointer);
  return text;
}

Texts loaded_keys() {
  Texts keys;
  for (const offline::Rule& rule : offline::rules()) {
    const std::uint32_t length = rule->values[rule->field_count - 1];
    keys.emplace_back(rule->buf + rule->buflen - length, length);
  }
  return keys;
}

// The clock never goes back: the time of the next scan outlives a stop.
std::time_t next_start_s = 1'700'000'000;

class QelAudit : public testing::Test {
 protected:
  QelAudit() {
    offline::switch_on();
    offline::set_config_records(false);
    offline::set_path_check([](const std::string&) { return true; });
    offline::set_clock(now_s_);
    test::reset_databases();
    for (const char* path : {"/etc/passwd", "/etc/shadow", "/var/log/wtmp"}) {
      test::redirect(path, "/dev/null");
    }
    test::clear_log();
    calls = {};
    poller.registrations = 0;
  }
  ~QelAudit() override {
    stop();
    offline::switch_off();
    offline::release_clock();
    test::reset_databases();
  }

  // Stops without the printed lines.
  static void stop() {
    testing::internal::CaptureStdout();
    qel_audit_fini();
    testing::internal::GetCapturedStdout();
  }

  // Starts and has the poller read the answer to the status request.
  static void start() {
    ASSERT_EQ(qel_audit_init(), 0);
    poll_all();
    calls = {};
    test::clear_log();
  }

  static int poll_all() {
    int handled = 0;
    while (poll_once() == 1) ++handled;
    return handled;
  }

  static bool is_stopped() {
    bool stopped = audit_fd == -1 && !offline::is_open() && offline::receiver_pid() == 0;
    for (const callback_registry& registry : audit_cb_list) {
      stopped = stopped && registry.buckets == nullptr;
    }
    return stopped;
  }

  const std::time_t now_s_ = next_start_s += 10000;
};

const Texts kStarts = {"audit_msg_init", "audit_subsys_init", "login_log_init", "passwd_init"};
const Texts kStops = {"passwd_fini", "login_log_fini", "audit_subsys_fini", "audit_msg_fini"};

Texts operator+(Texts all, const Texts& more) {
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

// ---- Start and stop ----------------------------------------------------------------------------

TEST_F(QelAudit, StartsItsPartsInOrderAndStopsThemBackwards) {
  EXPECT_EQ(qel_audit_init(), 0);
  EXPECT_EQ(calls.parts, kStarts);
  EXPECT_EQ(poller.registrations, 1);
  EXPECT_EQ(poller.argument, nullptr);
  EXPECT_EQ(qel_audit_init(), 0);
  EXPECT_EQ(calls.parts, kStarts) << "a second start does nothing";
  stop();
  EXPECT_EQ(calls.parts, kStarts + kStops);
  EXPECT_TRUE(is_stopped());
  stop();
  EXPECT_EQ(calls.parts, kStarts + kStops) << "a second stop does nothing";
  EXPECT_EQ(errors(), "");
}

TEST_F(QelAudit, AStopWithoutAStartDoesNothing) {
  qel_audit_fini();
  EXPECT_TRUE(calls.parts.empty());
  EXPECT_EQ(offline::calls(Call::kCount), 0U);
}

class FailingPart : public QelAudit, public testing::WithParamInterface<std::size_t> {};

TEST_P(FailingPart, HasTheStartedOnesStopped) {
  const auto reached = static_cast<std::ptrdiff_t>(GetParam());
  calls.failing_part = kStarts[GetParam()];
  const Texts expected = Texts(kStarts.begin(), kStarts.begin() + reached + 1) +
                         Texts(kStops.end() - reached, kStops.end());
  EXPECT_EQ(qel_audit_init(), -1);
  EXPECT_EQ(calls.parts, expected);
  EXPECT_EQ(poller.registrations, 0);
  EXPECT_TRUE(is_stopped());
  EXPECT_EQ(errors(), "") << "the part tells of its failure itself";

  calls = {};
  EXPECT_EQ(qel_audit_init(), 0);
  EXPECT_EQ(calls.parts, kStarts);
}

INSTANTIATE_TEST_SUITE_P(EachPart, FailingPart, testing::Range(std::size_t{0}, kStarts.size()),
                         [](const auto& test) { return kStarts[test.param]; });

TEST_F(QelAudit, AFailingMainLoopHasEverythingStopped) {
  calls.failing_registration = true;
  EXPECT_EQ(qel_audit_init(), -1);
  EXPECT_EQ(calls.parts, kStarts + kStops);
  EXPECT_TRUE(is_stopped());
  EXPECT_EQ(errors(), "qel_audit: qel_mainloop_reg_poller failed\n");
}

TEST_F(QelAudit, ARestartForgetsEarlierRegistrations) {
  test::Received received;
  ASSERT_EQ(qel_execve_reg_callback("cat", test::keep, &received), 0);
  ASSERT_EQ(qel_execve_reg_callback(nullptr, test::keep, &received), 0);
  stop();
  ASSERT_EQ(qel_audit_init(), 0);
  EXPECT_TRUE(offline::rules().empty());
  feed_execution(7);
  poll_all();
  EXPECT_EQ(received.count(), 0U);
  EXPECT_EQ(qel_execve_reg_callback("cat", test::keep, &received), 0) << "no duplicate";
  EXPECT_EQ(loaded_keys(), Texts{"execve_rule"});
  feed_execution(8);
  poll_all();
  EXPECT_EQ(received.count(), 1U);
}

// ---- Poller ------------------------------------------------------------------------------------

TEST_F(QelAudit, APollReadsOneMessage) {
  start();
  feed_execution(7);
  offline::feed(AUDIT_PATH, "a record without a serial");
  for (int message = 1; message <= 4; ++message) {
    EXPECT_EQ(poll_once(), 1) << "whatever becomes of the message";
    EXPECT_EQ(calls.messages, message);
  }
  const unsigned reads = offline::calls(Call::kGetReply);
  EXPECT_EQ(poll_once(), 0);
  EXPECT_EQ(offline::calls(Call::kGetReply), reads) << "nothing waits, nothing is read";
  EXPECT_EQ(calls.messages, 4);
}

TEST_F(QelAudit, APollGoesOnAfterAFailedRead) {
  start();
  for (const int result : {0, -ENOBUFS}) {
    offline::feed(AUDIT_CWD, "audit(1700000000.000:7): cwd=\"/\"");
    offline::fail(Call::kGetReply, result);
    EXPECT_EQ(poll_once(), 0);
    EXPECT_EQ(errors(), "qel_audit: audit_get_reply failed\n");
    EXPECT_EQ(poll_once(), 1);
    test::clear_log();
  }
  EXPECT_EQ(calls.messages, 2);
}

TEST_F(QelAudit, APollGoesOnAfterAFailedWait) {
  start();
  offline::feed(AUDIT_CWD, "audit(1700000000.000:7): cwd=\"/\"");
  for (const int error : {EINTR, ENOMEM}) {
    offline::fail_poll(error);
    EXPECT_EQ(poll_once(), 0);
    EXPECT_EQ(errors(), std::string("qel_audit: select failed, error=") + strerror(error) + "\n");
    test::clear_log();
  }
  EXPECT_EQ(poll_once(), 1);
}

TEST_F(QelAudit, APollOfAClosedDescriptorFails) {
  start();
  const int fd = audit_fd;
  const int closed = dup(fd);
  close(closed);
  audit_fd = closed;
  EXPECT_EQ(poll_once(), 0);
  audit_fd = fd;
  EXPECT_EQ(errors(), "qel_audit: select failed, error=Bad file descriptor\n");
  EXPECT_EQ(calls.messages, 0);
}

TEST_F(QelAudit, APollReadsFromADescriptorAbove1023) {
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  std::vector<int> fds = {0};
  while (fds.back() >= 0 && fds.back() < 1100)
    fds.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (fds.back() < 0) GTEST_SKIP() << "no more than " << fds.size() << " descriptors";
  EXPECT_EQ(qel_audit_init(), 0);
  EXPECT_GT(audit_fd, 1023);
  EXPECT_EQ(poll_once(), 1);
  EXPECT_EQ(poll_once(), 0);
  EXPECT_EQ(errors(), "");
  stop();
  for (std::size_t i = 1; i < fds.size(); ++i) close(fds[i]);
  limit.rlim_cur = before;
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(QelAudit, APollAfterTheStopTouchesNothing) {
  start();
  stop();
  const unsigned polls = offline::poll_calls();
  EXPECT_EQ(poll_once(), 0);
  EXPECT_EQ(offline::poll_calls(), polls);
  EXPECT_TRUE(calls.scans.empty());
  EXPECT_EQ(errors(), "");
}

TEST_F(QelAudit, ContextsAreScannedWhenMoreThanThreeSecondsHavePassed) {
  ASSERT_EQ(qel_audit_init(), 0);
  std::vector<std::int64_t> expected;
  for (const int second : {0, 1, 3, 4, 5, 7, 8, 100}) {
    offline::set_clock(now_s_ + second);
    poll_once();
    poll_once();
    const bool scans = second == 0 || second == 4 || second == 8 || second == 100;
    if (scans) expected.push_back(now_s_ + second);
  }
  EXPECT_EQ(calls.scans, expected);
}

TEST_F(QelAudit, TheScansPauseOutlivesARestart) {
  start();
  stop();
  calls = {};
  offline::set_clock(now_s_ + 2);
  ASSERT_EQ(qel_audit_init(), 0);
  poll_once();
  EXPECT_TRUE(calls.scans.empty());
}

// Scans at these times in a process of their own; the exit status is the number of scans.
[[noreturn]] void count_scans_at(std::initializer_list<std::time_t> times) {
  offline::switch_on();
  test::redirect("/var/log/wtmp", "/dev/null");
  qel_audit_init();
  for (const std::time_t time : times) {
    offline::set_clock(time);
    poll_once();
  }
  _exit(static_cast<int>(calls.scans.size()));
}

TEST(QelAuditScans, GoOnBeyond2038) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  constexpr std::time_t kEnd = 2147483647;
  EXPECT_EXIT(count_scans_at({1'700'000'000}), testing::ExitedWithCode(1), "");
  EXPECT_EXIT(count_scans_at({kEnd - 1, kEnd + 2, kEnd + 3, kEnd + 6, kEnd + 7}),
              testing::ExitedWithCode(3), "");
  EXPECT_EXIT(count_scans_at({kEnd + 1000, kEnd + 1003, kEnd + 1004}), testing::ExitedWithCode(2),
              "");
}

// ---- Refused registrations ---------------------------------------------------------------------

template <typename Info>
int ignore(const Info*, void*) {
  return 0;
}
constexpr qel_login_callback kIgnoreLogin = ignore<qel_login_info>;
constexpr qel_user_callback kIgnoreUser = ignore<qel_user_info>;
constexpr qel_syscall_callback kIgnoreSyscall = ignore<qel_syscall_info>;
constexpr qel_execve_callback kIgnoreExecve = ignore<qel_execve_info>;
constexpr qel_bind_callback kIgnoreBind = ignore<qel_bind_info>;

template <typename Callback>
std::string callback_text(Callback callback) {
  return pointer_text(reinterpret_cast<const void*>(callback));
}

struct RefusedCase {
  const char* name;
  int (*attempt)();
  std::string message;
};

std::vector<RefusedCase> refused_cases() {
  const std::string all = "use param \"all\" to audit all syscall event\n";
  return {
      {"LoginMask", [] { return qel_login_reg_callback("eve", 0, kIgnoreLogin, nullptr); },
       "invalid cb param, ev_mask=0, cb=" + callback_text(kIgnoreLogin) + "\n"},
      {"LoginCallback", [] { return qel_login_reg_callback("eve", 3, nullptr, nullptr); },
       "invalid cb param, ev_mask=3, cb=(nil)\n"},
      {"UserMask", [] { return qel_user_reg_callback("eve", 0, kIgnoreUser, nullptr); },
       "invalid cb param, ev_mask=0, cb=" + callback_text(kIgnoreUser) + "\n"},
      {"UserCallback", [] { return qel_user_reg_callback(nullptr, -1, nullptr, nullptr); },
       "invalid cb param, ev_mask=-1, cb=(nil)\n"},
      {"SyscallSuccessAbove",
       [] { return qel_syscall_reg_callback("", 2, kIgnoreSyscall, nullptr); },
       "invalid cb param, success=2, cb=" + callback_text(kIgnoreSyscall) + "\n"},
      {"SyscallSuccessBelow",
       [] { return qel_syscall_reg_callback("read", -2, kIgnoreSyscall, nullptr); },
       "invalid cb param, success=-2, cb=" + callback_text(kIgnoreSyscall) + "\n"},
      {"SyscallCallback", [] { return qel_syscall_reg_callback(nullptr, 1, nullptr, nullptr); },
       "invalid cb param, success=1, cb=(nil)\n"},
      {"SyscallNullName",
       [] { return qel_syscall_reg_callback(nullptr, -1, kIgnoreSyscall, nullptr); }, all},
      {"SyscallEmptyName", [] { return qel_syscall_reg_callback("", 0, kIgnoreSyscall, nullptr); },
       all},
      {"ExecveCallback", [] { return qel_execve_reg_callback("cat", nullptr, nullptr); },
       "execve cb cant be null\n"},
      {"BindCallback", [] { return qel_bind_reg_callback(80, nullptr, nullptr); },
       "bind cb cant be null\n"},
  };
}

class Refused : public QelAudit, public testing::WithParamInterface<RefusedCase> {};

TEST_P(Refused, IsToldBeforeTheLibraryIsStarted) {
  EXPECT_EQ(GetParam().attempt(), -1);
  EXPECT_EQ(errors(), "qel_audit: " + GetParam().message);
  EXPECT_TRUE(calls.parts.empty());
}

INSTANTIATE_TEST_SUITE_P(EachArgument, Refused, testing::ValuesIn(refused_cases()),
                         [](const auto& test) { return test.param.name; });

// ---- Registration in every class ---------------------------------------------------------------

struct ClassCase {
  const char* name;
  int event_class;
  int (*keyed)(void* arg);
  int (*other)(void* arg);  // under another key that the same rules serve
  int (*global)(void* arg);
  const char* key;
  const char* filter;
  std::string callback;
  const char* rule;
  void (*remove_rule)();
};

std::vector<ClassCase> class_cases() {
  return {
      {"login", QEL_CLASS_LOGIN,
       [](void* arg) { return qel_login_reg_callback("eve", 3, kIgnoreLogin, arg); },
       [](void* arg) { return qel_login_reg_callback("adam", 3, kIgnoreLogin, arg); },
       [](void* arg) { return qel_login_reg_callback(nullptr, 3, kIgnoreLogin, arg); }, "eve",
       "event=3", callback_text(kIgnoreLogin), "wtmp_rule", audit_del_wtmp_rule},
      {"user", QEL_CLASS_USER,
       [](void* arg) { return qel_user_reg_callback("eve", 8, kIgnoreUser, arg); },
       [](void* arg) { return qel_user_reg_callback("adam", 8, kIgnoreUser, arg); },
       [](void* arg) { return qel_user_reg_callback("", 8, kIgnoreUser, arg); }, "eve", "event=8",
       callback_text(kIgnoreUser), "passwd_rule", audit_del_passwd_rule},
      {"syscall", QEL_CLASS_SYSCALL,
       [](void* arg) { return qel_syscall_reg_callback("openat", -1, kIgnoreSyscall, arg); },
       [](void* arg) { return qel_syscall_reg_callback("read", -1, kIgnoreSyscall, arg); },
       [](void* arg) { return qel_syscall_reg_callback("all", -1, kIgnoreSyscall, arg); }, "openat",
       "success=4294967295", callback_text(kIgnoreSyscall), "syscall_rule",
       [] { audit_del_syscall_rule("openat"); }},
      {"execve", QEL_CLASS_EXECVE,
       [](void* arg) { return qel_execve_reg_callback("cat", kIgnoreExecve, arg); },
       [](void* arg) { return qel_execve_reg_callback("ls", kIgnoreExecve, arg); },
       [](void* arg) { return qel_execve_reg_callback("", kIgnoreExecve, arg); }, "cat", "none",
       callback_text(kIgnoreExecve), "execve_rule", audit_del_execve_rule},
      {"bind", QEL_CLASS_BIND,
       [](void* arg) { return qel_bind_reg_callback(8080, kIgnoreBind, arg); },
       [](void* arg) { return qel_bind_reg_callback(80, kIgnoreBind, arg); },
       [](void* arg) { return qel_bind_reg_callback(0, kIgnoreBind, arg); }, "8080", "none",
       callback_text(kIgnoreBind), "bind_rule", audit_del_bind_rule},
  };
}

// Different arguments for registrations that are to differ.
void* argument(int number) {
  static char bytes[kMaxCallbacks + 1];
  return bytes + number;
}

class EachClass : public QelAudit, public testing::WithParamInterface<ClassCase> {
 protected:
  const ClassCase& class_ = GetParam();
  const callback_registry& registry_ = audit_cb_list[GetParam().event_class];

  std::string added(int index) const {
    return std::string("qel_audit: add event callback for ") + class_.name + ": " + class_.key +
           ", " + class_.filter + ", cb_index=" + std::to_string(index) +
           ", cb=" + class_.callback + "\n";
  }
};

TEST_P(EachClass, StartsTheLibraryAndTellsOfEachCallback) {
  EXPECT_EQ(class_.keyed(argument(0)), 0);
  EXPECT_EQ(calls.parts, kStarts);
  EXPECT_EQ(class_.keyed(argument(1)), 1);
  EXPECT_EQ(class_.global(argument(0)), 0);
  EXPECT_EQ(class_.keyed(argument(2)), 3) << "global callbacks have indexes as well";
  EXPECT_EQ(test::log_text(kNotice), added(0) + added(1) + "qel_audit: add global " + class_.name +
                                         " event callback: " + class_.filter +
                                         ", cb_index=2, cb=" + class_.callback + "\n" + added(3));
  EXPECT_EQ(errors(), "");
  EXPECT_EQ(registry_.entry_count, 4);
  EXPECT_EQ(registry_.global_count, 1);
  EXPECT_EQ(registry_.ops, audit_ops[class_.event_class]);
}

TEST_P(EachClass, RefusesADuplicateAndKeepsTheRule) {
  start();
  ASSERT_EQ(class_.keyed(argument(0)), 0);
  ASSERT_EQ(class_.keyed(argument(1)), 1);
  EXPECT_EQ(class_.keyed(argument(1)), -1);
  EXPECT_EQ(errors(), std::string("qel_audit: callback already exist for ") + class_.name + ": " +
                          class_.key + ", " + class_.filter +
                          ", cb_index=1, cb=" + class_.callback + "\n");
  EXPECT_EQ(registry_.entry_count, 2);
  EXPECT_EQ(loaded_keys(), Texts{class_.rule});
}

TEST_P(EachClass, TakesTheRuleBackThatARefusedRegistrationLoaded) {
  start();
  ASSERT_EQ(class_.keyed(argument(0)), 0);
  class_.remove_rule();
  ASSERT_TRUE(offline::rules().empty());
  EXPECT_EQ(class_.keyed(argument(0)), -1);
  EXPECT_TRUE(offline::rules().empty());
  EXPECT_EQ(offline::calls(Call::kAddRule), 2U);
  EXPECT_EQ(class_.keyed(argument(1)), 1);
  EXPECT_EQ(loaded_keys(), Texts{class_.rule});
}

TEST_P(EachClass, RefusesTheNinthCallbackOfAKeyWithoutUsingAnEntry) {
  start();
  for (int i = 0; i < 8; ++i) ASSERT_EQ(class_.keyed(argument(i)), i);
  EXPECT_EQ(class_.keyed(argument(8)), -1);
  EXPECT_EQ(errors(), std::string("qel_audit: too many callback for ") + class_.name + ": " +
                          class_.key + "\n");
  EXPECT_EQ(class_.other(argument(8)), 8);
  EXPECT_EQ(class_.global(argument(8)), 0);
  EXPECT_EQ(registry_.entry_count, 10);
}

TEST_P(EachClass, RegistersNothingWhenTheRuleIsRefused) {
  start();
  offline::fail(Call::kAddRule, -EPERM);
  EXPECT_EQ(class_.keyed(argument(0)), -1);
  EXPECT_EQ(errors(), "audit_rule: audit_add_rule_data failed\n");
  EXPECT_EQ(registry_.entry_count, 0);
  EXPECT_GE(audit_fd, 0) << "the library stays started";
  EXPECT_EQ(class_.keyed(argument(0)), 0);
}

TEST_P(EachClass, RegistersNothingWhenTheLibraryDoesNotStart) {
  calls.failing_part = "login_log_init";
  EXPECT_EQ(class_.keyed(argument(0)), -1);
  EXPECT_TRUE(offline::requests().empty());
  EXPECT_TRUE(is_stopped());
}

INSTANTIATE_TEST_SUITE_P(Registration, EachClass, testing::ValuesIn(class_cases()),
                         [](const auto& test) { return test.param.name; });

TEST_F(QelAudit, TakesWhatAClassHoldsAndNoMore) {
  start();
  const callback_registry& registry = audit_cb_list[QEL_CLASS_EXECVE];
  for (int i = 0; i < 4095; ++i)
    ASSERT_EQ(qel_execve_reg_callback("", kIgnoreExecve, argument(i)), 0);
  EXPECT_EQ(qel_execve_reg_callback("cat", kIgnoreExecve, argument(0)), 4095);
  EXPECT_EQ(qel_execve_reg_callback("", kIgnoreExecve, argument(4095)), -1);
  EXPECT_EQ(qel_execve_reg_callback("cat", kIgnoreExecve, argument(1)), -1);
  EXPECT_EQ(errors(), "qel_audit: too many audit callbacks\nqel_audit: too many audit callbacks\n");
  EXPECT_EQ(registry.entry_count, 4096);
  EXPECT_EQ(registry.global_count, 4095);
  EXPECT_EQ(loaded_keys(), Texts{"execve_rule"});
  EXPECT_EQ(qel_bind_reg_callback(80, kIgnoreBind, nullptr), 0) << "classes do not share";
}

TEST_F(QelAudit, KeepsItsOwnCopyOfAKey) {
  start();
  char name[] = "cat";
  test::Received received;
  ASSERT_EQ(qel_execve_reg_callback(name, test::keep, &received), 0);
  std::strcpy(name, "ls");
  ASSERT_EQ(qel_execve_reg_callback(name, kIgnoreExecve, nullptr), 1);
  feed_execution(7);
  poll_all();
  EXPECT_EQ(received.count(), 1U);
}

TEST_F(QelAudit, AnotherFilterIsAnotherRegistration) {
  start();
  EXPECT_EQ(qel_login_reg_callback("eve", 1, kIgnoreLogin, nullptr), 0);
  EXPECT_EQ(qel_login_reg_callback("eve", 3, kIgnoreLogin, nullptr), 1);
  EXPECT_EQ(qel_syscall_reg_callback("read", 0, kIgnoreSyscall, nullptr), 0);
  EXPECT_EQ(qel_syscall_reg_callback("read", -1, kIgnoreSyscall, nullptr), 1);
  EXPECT_EQ(qel_bind_reg_callback(80, kIgnoreBind, nullptr), 0);
  EXPECT_EQ(qel_bind_reg_callback(80 + 0x10000, kIgnoreBind, nullptr), -1)
      << "only the low 16 bits of a port count";
}

// ---- Rules of accounts -------------------------------------------------------------------------

TEST_F(QelAudit, AMaskDecidesWhichAccountFilesAreWatched) {
  struct {
    int mask;
    Texts rules;
  } const kCases[] = {{1, {"passwd_rule"}},
                      {2, {"passwd_rule"}},
                      {8, {"passwd_rule"}},
                      {4, {"shadow_rule"}},
                      {5, {"shadow_rule", "passwd_rule"}},
                      {16, {"passwd_rule"}},
                      {-1, {"shadow_rule", "passwd_rule"}}};
  for (const auto& [mask, rules] : kCases) {
    ASSERT_EQ(qel_user_reg_callback(nullptr, mask, kIgnoreUser, nullptr), 0);
    EXPECT_EQ(loaded_keys(), rules) << mask;
    stop();
  }
}

TEST_F(QelAudit, AShadowWatchThatIsRefusedTakesThePasswdWatchBack) {
  start();
  offline::fail_call_number(2, -EPERM);
  EXPECT_EQ(qel_user_reg_callback(nullptr, 5, kIgnoreUser, nullptr), -1);
  EXPECT_TRUE(offline::rules().empty());
  ASSERT_EQ(qel_user_reg_callback(nullptr, 1, kIgnoreUser, nullptr), 0);
  offline::fail(Call::kAddRule, -EPERM);
  EXPECT_EQ(qel_user_reg_callback(nullptr, 5, kIgnoreUser, nullptr), -1);
  EXPECT_EQ(loaded_keys(), Texts{"passwd_rule"}) << "a watch from before stays";
}

TEST_F(QelAudit, BothWatchesAreTakenBackPasswdFirst) {
  start();
  ASSERT_EQ(qel_user_reg_callback("eve", 5, kIgnoreUser, nullptr), 0);
  audit_del_passwd_rule();
  audit_del_shadow_rule();
  const std::size_t before = offline::requests().size();
  EXPECT_EQ(qel_user_reg_callback("eve", 5, kIgnoreUser, nullptr), -1);
  EXPECT_TRUE(offline::rules().empty());
  Texts deleted;
  for (std::size_t i = before; i < offline::requests().size(); ++i) {
    const offline::RuleRequest& request = offline::requests()[i];
    if (request.add || request.flags != AUDIT_FILTER_EXIT) continue;
    deleted.emplace_back(request.rule->buf, request.rule->values[0]);
  }
  EXPECT_EQ(deleted, (Texts{"/etc/passwd", "/etc/shadow"}));
}

TEST_F(QelAudit, AWatchFromBeforeStaysWhenTheNewOneIsTakenBack) {
  start();
  for (int i = 0; i < 8; ++i) {
    ASSERT_EQ(qel_user_reg_callback("eve", 1, kIgnoreUser, argument(i)), i);
  }
  EXPECT_EQ(qel_user_reg_callback("eve", 5, kIgnoreUser, nullptr), -1);
  EXPECT_EQ(loaded_keys(), Texts{"passwd_rule"});
}

// ---- Dispatch ----------------------------------------------------------------------------------

// A callback that notes its name and then does what its test wants.
struct Note {
  Texts* notes;
  std::string name;
  std::function<void()> action = [] {};
};

template <typename Info>
int note(const Info*, void* arg) {
  const Note& note = *static_cast<Note*>(arg);
  note.notes->push_back(note.name);
  note.action();
  return -1;
}

void dispatch_execution(const char* process) {
  execve_event event = {.type = QEL_CLASS_EXECVE, .padding = 0, .info = {}};
  std::strcpy(event.info.process, process);
  EXPECT_EQ(dispatch_event(&event), 0);
}

TEST_F(QelAudit, CallbacksOfTheKeyRunBeforeThoseForAllEachInOrder) {
  Texts notes;
  Note all1{&notes, "all1"}, cat1{&notes, "cat1"}, ls{&notes, "ls"}, all2{&notes, "all2"},
      cat2{&notes, "cat2"};
  ASSERT_EQ(qel_execve_reg_callback("", note<qel_execve_info>, &all1), 0);
  ASSERT_EQ(qel_execve_reg_callback("cat", note<qel_execve_info>, &cat1), 1);
  ASSERT_EQ(qel_execve_reg_callback("ls", note<qel_execve_info>, &ls), 2);
  ASSERT_EQ(qel_execve_reg_callback(nullptr, note<qel_execve_info>, &all2), 0);
  ASSERT_EQ(qel_execve_reg_callback("cat", note<qel_execve_info>, &cat2), 4);
  dispatch_execution("cat");
  EXPECT_EQ(notes, (Texts{"cat1", "cat2", "all1", "all2"}));
  notes.clear();
  dispatch_execution("dog");
  EXPECT_EQ(notes, (Texts{"all1", "all2"}));
}

TEST_F(QelAudit, AnEventReachesOnlyThoseWhoseFilterItPasses) {
  Texts notes;
  Note one{&notes, "mask 1"}, three{&notes, "mask 3"}, keyed{&notes, "eve's mask 2"};
  ASSERT_EQ(qel_user_reg_callback(nullptr, 1, note<qel_user_info>, &one), 0);
  ASSERT_EQ(qel_user_reg_callback(nullptr, 3, note<qel_user_info>, &three), 0);
  ASSERT_EQ(qel_user_reg_callback("eve", 2, note<qel_user_info>, &keyed), 2);
  user_event event = {.type = QEL_CLASS_USER, .padding = 0, .info = {}};
  event.info.event = QEL_USER_DELETED;
  std::strcpy(event.info.username, "eve");
  EXPECT_EQ(dispatch_event(&event), 0);
  EXPECT_EQ(notes, (Texts{"eve's mask 2", "mask 3"}));
}

TEST_F(QelAudit, AnEventReachesOnlyItsClassAndAPortOnlyItsOwn) {
  Texts notes;
  Note login{&notes, "login"}, port{&notes, "port 80"}, other{&notes, "port 20480"},
      any{&notes, "any port"};
  ASSERT_EQ(qel_login_reg_callback(nullptr, 3, note<qel_login_info>, &login), 0);
  ASSERT_EQ(qel_bind_reg_callback(80, note<qel_bind_info>, &port), 0);
  ASSERT_EQ(qel_bind_reg_callback(20480, note<qel_bind_info>, &other), 1);
  ASSERT_EQ(qel_bind_reg_callback(0, note<qel_bind_info>, &any), 0);
  bind_event event = {.type = QEL_CLASS_BIND, .padding = 0, .info = {}};
  sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(80);
  std::memcpy(&event.info.addr, &address, sizeof(address));
  EXPECT_EQ(dispatch_event(&event), 0);
  event.info.addr.ss_family = AF_UNIX;
  EXPECT_EQ(dispatch_event(&event), 0);
  EXPECT_EQ(notes, (Texts{"port 80", "any port", "any port"}));
}

TEST_F(QelAudit, TakingARegistrationBackDoesNothing) {
  test::Received received;
  ASSERT_EQ(qel_execve_reg_callback("cat", test::keep, &received), 0);
  EXPECT_EQ(qel_execve_unreg_callback("cat", test::keep, &received), 0);
  EXPECT_EQ(qel_login_unreg_callback(nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(qel_user_unreg_callback(nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(qel_syscall_unreg_callback(nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(qel_bind_unreg_callback(0, nullptr, nullptr), 0);
  dispatch_execution("cat");
  EXPECT_EQ(received.count(), 1U);
  EXPECT_EQ(loaded_keys(), Texts{"execve_rule"});
}

// ---- Inside a callback -------------------------------------------------------------------------

TEST_F(QelAudit, ARegistrationInsideACallbackWorksAtOnce) {
  Texts notes;
  Note cat2{&notes, "cat2"}, all2{&notes, "all2"};
  Note all1{&notes, "all1",
            [&] { EXPECT_EQ(qel_execve_reg_callback("", note<qel_execve_info>, &all2), 0); }};
  Note cat1{&notes, "cat1", [&] {
              EXPECT_EQ(qel_execve_reg_callback("cat", note<qel_execve_info>, &cat2), 1);
              EXPECT_EQ(qel_execve_reg_callback("", note<qel_execve_info>, &all1), 0);
              EXPECT_EQ(qel_bind_reg_callback(80, kIgnoreBind, nullptr), 0);
            }};
  ASSERT_EQ(qel_execve_reg_callback("cat", note<qel_execve_info>, &cat1), 0);
  dispatch_execution("cat");
  EXPECT_EQ(notes, (Texts{"cat1", "cat2", "all1", "all2"}));
  EXPECT_EQ(loaded_keys(), (Texts{"bind_rule", "execve_rule"}));
}

TEST_F(QelAudit, AStopInsideACallbackWaitsForTheEndOfTheRecord) {
  Texts notes;
  Note last{&notes, "last"};
  Note first{&notes, "first", [] {
               qel_audit_fini();
               qel_audit_fini();
               EXPECT_GE(audit_fd, 0);
             }};
  start();
  ASSERT_EQ(qel_execve_reg_callback("cat", note<qel_execve_info>, &first), 0);
  ASSERT_EQ(qel_execve_reg_callback("", note<qel_execve_info>, &last), 0);
  feed_execution(7);
  feed_execution(8);
  EXPECT_EQ(poll_once(), 1);
  EXPECT_EQ(poll_once(), 1);
  testing::internal::CaptureStdout();
  EXPECT_EQ(poll_once(), 1);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(notes, (Texts{"first", "last"}));
  EXPECT_EQ(calls.parts, kStops);
  EXPECT_TRUE(is_stopped());
  EXPECT_EQ(poll_once(), 0);

  EXPECT_EQ(qel_audit_init(), 0);
  poll_all();
  EXPECT_FALSE(is_stopped()) << "the stop was carried out once";
}

TEST_F(QelAudit, AStopInsideADispatchOrAnAssemblyWaitsForItsEnd) {
  Texts notes;
  Note stops{&notes, "stops", [] { qel_audit_fini(); }};
  ASSERT_EQ(qel_execve_reg_callback("", note<qel_execve_info>, &stops), 0);
  testing::internal::CaptureStdout();
  dispatch_execution("cat");
  EXPECT_TRUE(is_stopped());

  ASSERT_EQ(qel_execve_reg_callback("", note<qel_execve_info>, &stops), 0);
  audit_ctx ctx = {};
  ctx.ruletype = kExecveRule;
  ctx.argc = 1;
  ctx.argv = static_cast<char**>(std::calloc(1, sizeof(char*)));
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(is_stopped());
  EXPECT_EQ(notes.size(), 2U);
}

TEST_F(QelAudit, AStopInsideAnAccountsCallbackLetsTheComparisonFinish) {
  Texts notes;
  Note stops{&notes, "stops", [] { qel_audit_fini(); }};
  ASSERT_EQ(qel_user_reg_callback("", 15, note<qel_user_info>, &stops), 0);
  test::databases.passwd = {{"eve", 1000, 100}, {"adam", 1001, 100}};
  audit_ctx ctx = {};
  ctx.ruletype = kPasswdRule;
  testing::internal::CaptureStdout();
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(notes.size(), 2U);
  EXPECT_TRUE(is_stopped());
}

TEST_F(QelAudit, APollInsideACallbackReadsNothing) {
  Texts notes;
  Note polls{&notes, "polls", [] { EXPECT_EQ(poll_once(), 0); }};
  start();
  ASSERT_EQ(qel_execve_reg_callback("", note<qel_execve_info>, &polls), 0);
  feed_execution(7);
  feed_execution(8);
  EXPECT_EQ(poll_all(), 6);
  EXPECT_EQ(notes.size(), 2U);
}

}  // namespace
