// The login log monitor, fed with wtmp files of the test's own.
#include "wtmp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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

using test::login_record;
using test::logout_record;
using test::system_record;
using test::utmp_record;
using Records = std::vector<struct utmp>;
using Texts = std::vector<std::string>;

const std::string kFullUser(sizeof(utmp::ut_user), 'u');
const std::string kFullLine(sizeof(utmp::ut_line), 'l');

template <std::size_t Size>
std::string text_of(const char (&member)[Size]) {
  return {member, strnlen(member, Size)};
}

// A login as "user line login-logout", and what is to be reported of it: "in", "out" or "in out".
std::string describe(const struct utmp& ut, std::int64_t logout, std::uint32_t flags) {
  std::string text = text_of(ut.ut_user) + " " + text_of(ut.ut_line) + " " +
                     std::to_string(ut.ut_tv.tv_sec) + "-" + std::to_string(logout);
  if ((flags & QEL_LOGIN_LOGIN) != 0) text += " in";
  if ((flags & QEL_LOGIN_LOGOUT) != 0) text += " out";
  return text;
}

Texts offered;
std::size_t stop_at;

int note(wtmp_entry* entry, audit_ctx*) {
  offered.push_back(describe(entry->ut, entry->logout, entry->flags));
  return offered.size() == stop_at ? 1 : 0;
}

class WtmpTest : public testing::Test {
 protected:
  WtmpTest() {
    setenv("TZ", "UTC", 1);
    tzset();
    test::reset_databases();
    test::clear_log();
  }
  ~WtmpTest() override { stop(); }

  void start(const Records& records = {}) {
    write(records);
    ASSERT_EQ(login_log_init(path()), 0);
    running_ = true;
    test::clear_log();
  }
  void stop() {
    if (std::exchange(running_, false)) login_log_fini();
  }

  void write(const Records& records) { test::write_wtmp(file_.path(), records); }
  void append(const Records& records) { test::append_wtmp(file_.path(), records); }

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
  bool running_ = false;
};

std::string trace() {
  return test::log_text(QEL_LOG_DEBUG);
}
std::string errors() {
  return test::log_text(QEL_LOG_ERROR);
}

// ---- Matching logins with their ends -----------------------------------------------------------

struct Log {
  const char* name;
  Records records;
  Texts logins;
};

class WtmpMatching : public WtmpTest, public testing::WithParamInterface<Log> {};

TEST_P(WtmpMatching, GivesEachLoginItsEnd) {
  start();
  append(GetParam().records);
  EXPECT_EQ(compare(), GetParam().logins);
  EXPECT_EQ(compare(), Texts{});
  EXPECT_EQ(errors(), "");
}

