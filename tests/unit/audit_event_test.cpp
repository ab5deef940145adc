// From closed contexts to what callbacks receive. The contexts are built by hand, also such as no
// records lead to.
#include "audit_event.h"

#include <gtest/gtest.h>
#include <libaudit.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "audit_rule.h"
#include "offline_test.h"
#include "passwd.h"
#include "wtmp.h"

namespace {

constexpr uid_t kEve = 1000;

using Texts = std::vector<std::string>;

// A context that owns its texts as one that records have filled.
struct Context : audit_ctx {
  explicit Context(int type, const char* command = "cat") : audit_ctx{} {
    ruletype = type;
    arch = AUDIT_ARCH_X86_64;
    success = 1;
    exit = -13;
    ppid = 4000000000;
    pid = 12;
    uid = kEve;
    comm = command != nullptr ? strdup(command) : nullptr;
  }
  ~Context() { clear_audit_ctx(this); }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  // A count, with a list of that many arguments when some of them came.
  void set_args(int count, const Texts& came) {
    argc = count;
    if (came.empty()) return;
    argv = static_cast<char**>(std::calloc(static_cast<std::size_t>(count), sizeof(char*)));
    for (const std::string& text : came) argv[arg_index++] = strdup(text.c_str());
  }
};

// A library that runs with callbacks for the three classes that come from records alone.
class AuditEvent : public test::OfflineTest {
 protected:
  AuditEvent() {
    test::databases.passwd = {{"root", 0, 0}, {"eve", kEve, 100}};
    EXPECT_EQ(qel_syscall_reg_callback("all", -1, test::keep, &received_), 0);
    EXPECT_EQ(qel_execve_reg_callback(nullptr, test::keep, &received_), 0);
    EXPECT_EQ(qel_bind_reg_callback(0, test::keep, &received_), 0);
    test::clear_log();
  }

