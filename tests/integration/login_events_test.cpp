// Login events from recorded records to callbacks, while a wtmp of the test's own grows as it did
// during the recording: each record before the end of its group is handled, or only after it.
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "event_log.h"
#include "offline_test.h"

namespace {

using namespace std::chrono_literals;
using Records = std::vector<struct utmp>;
using Texts = std::vector<std::string>;

const std::string kDirectory = QEL_RECORDINGS_DIR "/";

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

class LoginEvents : public test::OfflineTest, public testing::WithParamInterface<Write> {
 protected:
  LoginEvents() {
    test::databases.passwd = {{"root", 0, 0}, {"alice", 1000, 1000}, {"bob", 1001, 1001}};
    test::redirect("/var/log/wtmp", wtmp_.path());
  }

  void start(const Records& records = {}) {
    test::write_wtmp(wtmp_.path(), records);
    ASSERT_EQ(qel_login_reg_callback(nullptr, QEL_LOGIN_LOGIN | QEL_LOGIN_LOGOUT, test::note_login,
                                     &lines_),
              0);
    test::poll_all();
  }

  // `write` is called once per group, at the test's time for it. Returns the events.
  Texts play(const std::string& name, const std::function<void(int group)>& write) {
    int last = -1;
    const auto write_last = [&] {
      if (last < 0) return;
      write(last);
      offline::advance_clock(150ms);
      test::poll_all();
    };
    test::play(test::read_recording(kDirectory + name + ".rec"), [&](int group) {
      if (GetParam() == Write::kBefore) return write(group);
      write_last();
      last = group;
    });
    write_last();
    return test::texts_of(lines_);
  }

  void append(const Records& records) { test::write_wtmp(wtmp_.path(), records, std::ios::app); }

  // Writes what was in the recording's log behind `skipped` records, one record per group.
  Texts play_as_recorded(const std::string& name, std::size_t skipped = 0) {
    const Records records = read_wtmp(name);
    return play(
        name, [&](int group) { append({records.at(static_cast<std::size_t>(group) + skipped)}); });
  }

  test::ScratchFile wtmp_;
  std::vector<test::EventLine> lines_;
};

// The second login is one that the program wrote about itself.
TEST_P(LoginEvents, TellOfLoginsAndLogouts) {
  start();
  std::vector<test::EventLine> logouts, bob;
  ASSERT_EQ(qel_login_reg_callback("", QEL_LOGIN_LOGOUT, test::note_login, &logouts), 0);
  ASSERT_GE(qel_login_reg_callback("bob", QEL_LOGIN_LOGIN, test::note_login, &bob), 0);
  const Texts told = {
      "login alice line=pts/0 pid=4100 from=192.0.2.10 user= process= time=1714557100",
      "login bob line=tty1 pid=419 from=0.0.0.0 user=root process=acts time=1714557110",
      "logout alice line=pts/0 pid=4100 from=192.0.2.10 user= process= time=1714557200"};
  EXPECT_EQ(play_as_recorded("wtmp-append"), told);
  for (const test::EventLine& line : lines_) EXPECT_EQ(line.details, "status=1");
  EXPECT_EQ(test::texts_of(logouts), Texts{told[2]});
  EXPECT_EQ(test::texts_of(bob), Texts{told[1]});
}

TEST_P(LoginEvents, TellOfARealLogin) {
  start({read_wtmp("login-real").at(0)});
  EXPECT_EQ(play_as_recorded("login-real", 1),
            (Texts{"login alice line=pts/0 pid=439 from=0.0.0.0 user=root "
                   "process=login time=1714557629",
                   "logout alice line=pts/0 pid=439 from=0.0.0.0 user=root "
                   "process=login time=1714557630"}));
}

// Cut to nothing, cut again, a login, a chmod.
TEST_P(LoginEvents, TellOnlyOfTheLoginBehindATruncation) {
  start(read_wtmp("wtmp-append"));
  const auto write = [this](int group) {
    if (group < 2) test::write_wtmp(wtmp_.path(), {});
    if (group == 2) append(read_wtmp("wtmp-truncate"));
  };
  EXPECT_EQ(play("wtmp-truncate", write),
            Texts{"login alice line=pts/1 pid=4200 from=0.0.0.0 user= process= time=1714558000"});
  EXPECT_EQ(test::logged(QEL_LOG_ERROR, "wtmp", "wtmp may be replaced: 2(2)\n"), 1U);
}

// All that came at once, cut to what an event holds, in the file's order.
TEST_P(LoginEvents, ComeInTheFilesOrderALoginBeforeItsLogout) {
  start();
  const std::string name(32, 'n'), line(32, 'l');
  const auto write = [&](int group) {
    if (group != 0) return;
    append({test::utmp_record(USER_PROCESS, 300, line, name, 100, "198.51.100.7"),
            test::utmp_record(USER_PROCESS, 200, "pts/1", "alice", 110),
            test::utmp_record(DEAD_PROCESS, 300, line, "", 120)});
  };
  const std::string cut = std::string(15, 'n') + " line=" + std::string(15, 'l') +
                          " pid=300 from=198.51.100.7 user= process= time=";
  EXPECT_EQ(play("wtmp-append", write),
            (Texts{"login " + cut + "100", "logout " + cut + "120",
                   "login alice line=pts/1 pid=200 from=0.0.0.0 user= process= time=110"}));
}

INSTANTIATE_TEST_SUITE_P(WrittenBefore, LoginEvents, testing::Values(Write::kBefore));
INSTANTIATE_TEST_SUITE_P(WrittenAfter, LoginEvents, testing::Values(Write::kAfter));

}  // namespace
