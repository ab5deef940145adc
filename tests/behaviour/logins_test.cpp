// Logins, from the records of a watch to login events, while wtmp grows.
#include "wtmp.h"

#include <algorithm>
#include <iostream>
#include <list>
#include <random>

#include "stage.h"

namespace {

using namespace test;
using Records = std::vector<struct utmp>;

const std::string kFullUser(sizeof(utmp::ut_user), 'u');
const std::string kFullLine(sizeof(utmp::ut_line), 'l');

struct utmp in(const std::string& line, const std::string& user, std::int32_t time_s) {
  return utmp_record(USER_PROCESS, 1, line, user, time_s);
}
struct utmp out(const std::string& line, std::int32_t time_s) {
  return utmp_record(DEAD_PROCESS, 9, line, "", time_s);
}

const struct utmp kAlice = in("tty1", "alice", 100), kBob = in("tty2", "bob", 110);

class Logins : public Stage {
 protected:
  Logins() {
    setenv("TZ", "UTC", 1);
    account("alice", 1000, 1000);
    EXPECT_EQ(on_login(""), 0);
    poll_all();
  }

  void write(const Records& records) { write_wtmp(file("/var/log/wtmp"), records); }

  // Has the log compared for a call of sshd. Returns what is heard.
  static std::string compare() { return heard_of({.key = "wtmp_rule", .comm = "sshd", .pid = 77}); }