  test::Received received_;
};

// Hands a context of each class over; returns "RESULT PPID PID USER PROCESS" of each event.
Texts hand_over_each(const test::Received& received, const char* comm, std::uint32_t uid) {
  for (const int type : {kExecveRule, kSyscallRule, kBindRule}) {
    Context ctx(type, comm);
    ctx.uid = uid;
    ctx.sockaddr[0] = AF_INET;
    EXPECT_EQ(handle_audit_event(&ctx), 0);
  }
  const auto text = [](const auto& info) {
    return std::to_string(info.result) + " " + std::to_string(info.ppid) + " " +
           std::to_string(info.pid) + " " + info.user + " " + info.process;
  };
  return {text(received.executions.back().info), text(received.syscalls.back()),
          text(received.binds.back())};
}

TEST_F(AuditEvent, TellsWhichProcessItWasWithItsTextsCutToTheirFields) {
  const std::string process = "-13 4000000000 12 ";
  EXPECT_EQ(hand_over_each(received_, "cat", kEve), Texts(3, process + "eve cat"));
  EXPECT_EQ(hand_over_each(received_, nullptr, 4294967294), Texts(3, process + "4294967294 "));
  const std::string name(300, 'n'), cut(255, 'n');
  test::databases.passwd.push_back({name, 1001, 100});
  test::redirect("/etc/passwd", "/dev/zero");
  EXPECT_EQ(hand_over_each(received_, name.c_str(), 1001), Texts(3, process + cut + " " + cut));
  EXPECT_EQ(received_.count(), 9U);
}

TEST_F(AuditEvent, ArgumentsAreCompletedOrReplacedByThePath) {
  const struct {
    const char *comm, *path;
    int count;
    Texts came;
    int argc;
    Texts args;
  } cases[] = {{"cat", nullptr, 2, {"cat", ""}, 2, {"cat", ""}},
               {"cat", nullptr, 3, {"a", "b"}, 3, {"a", "b", ""}},
               {"cat", "/bin/no", 1, {"a"}, 1, {"a"}},
               {"cat", "/bin/no", 0, {}, 2, {"cat", "/bin/no"}},
               {nullptr, "/bin/no", 0, {}, 2, {"", "/bin/no"}},
               {"cat", "/bin/no", -1, {}, -1, {}},
               {"cat", nullptr, 5, {}, 0, {}}};
  for (const auto& [comm, path, count, came, argc, args] : cases) {
    Context ctx(kExecveRule, comm);
    ctx.path = path != nullptr ? strdup(path) : nullptr;
    ctx.set_args(count, came);
    EXPECT_EQ(handle_audit_event(&ctx), 0);
    const test::Execution& event = received_.executions.back();
    EXPECT_EQ(event.info.argc, argc);
    EXPECT_EQ(event.args, args);
    EXPECT_EQ(event.has_args, !args.empty());
    EXPECT_EQ(ctx.argv, nullptr) << "the list is the event's";
    EXPECT_EQ(ctx.argc, 0);
  }
  EXPECT_EQ(received_.count(), std::size(cases));
}

TEST_F(AuditEvent, ASystemCallHasItsArgumentsAndTheNameOfItsMachineOrItsNumber) {
  const struct {
    std::uint32_t number, arch;
    const char* name;
  } cases[] = {{11, AUDIT_ARCH_I386, "execve"},
               {59, 0x1234, "59_1234"},
               {0xffffffff, 0xffffffff, "-1_ffffffff"},
               {0x80000000, AUDIT_ARCH_X86_64, "-2147483648_c000003e"},
               // 28 characters: one too many
               {423, AUDIT_ARCH_PPC64, "sched_rr_get_interval_time6"}};
  for (const auto& [number, arch, name] : cases) {
    Context ctx(kSyscallRule);
    ctx.syscall = number;
    ctx.arch = arch;
    for (std::size_t i = 0; i < 4; ++i) ctx.args[i] = 0xffffffff00000000 + i;
    EXPECT_EQ(handle_audit_event(&ctx), 0);
    const qel_syscall_info& event = received_.syscalls.back();
    EXPECT_STREQ(event.syscall, name);
    EXPECT_EQ(event.success, 1);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ((&event.arg1)[i], 0xffffffff00000000 + i);
  }
}

TEST_F(AuditEvent, ABindHasTheWholeAddressAndIsRefusedWithoutOne) {
  Context ctx(kBindRule);
  const sa_family_t family = AF_UNIX;
  std::memset(ctx.sockaddr, 'x', sizeof(ctx.sockaddr));
  std::memcpy(ctx.sockaddr, &family, sizeof(family));
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  ASSERT_EQ(received_.count(), 1U);
  EXPECT_EQ(std::memcmp(&received_.binds[0].addr, ctx.sockaddr, sizeof(ctx.sockaddr)), 0);
  EXPECT_NE(test::log_text(QEL_LOG_DEBUG).find("addr=" + std::string(126, 'x') + ", port=0\n"),
            std::string::npos)
      << "a path that fills the address ends with it";

  std::memset(ctx.sockaddr, 0, sizeof(family));
  EXPECT_EQ(handle_audit_event(&ctx), -1);
  EXPECT_EQ(test::errors(), "audit_event: sockaddr family unspecified\n");
  EXPECT_EQ(received_.count(), 1U);
}

TEST_F(AuditEvent, AnUnknownRuleTypeIsRefusedAndAFakeLoginIsNothing) {
  Context unknown(8), negative(-1), fake(kFakeloginRule);
  EXPECT_EQ(handle_audit_event(&unknown), -1);
  EXPECT_EQ(handle_audit_event(&negative), -1);
  EXPECT_EQ(handle_audit_event(&fake), 0);
  EXPECT_EQ(test::errors(),
            "audit_event: unknown ctx->ruletype: 8\naudit_event: unknown ctx->ruletype: -1\n");
}

TEST_F(AuditEvent, AnEventOfNoClassIsRefusedAndOneOfAStoppedLibraryReachesNobody) {
  execve_event event = {.type = QEL_CLASS_COUNT, .padding = 0, .info = {}};
  EXPECT_EQ(dispatch_event(&event), -1);
  event.type = 0xffffffff;
  EXPECT_EQ(dispatch_event(&event), -1);
  event.type = QEL_CLASS_EXECVE;
  EXPECT_EQ(dispatch_event(&event), 0);
  test::printed_by(qel_audit_fini);
  EXPECT_EQ(dispatch_event(&event), 0);
  EXPECT_EQ(received_.count(), 1U);
}

TEST_F(AuditEvent, ARefusalOfAMonitorIsPassedOn) {
  passwd_fini();
  login_log_fini();
  Context passwd(kPasswdRule), wtmp(kWtmpRule);
  EXPECT_EQ(handle_audit_event(&passwd), -1);
  EXPECT_EQ(handle_audit_event(&wtmp), -1);
  EXPECT_EQ(test::errors(), "passwd: passwd not inited\nwtmp: login_log not inited\n");
}

}  // namespace