const Log kLogs[] = {
    {"Open", {login_record(1, "tty1", "alice", 100)}, {"alice tty1 100-0 in"}},
    {"Ended",
     {login_record(1, "tty1", "alice", 100), logout_record(1, "tty1", 200)},
     {"alice tty1 100-200 in out"}},
    {"EndedByAnyPid",
     {login_record(1, "tty1", "alice", 100), logout_record(9, "tty1", 200)},
     {"alice tty1 100-200 in out"}},
    {"EndedByDeadProcessWithUser",
     {login_record(1, "tty1", "alice", 100), utmp_record(DEAD_PROCESS, 1, "tty1", "bob", 200)},
     {"alice tty1 100-200 in out"}},
    {"EndedByLoginProcess",
     {login_record(1, "tty1", "alice", 100), utmp_record(LOGIN_PROCESS, 2, "tty1", "LOGIN", 200)},
     {"alice tty1 100-200 in out"}},
    {"EndedByRecordWithoutUser",
     {login_record(1, "tty1", "alice", 100), utmp_record(USER_PROCESS, 1, "tty1", "", 200)},
     {"alice tty1 100-200 in out"}},
    {"AnyOtherTypeWithUserIsALogin",
     {utmp_record(INIT_PROCESS, 1, "tty1", "alice", 100), utmp_record(EMPTY, 2, "tty2", "bob", 110),
      utmp_record(BOOT_TIME, 3, "tty3", "reboot", 120)},
     {"alice tty1 100-0 in", "bob tty2 110-0 in", "reboot tty3 120-0 in"}},
    {"NotEndedOnAnotherLine",
     {login_record(1, "tty1", "alice", 100), logout_record(1, "tty2", 200),
      logout_record(1, "tty", 210), logout_record(1, "tty11", 220)},
     {"alice tty1 100-0 in"}},
    {"NotEndedByAnEarlierRecord",
     {logout_record(1, "tty1", 200), login_record(1, "tty1", "alice", 100)},
     {"alice tty1 100-0 in"}},
    {"NearestLaterEnd",
     {login_record(1, "tty1", "alice", 100), logout_record(1, "tty1", 200),
      logout_record(1, "tty1", 300)},
     {"alice tty1 100-200 in out"}},
    {"OneEndForOneLogin",
     {login_record(1, "tty1", "alice", 100), login_record(2, "tty1", "bob", 150),
      logout_record(1, "tty1", 200)},
     {"alice tty1 100-0 in", "bob tty1 150-200 in out"}},
    {"TheOlderLoginTakesTheEndFurtherBack",
     {login_record(1, "tty1", "alice", 100), login_record(2, "tty1", "bob", 150),
      logout_record(1, "tty1", 200), logout_record(1, "tty1", 300)},
     {"alice tty1 100-300 in out", "bob tty1 150-200 in out"}},
    {"SeveralLines",
     {login_record(1, "tty1", "alice", 100), login_record(2, "pts/0", "bob", 110),
      logout_record(2, "pts/0", 120), logout_record(1, "tty1", 130),
      login_record(3, "pts/0", "alice", 140)},
     {"alice tty1 100-130 in out", "bob pts/0 110-120 in out", "alice pts/0 140-0 in"}},
    {"NearestLaterSystemRecord",
     {login_record(1, "tty1", "alice", 100), system_record("runlevel", 200),
      system_record("reboot", 300), login_record(2, "tty1", "bob", 400)},
     {"alice tty1 100-200 in out", "bob tty1 400-0 in"}},
    {"EndBeforeSystemRecord",
     {login_record(1, "tty1", "alice", 100), logout_record(1, "tty1", 150),
      system_record("shutdown", 200)},
     {"alice tty1 100-150 in out"}},
    {"EndBehindReboot",
     {login_record(1, "tty1", "alice", 100), system_record("reboot", 200),
      logout_record(1, "tty1", 300)},
     {"alice tty1 100-200 in out"}},
    {"EndBehindShutdown",
     {login_record(1, "tty1", "alice", 100), system_record("shutdown", 200),
      logout_record(1, "tty1", 300)},
     {"alice tty1 100-200 in out"}},
    {"EndBehindRunLevel",
     {login_record(1, "tty1", "alice", 100), system_record("runlevel", 200),
      system_record("reboots", 210), system_record("", 220), logout_record(1, "tty1", 300)},
     {"alice tty1 100-300 in out"}},
    {"EndsOfSeveralBoots",
     {login_record(1, "tty1", "alice", 100), login_record(2, "tty1", "bob", 110),
      login_record(3, "tty1", "carol", 120), logout_record(3, "tty1", 130),
      system_record("reboot", 200), logout_record(2, "tty1", 210), system_record("shutdown", 300),
      logout_record(1, "tty1", 310)},
     {"alice tty1 100-200 in out", "bob tty1 110-200 in out", "carol tty1 120-130 in out"}},
    {"SystemLineIsExact",
     {login_record(1, "tty1", "alice", 100), utmp_record(BOOT_TIME, 0, "~~", "reboot", 200),
      utmp_record(BOOT_TIME, 0, "", "reboot", 210)},
     {"alice tty1 100-0 in", "reboot ~~ 200-0 in", "reboot  210-0 in"}},
    {"TextsThatFillTheirFields",
     {login_record(1, kFullLine, kFullUser, 100),
      login_record(2, kFullLine.substr(1) + "m", kFullUser, 110), logout_record(1, kFullLine, 200),
      login_record(3, kFullLine.substr(1), kFullUser, 300)},
     {kFullUser + " " + kFullLine + " 100-200 in out",
      kFullUser + " " + kFullLine.substr(1) + "m 110-0 in",
      kFullUser + " " + kFullLine.substr(1) + " 300-0 in"}},
    {"SystemRecordAtMinusOneIsNone",
     {login_record(1, "tty1", "alice", 100), system_record("runlevel", -1)},
     {"alice tty1 100-0 in"}},
    {"RebootAtMinusOneStillEndsWhatIsPending",
     {login_record(1, "tty1", "alice", 100), system_record("reboot", -1),
      logout_record(1, "tty1", 300)},
     {"alice tty1 100--1 in out"}},
    {"EndAtZeroIsTakenAndEndsNothing",
     {login_record(1, "tty1", "alice", 100), login_record(2, "tty1", "bob", 110),
      logout_record(2, "tty1", 0), system_record("runlevel", 0)},
     {"alice tty1 100-0 in", "bob tty1 110-0 in"}},
    {"TimesBefore1970",
     {login_record(1, "tty1", "alice", -300), logout_record(1, "tty1", -200)},
     {"alice tty1 -300--200 in out"}},
};

