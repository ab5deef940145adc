// Start, stop, poller, registration and dispatch. The parts that are started and the functions that
// the poller calls are wrapped by the linker, so that a test sees them and can have them fail.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libaudit.h>
#include <qel_audit.h>
#include <qel_frame.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "audit_event.h"
#include "audit_msg.h"
#include "audit_rule.h"
#include "callback_registry.h"
#include "offline_test.h"
#include "passwd.h"
#include "rules/audit_replies.h"
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
  int scans = 0;
  int messages = 0;
  std::string failing_part;
};
Calls calls;

int (*poll_audit)(void*);  // the poller, as the main loop has it

int poll_once() {
  return poll_audit(nullptr);
}

void poll_all() {
  while (poll_once() == 1) continue;
}

// Notes that a part is started or stopped. Returns whether it is to fail.
bool note_part(const char* name) {
  calls.parts.push_back(name);
  return calls.failing_part == name;
}

}  // namespace

extern "C" {

#define QEL_WRAP(type, name)                             \
  type __real_##name();                                  \
  type __wrap_##name() {                                 \
    return note_part(#name) ? type(1) : __real_##name(); \
  }
QEL_WRAP(int, audit_msg_init)
QEL_WRAP(int, audit_subsys_init)
QEL_WRAP(int, passwd_init)
QEL_WRAP(void, passwd_fini)
QEL_WRAP(void, login_log_fini)
QEL_WRAP(int, audit_subsys_fini)
QEL_WRAP(void, audit_msg_fini)

int __real_login_log_init(const char* path);
int __wrap_login_log_init(const char* path) {
  return note_part("login_log_init") ? 1 : __real_login_log_init(path);
}
void __real_scan_audit_ctx(std::int64_t now);
void __wrap_scan_audit_ctx(std::int64_t) {
  ++calls.scans;
}
int __real_handle_audit_msg(audit_reply* reply);
int __wrap_handle_audit_msg(audit_reply* reply) {
  ++calls.messages;
  return __real_handle_audit_msg(reply);
}

int qel_mainloop_reg_poller(qel_poller_fn function, void*) {
  poll_audit = function;
  return note_part("main loop") ? 1 : 0;
}
}

namespace {

const Texts kStarts = {"audit_msg_init", "audit_subsys_init", "login_log_init", "passwd_init",
                       "main loop"};
const Texts kStops = {"passwd_fini", "login_log_fini", "audit_subsys_fini", "audit_msg_fini"};

// The paths and keys of the rules, in one text.
std::string loaded_rules() {
  std::string texts;
  for (const offline::Rule& rule : offline::rules()) texts.append(rule->buf, rule->buflen);
  return texts;
}

Texts notes;  // of the callbacks that ran

class QelAudit : public test::OfflineTest {
 protected:
  QelAudit() {
    calls = {};
    notes.clear();
  }

  static void stop() { test::printed_by(qel_audit_fini); }

  // Starts and has the poller read the answer to the status request.
  static void start() {
    ASSERT_EQ(qel_audit_init(), 0);
    poll_all();
    calls = {};
    test::clear_log();
  }

  static bool is_stopped() {
    return audit_fd == -1 && !offline::is_open() && offline::receiver_pid() == 0 &&
           audit_cb_list[0].buckets == nullptr;
  }
};

// ---- Start and stop ----------------------------------------------------------------------------

TEST_F(QelAudit, StartsItsPartsInOrderAndStopsBackwardsWhatWasStarted) {
  for (std::ptrdiff_t reached = 0; reached < std::ssize(kStarts); ++reached) {
    calls = {};
    calls.failing_part = kStarts.begin()[reached];
    Texts expected(kStarts.begin(), kStarts.begin() + reached + 1);
    expected.insert(expected.end(), kStops.end() - reached, kStops.end());
    EXPECT_EQ(qel_audit_init(), -1);
    EXPECT_EQ(calls.parts, expected);
    EXPECT_TRUE(is_stopped());
  }
  EXPECT_EQ(test::errors(), "qel_audit: qel_mainloop_reg_poller failed\n");
  calls = {};
  for (int i = 0; i < 2; ++i) EXPECT_EQ(qel_audit_init(), 0);
  for (int i = 0; i < 2; ++i) stop();
  Texts expected = kStarts;
  expected.insert(expected.end(), kStops.begin(), kStops.end());
  EXPECT_EQ(calls.parts, expected);
  EXPECT_TRUE(is_stopped());
}

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
  EXPECT_FALSE(has_overrun());
  for (const auto& [prepare, error] : cases) {
    test::clear_log();
    prepare();
    EXPECT_EQ(poll_once(), 0);
    EXPECT_EQ(test::errors(), "qel_audit: " + error);
    audit_fd = fd;
  }
  for (const int result : {1, 1, 0}) EXPECT_EQ(poll_once(), result);
  EXPECT_EQ(calls.messages, 2);
  EXPECT_TRUE(has_overrun());
}

