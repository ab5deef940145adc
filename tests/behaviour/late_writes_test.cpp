// Late writes: what a program writes after the records of its open have been handled.
#include "stage.h"

namespace {

using namespace test;
using std::chrono::milliseconds;

const Syscall kVipw = {.key = "passwd_rule", .comm = "vipw"};
const Syscall kRefused = {
    .key = "passwd_rule", .comm = "evil", .success = false, .exit = "-13", .pid = 666};

class LateWrites : public Stage {
 protected:
  LateWrites() {
    EXPECT_EQ(on_user("") + on_login(""), 0);
    poll_all();
  }

  // What is heard while the main loop runs for so long.
  static std::string heard_for(milliseconds time, milliseconds pause = 10ms) {
    for (milliseconds passed = 0ms; passed < time; passed += pause) pass(pause);
    return heard();
  }

  // How often a watched file was looked at since the last call.
  static int looks() { return std::exchange(stat_calls, 0); }

  // How often the accounts were read since the last call.
  static int reads() { return std::exchange(walks.passwd, {}).started; }
};

TEST_F(LateWrites, AreLookedForTenTimesASecondForTenSeconds) {
  heard_of(kVipw);
  looks();
  poll_all();
  EXPECT_EQ(looks(), 0) << "the comparison has just read it";
  for (int second = 0; second < 10; ++second) {
    heard_for(1s, 1ms);
    EXPECT_EQ(looks(), 10) << "second " << second;
  }
  account("dana", 2001, 0);
  EXPECT_EQ(heard_for(5s), "");
  EXPECT_EQ(looks(), 0);
}

TEST_F(LateWrites, AreLookedForOnceMoreWhenTheTimeIsOver) {
  heard_of(kVipw);
  EXPECT_EQ(heard_for(9940ms, 70ms), "");
  account("dana", 2001, 0);
  EXPECT_EQ(heard_for(70ms, 70ms), "added dana group=root\n") << "at the end, not between looks";
  account("evan", 2002, 0);
  EXPECT_EQ(heard_for(60s, 60s), "added evan group=root\n") << "the loop was held up";
}

TEST_F(LateWrites, AreSeenByAnyPartOfTheFilesIdentity) {
  const std::filesystem::path path = file("/etc/passwd"), other = path.string() + "+";
  const auto time = last_write_time(path);
  const Action changes[] = {[&] { last_write_time(path, time + 1ns); },
                            [&] { last_write_time(path, time - 1s); },
                            [&] { resize_file(path, 99); },
                            [&] { copy_file(path, other), rename(other, path); },
                            [&] { remove(path); },
                            [&] { touch("/etc/passwd"); }};
  for (const auto& change : changes) {
    if (exists(path)) last_write_time(path, time);
    heard_of(kVipw);
    reads();
    heard_for(200ms);
    EXPECT_EQ(reads(), 0);
    change();
    if (&change - changes > 1 && exists(path)) last_write_time(path, time);
    heard_for(200ms);
    EXPECT_EQ(reads(), 1) << "change number " << &change - changes;
  }
}

std::string login(int pid) {
  return "login eve line=tty1 pid=" + std::to_string(pid) + " from=0.0.0.0 ";
}

TEST_F(LateWrites, ArePutDownToTheNewestOpenerOfTheirFile) {
  account("alice", 1000, 0);
  EXPECT_EQ(heard_of(kVipw), "added alice group=root\n");
  heard_of({.key = "wtmp_rule", .comm = "first", .pid = 1});
  heard_for(5s);
  heard_of({.key = "lastlogin_rule", .comm = std::string(300, 'c'), .pid = 2, .uid = 1000});
  heard_for(9s);  // the time runs from the newest
  append_wtmp({utmp_record(USER_PROCESS, 1, "tty1", "eve", 100),
               utmp_record(USER_PROCESS, 2, "tty1", "eve", 101)});
  EXPECT_EQ(heard_for(100ms), login(1) + "user= process= time=100\n" + login(2) +
                                  "user=alice process=" + std::string(255, 'c') + " time=101\n");
}

TEST_F(LateWrites, AreLookedForInEachFileThatWasOpenedUntilAStop) {
  for (const char* key : {"passwd_rule", "shadow_rule", "wtmp_rule"}) heard_of({.key = key});
  for (const char* path : {"/etc/shadow", "/etc/passwd"}) {
    reads();
    touch(path);
    heard_for(200ms);
    EXPECT_EQ(reads(), 1) << path;
  }
  append_wtmp({utmp_record(USER_PROCESS, 1, "tty1", "eve", 100)});
  EXPECT_EQ(heard_for(100ms), login(1) + "user= process= time=100\n");
  stop();
  start();
  looks();
  heard_for(200ms);
  EXPECT_EQ(looks(), 0);
}

// What changes while accounts are compared, or in between, is seen by the next look.
TEST_F(LateWrites, OfTheTimeOfAComparisonAreSeen) {
  EXPECT_GE(on_user("late", "dana", QEL_USER_ADDED, [this] { account("frank", 2003, 0); }), 0);
  account("dana", 2001, 0);
  EXPECT_EQ(heard_of(kVipw), "late: added dana group=root\nadded dana group=root\n");
  EXPECT_EQ(heard_for(100ms), "added frank group=root\n");
}

// ---- Calls that were refused -------------------------------------------------------------------

TEST_F(LateWrites, ARefusedCallReadsNothingButHasTheFileLookedAt) {
  reads();
  heard_of(kRefused);
  heard_for(11s, 100ms);
  account("dana", 2001, 0);
  EXPECT_EQ(heard_for(200ms), "") << "nobody has opened the file";
  EXPECT_EQ(heard_of(kRefused), "");
  EXPECT_EQ(reads(), 0);
  EXPECT_EQ(heard_for(100ms), "added dana group=root\n") << "came since the last reading";
  EXPECT_EQ(heard_of({.key = "passwd_rule", .success = false, .exit = "1"}), "");
  EXPECT_EQ(reads(), 2) << "no errno value, so it was not refused";
}

TEST_F(LateWrites, ARefusedCallTakesNeitherThePlaceNorAddsToTheTimeOfAnOpener) {
  Syscall refused = kRefused;
  refused.key = "wtmp_rule";
  heard_of(refused);
  for (const int pid : {666, 0}) {
    append_wtmp({utmp_record(USER_PROCESS, pid, "tty1", "eve", 100)});
    EXPECT_EQ(heard_for(100ms), login(pid) + "user= process= time=100\n");
  }
  heard_of({.key = "wtmp_rule", .comm = "sshd"});
  heard_of(refused);
  append_wtmp({utmp_record(USER_PROCESS, 11, "tty1", "eve", 100)});
  EXPECT_EQ(heard_for(100ms), login(11) + "user=root process=sshd time=100\n");
  heard_for(9s);
  heard_of(refused);
  heard_for(1s);
  looks();
  heard_for(1s);
  EXPECT_EQ(looks(), 0);
}

}  // namespace
