// The login log monitor, fed with wtmp files of the test's own.
#include "wtmp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <list>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "audit_event.h"
#include "audit_rule.h"
#include "captured_log.h"
#include "databases.h"

namespace {

using test::utmp_record;
using Records = std::vector<struct utmp>;
using Texts = std::vector<std::string>;

const std::string kFullUser(sizeof(utmp::ut_user), 'u');
const std::string kFullLine(sizeof(utmp::ut_line), 'l');

// A login, its end by any process, and a start or end of the system or of a run level.
struct utmp in(const std::string& line, const std::string& user, std::int32_t time_s) {
  return utmp_record(USER_PROCESS, 1, line, user, time_s);
}
struct utmp out(const std::string& line, std::int32_t time_s) {
  return utmp_record(DEAD_PROCESS, 9, line, "", time_s);
}
struct utmp boot(const std::string& user, std::int32_t time_s) {
  return utmp_record(user == "reboot" ? BOOT_TIME : RUN_LVL, 0, "~", user, time_s);
}

std::string text_of(const char (&member)[32]) {
  return {member, strnlen(member, sizeof(member))};
}

// A login as "user line login-logout", and what is to be reported of it: "in", "out" or "in out".
std::string describe(const struct utmp& ut, std::int64_t logout, std::uint32_t flags) {
  return text_of(ut.ut_user) + " " + text_of(ut.ut_line) + " " + std::to_string(ut.ut_tv.tv_sec) +
         "-" + std::to_string(logout) + ((flags & QEL_LOGIN_LOGIN) != 0 ? " in" : "") +
         ((flags & QEL_LOGIN_LOGOUT) != 0 ? " out" : "");
}

Texts offered;
std::size_t stop_at;  // the number of the offer that the emitter refuses to go on behind

int note(wtmp_entry* entry, audit_ctx*) {
  offered.push_back(describe(entry->ut, entry->logout, entry->flags));
  return offered.size() == stop_at ? 1 : 0;
}

std::string trace() {
  return test::log_text(QEL_LOG_DEBUG);
}
std::string errors() {
  return test::log_text(QEL_LOG_ERROR);
}

class WtmpTest : public testing::Test {
 protected:
  WtmpTest() {
    setenv("TZ", "UTC", 1);
    tzset();
    test::reset_databases();
    test::clear_log();
  }
  ~WtmpTest() override { login_log_fini(); }

  // Starts anew.
  void start(const Records& records = {}) {
    login_log_fini();
    write(records);
    ASSERT_EQ(login_log_init(path()), 0);
    test::clear_log();
  }

  void write(const Records& records) { test::write_wtmp(file_.path(), records); }
  void append(const Records& records) { test::write_wtmp(file_.path(), records, std::ios::app); }

  // Compares, and returns what was offered.
  Texts compare(std::size_t stop = 0) {
    offered.clear();
    test::clear_log();
    stop_at = stop;
    EXPECT_EQ(check_login_event(path(), note, nullptr), 0);
    return offered;
  }

  const char* path() const { return file_.path().c_str(); }

