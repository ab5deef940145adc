// Late writes, with a clock that the test moves: the looks themselves, and the poller that takes
// them.
#include "late_write.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "audit_event.h"
#include "audit_rule.h"
#include "clock.h"
#include "databases.h"
#include "event_log.h"
#include "offline_kernel.h"
#include "passwd.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

constexpr const char* kPaths[] = {"/etc/passwd", "/etc/shadow", "/var/log/wtmp"};
constexpr RuleType kTypes[] = {kPasswdRule, kShadowRule, kWtmpRule};

// The contexts that were handed over.
std::vector<std::string> handled;
bool remembers_anew;

int note(audit_ctx* ctx) {
  handled.push_back(std::to_string(ctx->ruletype) + " pid=" + std::to_string(ctx->pid) +
                    " uid=" + std::to_string(ctx->uid) +
                    " syscall=" + std::to_string(ctx->syscall) + " comm=" + ctx->comm);
  if (remembers_anew) qel::remember_watch(*ctx, qel::watched_file(*ctx));
  return 0;
}

class LateWrite : public testing::Test {
 protected:
  LateWrite() {
    test::reset_databases();
    for (int i = 0; i < 3; ++i) {
      test::redirect(kPaths[i], files_[i].path());
      write(i);
    }
    offline::set_clock(1'000'000);
    handled.clear();
    remembers_anew = false;
  }
  ~LateWrite() override {
    qel::forget_watches();
    offline::release_clock();
  }

  void write(int file) { std::ofstream(files_[file].path(), std::ios::app) << "text"; }

  // A watch context of this rule type, remembered as it is after a comparison.
  static void remember(RuleType type, std::uint32_t pid = 1, std::string comm = "vi") {
    audit_ctx ctx = {};
    ctx.ruletype = type;
    ctx.pid = pid;
    ctx.uid = 1000;
    ctx.syscall = 257;
    ctx.comm = comm.data();
    qel::remember_watch(ctx, qel::watched_file(ctx));
  }

  // Looks as often as a main loop that pauses for so long.
  static void look_for(milliseconds time, milliseconds pause = 10ms) {
    for (milliseconds passed = 0ms; passed < time; passed += pause) {
      offline::advance_clock(pause);
      qel::look_at_watches(note);
    }
  }

  // Calls of stat since the last call of this.
  int looks() {
    int sum = 0;
    for (const char* path : kPaths) sum += test::stat_calls(path);
    return sum - std::exchange(looks_before_, sum);
  }

  test::ScratchFile files_[3];

 private:
  int looks_before_ = 0;
};

TEST_F(LateWrite, CostsNothingWhenNothingIsRemembered) {
  look_for(1s);
  EXPECT_EQ(looks(), 0);
  remember(kWtmpRule);
  qel::forget_watches();
  looks();
  write(2);
  look_for(11s);
  EXPECT_EQ(looks(), 0);
  EXPECT_TRUE(handled.empty());
}

TEST_F(LateWrite, LooksTenTimesASecondForTenSeconds) {
  remember(kWtmpRule);
  looks();
  qel::look_at_watches(note);
  EXPECT_EQ(looks(), 0);  // the comparison has just read it
  for (int second = 0; second < 10; ++second) {
    look_for(1s, 1ms);
    EXPECT_EQ(looks(), 10) << "second " << second;
  }
  write(2);
  look_for(5s);
  EXPECT_EQ(looks(), 0);
  EXPECT_TRUE(handled.empty());
}

TEST_F(LateWrite, SeesAChangeWithin150Milliseconds) {
  for (milliseconds delay = 0ms; delay < 300ms; delay += 10ms) {
    handled.clear();
    remember(kWtmpRule);
    look_for(delay);
    write(2);
    EXPECT_TRUE(handled.empty());
    look_for(150ms);
    EXPECT_EQ(handled.size(), 1U) << delay.count();
    qel::forget_watches();
  }
}

TEST_F(LateWrite, TakesALastLookWhenTheTimeIsOver) {
  remember(kWtmpRule);
  look_for(9950ms);
  write(2);
  look_for(40ms);
  EXPECT_TRUE(handled.empty());
  look_for(10ms);
  EXPECT_EQ(handled.size(), 1U);

  // Not later when the looks do not meet that time.
  handled.clear();
  remember(kWtmpRule);
  look_for(9940ms, 70ms);
  write(2);
  look_for(70ms, 70ms);
  EXPECT_EQ(handled.size(), 1U);

  // Also when the loop was held up meanwhile.
  remember(kWtmpRule);
  offline::advance_clock(60s);
  write(2);
  qel::look_at_watches(note);
  EXPECT_EQ(handled.size(), 2U);
}