INSTANTIATE_TEST_SUITE_P(All, WtmpMatching, testing::ValuesIn(kLogs),
                         [](const auto& test) { return test.param.name; });

// A plain reading of the rules, quadratic where it likes: the record and logout of each login, in
// file order.
std::list<std::pair<struct utmp, std::int64_t>> match_plainly(const Records& records) {
  std::list<std::pair<struct utmp, std::int64_t>> logins;
  std::list<std::pair<std::string, std::int64_t>> pending;  // line and time of ends
  std::int64_t last_boot = -1;
  for (auto record = records.rbegin(); record != records.rend(); ++record) {
    const std::int64_t time = record->ut_tv.tv_sec;
    const std::string line = text_of(record->ut_line);
    const std::string user = text_of(record->ut_user);
    if (line == "~") {
      last_boot = time;
      if (user != "reboot" && user != "shutdown") continue;
      for (auto& end : pending) end.second = time;
    } else if (user.empty() || record->ut_type == 6 || record->ut_type == 8) {
      pending.emplace_front(line, time);
    } else {
      const auto end = std::find_if(pending.begin(), pending.end(),
                                    [&line](const auto& e) { return e.first == line; });
      if (end != pending.end()) {
        logins.emplace_front(*record, end->second);
        pending.erase(end);
      } else {
        logins.emplace_front(*record, last_boot == -1 ? 0 : last_boot);
      }
    }
  }
  return logins;
}

// The pid is new with each record, so that no two logins have the same key.
struct utmp random_record(std::mt19937& random, pid_t pid) {
  static const Texts kLines = {"tty1", "pts/0", "pts/1", "~", kFullLine};
  static const Texts kUsers = {"", "alice", "bob", "reboot", "shutdown", "runlevel", kFullUser};
  static const std::vector<std::int32_t> kOddTimes = {-1, 0, -70};
  const auto below = [&random](std::size_t limit) { return random() % limit; };
  const std::int32_t time_s =
      below(10) == 0 ? kOddTimes[below(kOddTimes.size())] : 1000 + pid / 3 * 7;
  const auto type = static_cast<short>(below(2) == 0 ? USER_PROCESS : below(10));
  return utmp_record(type, pid, kLines[below(kLines.size())], kUsers[below(kUsers.size())], time_s);
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
      const std::size_t more = random() % 60;
      for (std::size_t i = 0; i < more; ++i) {
        records.push_back(random_record(random, static_cast<pid_t>(records.size())));
      }
      write(records);
      Texts expected;
      for (const auto& [ut, logout] : match_plainly(records)) {
        const auto old = known.find(ut.ut_pid);
        std::uint32_t flags = old == known.end() ? QEL_LOGIN_LOGIN : 0;
        if (logout != 0 && (old == known.end() || old->second == 0)) flags |= QEL_LOGIN_LOGOUT;
        known[ut.ut_pid] = logout;
        if (flags != 0) expected.push_back(describe(ut, logout, flags));
      }
      ASSERT_EQ(compare(), expected);
    }
    stop();
  }
}

// ---- Files -------------------------------------------------------------------------------------

TEST_F(WtmpTest, ReadsOnlyWholeRecords) {
  start();
  append({login_record(1, "tty1", "alice", 100), login_record(2, "tty2", "bob", 110),
          login_record(3, "tty3", "carol", 120)});
  std::filesystem::resize_file(file_.path(), 2 * sizeof(struct utmp) + 383);
  EXPECT_EQ(compare(), (Texts{"alice tty1 100-0 in", "bob tty2 110-0 in"}));
  write({login_record(1, "tty1", "alice", 100), login_record(2, "tty2", "bob", 110),
         login_record(3, "tty3", "carol", 120)});
  EXPECT_EQ(compare(), Texts{"carol tty3 120-0 in"});
}

TEST_F(WtmpTest, TakesAMissingFileAsEmpty) {
  EXPECT_EQ(login_log_init("/nonexistent/wtmp"), 0);
  running_ = true;
  EXPECT_TRUE(test::log_lines().empty());
  append({login_record(1, "tty1", "alice", 100)});
  EXPECT_EQ(compare(), Texts{"alice tty1 100-0 in"});
  std::filesystem::remove(file_.path());
  EXPECT_EQ(compare(), Texts{});
  EXPECT_EQ(errors(), "wtmp: wtmp may be replaced: 1(1)\n");
  append({login_record(1, "tty1", "alice", 100)});
  EXPECT_EQ(compare(), Texts{"alice tty1 100-0 in"});
}

