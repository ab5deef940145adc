// From closed contexts to what callbacks receive. The contexts are built by hand, also such as no
// records lead to.
#include "audit_event.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libaudit.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "audit_rule.h"
#include "callbacks.h"
#include "captured_log.h"
#include "clock.h"
#include "databases.h"
#include "offline_kernel.h"
#include "passwd.h"
#include "wtmp.h"

namespace {

constexpr int kError = 2;
constexpr uid_t kEve = 1000;

// A context that owns its texts as one that records have filled.
struct Context : audit_ctx {
  explicit Context(RuleType type) : audit_ctx{} {
    ruletype = type;
    msgtype = AUDIT_SYSCALL;
    serial = 17;
    arch = AUDIT_ARCH_X86_64;
    syscall = SYS_execve;
    success = 1;
    ppid = 11;
    pid = 12;
    uid = kEve;
    comm = strdup("cat");
    key = strdup("key");
  }
  ~Context() { clear_audit_ctx(this); }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  void set_comm(const char* text) {
    std::free(comm);
    comm = text != nullptr ? strdup(text) : nullptr;
  }

  // `count` slots of which the first are filled.
  void set_args(int count, std::initializer_list<const char*> texts) {
    argc = count;
    argv = static_cast<char**>(std::calloc(static_cast<std::size_t>(count), sizeof(char*)));
    for (const char* text : texts) argv[arg_index++] = strdup(text);
  }