  // Forgets what is known, but for these records.
  void begin_with(const Records& records) {
    login_log_fini();
    write(records);
    EXPECT_EQ(login_log_init(nullptr), 0);
  }
};

std::string text_of(const char (&member)[32]) {
  return {member, strnlen(member, sizeof(member))};
}

// The events of a login, as compare() tells them; without a logout when that is 0.
std::string told(const struct utmp& login, std::int64_t logout = 0, bool is_new = true) {
  const std::string who = test::quoted(text_of(login.ut_user).substr(0, 15)) +
                          " line=" + test::quoted(text_of(login.ut_line).substr(0, 15)) +
                          " pid=" + std::to_string(login.ut_pid) +
                          " from=0.0.0.0 user= process= time=";
  return (is_new ? "login " + who + std::to_string(login.ut_tv.tv_sec) + "\n" : "") +
         (logout != 0 ? "logout " + who + std::to_string(logout) + "\n" : "");
}

// ---- Matching logins with their ends -----------------------------------------------------------

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
struct utmp random_record(std::mt19937& random, int number) {
  const auto one_of = [&random](const auto& from) { return from[random() % from.size()]; };
  const std::vector<std::string> lines = {
      "tty1", "tty", "pts/0", "~", "~~", kFullLine, kFullLine.substr(1) + "m"};
  const std::vector<std::string> users = {"",         "alice",   "bob",    "reboot",
                                          "shutdown", "reboots", kFullUser};
  const auto type = static_cast<short>(random() % 2 == 0 ? USER_PROCESS : random() % 10);
  const std::int32_t time_s = random() % 10 == 0 ? number % 3 - 1 : 1000 + number / 3 * 7;
  return utmp_record(type, number + 100, one_of(lines), one_of(users), time_s);
}

TEST_F(Logins, OfRandomLogsAreThoseOfAPlainReading) {
  const char* wanted = std::getenv("QEL_TEST_SEED");
  const unsigned long seed = wanted != nullptr ? std::stoul(wanted) : std::random_device()();
  std::cout << "QEL_TEST_SEED=" << seed << "\n";
  std::mt19937 random(seed);
  for (int log = 0; log < 40; ++log) {
    begin_with({});
    Records records;
    std::map<pid_t, std::int64_t> known;  // logouts
    for (int round = 0; round < 5; ++round) {
      for (std::size_t more = random() % 60; more > 0; --more) {
        records.push_back(random_record(random, static_cast<int>(records.size())));
      }
      write(records);
      std::string expected;
      for (const auto& [ut, logout] : match_plainly(records)) {
        const auto [old, is_new] = known.try_emplace(ut.ut_pid, 0);
        const bool ended = old->second == 0 && logout != 0;
        old->second = logout;
        expected += told(ut, ended ? logout : 0, is_new);
      }
      ASSERT_EQ(compare(), expected) << "QEL_TEST_SEED=" << seed;
    }
  }
}

// ---- Comparison --------------------------------------------------------------------------------

TEST_F(Logins, AreNotToldWhenMoreThanHalfOfTheKnownOnesAreMissing) {
  for (const auto& [known, missing, replaced] :
       {std::tuple{0, 0, false}, {1, 1, true}, {2, 1, false}, {3, 2, true}, {4, 2, false}}) {
    Records records;
    for (int i = 0; i < known; ++i) records.push_back(in("tty1", "alice", 100 + i));
    begin_with(records);
    records.erase(records.begin(), records.begin() + missing);
    records.push_back(in("tty2", "bob", 300));
    write(records);
    EXPECT_EQ(compare(), replaced ? "error wtmp: wtmp may be replaced: " + std::to_string(known) +
                                        "(" + std::to_string(missing) + ")\n"
                                  : told(in("tty2", "bob", 300)));
    // In either case the file is what is known now.
    append_wtmp({in("tty3", "carol", 310)});
    EXPECT_EQ(compare(), told(in("tty3", "carol", 310)));
  }
}

TEST_F(Logins, AnEndThatCameSinceIsToldAndOneThatMovedOnlyTraced) {
  const struct utmp full = in(kFullLine, kFullUser, 4000);
  begin_with({kAlice, kBob});
  append_wtmp({out("tty1", 90'061)});
  EXPECT_EQ(compare(), told(kAlice, 90'061, false));
  write({kAlice, kBob, out("tty1", 2000), full, out(kFullLine, 5000)});
  set_level(QEL_LOG_DEBUG);
  EXPECT_EQ(check_login_event(nullptr, nullptr, nullptr), 0);
  const std::string user = "debug wtmp: --> user ", traced = user + kFullUser;
  EXPECT_EQ(heard(),
            user + "     alice logout time changed Fri Jan  2 01:01:01->Thu Jan  1 00:33:20\n" +
                traced + " login  at Thu Jan  1 01:06:40\n" + traced +
                " logout at Thu Jan  1 01:23:20(Thu Jan  1 01:06:40)\n");
  set_level(QEL_LOG_ERROR);
  // An end that is gone again is not told either, and one that comes then is a logout.
  write({kAlice, kBob, full});
  EXPECT_EQ(compare(), "");
  append_wtmp({out("tty1", 3000)});
  EXPECT_EQ(compare(), told(kAlice, 3000, false));
}

TEST_F(Logins, WithTheSamePidAndSecondCountAsOne) {
  const struct utmp later = in("tty2", "alice", 101);
  append_wtmp({kAlice, in("tty2", "alice", 100), later});
  EXPECT_EQ(compare(), told(kAlice) + told(later));
  write({later});
  EXPECT_EQ(compare(), "") << "1 of 2 is missing, not 2 of 3";
}

TEST_F(Logins, AreToldToThoseWhoAskedForThemWithTheProcessThatWroteThem) {
  EXPECT_EQ(on_login("outs", nullptr, QEL_LOGIN_LOGOUT), 0);
  EXPECT_GE(on_login("bob", "bob", QEL_LOGIN_LOGIN), 0);
  append_wtmp(
      {utmp_record(USER_PROCESS, 77, "pts/0", "bob", 100, "198.51.100.7"), out("pts/0", 120)});
  const std::string bob = "bob line=pts/0 pid=77 from=198.51.100.7 user=root process=sshd time=";
  EXPECT_EQ(compare(), "bob: login " + bob + "100\nlogin " + bob + "100\nlogout " + bob +
                           "120\nouts: logout " + bob + "120\n");
}

// ---- The monitor's own functions ---------------------------------------------------------------

TEST_F(Logins, WhatAnEmitterDidNotWantIsLost) {
  append_wtmp({kAlice, kBob});
  const auto refuse = [](wtmp_entry*, audit_ctx*) { return 1; };
  EXPECT_EQ(check_login_event(nullptr, refuse, nullptr), 0);
  EXPECT_EQ(compare(), "");
}

TEST_F(Logins, TheMonitorSaysWhenItIsStartedOrStoppedTwice) {
  append_wtmp({kAlice});
  EXPECT_EQ(login_log_init(nullptr), 0);
  EXPECT_EQ(compare(), "error wtmp: login_log_init already called\n" + told(kAlice));
  login_log_fini();
  login_log_fini();
  EXPECT_EQ(check_login_event(nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(heard(), "error wtmp: login_log not inited\nerror wtmp: login_log not inited\n");
  login_log_init(nullptr);
}

TEST_F(Logins, ARefusedPathFailsAComparisonWhichForgetsNothing) {
  append_wtmp({kAlice});
  EXPECT_EQ(check_login_event("", nullptr, nullptr), -1);
  EXPECT_EQ(compare(), "error wtmp: parse_wtmp failed\n" + told(kAlice));
}

}  // namespace