TEST_F(WtmpTest, UsesTheMachinesLogWithoutAPath) {
  test::redirect("/var/log/wtmp", file_.path());
  ASSERT_EQ(login_log_init(nullptr), 0);
  running_ = true;
  append({login_record(1, "tty1", "alice", 100)});
  offered.clear();
  EXPECT_EQ(check_login_event(nullptr, note, nullptr), 0);
  EXPECT_EQ(offered, Texts{"alice tty1 100-0 in"});
}

struct Missing {
  int known;
  int missing;
  bool replaced;
};

class WtmpReplaced : public WtmpTest, public testing::WithParamInterface<Missing> {};

TEST_P(WtmpReplaced, IsSaidWhenMoreThanHalfIsMissing) {
  const auto [known, missing, replaced] = GetParam();
  Records records;
  for (int i = 0; i < known; ++i) records.push_back(login_record(i + 1, "tty1", "alice", 100));
  start(records);
  Records left(records.begin() + missing, records.end());
  left.push_back(login_record(77, "tty2", "bob", 300));
  write(left);
  EXPECT_EQ(compare(), replaced ? Texts{} : Texts{"bob tty2 300-0 in"});
  EXPECT_EQ(errors(), replaced ? "wtmp: wtmp may be replaced: " + std::to_string(known) + "(" +
                                     std::to_string(missing) + ")\n"
                               : "");
  EXPECT_EQ(trace().empty(), replaced);
  // In either case the file is what is known now.
  append({login_record(78, "tty3", "carol", 310)});
  EXPECT_EQ(compare(), Texts{"carol tty3 310-0 in"});
}

const Missing kMissing[] = {{0, 0, false}, {1, 0, false}, {1, 1, true}, {2, 1, false},
                            {2, 2, true},  {3, 1, false}, {3, 2, true}, {4, 2, false},
                            {4, 3, true},  {9, 4, false}, {9, 5, true}};

INSTANTIATE_TEST_SUITE_P(All, WtmpReplaced, testing::ValuesIn(kMissing), [](const auto& test) {
  return std::to_string(test.param.missing) + "_of_" + std::to_string(test.param.known);
});

TEST_F(WtmpTest, ReportsTheLoginsOfAFreshFileAfterATruncation) {
  start({login_record(1, "tty1", "alice", 100), logout_record(1, "tty1", 200)});
  write({});
  EXPECT_EQ(compare(), Texts{});
  EXPECT_EQ(errors(), "wtmp: wtmp may be replaced: 1(1)\n");
  EXPECT_EQ(compare(), Texts{});
  EXPECT_EQ(errors(), "");
  write({login_record(1, "tty1", "alice", 100)});
  EXPECT_EQ(compare(), Texts{"alice tty1 100-0 in"});
}

// ---- Comparison --------------------------------------------------------------------------------