TEST_F(QelAudit, LateWritesAreFoundWhileRecordsKeepComingButNotBehindAFailedCheck) {
  test::ScratchFile passwd;
  test::redirect("/etc/passwd", passwd.path());
  ASSERT_EQ(qel_user_reg_callback(
                "eve", QEL_USER_ADDED, [](const qel_user_info*, void*) { return 0; }, nullptr),
            0);
  poll_all();
  audit_ctx ctx = {};
  ctx.ruletype = kPasswdRule;
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  const int walks = test::walks.passwd.started;
  passwd.append("text");
  offline::advance_clock(std::chrono::milliseconds(100));
  offline::fail_poll(EBADF);
  EXPECT_EQ(poll_once(), 0);
  EXPECT_EQ(test::walks.passwd.started, walks);
  for (int i = 0; i < 2; ++i) offline::feed(AUDIT_CWD, "audit(1700000000.000:7): cwd=\"/\"");
  EXPECT_EQ(poll_once(), 1);
  EXPECT_EQ(test::walks.passwd.started, walks + 1);
}

// Polls at these times, always of a library that has just been started, in a process of its own; the
// exit status is the number of scans.
[[noreturn]] void count_scans_at(std::initializer_list<std::time_t> times) {
  offline::switch_on();
  test::redirect("/var/log/wtmp", "/dev/null");
  for (const std::time_t time : times) {
    offline::set_clock(time);
    qel_audit_init();
    poll_once();
    poll_once();
    qel_audit_fini();
  }
  _exit(calls.scans);
}

TEST(QelAuditScans, AreMoreThanThreeSecondsApartAlsoAcrossRestartsAndBeyond2038) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  constexpr std::time_t kEnd = 0x7fffffff;
  EXPECT_EXIT(count_scans_at({kEnd - 3, kEnd - 2, kEnd, kEnd + 1, kEnd + 4, kEnd + 5}),
              testing::ExitedWithCode(3), "");
  EXPECT_EXIT(count_scans_at({kEnd + 1000, kEnd + 1003}), testing::ExitedWithCode(1), "");
}

// ---- Registration ------------------------------------------------------------------------------

template <typename Info>
int ignore(const Info*, void*) {
  return 0;
}

TEST_F(QelAudit, ARegistrationThatIsWrongIsToldBeforeTheLibraryIsStarted) {
  const struct {
    int (*attempt)();
    std::string message;
  } cases[] = {
      {[] { return qel_login_reg_callback("eve", 0, ignore, nullptr); }, "ev_mask=0, cb=0x"},
      {[] { return qel_user_reg_callback("eve", -1, nullptr, nullptr); }, "ev_mask=-1, cb=(nil)"},
      {[] { return qel_syscall_reg_callback("", 2, ignore, nullptr); }, "success=2, cb=0x"},
      {[] { return qel_syscall_reg_callback("read", -2, ignore, nullptr); }, "success=-2, cb=0x"},
      {[] { return qel_syscall_reg_callback(nullptr, -1, ignore, nullptr); }, "use param \"all\""},
      {[] { return qel_syscall_reg_callback("", 0, ignore, nullptr); }, "use param \"all\""},
      {[] { return qel_execve_reg_callback("cat", nullptr, nullptr); }, "execve cb cant be null"},
      {[] { return qel_bind_reg_callback(80, nullptr, nullptr); }, "bind cb cant be null"},
  };
  for (const auto& [attempt, message] : cases) {
    test::clear_log();
    EXPECT_EQ(attempt(), -1);
    EXPECT_NE(test::errors().find(message), std::string::npos) << test::errors();
  }
  EXPECT_TRUE(calls.parts.empty());
}

// Registrations with different numbers differ in their argument.
int add_execve(const char* command, int number) {
  static char arguments[kMaxCallbacks + 1];
  return qel_execve_reg_callback(command, ignore, arguments + number);
}