  template <typename Address>
  void set_address(const Address& address) {
    static_assert(sizeof(address) <= sizeof(sockaddr));
    std::memcpy(sockaddr, &address, sizeof(address));
  }
};

std::string errors() {
  return test::log_text(kError);
}

using Texts = std::vector<std::string>;

// A library that runs with a callback of every class for everything.
class AuditEvent : public testing::Test {
 protected:
  AuditEvent() {
    offline::switch_on();
    offline::set_path_check([](const std::string&) { return true; });
    offline::set_clock(1'700'000'000);
    test::reset_databases();
    test::databases.passwd = {{"root", 0, 0}, {"eve", kEve, 100}};
    test::databases.shadow = {{"root", "r1"}, {"eve", "e1"}};
    test::databases.group = {{"root", 0}, {"users", 100}};
    test::redirect("/etc/passwd", "/dev/null");
    test::redirect("/etc/shadow", "/dev/null");
    test::write_wtmp(wtmp_, {});
    test::redirect("/var/log/wtmp", wtmp_);
    EXPECT_EQ(qel_login_reg_callback(nullptr, 3, test::keep, &received_), 0);
    EXPECT_EQ(qel_user_reg_callback(nullptr, 15, test::keep, &received_), 0);
    EXPECT_EQ(qel_syscall_reg_callback("all", -1, test::keep, &received_), 0);
    EXPECT_EQ(qel_execve_reg_callback(nullptr, test::keep, &received_), 0);
    EXPECT_EQ(qel_bind_reg_callback(0, test::keep, &received_), 0);
    test::clear_log();
  }
  ~AuditEvent() override {
    testing::internal::CaptureStdout();
    qel_audit_fini();
    testing::internal::GetCapturedStdout();
    offline::switch_off();
    offline::release_clock();
    test::reset_databases();
    unlink(wtmp_.c_str());
  }

  const std::string wtmp_ =
      testing::TempDir() + "audit_event." + std::to_string(getpid()) + ".wtmp";
  test::Received received_;
};

// ---- Executions --------------------------------------------------------------------------------

TEST_F(AuditEvent, AnExecutionTellsWhoRanWhat) {
  Context ctx(kExecveRule);
  ctx.ppid = 4000000000;
  ctx.set_args(2, {"cat", ""});
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  ASSERT_EQ(received_.count(), 1U);
  const test::Execution& event = received_.executions.at(0);
  EXPECT_EQ(event.info.result, 0);
  EXPECT_EQ(event.info.ppid, 4000000000);
  EXPECT_EQ(event.info.pid, 12U);
  EXPECT_STREQ(event.info.user, "eve");
  EXPECT_STREQ(event.info.process, "cat");
  EXPECT_EQ(event.args, (Texts{"cat", ""}));
  EXPECT_EQ(ctx.argv, nullptr) << "the list is the event's";
  EXPECT_EQ(ctx.argc, 0);
  EXPECT_NE(ctx.comm, nullptr);
}

// How the arguments of a context lead to those of the event.
struct ArgumentCase {
  const char* name;
  void (*prepare)(Context& ctx);
  int argc;
  Texts args;
};

class Arguments : public AuditEvent, public testing::WithParamInterface<ArgumentCase> {};

TEST_P(Arguments, AreCompletedOrReplaced) {
  Context ctx(kExecveRule);
  GetParam().prepare(ctx);
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  ASSERT_EQ(received_.executions.size(), 1U);
  const test::Execution& event = received_.executions[0];
  EXPECT_EQ(event.info.argc, GetParam().argc);
  EXPECT_EQ(event.args, GetParam().args);
  EXPECT_EQ(event.has_args, !GetParam().args.empty());
  EXPECT_EQ(ctx.argv, nullptr);
  EXPECT_EQ(ctx.argc, 0);
}

INSTANTIATE_TEST_SUITE_P(
    EachContext, Arguments,
    testing::Values(ArgumentCase{"OneNeverCame",
                                 [](Context& c) {
                                   c.set_args(3, {"a", "b"});
                                 },
                                 3,
                                 {"a", "b", ""}},
                    ArgumentCase{"NoneCame", [](Context& c) { c.set_args(2, {}); }, 2, {"", ""}},
                    ArgumentCase{"ASplitOneIsIncomplete",
                                 [](Context& c) {
                                   c.set_args(3, {"a"});
                                   c.argv[1] = strdup("\"hal");
                                   c.arg_left = 100;
                                   c.arg_offset = 4;
                                   c.arg_parts = 1;
                                 },
                                 3,
                                 {"a", "", ""}},
                    ArgumentCase{"MoreCameThanTheListHolds",
                                 [](Context& c) {
                                   c.set_args(1, {"a"});
                                   c.arg_index = 9;
                                 },
                                 1,
                                 {"a"}},
                    ArgumentCase{"APathIsNotNeeded",
                                 [](Context& c) {
                                   c.set_args(1, {"a"});
                                   c.path = strdup("/bin/cat");
                                 },
                                 1,
                                 {"a"}},
                    ArgumentCase{"OnlyThePathIsKnown",
                                 [](Context& c) { c.path = strdup("/bin/no"); },
                                 2,
                                 {"cat", "/bin/no"}},
                    ArgumentCase{"OnlyThePathWithoutACommand",
                                 [](Context& c) {
                                   c.set_comm(nullptr);
                                   c.path = strdup("/bin/no");
                                 },
                                 2,
                                 {"", "/bin/no"}},
                    ArgumentCase{"NothingIsKnown", [](Context&) {}, 0, {}},
                    ArgumentCase{"ACountWasRefused", [](Context& c) { c.argc = -7; }, -7, {}},
                    ArgumentCase{"ACountWasRefusedAndAPathIsKnown",
                                 [](Context& c) {
                                   c.argc = -1;
                                   c.path = strdup("/bin/no");
                                 },
                                 -1,
                                 {}},
                    ArgumentCase{"ACountWithoutAList", [](Context& c) { c.argc = 5; }, 0, {}},
                    ArgumentCase{"ACountWithoutAListAndAPath",
                                 [](Context& c) {
                                   c.argc = 5;
                                   c.path = strdup("/bin/no");
                                 },
                                 2,
                                 {"cat", "/bin/no"}}),
    [](const auto& test) { return test.param.name; });

TEST_F(AuditEvent, ThePathFallbackMovesBothTextsOutOfTheContext) {
  Context ctx(kExecveRule);
  ctx.path = strdup("/bin/no");
  ctx.exit = -2;
  handle_audit_event(&ctx);
  EXPECT_EQ(ctx.comm, nullptr);
  EXPECT_EQ(ctx.path, nullptr);
  ASSERT_EQ(received_.executions.size(), 1U);
  EXPECT_EQ(received_.executions[0].info.result, -2);
  EXPECT_STREQ(received_.executions[0].info.process, "cat");
}

// ---- Texts of every class ----------------------------------------------------------------------

TEST_F(AuditEvent, TextsThatAreMissingAreEmpty) {
  for (const RuleType type : {kExecveRule, kSyscallRule, kBindRule}) {
    Context ctx(type);
    ctx.set_comm(nullptr);
    ctx.sockaddr[0] = AF_INET;
    EXPECT_EQ(handle_audit_event(&ctx), 0);
  }
  ASSERT_EQ(received_.count(), 3U);
  EXPECT_STREQ(received_.executions[0].info.process, "");
  EXPECT_STREQ(received_.syscalls[0].process, "");
  EXPECT_STREQ(received_.binds[0].process, "");
}

TEST_F(AuditEvent, TextsThatAreTooLongAreCut) {
  const std::string name(300, 'n');
  test::databases.passwd = {{name, kEve, 100}};
  const std::string cut(255, 'n');
  for (const RuleType type : {kExecveRule, kSyscallRule, kBindRule}) {
    Context ctx(type);
    ctx.set_comm(name.c_str());
    ctx.sockaddr[0] = AF_INET;
    EXPECT_EQ(handle_audit_event(&ctx), 0);
  }
  ASSERT_EQ(received_.count(), 3U);
  EXPECT_EQ(received_.executions[0].info.user, cut);
  EXPECT_EQ(received_.executions[0].info.process, cut);
  EXPECT_EQ(received_.syscalls[0].user, cut);
  EXPECT_EQ(received_.syscalls[0].process, cut);
  EXPECT_EQ(received_.binds[0].user, cut);
  EXPECT_EQ(received_.binds[0].process, cut);
}

TEST_F(AuditEvent, AUserWithoutANameIsANumber) {
  Context ctx(kSyscallRule);
  ctx.uid = 4294967294;
  handle_audit_event(&ctx);
  ASSERT_EQ(received_.syscalls.size(), 1U);
  EXPECT_STREQ(received_.syscalls[0].user, "4294967294");
}

// ---- System calls ------------------------------------------------------------------------------

TEST_F(AuditEvent, ASystemCallTellsItsResultAndArguments) {
  Context ctx(kSyscallRule);
  ctx.syscall = SYS_openat;
  ctx.success = 0;
  ctx.exit = -13;
  ctx.args[0] = 0xffffff9c;
  ctx.args[1] = 0xffffffffffffffff;
  ctx.args[2] = 3;
  ctx.args[3] = 4;
  ctx.set_args(1, {"not looked at"});
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  ASSERT_EQ(received_.count(), 1U);
  const qel_syscall_info& event = received_.syscalls.at(0);
  EXPECT_EQ(event.success, 0);
  EXPECT_EQ(event.result, -13);
  EXPECT_EQ(event.ppid, 11U);
  EXPECT_EQ(event.pid, 12U);
  EXPECT_STREQ(event.user, "eve");
  EXPECT_STREQ(event.process, "cat");
  EXPECT_STREQ(event.syscall, "openat");
  EXPECT_EQ(event.arg1, 0xffffff9cU);
  EXPECT_EQ(event.arg2, 0xffffffffffffffffU);
  EXPECT_EQ(event.arg3, 3U);
  EXPECT_EQ(event.arg4, 4U);
}

TEST_F(AuditEvent, ASystemCallHasTheNameOfItsMachineOrItsNumber) {
  struct {
    std::uint32_t number;
    std::uint32_t arch;
    const char* name;
  } const kCases[] = {{59, AUDIT_ARCH_X86_64, "execve"},
                      {11, AUDIT_ARCH_I386, "execve"},
                      {999, AUDIT_ARCH_X86_64, "999_c000003e"},
                      {59, 0x1234, "59_1234"},
                      {0xffffffff, 0xffffffff, "-1_ffffffff"},
                      {0x80000000, AUDIT_ARCH_X86_64, "-2147483648_c000003e"},
                      // 28 characters: one too many
                      {423, AUDIT_ARCH_PPC64, "sched_rr_get_interval_time6"}};
  for (const auto& [number, arch, name] : kCases) {
    Context ctx(kSyscallRule);
    ctx.syscall = number;
    ctx.arch = arch;
    handle_audit_event(&ctx);
    ASSERT_FALSE(received_.syscalls.empty());
    EXPECT_STREQ(received_.syscalls.back().syscall, name);
  }
}

// ---- Binds -------------------------------------------------------------------------------------

TEST_F(AuditEvent, ABindHasTheAddressByteForByte) {
  Context ctx(kBindRule);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(8080);
  address.sin_addr.s_addr = htonl(0xc0000207);
  std::memcpy(address.sin_zero, "\1\2\3\4\5\6\7\x8", 8);
  ctx.set_address(address);
  ctx.exit = -98;
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  ASSERT_EQ(received_.count(), 1U);
  const qel_bind_info& event = received_.binds.at(0);
  EXPECT_EQ(event.result, -98);
  EXPECT_EQ(event.ppid, 11U);
  EXPECT_EQ(event.pid, 12U);
  EXPECT_STREQ(event.user, "eve");
  EXPECT_STREQ(event.process, "cat");
  sockaddr_storage expected = {};
  std::memcpy(&expected, &address, sizeof(address));
  EXPECT_EQ(std::memcmp(&event.addr, &expected, sizeof(expected)), 0);
}

TEST_F(AuditEvent, ABindWithoutAnAddressIsRefused) {
  Context ctx(kBindRule);
  ctx.sockaddr[2] = 0xff;
  EXPECT_EQ(handle_audit_event(&ctx), -1);
  EXPECT_EQ(errors(), "audit_event: sockaddr family unspecified\n");
  EXPECT_EQ(received_.count(), 0U);
}

TEST_F(AuditEvent, ASocketPathThatFillsTheAddressEndsWithIt) {
  Context ctx(kBindRule);
  std::memset(ctx.sockaddr, 'x', sizeof(ctx.sockaddr));
  const sa_family_t family = AF_UNIX;
  std::memcpy(ctx.sockaddr, &family, sizeof(family));
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  EXPECT_NE(test::log_text(QEL_LOG_DEBUG).find("addr=" + std::string(126, 'x') + ", port=0\n"),
            std::string::npos);
}

// ---- Rule types --------------------------------------------------------------------------------

TEST_F(AuditEvent, AnUnknownRuleTypeIsRefused) {
  for (const int type : {8, -1, 2147483647}) {
    Context ctx(static_cast<RuleType>(0));
    ctx.ruletype = type;
    EXPECT_EQ(handle_audit_event(&ctx), -1);
    EXPECT_EQ(errors(), "audit_event: unknown ctx->ruletype: " + std::to_string(type) + "\n");
    test::clear_log();
  }
  EXPECT_EQ(received_.count(), 0U);
}

TEST_F(AuditEvent, AFakeLoginIsNothing) {
  Context ctx(kFakeloginRule);
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  EXPECT_TRUE(test::log_lines().empty());
  EXPECT_EQ(received_.count(), 0U);
}

TEST_F(AuditEvent, AnEventOfNoClassIsRefusedAndOneOfAStoppedLibraryReachesNobody) {
  user_event event = {.type = QEL_CLASS_COUNT, .padding = 0, .info = {}};
  EXPECT_EQ(dispatch_event(&event), -1);
  event.type = 0xffffffff;
  EXPECT_EQ(dispatch_event(&event), -1);
  event.type = QEL_CLASS_USER;
  event.info.event = QEL_USER_ADDED;
  EXPECT_EQ(dispatch_event(&event), 0);
  EXPECT_EQ(received_.count(), 1U);
  qel_audit_fini();
  EXPECT_EQ(dispatch_event(&event), 0);
  EXPECT_EQ(received_.count(), 1U);
}

// ---- Accounts ----------------------------------------------------------------------------------

// What the user callback received, as "EVENT NAME GROUP".
Texts texts_of(const std::vector<qel_user_info>& users) {
  Texts texts;
  for (const qel_user_info& user : users) {
    texts.push_back(std::to_string(user.event) + " " + user.username + " " + user.groupname);
  }
  return texts;
}

TEST_F(AuditEvent, AccountsThatChangedAreComparedForBothFiles) {
  Context passwd(kPasswdRule), shadow(kShadowRule);
  test::databases.passwd = {{"root", 0, 0}, {"eve", kEve, 0}, {"new", 1001, 7}};
  test::databases.shadow = {{"root", "r1"}, {"eve", "e2"}, {"new", "n"}};
  EXPECT_EQ(handle_audit_event(&passwd), 0);
  EXPECT_EQ(texts_of(received_.users), (Texts{"4 eve root", "8 eve root", "1 new 7"}))
      << "a new account has no other changes";
  received_.users.clear();
  test::databases.passwd = {{"eve", kEve, 0}, {"new", 1001, 7}};
  test::databases.shadow = {{"eve", "e3"}, {"new", "n"}};
  EXPECT_EQ(handle_audit_event(&shadow), 0);
  EXPECT_EQ(texts_of(received_.users), (Texts{"2 root root", "4 eve root"}));
}

struct ToolCase {
  const char* comm;
  std::uint32_t syscall;
  RuleType type;
  bool compares;
};

TEST_F(AuditEvent, AccountToolsAreNotComparedBeforeTheyWrite) {
  constexpr ToolCase kCases[] = {
      {"useradd", 2, kPasswdRule, false},  {"useradd", 82, kPasswdRule, true},
      {"useradd", 82, kShadowRule, false}, {"userdel", 2, kPasswdRule, false},
      {"userdel", 82, kPasswdRule, true},  {"userdel", 82, kShadowRule, false},
      {"usermod", 2, kPasswdRule, false},  {"usermod", 2, kShadowRule, false},
      {"usermod", 82, kPasswdRule, true},  {"usermod", 82, kShadowRule, true},
      {"passwd", 2, kPasswdRule, true},    {"passwd", 2, kShadowRule, true},
      {"useradd2", 2, kShadowRule, true},  {"user", 2, kShadowRule, true},
      {"useradd", 257, kPasswdRule, true}, {nullptr, 2, kPasswdRule, true},
  };
  for (const auto& [comm, number, type, compares] : kCases) {
    Context ctx(type);
    ctx.set_comm(comm);
    ctx.syscall = number;
    const int before = test::walks.passwd_started;
    EXPECT_EQ(handle_audit_event(&ctx), 0);
    EXPECT_EQ(test::walks.passwd_started - before, compares ? 1 : 0)
        << (comm != nullptr ? comm : "null") << " " << number << " " << type;
  }
}

TEST_F(AuditEvent, ARefusalOfAMonitorIsPassedOn) {
  passwd_fini();
  login_log_fini();
  Context passwd(kPasswdRule), wtmp(kWtmpRule);
  EXPECT_EQ(handle_audit_event(&passwd), -1);
  EXPECT_EQ(handle_audit_event(&wtmp), -1);
  EXPECT_EQ(errors(), "passwd: passwd not inited\nwtmp: login_log not inited\n");
}

// ---- Logins ------------------------------------------------------------------------------------

TEST_F(AuditEvent, ALoginThatTheAuditedProcessWroteNamesIt) {
  test::append_wtmp(wtmp_, {test::login_record(12, "pts/3", "adam", 1'700'000'001, "192.0.2.7")});
  Context ctx(kWtmpRule);
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  ASSERT_EQ(received_.count(), 1U);
  const qel_login_info& event = received_.logins.at(0);
  EXPECT_EQ(event.event, 1U);
  EXPECT_EQ(event.status, 1U);
  EXPECT_EQ(event.pid, 12U);
  EXPECT_STREQ(event.user, "eve");
  EXPECT_STREQ(event.process, "cat");
  EXPECT_EQ(event.ipaddr.s_addr, htonl(0xc0000207));
  EXPECT_STREQ(event.username, "adam");
  EXPECT_STREQ(event.logintype, "pts/3");
  EXPECT_EQ(event.time, 1'700'000'001);
  for (const std::uint8_t byte : event.reserved) EXPECT_EQ(byte, 0);
}

TEST_F(AuditEvent, ALoginThatAnotherProcessWroteLeavesItsNamesEmpty) {
  const std::string longest(32, 'n');
  test::append_wtmp(wtmp_, {test::login_record(13, longest, longest, 1'700'000'001)});
  Context ctx(kLastloginRule);
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  ASSERT_EQ(received_.count(), 1U);
  const qel_login_info& event = received_.logins.at(0);
  EXPECT_STREQ(event.user, "");
  EXPECT_STREQ(event.process, "");
  EXPECT_EQ(event.username, std::string(15, 'n'));
  EXPECT_EQ(event.logintype, std::string(15, 'n'));
  EXPECT_EQ(event.ipaddr.s_addr, 0U);
}

TEST_F(AuditEvent, ALoginThatIsOverAlreadyIsTwoEvents) {
  test::append_wtmp(wtmp_, {test::login_record(13, "pts/3", "adam", 1'700'000'001),
                            test::logout_record(13, "pts/3", 1'700'000'009)});
  Context ctx(kWtmpRule);
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  ASSERT_EQ(received_.logins.size(), 2U);
  EXPECT_EQ(received_.logins[0].event, 1U);
  EXPECT_EQ(received_.logins[0].time, 1'700'000'001);
  EXPECT_EQ(received_.logins[1].event, 2U);
  EXPECT_EQ(received_.logins[1].time, 1'700'000'009);
  EXPECT_STREQ(received_.logins[1].username, "adam");
}

}  // namespace