TEST_F(WtmpTest, ReportsAnEndThatCameSinceAndOnlyTracesOneThatMoved) {
  start({login_record(1, "tty1", "alice", 1000), login_record(2, "tty2", "bob", 1100)});
  append({logout_record(1, "tty1", 90'061)});
  EXPECT_EQ(compare(), Texts{"alice tty1 1000-90061 out"});
  EXPECT_EQ(trace(),
            "wtmp: --> user      alice logout at Fri Jan  2 01:01:01(Thu Jan  1 00:16:40)\n");
  // Of two ends on a line the nearer one counts.
  write({login_record(1, "tty1", "alice", 1000), login_record(2, "tty2", "bob", 1100),
         logout_record(1, "tty1", 2000), logout_record(1, "tty1", 90'061)});
  EXPECT_EQ(compare(), Texts{});
  EXPECT_EQ(trace(),
            "wtmp: --> user      alice logout time changed Fri Jan  2 01:01:01->Thu Jan  1 "
            "00:33:20\n");
  // An end that is gone again is not reported either, and one that comes then is a logout.
  write({login_record(1, "tty1", "alice", 1000), login_record(2, "tty2", "bob", 1100)});
  EXPECT_EQ(compare(), Texts{});
  append({logout_record(1, "tty1", 3000)});
  EXPECT_EQ(compare(), Texts{"alice tty1 1000-3000 out"});
}

TEST_F(WtmpTest, TracesALoginAndItsEndByTheirTexts) {
  start();
  append({login_record(1, kFullLine, kFullUser, 1000), logout_record(1, kFullLine, 2000)});
  compare();
  EXPECT_EQ(trace(), "wtmp: --> user " + kFullUser +
                         " login  at Thu Jan  1 00:16:40\n"
                         "wtmp: --> user " +
                         kFullUser + " logout at Thu Jan  1 00:33:20(Thu Jan  1 00:16:40)\n");
}

TEST_F(WtmpTest, AnEmitterThatStopsLosesTheRest) {
  start();
  append({login_record(1, "tty1", "alice", 100), login_record(2, "tty2", "bob", 110)});
  EXPECT_EQ(compare(1), Texts{"alice tty1 100-0 in"});
  EXPECT_NE(trace().find("bob"), std::string::npos);
  EXPECT_EQ(compare(), Texts{});
}

TEST_F(WtmpTest, ANullEmitterOnlyTraces) {
  start();
  append({login_record(1, "tty1", "alice", 100)});
  EXPECT_EQ(check_login_event(path(), nullptr, nullptr), 0);
  EXPECT_EQ(trace(), "wtmp: --> user      alice login  at Thu Jan  1 00:01:40\n");
  EXPECT_EQ(compare(), Texts{});
}

TEST_F(WtmpTest, LoginsWithTheSamePidAndSecondCountAsOne) {
  start();
  append({login_record(1, "tty1", "alice", 100), login_record(1, "tty2", "alice", 100),
          login_record(1, "tty2", "alice", 101)});
  EXPECT_EQ(compare().size(), 2U);
  EXPECT_EQ(compare(), Texts{});
  write({login_record(1, "tty2", "alice", 101)});
  EXPECT_EQ(compare(), Texts{});
  EXPECT_EQ(errors(), "");  // 1 of 2 is missing, not 2 of 3
}

// ---- Start, stop and refused paths -------------------------------------------------------------

TEST_F(WtmpTest, SaysWhenItIsStartedOrStoppedTwice) {
  start();
  append({login_record(1, "tty1", "alice", 100)});
  EXPECT_EQ(login_log_init(path()), 0);
  EXPECT_EQ(errors(), "wtmp: login_log_init already called\n");
  EXPECT_EQ(compare(), Texts{"alice tty1 100-0 in"});  // the first snapshot has stayed

  stop();
  EXPECT_EQ(errors(), "");
  login_log_fini();
  EXPECT_EQ(errors(), "wtmp: login_log not inited\n");
  test::clear_log();
  EXPECT_EQ(check_login_event(path(), note, nullptr), -1);
  EXPECT_EQ(errors(), "wtmp: login_log not inited\n");
}

TEST_F(WtmpTest, RefusesToStartWithoutAUsablePath) {
  test::clear_log();
  EXPECT_EQ(login_log_init(""), -1);
  EXPECT_EQ(errors(), "wtmp: parse_wtmp failed\n");
  test::fail_utmpname(true);
  test::clear_log();
  EXPECT_EQ(login_log_init(path()), -1);
  EXPECT_EQ(errors(), "wtmp: utmpname " + file_.path() + " failed\nwtmp: parse_wtmp failed\n");
  test::fail_utmpname(false);
  start();
}

TEST_F(WtmpTest, KeepsWhatIsKnownWhenAComparisonFails) {
  start({login_record(1, "tty1", "alice", 100)});
  append({login_record(2, "tty2", "bob", 110)});
  EXPECT_EQ(check_login_event("", note, nullptr), -1);
  EXPECT_EQ(errors(), "wtmp: parse_wtmp failed\n");
  test::fail_utmpname(true);
  test::clear_log();
  EXPECT_EQ(check_login_event(path(), note, nullptr), -1);
  EXPECT_EQ(errors(), "wtmp: utmpname " + file_.path() + " failed\nwtmp: parse_wtmp failed\n");
  test::fail_utmpname(false);
  EXPECT_EQ(compare(), Texts{"bob tty2 110-0 in"});
}

TEST_F(WtmpTest, IsRunForBothKindsOfLoginContext) {
  test::redirect("/var/log/wtmp", file_.path());
  audit_ctx ctx = {};
  for (const std::int32_t ruletype : {kWtmpRule, kLastloginRule}) {
    ctx.ruletype = ruletype;
    test::clear_log();
    EXPECT_EQ(handle_audit_event(&ctx), -1);
    EXPECT_EQ(errors(), "wtmp: login_log not inited\n");
    start();
    append({login_record(1, "tty1", "alice", 100)});
    EXPECT_EQ(handle_audit_event(&ctx), 0);
    EXPECT_EQ(trace(), "wtmp: --> user      alice login  at Thu Jan  1 00:01:40\n");
    stop();
  }
}

}  // namespace
