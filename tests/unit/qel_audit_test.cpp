// Start, stop, poller, registration and dispatch. The parts that are started and the functions that
// the poller calls are wrapped by the linker, so that a test sees them and can have them fail.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libaudit.h>
#include <qel_audit.h>
#include <qel_frame.h>
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
#include "offline_test.h"
#include "passwd.h"
#include "wtmp.h"

namespace {

using offline::Call;
using Texts = std::vector<std::string>;

// The registries are data of the binary interface.
static_assert(sizeof(callback_entry) == 32 && offsetof(callback_entry, callback) == 16 &&
              offsetof(key_bucket, indexes) == 12 && offsetof(callback_registry, entries) == 8 &&
              offsetof(callback_registry, global_indexes) == 8 + 4096 * 32 &&
              offsetof(callback_registry, buckets) == 8 + 4096 * 34);

// What was called, and what is to fail.
struct Calls {
  Texts parts;
  std::vector<std::int64_t> scans;
  int messages = 0;
  std::string failing_part;
};
Calls calls;

int (*poll_audit)(void*);  // the poller, as the main loop has it

int poll_once() {
  return poll_audit(nullptr);
}

template <typename Start>
int start_part(const char* name, Start start) {
  calls.parts.push_back(name);
  return calls.failing_part == name ? 1 : start();
}

}  // namespace

