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

#include "audit_msg.h"
#include "audit_rule.h"
#include "offline_test.h"
#include "passwd.h"
#include "wtmp.h"

namespace {

using Texts = std::vector<std::string>;

// A context that owns its texts as one that records have filled.
struct Context : audit_ctx {
  explicit Context(int type, const char* command = "cat") : audit_ctx{} {
    ruletype = type;
    comm = command != nullptr ? strdup(command) : nullptr;
  }
  ~Context() { clear_audit_ctx(this); }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;
};

// A library that runs with callbacks for the three classes that come from records alone.
class AuditEvent : public test::OfflineTest {
 protected:
  AuditEvent() {
    EXPECT_EQ(qel_syscall_reg_callback("all", -1, test::keep, &received_), 0);
    EXPECT_EQ(qel_execve_reg_callback(nullptr, test::keep, &received_), 0);
    EXPECT_EQ(qel_bind_reg_callback(0, test::keep, &received_), 0);
    test::clear_log();
  }

  test::Received received_;
};

TEST_F(AuditEvent, TextsAreCutToTheirFields) {
  const std::string name(300, 'n'), cut(255, 'n');
  test::databases.passwd = {{name, 1001, 100}};
  Context ctx(kExecveRule, name.c_str());
  ctx.uid = 1001;
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  const qel_execve_info& event = received_.executions.back().info;
  EXPECT_EQ(event.user, cut);
  EXPECT_EQ(event.process, cut);
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
    ctx.argc = count;
    if (!came.empty()) ctx.argv = static_cast<char**>(std::calloc(3, sizeof(char*)));
    for (const std::string& text : came) ctx.argv[ctx.arg_index++] = strdup(text.c_str());
    EXPECT_EQ(handle_audit_event(&ctx), 0);
    const test::Execution& event = received_.executions.back();
    EXPECT_EQ(event.info.argc, argc);
    EXPECT_EQ(event.args, args);
    EXPECT_EQ(event.has_args, !args.empty());
    EXPECT_EQ(ctx.argv, nullptr) << "the list is the event's";
  }
}

TEST_F(AuditEvent, ASystemCallHasTheNameOfItsMachineOrItsNumber) {
  const struct {
    std::uint32_t number, arch;
    const char* name;
  } cases[] = {{11, AUDIT_ARCH_I386, "execve"},
               {59, 0x1234, "59_1234"},
               {0x80000000, AUDIT_ARCH_X86_64, "-2147483648_c000003e"},
               // 28 characters: one too many
               {423, AUDIT_ARCH_PPC64, "sched_rr_get_interval_time6"}};
  for (const auto& [number, arch, name] : cases) {
    Context ctx(kSyscallRule);
    ctx.syscall = number;
    ctx.arch = arch;
    EXPECT_EQ(handle_audit_event(&ctx), 0);
    EXPECT_STREQ(received_.syscalls.back().syscall, name);
  }
}

TEST_F(AuditEvent, APathThatFillsAnAddressEndsWithIt) {
  Context ctx(kBindRule);
  const sa_family_t family = AF_UNIX;
  std::memset(ctx.sockaddr, 'x', sizeof(ctx.sockaddr));
  std::memcpy(ctx.sockaddr, &family, sizeof(family));
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  EXPECT_TRUE(
      test::log_text(QEL_LOG_DEBUG).ends_with("addr=" + std::string(126, 'x') + ", port=0\n"));
}

TEST_F(AuditEvent, WhatIsOfNoKnownKindIsRefused) {
  Context unknown(8), fake(kFakeloginRule);
  EXPECT_EQ(handle_audit_event(&unknown), -1);
  EXPECT_EQ(handle_audit_event(&fake), 0);
  EXPECT_EQ(test::errors(), "audit_event: unknown ctx->ruletype: 8\n");
  execve_event event = {.type = QEL_CLASS_COUNT, .padding = 0, .info = {}};
  EXPECT_EQ(dispatch_event(&event), -1);
  event.type = QEL_CLASS_EXECVE;
  test::printed_by(qel_audit_fini);
  EXPECT_EQ(dispatch_event(&event), 0) << "reaches nobody once the library is stopped";
  EXPECT_EQ(received_.count(), 0U);
}

TEST_F(AuditEvent, ARefusalOfAMonitorIsPassedOn) {
  passwd_fini();
  login_log_fini();
  for (const int type : {kPasswdRule, kShadowRule, kWtmpRule, kLastloginRule}) {
    Context ctx(type);
    EXPECT_EQ(handle_audit_event(&ctx), -1);
  }
  EXPECT_EQ(test::errors(),
            "passwd: passwd not inited\npasswd: passwd not inited\n"
            "wtmp: login_log not inited\nwtmp: login_log not inited\n");
}

}  // namespace
