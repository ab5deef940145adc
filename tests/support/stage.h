// The stage for tests of the running library: an audit kernel in memory, a clock that is set,
// databases of the test's own, and the library's poller in the test's hands. All that comes out
// stands in one text, in order: events, log lines and lines printed on standard output.
//
//   TEST_F(Stage, AnExecutionReachesThoseForItsName) {
//     on_execve("A", "cat");
//     feed_group({.comm = "cat"}, {execve_record({"cat", "x y"})});
//     poll_all();
//     EXPECT_EQ(heard(), "A: execve result=0 user=root process=cat pid=11 ppid=10 argc=2 "
//                        "cat x\\x20y\n");
//   }
//
// Events are written as in the lists of recordings/README.md, log lines as "LEVEL SOURCE: TEXT".
// What a test has not asked for by its end fails it; only the rules that the last stop deletes do
// not count.
#pragma once

#include <gtest/gtest.h>
#include <libaudit.h>
#include <qel_audit.h>
#include <qel_base.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "clock.h"
#include "databases.h"
#include "made_records.h"
#include "offline_kernel.h"

namespace test {

using namespace offline;
using namespace std::chrono_literals;

using Record = offline::MadeRecord;

// Printable ASCII as it is; spaces, backslashes, opening braces and all other bytes as \xHH; 16 or
// more of the same as {x*N}; "" for nothing.
std::string quoted(std::string_view bytes);

// ---- The stage ---------------------------------------------------------------------------------

// At first root is the only account, the watched files are there, and every request to the kernel
// returns its true outcome.
class Stage : public testing::Test {
 protected:
  using Action = std::function<void()>;

  static constexpr int kEveryChange =
      QEL_USER_ADDED | QEL_USER_DELETED | QEL_USER_PASSWORD | QEL_USER_GROUP;
  static constexpr int kInAndOut = QEL_LOGIN_LOGIN | QEL_LOGIN_LOGOUT;

  Stage();
  ~Stage() override;
  void TearDown() override;

  // A new kernel in place of the one before, for tests that go through several.
  static void reset_kernel();

  // ---- Registrations. Each event is told as "NAME: EVENT", or as "EVENT" for an empty name, and
  // then the action runs. The same name stands for the same callback and argument. They return the
  // library's result.
  int on_login(const std::string& name, const char* user = "", int mask = kInAndOut,
               const Action& then = {});
  int on_user(const std::string& name, const char* account = "", int mask = kEveryChange,
              const Action& then = {});
  int on_syscall(const std::string& name, const char* call = "all", int success = QEL_SYSCALL_ANY,
                 const Action& then = {});
  int on_execve(const std::string& name, const char* command = "", const Action& then = {});
  int on_bind(const std::string& name, int port = 0, const Action& then = {});

  // ---- Start and stop. start() reads what waits as well.
  static int start();
  static void stop();
  // Runs the call and hears what it prints, as all verbs here do.
  static int listen(const std::function<int()>& call);
  // Has the main loop refuse the library's poller.
  static void refuse_poller(bool refused);
  // The keys of the loaded rules, in the kernel's order, with a space between two.
  static std::string rules();

  // ---- Records. They wait until they are polled.
  static void feed(const Record& record);
  // With its header in the text.
  static void feed(int type, const std::string& text) { offline::feed(type, text); }
  static void end(unsigned serial = 7) { feed({AUDIT_EOE, "", serial}); }
  // A SYSCALL record, others of the same serial and the end.
  static void feed_group(const Syscall& fields, const std::vector<Record>& others = {});
  // What is heard when such a group is polled.
  static std::string heard_of(const Syscall& fields, const std::vector<Record>& others = {});

  // ---- Time.
  static int poll_once();  // returns the poller's result
  static void poll_all();
  static void pass(std::chrono::nanoseconds time);  // moves the clock and polls

  // ---- Databases. Each change changes the files behind them, too; `databases` itself does not.
  // Adds an account.
  void account(const std::string& name, uid_t uid, gid_t gid);
  void append_wtmp(const std::vector<struct utmp>& records);
  // The file of the stage's own in the place of "/etc/passwd", "/etc/shadow" or "/var/log/wtmp".
  std::filesystem::path file(const std::string& path) const;
  void touch(const std::string& path) const;  // appends a byte to it

  // ---- What came since the last call. Log lines up to the level count, errors at first.
  static std::string heard();
  static void set_level(int level);

 private:
  struct Client {
    std::string name;
    Action then;
  };
  Client* client(const std::string& name, const Action& then);
  template <typename Info>
  static int tell(const Info* event, void* client);

  std::map<std::string, Client> clients_;
  std::filesystem::path directory_;
};

}  // namespace test