  test::ScratchFile file_;
};

// ---- Matching logins with their ends -----------------------------------------------------------

TEST_F(WtmpTest, GivesEachLoginItsEnd) {
  const struct {
    Records records;
    Texts logins;
  } logs[] = {
      {{in("tty1", "alice", 100), utmp_record(DEAD_PROCESS, 1, "tty1", "bob", 200)},
       {"alice tty1 100-200 in out"}},
      {{in("tty1", "alice", 100), utmp_record(LOGIN_PROCESS, 2, "tty1", "LOGIN", 200)},
       {"alice tty1 100-200 in out"}},
      {{in("tty1", "alice", 100), in("tty1", "", 200)}, {"alice tty1 100-200 in out"}},
      // Any other type with a user is a login.
      {{utmp_record(EMPTY, 2, "tty2", "bob", 110), utmp_record(BOOT_TIME, 3, "~~", "reboot", 120)},
       {"bob tty2 110-0 in", "reboot ~~ 120-0 in"}},
      // The nearest later end on the line counts, and only for one login.
      {{out("tty1", 50), in("tty1", "alice", 100), out("tty2", 110), out("tty", 120)},
       {"alice tty1 100-0 in"}},
      {{in("tty1", "alice", 100), in("tty1", "bob", 150), out("tty1", 200), out("tty1", 300)},
       {"alice tty1 100-300 in out", "bob tty1 150-200 in out"}},
      // The start or end of the system ends what is left, and gives later ends its time.
      {{in("tty1", "alice", 100), boot("runlevel", 200), boot("reboot", 300)},
       {"alice tty1 100-200 in out"}},
      {{in("tty1", "alice", 100), boot("runlevel", 200), boot("reboots", 210), out("tty1", 300)},
       {"alice tty1 100-300 in out"}},
      {{in("tty1", "alice", 100), in("tty1", "bob", 110), in("tty1", "carol", 120),
        out("tty1", 130), boot("reboot", 200), out("tty1", 210), boot("shutdown", 300),
        out("tty1", 310)},
       {"alice tty1 100-200 in out", "bob tty1 110-200 in out", "carol tty1 120-130 in out"}},
      {{in(kFullLine, kFullUser, 100), in(kFullLine.substr(1) + "m", "bob", 110),
        out(kFullLine, 200)},
       {kFullUser + " " + kFullLine + " 100-200 in out",
        "bob " + kFullLine.substr(1) + "m 110-0 in"}},
      // -1 stands for no record of the system, 0 for no end.
      {{in("tty1", "alice", 100), boot("runlevel", -1)}, {"alice tty1 100-0 in"}},
      {{in("tty1", "alice", 100), out("tty1", 0), boot("runlevel", 200)}, {"alice tty1 100-0 in"}},
  };
  for (const auto& [records, logins] : logs) {
    start();
    append(records);
    EXPECT_EQ(compare(), logins);
    EXPECT_EQ(compare(), Texts{});
    EXPECT_EQ(errors(), "");
  }
}

// A plain reading of the rules, quadratic where it likes: the record and logout of each login, in
// file order.
std::list<std::pair<struct utmp, std::int64_t>> match_plainly(const Records& records) {
  std::list<std::pair<struct utmp, std::int64_t>> logins;
  std::list<std::pair<std::string, std::int64_t>> pending;  // line and time of ends
  std::int64_t last_boot = -1;
  for (auto record = records.rbegin(); record != records.rend(); ++record) {
    const std::int64_t time = record->ut_tv.tv_sec;
    const std::string line = text_of(record->ut_line), user = text_of(record->ut_user);
    if (line == "~") {
      last_boot = time;
      if (user != "reboot" && user != "shutdown") continue;
      for (auto& end : pending) end.second = time;
    } else if (user.empty() || record->ut_type == 6 || record->ut_type == 8) {
      pending.emplace_front(line, time);
    } else {
      const auto end = std::find_if(pending.begin(), pending.end(),
                                    [&line](const auto& e) { return e.first == line; });
      const bool ended = end != pending.end();
      logins.emplace_front(*record, ended ? end->second : last_boot == -1 ? 0 : last_boot);
      if (ended) pending.erase(end);
    }
  }
  return logins;
}

// The pid is new with each record, so that no two logins have the same key.
struct utmp random_record(std::mt19937& random, pid_t pid) {
  const auto one_of = [&random](const auto& from) { return from[random() % from.size()]; };
  const Texts lines = {"tty1", "pts/0", "pts/1", "~", kFullLine};
  const Texts users = {"", "alice", "bob", "reboot", "shutdown", "runlevel", kFullUser};
  const std::int32_t time_s = random() % 10 == 0 ? pid % 3 - 1 : 1000 + pid / 3 * 7;
  const auto type = static_cast<short>(random() % 2 == 0 ? USER_PROCESS : random() % 10);
  return utmp_record(type, pid, one_of(lines), one_of(users), time_s);
}

TEST_F(WtmpTest, AgreesWithAPlainReadingOfRandomLogs) {
  const char* wanted = std::getenv("QEL_TEST_SEED");
  const auto seed = wanted != nullptr ? static_cast<unsigned>(std::stoul(wanted))
                                      : static_cast<unsigned>(std::random_device()());
  SCOPED_TRACE("QEL_TEST_SEED=" + std::to_string(seed));
  std::mt19937 random(seed);
  for (int log = 0; log < 40; ++log) {
    start();
    Records records;
    std::map<pid_t, std::int64_t> known;  // logouts
    for (int round = 0; round < 5; ++round) {
      for (std::size_t more = random() % 60; more > 0; --more) {
        records.push_back(random_record(random, static_cast<pid_t>(records.size())));
      }
      write(records);
      Texts expected;
      for (const auto& [ut, logout] : match_plainly(records)) {
        const auto [old, is_new] = known.try_emplace(ut.ut_pid, 0);
        std::uint32_t flags = is_new ? QEL_LOGIN_LOGIN : 0;
        if (old->second == 0 && logout != 0) flags |= QEL_LOGIN_LOGOUT;
        old->second = logout;
        if (flags != 0) expected.push_back(describe(ut, logout, flags));
      }
      ASSERT_EQ(compare(), expected);
    }
  }
}

// ---- Comparison --------------------------------------------------------------------------------

TEST_F(WtmpTest, SaysSoWhenMoreThanHalfOfTheLoginsAreMissing) {
  const struct {
    int known, missing;
    bool replaced;
  } cases[] = {{0, 0, false}, {1, 1, true},  {2, 1, false}, {3, 1, false},
               {3, 2, true},  {4, 2, false}, {4, 3, true}};
  for (const auto& [known, missing, replaced] : cases) {
    Records records;
    for (int i = 0; i < known; ++i) records.push_back(in("tty1", "alice", 100 + i));
    start(records);
    records.erase(records.begin(), records.begin() + missing);
    records.push_back(in("tty2", "bob", 300));
    write(records);
    const std::string numbers = std::to_string(known) + "(" + std::to_string(missing) + ")";
    EXPECT_EQ(compare(), replaced ? Texts{} : Texts{"bob tty2 300-0 in"});
    EXPECT_EQ(errors(), replaced ? "wtmp: wtmp may be replaced: " + numbers + "\n" : "");
    // In either case the file is what is known now.
    append({in("tty3", "carol", 310)});
    EXPECT_EQ(compare(), Texts{"carol tty3 310-0 in"});
  }
}

TEST_F(WtmpTest, ReportsAnEndThatCameSinceAndOnlyTracesOneThatMoved) {
  const Records logins = {in("tty1", "alice", 1000), in("tty2", "bob", 1100)};
  start(logins);
  append({out("tty1", 90'061)});
  EXPECT_EQ(compare(), Texts{"alice tty1 1000-90061 out"});
  EXPECT_EQ(trace(),
            "wtmp: --> user      alice logout at Fri Jan  2 01:01:01(Thu Jan  1 00:16:40)\n");
  // Of two ends on a line the nearer one counts.
  write(logins);
  append({out("tty1", 2000), out("tty1", 90'061)});
  EXPECT_EQ(compare(), Texts{});
  EXPECT_EQ(trace(),
            "wtmp: --> user      alice logout time changed Fri Jan  2 01:01:01->Thu Jan  1 "
            "00:33:20\n");
  // An end that is gone again is not reported either, and one that comes then is a logout.
  write(logins);
  EXPECT_EQ(compare(), Texts{});
  append({out("tty1", 3000)});
  EXPECT_EQ(compare(), Texts{"alice tty1 1000-3000 out"});
}

TEST_F(WtmpTest, AnEmitterThatStopsOrIsNullLosesTheRest) {
  start();
  append({in("tty1", "alice", 100), in("tty2", "bob", 110)});
  EXPECT_EQ(compare(1), Texts{"alice tty1 100-0 in"});
  EXPECT_NE(trace().find("bob"), std::string::npos);
  append({in("tty3", "carol", 120)});
  EXPECT_EQ(check_login_event(path(), nullptr, nullptr), 0);
  EXPECT_NE(trace().find("carol"), std::string::npos);
  EXPECT_EQ(compare(), Texts{});
}

TEST_F(WtmpTest, LoginsWithTheSamePidAndSecondCountAsOne) {
  start();
  append({in("tty1", "alice", 100), in("tty2", "alice", 100), in("tty2", "alice", 101)});
  EXPECT_EQ(compare().size(), 2U);
  write({in("tty2", "alice", 101)});
  EXPECT_EQ(compare(), Texts{});
  EXPECT_EQ(errors(), "");  // 1 of 2 is missing, not 2 of 3
}

// ---- Start, stop and refused paths -------------------------------------------------------------

TEST_F(WtmpTest, SaysWhenItIsStartedOrStoppedTwice) {
  start();
  append({in("tty1", "alice", 100)});
  EXPECT_EQ(login_log_init(path()), 0);
  EXPECT_EQ(errors(), "wtmp: login_log_init already called\n");
  EXPECT_EQ(compare(), Texts{"alice tty1 100-0 in"});  // the first snapshot has stayed

  login_log_fini();
  EXPECT_EQ(errors(), "");
  login_log_fini();
  audit_ctx ctx = {};
  ctx.ruletype = kLastloginRule;
  EXPECT_EQ(handle_audit_event(&ctx), -1);
  EXPECT_EQ(errors(), "wtmp: login_log not inited\nwtmp: login_log not inited\n");
}

TEST_F(WtmpTest, ARefusedPathFailsAStartAndAComparisonWhichForgetsNothing) {
  const auto refuse_both = [this](const auto& call) {
    test::clear_log();
    EXPECT_EQ(call(""), -1);
    test::fail_utmpname(true);
    EXPECT_EQ(call(path()), -1);
    test::fail_utmpname(false);
    EXPECT_EQ(errors(), "wtmp: parse_wtmp failed\nwtmp: utmpname " + file_.path() +
                            " failed\nwtmp: parse_wtmp failed\n");
  };
  refuse_both(login_log_init);
  start({in("tty1", "alice", 100)});
  append({in("tty2", "bob", 110)});
  refuse_both([](const char* log) { return check_login_event(log, note, nullptr); });
  EXPECT_EQ(compare(), Texts{"bob tty2 110-0 in"});
}

}  // namespace