TEST_F(QelAudit, EachRegistrationIsToldAndADuplicateIsRefused) {
  const auto add = [](const char* name, int success) {
    return qel_syscall_reg_callback(name, success, ignore, nullptr);
  };
  const auto told = [](int level) {  // without the callbacks' addresses
    return std::regex_replace(test::log_text(level), std::regex(", cb=\\S+"), "");
  };
  EXPECT_EQ(add("read", 0), 0);
  EXPECT_EQ(calls.parts, kStarts) << "the first starts the library";
  EXPECT_EQ(add("all", -1), 0);
  EXPECT_EQ(add("read", 1), 2) << "another filter, and global callbacks have indexes as well";
  EXPECT_EQ(add("read", 1), -1);
  EXPECT_EQ(told(QEL_LOG_NOTICE),
            "qel_audit: add event callback for syscall: read, success=0, cb_index=0\n"
            "qel_audit: add global syscall event callback: success=4294967295, cb_index=1\n"
            "qel_audit: add event callback for syscall: read, success=1, cb_index=2\n");
  EXPECT_EQ(told(QEL_LOG_ERROR),
            "qel_audit: callback already exist for syscall: read, success=1, cb_index=2\n");
  EXPECT_EQ(qel_bind_reg_callback(80, ignore, nullptr), 0);
  EXPECT_EQ(qel_bind_reg_callback(80 + 0x10000, ignore, nullptr), -1) << "a port has 16 bits";
}

TEST_F(QelAudit, RefusesTheNinthCallbackOfAKeyAndTheOneBehindThe4096thOfAClass) {
  start();
  for (int i = 0; i < 8; ++i) ASSERT_EQ(add_execve("cat", i), i);
  EXPECT_EQ(add_execve("cat", 8), -1);
  EXPECT_EQ(add_execve("ls", 8), 8) << "a refused one uses no entry";
  for (int i = 9; i < 4095; ++i) ASSERT_EQ(add_execve(nullptr, i), 0);
  EXPECT_EQ(add_execve("dog", 0), 4095);
  EXPECT_EQ(add_execve(nullptr, 4095), -1);
  EXPECT_EQ(add_execve("dog", 1), -1);
  EXPECT_EQ(test::errors(),
            "qel_audit: too many callback for execve: cat\nqel_audit: too many audit callbacks\n"
            "qel_audit: too many audit callbacks\n");
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
      {"shadow_rule", [](void* arg) { return qel_user_reg_callback("eve", 4, ignore, arg); },
       audit_del_shadow_rule},
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
    calls = {};
    start();
    offline::fail(Call::kAddRule, -EPERM);
    EXPECT_EQ(add(nullptr), -1);
    EXPECT_EQ(add(nullptr), 0);
    EXPECT_EQ(add(nullptr), -1) << "a duplicate";
    EXPECT_TRUE(loaded_rules().ends_with(rule)) << "the rule is the first one's";
    remove_rule();
    EXPECT_EQ(add(nullptr), -1);
    EXPECT_TRUE(offline::rules().empty()) << "loaded for the duplicate and taken back";
    EXPECT_EQ(add(&calls), 1);
    stop();
  }
}

TEST_F(QelAudit, OnlyTheWatchesThatARefusedRegistrationLoadedAreTakenBackPasswdFirst) {
  const auto add = [] { return qel_user_reg_callback("eve", 5, ignore, nullptr); };
  start();
  ASSERT_EQ(add(), 0);
  audit_del_shadow_rule();
  EXPECT_EQ(add(), -1);
  EXPECT_EQ(loaded_rules(), "/etc/passwdpasswd_rule") << "a watch from before stays";

  audit_del_passwd_rule();
  const std::size_t before = offline::requests().size();
  EXPECT_EQ(add(), -1);
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
  std::string name;
  std::function<void()> action = [] {};
};

template <typename Info>
int note(const Info*, void* arg) {
  const Note& note = *static_cast<Note*>(arg);
  notes.push_back(note.name);
  note.action();
  return -1;
}

int add_note(const char* command, Note& to) {
  return qel_execve_reg_callback(command, note, &to);
}

void dispatch_execution(const char* process) {
  execve_event event = {.type = QEL_CLASS_EXECVE, .padding = 0, .info = {}};
  std::strcpy(event.info.process, process);
  EXPECT_EQ(dispatch_event(&event), 0);
}

TEST_F(QelAudit, ABindReachesThoseForItsPortAndForAll) {
  Note port{"port 80"}, any{"any port"};
  ASSERT_EQ(qel_bind_reg_callback(80, note, &port), 0);
  ASSERT_EQ(qel_bind_reg_callback(0, note, &any), 0);
  bind_event event = {.type = QEL_CLASS_BIND, .padding = 0, .info = {}};
  const sockaddr_in6 address = {AF_INET6, htons(80), 0, {}, 0};
  std::memcpy(&event.info.addr, &address, sizeof(address));
  EXPECT_EQ(dispatch_event(&event), 0);
  EXPECT_EQ(notes, (Texts{"port 80", "any port"}));
}