extern "C" {

#define QEL_WRAP(name)                       \
  int __real_##name();                       \
  int __wrap_##name() {                      \
    return start_part(#name, __real_##name); \
  }
#define QEL_WRAP_STOP(name)       \
  void __real_##name();           \
  void __wrap_##name() {          \
    calls.parts.push_back(#name); \
    __real_##name();              \
  }
QEL_WRAP(audit_msg_init)
QEL_WRAP(audit_subsys_init)
QEL_WRAP(passwd_init)
QEL_WRAP(audit_subsys_fini)
QEL_WRAP_STOP(passwd_fini)
QEL_WRAP_STOP(login_log_fini)
QEL_WRAP_STOP(audit_msg_fini)

int __real_login_log_init(const char* path);
int __wrap_login_log_init(const char* path) {
  EXPECT_EQ(path, nullptr);
  return start_part("login_log_init", [path] { return __real_login_log_init(path); });
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

int qel_mainloop_reg_poller(qel_poller_fn function, void*) {
  poll_audit = function;
  return start_part("main loop", [] { return 0; });
}
}

namespace {

const Texts kStarts = {"audit_msg_init", "audit_subsys_init", "login_log_init", "passwd_init",
                       "main loop"};
const Texts kStops = {"passwd_fini", "login_log_fini", "audit_subsys_fini", "audit_msg_fini"};

Texts loaded_keys() {
  Texts keys;
  for (const offline::Rule& rule : offline::rules()) {
    const std::uint32_t length = rule->values[rule->field_count - 1];
    keys.emplace_back(rule->buf + rule->buflen - length, length);
  }
  return keys;
}

// The clock never goes back: the time of the next scan outlives a stop.
std::time_t now_s = test::kStart_s;

class QelAudit : public test::OfflineTest {
 protected:
  QelAudit() {
    offline::set_clock(now_s += 10000);
    calls = {};
  }

  static void stop() { test::printed_by(qel_audit_fini); }

  // Starts and has the poller read the answer to the status request.
  static void start() {
    ASSERT_EQ(qel_audit_init(), 0);
    poll_all();
    calls = {};
    test::clear_log();
  }

  static void poll_all() {
    while (poll_once() == 1) continue;
  }

  static bool is_stopped() {
    return audit_fd == -1 && !offline::is_open() && offline::receiver_pid() == 0 &&
           audit_cb_list[0].buckets == nullptr;
  }
};

// ---- Start and stop ----------------------------------------------------------------------------

TEST_F(QelAudit, StartsItsPartsInOrderAndStopsBackwardsWhatWasStarted) {
  stop();
  EXPECT_TRUE(calls.parts.empty()) << "a stop without a start does nothing";
  for (std::size_t reached = 0; reached < kStarts.size(); ++reached) {
    calls = {};
    calls.failing_part = kStarts[reached];
    const auto count = static_cast<std::ptrdiff_t>(reached);
    Texts expected(kStarts.begin(), kStarts.begin() + count + 1);
    expected.insert(expected.end(), kStops.end() - count, kStops.end());
    EXPECT_EQ(qel_audit_init(), -1);
    EXPECT_EQ(calls.parts, expected);
    EXPECT_TRUE(is_stopped());
  }
  EXPECT_EQ(test::errors(), "qel_audit: qel_mainloop_reg_poller failed\n")
      << "the parts tell themselves";
  calls = {};
  EXPECT_EQ(qel_audit_init(), 0);
  EXPECT_EQ(qel_audit_init(), 0);
  EXPECT_EQ(calls.parts, kStarts);
  calls = {};
  stop();
  stop();
  EXPECT_EQ(calls.parts, kStops);
  EXPECT_TRUE(is_stopped());
}

TEST_F(QelAudit, KeepsCopiesOfKeysAndForgetsThemWhenItStops) {
  test::Received received;
  for (int run = 1; run <= 2; ++run) {
    char name[] = "cat";
    ASSERT_EQ(qel_execve_reg_callback(name, test::keep, &received), 0);
    std::strcpy(name, "dog");
    EXPECT_EQ(loaded_keys(), Texts{"execve_rule"});
    test::feed_execution();
    poll_all();
    EXPECT_EQ(received.count(), 1U);
    received = {};
    stop();
    ASSERT_EQ(qel_audit_init(), 0);
    EXPECT_TRUE(offline::rules().empty());
    test::feed_execution();
    poll_all();
    EXPECT_EQ(received.count(), 0U);
  }
}

// ---- Poller ------------------------------------------------------------------------------------

TEST_F(QelAudit, APollReadsOneMessageAndGoesOnAfterAFailure) {
  const struct {
    void (*prepare)();
    std::string error;
  } cases[] = {
      {[] { offline::fail(Call::kGetReply, 0); }, "audit_get_reply failed\n"},
      {[] { offline::fail(Call::kGetReply, -ENOBUFS); }, "audit_get_reply failed\n"},
      {[] { offline::fail_poll(EINTR); }, "select failed, error=Interrupted system call\n"},
      {[] { audit_fd = 100000; }, "select failed, error=Bad file descriptor\n"},
  };
  start();
  const int fd = audit_fd;
  offline::feed(AUDIT_PATH, "a record without a serial");
  offline::feed(AUDIT_CWD, "audit(1700000000.000:7): cwd=\"/\"");
  for (const auto& [prepare, error] : cases) {
    test::clear_log();
    prepare();
    EXPECT_EQ(poll_once(), 0);
    EXPECT_EQ(test::errors(), "qel_audit: " + error);
    audit_fd = fd;
  }
  for (int message = 1; message <= 2; ++message) {
    EXPECT_EQ(poll_once(), 1) << "whatever becomes of the message";
    EXPECT_EQ(calls.messages, message);
  }
  const unsigned reads = offline::calls(Call::kGetReply);
  EXPECT_EQ(poll_once(), 0);
  EXPECT_EQ(offline::calls(Call::kGetReply), reads) << "nothing waits, nothing is read";
}

TEST_F(QelAudit, ContextsAreScannedWhenMoreThanThreeSecondsHavePassedEvenAcrossARestart) {
  ASSERT_EQ(qel_audit_init(), 0);
  std::vector<std::int64_t> expected;
  for (const int second : {0, 1, 3, 4, 5, 7, 8, 100, 102}) {
    if (second == 102) {
      stop();
      ASSERT_EQ(qel_audit_init(), 0);
    }
    offline::set_clock(now_s + second);
    poll_once();
    poll_once();
    const bool scans = second == 0 || second == 4 || second == 8 || second == 100;
    if (scans) expected.push_back(now_s + second);
  }
  EXPECT_EQ(calls.scans, expected);
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
  EXPECT_EXIT(count_scans_at({kEnd - 1, kEnd + 2, kEnd + 3, kEnd + 6, kEnd + 7}),
              testing::ExitedWithCode(3), "");
  EXPECT_EXIT(count_scans_at({kEnd + 1000, kEnd + 1003, kEnd + 1004}), testing::ExitedWithCode(2),
              "");
}

// ---- Registration ------------------------------------------------------------------------------

template <typename Info>
int ignore(const Info*, void*) {
  return 0;
}

// As it stands in log lines, with the end of the line.
template <typename Info>
std::string ignored() {
  int (*const callback)(const Info*, void*) = ignore<Info>;
  char text[40];
  std::snprintf(text, sizeof(text), ", cb=%p\n", reinterpret_cast<const void*>(callback));
  return text;
}

TEST_F(QelAudit, ARegistrationThatIsWrongIsToldBeforeTheLibraryIsStarted) {
  const std::string syscall = "invalid cb param, success=", mask = "invalid cb param, ev_mask=",
                    none = ", cb=(nil)\n";
  const std::string all = "use param \"all\" to audit all syscall event\n";
  const struct {
    int (*attempt)();
    std::string message;
  } cases[] = {
      {[] { return qel_login_reg_callback("eve", 0, ignore, nullptr); },
       mask + "0" + ignored<qel_login_info>()},
      {[] { return qel_login_reg_callback("eve", 3, nullptr, nullptr); }, mask + "3" + none},
      {[] { return qel_user_reg_callback("eve", 0, ignore, nullptr); },
       mask + "0" + ignored<qel_user_info>()},
      {[] { return qel_user_reg_callback(nullptr, -1, nullptr, nullptr); }, mask + "-1" + none},
      {[] { return qel_syscall_reg_callback("", 2, ignore, nullptr); },
       syscall + "2" + ignored<qel_syscall_info>()},
      {[] { return qel_syscall_reg_callback("read", -2, ignore, nullptr); },
       syscall + "-2" + ignored<qel_syscall_info>()},
      {[] { return qel_syscall_reg_callback(nullptr, -1, ignore, nullptr); }, all},
      {[] { return qel_syscall_reg_callback("", 0, ignore, nullptr); }, all},
      {[] { return qel_execve_reg_callback("cat", nullptr, nullptr); }, "execve cb cant be null\n"},
      {[] { return qel_bind_reg_callback(80, nullptr, nullptr); }, "bind cb cant be null\n"},
  };
  for (const auto& [attempt, message] : cases) {
    test::clear_log();
    EXPECT_EQ(attempt(), -1);
    EXPECT_EQ(test::errors(), "qel_audit: " + message);
  }
  EXPECT_TRUE(calls.parts.empty());
}

// Registrations with different numbers differ in their argument.
int add_execve(const char* command, int number) {
  static char arguments[kMaxCallbacks + 1];
  return qel_execve_reg_callback(command, ignore, arguments + number);
}

TEST_F(QelAudit, EachRegistrationIsToldAndADuplicateIsRefused) {
  const std::string callback = ignored<qel_syscall_info>();
  const auto add = [](const char* name, int success) {
    return qel_syscall_reg_callback(name, success, ignore, nullptr);
  };
  EXPECT_EQ(add("read", 0), 0);
  EXPECT_EQ(calls.parts, kStarts) << "the first starts the library";
  EXPECT_EQ(add("all", -1), 0);
  EXPECT_EQ(add("read", 1), 2) << "another filter, and global callbacks have indexes as well";
  EXPECT_EQ(add("read", 1), -1);
  EXPECT_EQ(test::log_text(QEL_LOG_NOTICE),
            "qel_audit: add event callback for syscall: read, success=0, cb_index=0" + callback +
                "qel_audit: add global syscall event callback: success=4294967295, cb_index=1" +
                callback +
                "qel_audit: add event callback for syscall: read, success=1, cb_index=2" +
                callback);
  EXPECT_EQ(
      test::errors(),
      "qel_audit: callback already exist for syscall: read, success=1, cb_index=2" + callback);
  EXPECT_EQ(qel_bind_reg_callback(80, ignore, nullptr), 0);
  EXPECT_EQ(qel_bind_reg_callback(80 + 0x10000, ignore, nullptr), -1) << "a port has 16 bits";
}

TEST_F(QelAudit, RefusesTheNinthCallbackOfAKeyWithoutUsingAnEntry) {
  start();
  for (int i = 0; i < 8; ++i) ASSERT_EQ(add_execve("cat", i), i);
  EXPECT_EQ(add_execve("cat", 8), -1);
  EXPECT_EQ(test::errors(), "qel_audit: too many callback for execve: cat\n");
  EXPECT_EQ(add_execve("ls", 8), 8);
}

TEST_F(QelAudit, RefusesTheCallbackBehindThe4096thOfAClass) {
  start();
  for (int i = 0; i < 4095; ++i) ASSERT_EQ(add_execve(nullptr, i), 0);
  EXPECT_EQ(add_execve("cat", 0), 4095);
  EXPECT_EQ(add_execve(nullptr, 4095), -1);
  EXPECT_EQ(add_execve("cat", 1), -1);
  EXPECT_EQ(test::errors(),
            "qel_audit: too many audit callbacks\nqel_audit: too many audit callbacks\n");
  EXPECT_EQ(loaded_keys(), Texts{"execve_rule"});
  EXPECT_EQ(qel_bind_reg_callback(80, ignore, nullptr), 0) << "classes do not share";
}

TEST_F(QelAudit, NothingIsRegisteredWithoutItsRuleAndNoRuleKeptWithoutARegistration) {
  const struct {
    const char* rule;
    int (*add)(void* arg);
    void (*remove_rule)();
  } cases[] = {
      {"wtmp_rule", [](void* arg) { return qel_login_reg_callback("eve", 3, ignore, arg); },
       audit_del_wtmp_rule},
      {"passwd_rule", [](void* arg) { return qel_user_reg_callback("eve", 8, ignore, arg); },
       audit_del_passwd_rule},
      {"syscall_rule", [](void* arg) { return qel_syscall_reg_callback("read", 1, ignore, arg); },
       [] { audit_del_syscall_rule("read"); }},
      {"execve_rule", [](void* arg) { return qel_execve_reg_callback("cat", ignore, arg); },
       audit_del_execve_rule},
      {"bind_rule", [](void* arg) { return qel_bind_reg_callback(80, ignore, arg); },
       audit_del_bind_rule},
  };
  for (const auto& [rule, add, remove_rule] : cases) {
    SCOPED_TRACE(rule);
    reset_kernel();
    calls.failing_part = "login_log_init";
    EXPECT_EQ(add(nullptr), -1) << "the library does not start";
    EXPECT_TRUE(is_stopped());
    calls = {};
    start();
    offline::fail(Call::kAddRule, -EPERM);
    EXPECT_EQ(add(nullptr), -1);
    EXPECT_EQ(add(nullptr), 0);
    EXPECT_EQ(add(nullptr), -1) << "a duplicate";
    EXPECT_EQ(loaded_keys(), Texts{rule}) << "the rule is the first one's";
    remove_rule();
    EXPECT_EQ(add(nullptr), -1);
    EXPECT_TRUE(offline::rules().empty()) << "loaded for the duplicate and taken back";
    EXPECT_EQ(offline::calls(Call::kAddRule), 3U);
    EXPECT_EQ(add(&calls), 1);
    EXPECT_EQ(loaded_keys(), Texts{rule});
    stop();
  }
}

TEST_F(QelAudit, OnlyTheWatchesThatARefusedRegistrationLoadedAreTakenBackPasswdFirst) {
  start();
  offline::fail_call_number(2, -EPERM);  // the watch of the shadow file
  EXPECT_EQ(qel_user_reg_callback("eve", 5, ignore, nullptr), -1);
  EXPECT_TRUE(offline::rules().empty());
  ASSERT_EQ(qel_user_reg_callback("eve", 5, ignore, nullptr), 0);
  audit_del_shadow_rule();
  EXPECT_EQ(qel_user_reg_callback("eve", 5, ignore, nullptr), -1);
  EXPECT_EQ(loaded_keys(), Texts{"passwd_rule"}) << "a watch from before stays";

  audit_del_passwd_rule();
  const std::size_t before = offline::requests().size();
  EXPECT_EQ(qel_user_reg_callback("eve", 5, ignore, nullptr), -1);
  std::string requests;
  for (std::size_t i = before; i < offline::requests().size(); ++i) {
    const offline::RuleRequest& request = offline::requests()[i];
    requests += (request.add ? " +" : " -") + std::string(request.rule->buf + 5, 6);
  }
  EXPECT_EQ(requests, " +passwd +shadow -passwd -passwd -shadow -shadow") << "in both forms each";
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
constexpr qel_execve_callback kNoteExecve = note<qel_execve_info>;

void dispatch_execution(const char* process) {
  execve_event event = {.type = QEL_CLASS_EXECVE, .padding = 0, .info = {}};
  std::strcpy(event.info.process, process);
  EXPECT_EQ(dispatch_event(&event), 0);
}

TEST_F(QelAudit, CallbacksOfTheKeyRunBeforeThoseForAllEachInOrder) {
  Texts notes;
  Note all1{&notes, "all1"}, cat1{&notes, "cat1"}, ls{&notes, "ls"}, all2{&notes, "all2"},
      cat2{&notes, "cat2"};
  ASSERT_EQ(qel_execve_reg_callback("", kNoteExecve, &all1), 0);
  ASSERT_EQ(qel_execve_reg_callback("cat", kNoteExecve, &cat1), 1);
  ASSERT_EQ(qel_execve_reg_callback("ls", kNoteExecve, &ls), 2);
  ASSERT_EQ(qel_execve_reg_callback(nullptr, kNoteExecve, &all2), 0);
  ASSERT_EQ(qel_execve_reg_callback("cat", kNoteExecve, &cat2), 4);
  EXPECT_EQ(qel_execve_unreg_callback("cat", kNoteExecve, &cat2), 0) << "does nothing";
  dispatch_execution("cat");
  dispatch_execution("dog");
  EXPECT_EQ(notes, (Texts{"cat1", "cat2", "all1", "all2", "all1", "all2"}));
}

TEST_F(QelAudit, ABindReachesThoseForItsPortAndForAll) {
  Texts notes;
  Note port{&notes, "port 80"}, other{&notes, "port 20480"}, any{&notes, "any port"};
  ASSERT_EQ(qel_bind_reg_callback(80, note<qel_bind_info>, &port), 0);
  ASSERT_EQ(qel_bind_reg_callback(20480, note<qel_bind_info>, &other), 1);
  ASSERT_EQ(qel_bind_reg_callback(0, note<qel_bind_info>, &any), 0);
  bind_event event = {.type = QEL_CLASS_BIND, .padding = 0, .info = {}};
  const sockaddr_in6 address = {AF_INET6, htons(80), 0, {}, 0};
  std::memcpy(&event.info.addr, &address, sizeof(address));
  EXPECT_EQ(dispatch_event(&event), 0);
  event.info.addr.ss_family = AF_UNIX;
  EXPECT_EQ(dispatch_event(&event), 0);
  EXPECT_EQ(notes, (Texts{"port 80", "any port", "any port"}));
}

// ---- Inside a callback -------------------------------------------------------------------------

TEST_F(QelAudit, ARegistrationInsideACallbackWorksAtOnce) {
  Texts notes;
  Note cat2{&notes, "cat2"}, all2{&notes, "all2"};
  Note all1{&notes, "all1", [&] { EXPECT_EQ(qel_execve_reg_callback("", kNoteExecve, &all2), 0); }};
  Note cat1{&notes, "cat1", [&] {
              EXPECT_EQ(qel_execve_reg_callback("cat", kNoteExecve, &cat2), 1);
              EXPECT_EQ(qel_execve_reg_callback("", kNoteExecve, &all1), 0);
              EXPECT_EQ(qel_bind_reg_callback(80, ignore, nullptr), 0);
            }};
  ASSERT_EQ(qel_execve_reg_callback("cat", kNoteExecve, &cat1), 0);
  dispatch_execution("cat");
  EXPECT_EQ(notes, (Texts{"cat1", "cat2", "all1", "all2"}));
  EXPECT_EQ(loaded_keys(), (Texts{"bind_rule", "execve_rule"}));
}

TEST_F(QelAudit, AStopInsideACallbackWaitsForTheEndOfTheRecordAndAPollReadsNothing) {
  Texts notes;
  Note last{&notes, "last"};
  Note first{&notes, "first", [] {
               EXPECT_EQ(poll_once(), 0);
               qel_audit_fini();
               qel_audit_fini();
               EXPECT_GE(audit_fd, 0);
             }};
  start();
  ASSERT_EQ(qel_execve_reg_callback("cat", kNoteExecve, &first), 0);
  ASSERT_EQ(qel_execve_reg_callback("", kNoteExecve, &last), 0);
  test::feed_execution();
  test::feed_execution();
  test::printed_by(poll_all);
  EXPECT_EQ(calls.messages, 3);
  EXPECT_EQ(notes, (Texts{"first", "last"}));
  EXPECT_EQ(calls.parts, kStops);
  EXPECT_TRUE(is_stopped());
  const unsigned polls = offline::poll_calls();
  EXPECT_EQ(poll_once(), 0);
  EXPECT_EQ(offline::poll_calls(), polls) << "a poll after the stop touches nothing";

  start();
  EXPECT_FALSE(is_stopped()) << "the stop was carried out once";
  ASSERT_EQ(qel_execve_reg_callback("cat", kNoteExecve, &first), 0);
  test::printed_by([] { dispatch_execution("cat"); });
  EXPECT_TRUE(is_stopped());
}

}  // namespace
