// Events of the five classes: what their fields and log lines tell, and whom they reach.
#include <malloc.h>

#include <cstring>

#include "audit_event.h"
#include "audit_msg.h"
#include "audit_ops.h"
#include "passwd.h"
#include "stage.h"
#include "wtmp.h"

namespace {

using namespace test;

using Events = Stage;

// ---- Fields and lines --------------------------------------------------------------------------

TEST_F(Events, HaveALineThatIsLoggedBeforeTheCallbackIsCalled) {
  setenv("TZ", "UTC", 1);
  account("eve", 1001, 100);
  EXPECT_EQ(on_execve("E") + on_bind("B") + on_syscall("S") + on_user("U") + on_login("L"), 0);
  poll_all();
  set_level(QEL_LOG_DEBUG);

  EXPECT_EQ(heard_of({.comm = "ls", .exit = "-2", .pid = 4000000000, .uid = 1001},
                     {execve_record({"ls", "-l", "/"})}),
            "debug audit_ops: run_execve_callback: result=-2, ppid=10, pid=4000000000, user=eve, "
            "process=ls, argc=3, argv[0]=ls, argv[1]=-l, argv[2]=/, argv[3]=\n"
            "E: execve result=-2 user=eve process=ls pid=4000000000 ppid=10 argc=3 ls -l /\n");
  EXPECT_EQ(heard_of({.key = "syscall_rule",
                      .success = false,
                      .exit = "-13",
                      .args = "a0=ffffffffffffff9c a1=7ffd a2=1f a3=a",
                      .ppid = 4000000000,
                      .uid = 77}),
            "debug audit_ops: run_syscall_callback: success=0, result=-13, ppid=4000000000, "
            "pid=11, user=77, process=cat, syscall=openat, arg1=ffffffffffffff9c, arg2=7ffd, "
            "arg3=1f, arg4=a\n"
            "S: syscall openat success=0 result=-13 user=77 process=cat pid=11 ppid=4000000000 "
            "args=ffffffffffffff9c,7ffd,1f,a\n");
  EXPECT_EQ(heard_of({.key = "bind_rule", .comm = "nc", .exit = "-98"},
                     {{AUDIT_SOCKADDR, "saddr=02001F900AC800FF0000000000000000"}}),
            "debug audit_ops: run_bind_callback: result=-98, ppid=10, pid=11, user=root, "
            "process=nc, family=2, addr=10.200.0.255, port=8080\n"
            "B: bind result=-98 user=root process=nc pid=11 ppid=10 10.200.0.255:8080\n");
  account("new", 1002, 100);
  EXPECT_EQ(heard_of({.key = "passwd_rule"}),
            "debug passwd: --> user        new added\n"
            "debug audit_ops: run_user_callback: event=1, username=new, groupname=100\n"
            "U: added new group=100\n");
  append_wtmp({utmp_record(USER_PROCESS, 11, "pts/3", "eve", 1714557604, "192.0.2.7")});
  EXPECT_EQ(heard_of({.key = "wtmp_rule", .comm = "sshd"}),
            "debug wtmp: --> user        eve login  at Wed May  1 10:00:04\n"
            "debug audit_ops: run_login_callback: event=1, pid=11, user=root, process=sshd, "
            "ipaddr=192.0.2.7, username=eve, logintype=pts/3, time=Wed May  1 10:00:04\n"
            "L: login eve line=pts/3 pid=11 from=192.0.2.7 user=root process=sshd "
            "time=1714557604\n");
}

TEST_F(Events, HaveTextsThatAreCutToTheirFields) {
  account(std::string(300, 'n'), 1001, 100);
  EXPECT_EQ(on_execve(""), 0);
  EXPECT_EQ(heard_of({.comm = std::string(300, 'c'), .uid = 1001}),
            "execve result=0 user={n*255} process={c*255} pid=11 ppid=10 argc=0\n");
}

TEST_F(Events, OfAnExecutionWithoutArgumentsTellThePath) {
  const Record path = path_record("/bin/no");
  const std::string execution = "execve result=0 user=root process=cat pid=11 ppid=10 argc=";
  EXPECT_EQ(on_execve(""), 0);
  EXPECT_EQ(heard_of({}, {path, path_record("/second")}), execution + "2 cat /bin/no\n");
  EXPECT_EQ(heard_of({}, {path, {AUDIT_EXECVE, "argc=3 a0=\"x\" a1=\"y\""}}),
            execution + "3 x y \"\"\n");
}

TEST_F(Events, OfASystemCallHaveTheNameOfItsMachineOrItsNumber) {
  const std::pair<Syscall, std::string> rows[] = {
      {{.number = 11, .arch = "40000003"}, "execve"},
      {{.number = 59, .arch = "1234"}, "59_1234"},
      // 28 characters: one too many
      {{.number = 423, .arch = "80000015"}, "sched_rr_get_interval_time6"}};
  EXPECT_EQ(on_syscall(""), 0);
  for (auto [fields, name] : rows) {
    fields.key = "syscall_rule";
    EXPECT_EQ(heard_of(fields),
              "syscall " + name +
                  " success=1 result=0 user=root process=cat pid=11 ppid=10 args=1,2,3,4\n");
  }
}

TEST_F(Events, OfABindHaveTheAddressOfAnyFamily) {
  const std::string ones(28, '1'), zeros(24, '0');
  const auto saddr = [](const std::string& digits) {
    return Record{AUDIT_SOCKADDR, "saddr=" + digits};
  };
  const struct {
    std::vector<Record> records;
    std::string family_and_text, event;
  } rows[] = {
      {{saddr("0A0001BB0000000020010DB8" + zeros.substr(4) + "000700000000")},
       "10, addr=2001:db8::7, port=443",
       "[2001:db8::7]:443"},
      {{saddr("0100006E616D65" + std::string(206, '0'))},
       "1, addr=, port=0",
       "unix \"\" 006e616d65"},
      // What an earlier record of the group brought stays behind the later one.
      {{saddr(std::string(256, '5')), saddr("0100" + std::string(216, '7'))},
       "1, addr=" + std::string(108, 'w') + std::string(18, 'U') + ", port=0",
       "unix {w*108}{U*18}"},
      {{saddr("0500" + ones)}, "5, addr=, port=0", "family=5 " + ones},
      {{saddr("10000000FFFFFFFFEFBEADDE")},
       "16, addr=-1.deadbeef, port=0",
       "family=16 0000ffffffffefbeadde"},
      {{saddr("1100000302000000" + zeros)}, "17, addr=2.300, port=0", "family=17 000302"},
  };
  EXPECT_EQ(on_bind(""), 0);
  poll_all();
  set_level(QEL_LOG_DEBUG);
  for (const auto& [records, family_and_text, event] : rows) {
    EXPECT_EQ(heard_of({.key = "bind_rule"}, records),
              "debug audit_ops: run_bind_callback: result=0, ppid=10, pid=11, user=root, "
              "process=cat, family=" +
                  family_and_text + "\nbind result=0 user=root process=cat pid=11 ppid=10 " +
                  event + "\n");
  }
}

TEST_F(Events, LeaveNoMemoryAndNoDescriptorBehind) {
  EXPECT_EQ(on_execve("") + on_user("") + on_login(""), 0);
  std::size_t in_use = 0;
  set_level(QEL_LOG_FATAL);  // wtmp is cut each time
  for (int round = 0; round < 150; ++round) {
    heard_of({.success = false}, {path_record("/bin/no")});
    heard_of({}, {execve_record({"cat", "x y"}), syscall_record(), execve_record({"cat", "x"})});
    databases.passwd.resize(1 + static_cast<std::size_t>(round % 2), {"dana", 2001, 0});
    heard_of({.key = "passwd_rule"});
    write_wtmp(file("/var/log/wtmp"), {utmp_record(USER_PROCESS, 1, "tty1", "eve", 100 + round),
                                       utmp_record(DEAD_PROCESS, 1, "tty2", "", 900)});
    heard_of({.key = "wtmp_rule"});
    if (round == 50) in_use = mallinfo2().uordblks;  // 0 in the heap of a sanitizer
  }
  EXPECT_LE(mallinfo2().uordblks, in_use + 1000);
  for (const auto& open : std::filesystem::directory_iterator("/proc/self/fd")) {
    EXPECT_NE(read_symlink(open.path()), file("/var/log/wtmp"));
  }
}

// ---- Refusals ----------------------------------------------------------------------------------

// Contexts of the host's own, also such as no records lead to.
TEST_F(Events, OfNoKnownKindOrOfStoppedMonitorsReachNobody) {
  const std::string execution = "execve result=0 user=0 process=\"\" pid=0 ppid=0 argc=";
  audit_ctx ctx = {};
  EXPECT_EQ(on_execve(""), 0);
  EXPECT_EQ(heard_of({.key = "fakelogin_rule"}), "");
  passwd_fini();
  login_log_fini();
  ctx.argc = 3;
  for (const int type : {0, 1, 2, 3, 5, 8, 4}) {
    ctx.ruletype = type;
    EXPECT_EQ(handle_audit_event(&ctx), type == 4 ? 0 : -1);
  }
  EXPECT_EQ(heard(),
            "error passwd: passwd not inited\nerror passwd: passwd not inited\n"
            "error wtmp: login_log not inited\nerror wtmp: login_log not inited\n"
            "error audit_event: sockaddr family unspecified\n"
            "error audit_event: unknown ctx->ruletype: 8\n" +
                execution + "0\n");
  EXPECT_EQ(ctx.argc, 0) << "the list is the event's";
  ctx.path = strdup("/x");
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  EXPECT_EQ(heard(), execution + "2 \"\" /x\n");
  EXPECT_EQ(passwd_init() + login_log_init(nullptr), 0);
  stop();
  heard();
  EXPECT_EQ(handle_audit_event(&ctx), 0);
}

// What a host may call by mistake while the library is at work below it.
void misuse_everything() {
  audit_reply reply = {};
  reply.type = AUDIT_EOE;
  reply.message = reply.msg.data;
  reply.len = static_cast<int>(header(7).copy(reply.msg.data, 100));
  audit_ctx ctx = {};
  EXPECT_EQ(handle_audit_msg(&reply), -1);
  EXPECT_EQ(handle_audit_event(&ctx), -1);
  EXPECT_EQ(check_passwd_event(nullptr, &ctx), -1);
  EXPECT_EQ(check_login_event(nullptr, nullptr, &ctx), -1);
  scan_audit_ctx(4'000'000'000);
  passwd_fini();
  login_log_fini();
  audit_msg_fini();
}

// An emitter that counts its offers.
template <typename Entry>
int misuse(Entry*, audit_ctx* offers) {
  misuse_everything();
  ++*reinterpret_cast<int*>(offers);
  return 0;
}

TEST_F(Events, AreNotDisturbedByWhatACallbackOrAnEmitterCalls) {
  for (const char* name : {"first", "last"}) {
    EXPECT_EQ(on_execve(name, "", misuse_everything), 0);
    EXPECT_EQ(on_user(name, "", kEveryChange, misuse_everything), 0);
    EXPECT_EQ(on_login(name, "", kInAndOut, misuse_everything), 0);
  }
  const std::string execution = "execve result=0 user=root process=cat pid=11 ppid=10 argc=1 x\n";
  EXPECT_EQ(heard_of({}, {execve_record({"x"})}), "first: " + execution + "last: " + execution);
  account("dana", 2001, 0);
  account("evan", 2002, 0);
  EXPECT_EQ(heard_of({.key = "passwd_rule"}),
            "first: added dana group=root\nlast: added dana group=root\n"
            "first: added evan group=root\nlast: added evan group=root\n");
  databases.passwd.resize(1);
  append_wtmp({utmp_record(USER_PROCESS, 1, "tty1", "eve", 100),
               utmp_record(USER_PROCESS, 1, "tty1", "eve", 101)});
  int offers = 0;
  EXPECT_EQ(check_passwd_event(misuse, reinterpret_cast<audit_ctx*>(&offers)), 0);
  EXPECT_EQ(check_login_event(nullptr, misuse, reinterpret_cast<audit_ctx*>(&offers)), 0);
  EXPECT_EQ(offers, 4);
}

// ---- Tables ------------------------------------------------------------------------------------

// They are data of the binary interface.
static_assert(offsetof(event_class_ops, set_filter) == 16 &&
              offsetof(event_class_ops, set_key) == 64 && offsetof(event_class_ops, run) == 72);

TEST(Operations, HaveTextsHashesAndFilters) {
  const std::uint32_t three = 3, any = 0xffffffff;
  const char* login = audit_ops[QEL_CLASS_LOGIN]->filter_to_string(&three);
  EXPECT_STREQ(audit_ops[QEL_CLASS_USER]->filter_to_string(&any), "event=4294967295");
  EXPECT_STREQ(login, "event=3") << "each class has a buffer of its own";

  const key_slot text = {.text = "all\xff"};
  EXPECT_EQ(audit_ops[QEL_CLASS_SYSCALL]->key_is_global(&text), 0) << "only all stands for all";
  EXPECT_EQ(audit_hash_func[QEL_CLASS_SYSCALL].hash(&text, 0),
            ((((5318U * 33 + 'a') * 33 + 'l') * 33 + 'l') * 33 + 255) * 33);
  key_slot port = {}, same;
  std::memset(&same, 0xaa, sizeof(same));
  port.port = same.port = 0x5000;
  EXPECT_EQ(audit_hash_func[QEL_CLASS_BIND].hash(&same, 0), 0x5000) << "only its two bytes";
  EXPECT_EQ(audit_hash_func[QEL_CLASS_BIND].compare(&port, 0, &same, 8), 0);

  std::uint32_t filter = 7;
  set_execve_filter_func(nullptr, &filter);
  EXPECT_EQ(filter, 0U);
}

}  // namespace