TEST_F(QelAudit, CallbacksOfTheKeyRunBeforeThoseForAllEachInOrderAlsoThoseThatCallbacksRegister) {
  Note cat2{"cat2"}, all2{"all2"};
  Note all1{"all1", [&] { add_note("", all2); }};
  Note cat1{"cat1", [&] {
              EXPECT_EQ(add_note("cat", cat2), 2);
              EXPECT_EQ(qel_bind_reg_callback(80, ignore, nullptr), 0);
            }};
  ASSERT_EQ(add_note(nullptr, all1), 0);
  ASSERT_EQ(add_note("cat", cat1), 1);
  EXPECT_EQ(qel_execve_unreg_callback("cat", note, &cat1), 0) << "does nothing";
  dispatch_execution("cat");
  dispatch_execution("dog");
  EXPECT_EQ(notes, (Texts{"cat1", "cat2", "all1", "all2", "all1", "all2"}));
}

TEST_F(QelAudit, AStopInsideACallbackWaitsForTheEndOfTheRecordAndAPollReadsNothing) {
  Note last{"last"};
  Note first{"first", [] {
               EXPECT_EQ(poll_once(), 0);
               qel_audit_fini();
               qel_audit_fini();
               EXPECT_GE(audit_fd, 0);
             }};
  start();
  ASSERT_EQ(add_note("cat", first), 0);
  ASSERT_EQ(add_note("", last), 0);
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
  ASSERT_EQ(add_note("cat", first), 0);
  test::printed_by([] { dispatch_execution("cat"); });
  EXPECT_TRUE(is_stopped());
}

TEST_F(QelAudit, NothingStartsInACallbackThatHasAskedForAStop) {
  Note note{"note", [] {
              EXPECT_EQ(qel_audit_init(), 0);
              qel_audit_fini();
              EXPECT_EQ(qel_audit_init(), -1);
              EXPECT_EQ(qel_execve_reg_callback("dog", ::note, nullptr), -1);
            }};
  start();
  ASSERT_EQ(add_note("", note), 0);
  test::feed_execution();
  test::printed_by(poll_all);
  EXPECT_EQ(test::errors(),
            "qel_audit: the library is about to stop\nqel_audit: the library is about to stop\n");
  EXPECT_TRUE(is_stopped());
  start();
  EXPECT_FALSE(is_stopped());
}

// What a host may call by mistake while the library is at work below it.
void misuse_everything() {
  audit_reply reply = {};
  reply.type = AUDIT_EOE;
  std::strcpy(reply.msg.data, "audit(1700000000.000:7): ");
  reply.message = reply.msg.data;
  reply.len = static_cast<int>(std::strlen(reply.message));
  audit_ctx ctx = {};
  ctx.ruletype = kPasswdRule;
  EXPECT_EQ(handle_audit_msg(&reply), -1);
  EXPECT_EQ(handle_audit_event(&ctx), -1);
  EXPECT_EQ(check_passwd_event(nullptr, &ctx), -1);
  EXPECT_EQ(check_login_event(nullptr, nullptr, &ctx), -1);
  __real_scan_audit_ctx(4'000'000'000);
  passwd_fini();
  login_log_fini();
  audit_msg_fini();
}

TEST_F(QelAudit, NothingThatACallbackOrAnEmitterCallsTakesAwayWhatTheLibraryWorksOn) {
  Note first{"first", misuse_everything}, last{"last"};
  start();
  ASSERT_EQ(add_note("", first), 0);
  ASSERT_EQ(add_note("", last), 0);
  test::feed_execution();
  poll_all();
  EXPECT_EQ(notes, (Texts{"first", "last"}));

  notes.clear();
  test::databases.passwd = {{"dana", 1, 1}, {"evan", 2, 2}};
  const auto misuse = [](passwd_entry* entry, audit_ctx*) {
    misuse_everything();
    notes.push_back(entry->name);
    return 0;
  };
  EXPECT_EQ(check_passwd_event(misuse, nullptr), 0);
  EXPECT_EQ(notes, (Texts{"dana", "evan"}));
  EXPECT_EQ(check_passwd_event(misuse, nullptr), 0);
  EXPECT_EQ(notes.size(), 2U);
}

}  // namespace
