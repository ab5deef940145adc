// Login events from recorded records to callbacks, while a wtmp of the test's own grows as it did
// during the recording: each record before the end of its group is handled, or only after it.
#include <gtest/gtest.h>
#include <libaudit.h>
#include <qel_base.h>

#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "captured_log.h"
#include "clock.h"
#include "databases.h"
#include "event_log.h"
#include "offline_kernel.h"

namespace {

using namespace std::chrono_literals;
using test::login_record;
using Records = std::vector<struct utmp>;
using Texts = std::vector<std::string>;

const std::string kDirectory = QEL_TEST_DATA_DIR "/recordings/";

Records read_wtmp(const std::string& name) {
  std::ifstream file(kDirectory + name + ".wtmp", std::ios::binary);
  Records records;
  for (struct utmp record; file.read(reinterpret_cast<char*>(&record), sizeof(record));) {
    records.push_back(record);
  }
  return records;
}

// When the program's write is in the file, seen from the end of the group of its open.
enum class Write { kBefore, kAfter };

class LoginEvents : public testing::TestWithParam<Write> {
 protected:
  LoginEvents() {
    test::reset_databases();
    test::clear_log();
    test::databases.passwd = {{"root", 0, 0}, {"alice", 1000, 1000}, {"bob", 1001, 1001}};
    test::redirect("/var/log/wtmp", wtmp_.path());
    test::redirect("/etc/passwd", passwd_.path());
    offline::switch_on();
    offline::set_path_check([](const std::string&) { return true; });
    offline::set_clock(1'714'557'600);
  }
  ~LoginEvents() override {
    qel_audit_fini();
    offline::switch_off();
    offline::release_clock();
  }

  void start(const Records& records = {}) {
    test::write_wtmp(wtmp_.path(), records);
    ASSERT_EQ(qel_login_reg_callback(nullptr, QEL_LOGIN_LOGIN | QEL_LOGIN_LOGOUT, test::note_login,
                                     &lines_),
              0);
    test::poll_all();
  }

  // `write` is called once per group, at the test's time for it.
  void play(const std::string& name, const std::function<void(int group)>& write) {
    const auto recording = test::read_recording(kDirectory + name + ".rec");
    if (GetParam() == Write::kBefore) {
      test::play(recording, write);
      return;
    }
    int last = -1;
    test::play(recording, [&](int group) {
      write_late(last, write);
      last = group;
    });
    write_late(last, write);
  }

  void write_late(int group, const std::function<void(int group)>& write) {
    if (group < 0) return;
    write(group);
    offline::advance_clock(150ms);
    test::poll_all();
  }

  void append(const struct utmp& record) { test::append_wtmp(wtmp_.path(), {record}); }

  Texts events() const { return test::texts_of(lines_); }

  test::ScratchFile wtmp_, passwd_;
  std::vector<test::EventLine> lines_;
};

// The second login is one that the program wrote about itself.
TEST_P(LoginEvents, TellOfLoginsAndLogouts) {
  start();
  const Records records = read_wtmp("wtmp-append");
  ASSERT_EQ(records.size(), 4U);
  play("wtmp-append", [&](int group) { append(records.at(static_cast<std::size_t>(group))); });
  EXPECT_EQ(events(), (Texts{"login alice line=pts/0 pid=4100 from=192.0.2.10 user= process= "
                             "time=1714557100",
                             "login bob line=tty1 pid=419 from=0.0.0.0 user=root process=acts "
                             "time=1714557110",
                             "logout alice line=pts/0 pid=4100 from=192.0.2.10 user= process= "
                             "time=1714557200"}));
  for (const test::EventLine& line : lines_) EXPECT_EQ(line.details, "status=1");
}

TEST_P(LoginEvents, TellOfARealLogin) {
  Records records = read_wtmp("login-real");
  ASSERT_EQ(records.size(), 3U);
  start({records[0]});
  play("login-real", [&](int group) { append(records.at(static_cast<std::size_t>(group) + 1)); });
  EXPECT_EQ(events(), (Texts{"login alice line=pts/0 pid=439 from=0.0.0.0 user=root "
                             "process=login time=1714557629",
                             "logout alice line=pts/0 pid=439 from=0.0.0.0 user=root "
                             "process=login time=1714557630"}));
}

// Cut to nothing, cut again, a login, a chmod.
TEST_P(LoginEvents, TellOnlyOfTheLoginBehindATruncation) {
  start(read_wtmp("wtmp-append"));
  play("wtmp-truncate", [&](int group) {
    if (group < 2) test::write_wtmp(wtmp_.path(), {});
    if (group == 2) append(read_wtmp("wtmp-truncate").at(0));
  });
  EXPECT_EQ(events(), Texts{"login alice line=pts/1 pid=4200 from=0.0.0.0 user= process= "
                            "time=1714558000"});
  EXPECT_EQ(test::logged(QEL_LOG_ERROR, "wtmp", "wtmp may be replaced: 2(2)\n"), 1U);
}

TEST_P(LoginEvents, ReachTheCallbacksThatAskedForThem) {
  std::vector<test::EventLine> logouts, bob;
  ASSERT_EQ(qel_login_reg_callback("", QEL_LOGIN_LOGOUT, test::note_login, &logouts), 0);
  ASSERT_GE(qel_login_reg_callback("bob", QEL_LOGIN_LOGIN, test::note_login, &bob), 0);
  ASSERT_GE(qel_login_reg_callback("bob", QEL_LOGIN_LOGOUT, test::note_login, &bob), 0);
  const Records records = read_wtmp("wtmp-append");
  play("wtmp-append", [&](int group) { append(records.at(static_cast<std::size_t>(group))); });
  EXPECT_EQ(test::texts_of(logouts),
            Texts{"logout alice line=pts/0 pid=4100 from=192.0.2.10 user= process= "
                  "time=1714557200"});
  EXPECT_EQ(bob.size(), 1U);
}

// All that came at once, cut to what an event holds, in the file's order.
TEST_P(LoginEvents, ComeInTheFilesOrderALoginBeforeItsLogout) {
  start();
  const std::string name(32, 'n');
  const std::string line(32, 'l');
  play("wtmp-append", [&](int group) {
    if (group != 0) return;
    append(login_record(300, line, name, 100, "198.51.100.7"));
    append(login_record(200, "pts/1", "alice", 110));
    append(test::logout_record(300, line, 120));
    append(login_record(100, "pts/2", "bob", 130));
  });
  const std::string cut = std::string(15, 'n') + " line=" + std::string(15, 'l');
  EXPECT_EQ(events(), (Texts{"login " + cut + " pid=300 from=198.51.100.7 user= process= time=100",
                             "logout " + cut + " pid=300 from=198.51.100.7 user= process= time=120",
                             "login alice line=pts/1 pid=200 from=0.0.0.0 user= process= time=110",
                             "login bob line=pts/2 pid=100 from=0.0.0.0 user= process= time=130"}));
}

TEST_P(LoginEvents, WatchTheLog) {
  start();
  ASSERT_EQ(offline::rules().size(), 1U);
  const audit_rule_data& rule = *offline::rules().front();
  EXPECT_EQ(std::string(rule.buf, rule.buflen), "/var/log/wtmpwtmp_rule");
}

INSTANTIATE_TEST_SUITE_P(All, LoginEvents, testing::Values(Write::kBefore, Write::kAfter),
                         [](const auto& test) {
                           return test.param == Write::kBefore ? "WrittenBefore" : "WrittenAfter";
                         });

}  // namespace