struct Change {
  const char* name;
  void (*make)(const std::string& path);
};

void touch(const std::string& path, timespec modified) {
  const timespec times[] = {modified, modified};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

class LateChange : public LateWrite, public testing::WithParamInterface<Change> {};

TEST_P(LateChange, OfAnyPartOfTheIdentityIsSeen) {
  touch(files_[2].path(), {500, 7});
  remember(kWtmpRule);
  GetParam().make(files_[2].path());
  look_for(200ms);
  EXPECT_EQ(handled.size(), 1U);
}

const Change kChanges[] = {
    {"Nanoseconds",
     [](const std::string& path) {
       touch(path, {500, 8});
     }},
    {"Seconds",
     [](const std::string& path) {
       touch(path, {499, 7});
     }},
    {"Size",
     [](const std::string& path) {
       std::ofstream(path, std::ios::app) << "+";
       touch(path, {500, 7});
     }},
    {"Inode",
     [](const std::string& path) {
       const test::ScratchFile other;
       std::filesystem::copy_file(path, other.path(),
                                  std::filesystem::copy_options::overwrite_existing);
       touch(other.path(), {500, 7});
       std::filesystem::rename(other.path(), path);
     }},
    {"Gone", [](const std::string& path) { std::filesystem::remove(path); }},
};

INSTANTIATE_TEST_SUITE_P(All, LateChange, testing::ValuesIn(kChanges),
                         [](const auto& test) { return test.param.name; });

TEST_F(LateWrite, SeesAFileThatWasNotThere) {
  std::filesystem::remove(files_[2].path());
  remember(kWtmpRule);
  look_for(200ms);
  EXPECT_TRUE(handled.empty());
  write(2);
  look_for(200ms);
  EXPECT_EQ(handled.size(), 1U);
}

TEST_F(LateWrite, HandsOverTheNewestContextOfAFile) {
  remember(kWtmpRule, 1, "first");
  look_for(5s);
  remember(kLastloginRule, 2, "second");  // wtmp too
  look_for(9s);                           // the time runs from the newest
  write(2);
  look_for(2s);
  EXPECT_EQ(handled, std::vector<std::string>{"3 pid=2 uid=1000 syscall=257 comm=second"});
}

TEST_F(LateWrite, KeepsTheFilesApart) {
  for (const RuleType type : kTypes) remember(type, static_cast<std::uint32_t>(type) + 10);
  write(1);
  look_for(200ms);
  EXPECT_EQ(handled, std::vector<std::string>{"1 pid=11 uid=1000 syscall=257 comm=vi"});
  write(2);
  write(0);
  look_for(200ms);
  EXPECT_EQ(handled.size(), 3U);
  looks();
  look_for(1s);
  EXPECT_EQ(looks(), 0);
}

TEST_F(LateWrite, RemembersAnewWhatAComparisonFollows) {
  remembers_anew = true;
  remember(kWtmpRule, 7);
  for (std::size_t writes = 1; writes <= 4; ++writes) {
    look_for(6s);
    write(2);
    look_for(150ms);
    EXPECT_EQ(handled.size(), writes);
  }
  EXPECT_EQ(handled.back(), "2 pid=7 uid=1000 syscall=257 comm=vi");
  looks();
  for (int i = 0; i < 100; ++i) {  // a file that changes all the time
    write(2);
    look_for(10ms, 1ms);
  }
  EXPECT_LE(handled.size(), 14U);
}

TEST_F(LateWrite, TakesAContextWithoutCommandNameOrWithALongOne) {
  audit_ctx ctx = {};
  ctx.ruletype = kWtmpRule;
  qel::remember_watch(ctx, qel::watched_file(ctx));
  write(2);
  look_for(150ms);
  EXPECT_EQ(handled.at(0), "2 pid=0 uid=0 syscall=0 comm=");
  remember(kWtmpRule, 1, std::string(300, 'c'));
  write(2);
  look_for(150ms);
  EXPECT_EQ(handled.at(1), "2 pid=1 uid=1000 syscall=257 comm=" + std::string(255, 'c'));
}

TEST_F(LateWrite, StillSkipsWhatTheAccountToolsDoOnTheWay) {
  passwd_init();
  test::walks = {};
  remember(kShadowRule, 1, "useradd");
  remember(kPasswdRule, 1, "usermod");
  write(0);
  write(1);
  offline::advance_clock(100ms);
  qel::look_at_watches(handle_audit_event);
  EXPECT_EQ(test::walks.passwd_started, 1);  // usermod's
  passwd_fini();
}

// ---- The poller --------------------------------------------------------------------------------

class LateWritePoller : public LateWrite {
 protected:
  LateWritePoller() {
    test::write_wtmp(files_[2].path(), {});
    offline::switch_on();
    offline::set_path_check([](const std::string&) { return true; });
    start();
  }
  ~LateWritePoller() override {
    qel_audit_fini();
    offline::switch_off();
  }

  void start() {
    ASSERT_EQ(qel_login_reg_callback(nullptr, QEL_LOGIN_LOGIN, test::note_login, &lines_), 0);
    test::poll_all();
    looks();
  }

  // A program opens the log for writing.
  static void open_log(int serial) {
    const std::string header = "audit(1714557600.000:" + std::to_string(serial) + "): ";
    offline::feed(AUDIT_SYSCALL,
                  header +
                      "arch=c000003e syscall=257 success=yes exit=3 a0=0 a1=0 a2=0 a3=0 items=0 "
                      "ppid=1 pid=77 auid=0 uid=0 gid=0 comm=\"login\" exe=\"/bin/login\" "
                      "key=\"wtmp_rule\"");
    offline::feed(AUDIT_EOE, header);
  }

  void append_login(pid_t pid) {
    test::append_wtmp(files_[2].path(), {test::login_record(pid, "tty1", "alice", 100)});
  }

  std::vector<test::EventLine> lines_;
};

TEST_F(LateWritePoller, ReportsALoginThatIsWrittenAfterTheOpen) {
  open_log(1);
  test::poll_all();
  offline::advance_clock(50ms);
  append_login(77);
  test::poll_all();
  EXPECT_TRUE(lines_.empty());
  offline::advance_clock(50ms);
  EXPECT_EQ(test::poll_once(), 0);  // no message was read
  ASSERT_EQ(lines_.size(), 1U);
  EXPECT_NE(lines_[0].text.find("pid=77 from=0.0.0.0 user=0 process=login"), std::string::npos)
      << lines_[0].text;
}

TEST_F(LateWritePoller, DoesNotLookWhileMessagesWait) {
  open_log(1);
  test::poll_all();
  append_login(77);
  looks();
  for (int i = 0; i < 100; ++i) offline::feed(AUDIT_CWD, "audit(1.0:9): cwd=\"/\"");
  for (int i = 0; i < 100; ++i) {
    offline::advance_clock(110ms);
    EXPECT_EQ(test::poll_once(), 1);
  }
  EXPECT_EQ(looks(), 0);
  EXPECT_EQ(test::poll_once(), 0);
  EXPECT_EQ(lines_.size(), 1U);
}

TEST_F(LateWritePoller, DoesNotLookOnceTheLibraryIsStopped) {
  open_log(1);
  test::poll_all();
  qel_audit_fini();
  append_login(77);
  offline::advance_clock(200ms);
  looks();
  test::poll_all();
  start();  // knows the login already
  append_login(78);
  offline::advance_clock(200ms);
  test::poll_all();
  EXPECT_EQ(looks(), 0);
  EXPECT_TRUE(lines_.empty());
}

// A comparison is under way when its callback stops the library.
TEST_F(LateWritePoller, RemembersNothingOfAComparisonThatStoppedTheLibrary) {
  const auto stop = [](const qel_login_info*, void*) {
    qel_audit_fini();
    return 0;
  };
  ASSERT_EQ(qel_login_reg_callback(nullptr, QEL_LOGIN_LOGIN, stop, nullptr), 0);
  open_log(1);
  test::poll_all();
  append_login(77);
  offline::advance_clock(100ms);
  test::poll_all();  // a late look runs the callback
  EXPECT_EQ(lines_.size(), 1U);
  EXPECT_FALSE(offline::is_open());
  start();
  append_login(78);
  offline::advance_clock(200ms);
  test::poll_all();
  EXPECT_EQ(looks(), 0);
}

}  // namespace
