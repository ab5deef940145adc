// What a test of the running library needs around it: an audit kernel, a clock and databases in
// memory, callbacks that keep copies of the events they receive, and records to feed.
#pragma once

#include <gtest/gtest.h>
#include <libaudit.h>
#include <qel_audit.h>
#include <qel_base.h>

#include <ctime>
#include <string>
#include <vector>

#include "captured_log.h"
#include "clock.h"
#include "databases.h"
#include "offline_kernel.h"

namespace test {

struct Execution {
  qel_execve_info info;  // with a null argv
  bool has_args;         // whether there was an argv
  std::vector<std::string> args;
};

// Register `keep` with the address of one of these as its argument.
struct Received {
  std::vector<qel_login_info> logins;
  std::vector<qel_user_info> users;
  std::vector<qel_syscall_info> syscalls;
  std::vector<Execution> executions;
  std::vector<qel_bind_info> binds;

  std::size_t count() const {
    return logins.size() + users.size() + syscalls.size() + executions.size() + binds.size();
  }

  void add(const qel_login_info& event) { logins.push_back(event); }
  void add(const qel_user_info& event) { users.push_back(event); }
  void add(const qel_syscall_info& event) { syscalls.push_back(event); }
  void add(const qel_bind_info& event) { binds.push_back(event); }
  void add(const qel_execve_info& event) {
    Execution copy = {event, event.argv != nullptr, {}};
    copy.info.argv = nullptr;
    for (int i = 0; i < event.argc; ++i) copy.args.emplace_back(event.argv[i]);
    executions.push_back(std::move(copy));
  }
};

template <typename Info>
int keep(const Info* event, void* received) {
  static_cast<Received*>(received)->add(*event);
  return 0;
}

inline std::string errors() {
  return log_text(QEL_LOG_ERROR);
}

// Calls something that stops the library or its parts; returns what it printed.
template <typename Function>
std::string printed_by(Function function) {
  testing::internal::CaptureStdout();
  function();
  return testing::internal::GetCapturedStdout();
}

// The records of one execution of `cat`.
inline void feed_execution() {
  const std::string header = "audit(1700000000.000:7): ";
  offline::feed(
      AUDIT_SYSCALL,
      header +
          "arch=c000003e syscall=59 success=yes exit=0 a0=1 a1=2 a2=3 a3=4 items=2 "
          "ppid=10 pid=11 auid=0 uid=0 gid=0 comm=\"cat\" exe=\"/bin/cat\" key=\"execve_rule\"");
  offline::feed(AUDIT_EXECVE, header + "argc=1 a0=\"cat\"");
  offline::feed(AUDIT_EOE, header);
}

constexpr std::time_t kStart_s = 1'700'000'000;

// The watched files are empty, and every request returns its true outcome.
class OfflineTest : public testing::Test {
 protected:
  OfflineTest() {
    reset_kernel();
    offline::set_clock(kStart_s);
    reset_databases();
    for (const char* path : {"/etc/passwd", "/etc/shadow", "/var/log/wtmp"}) {
      redirect(path, "/dev/null");
    }
  }
  ~OfflineTest() override {
    printed_by(qel_audit_fini);
    offline::switch_off();
    offline::release_clock();
    reset_databases();
  }

  // Also clears the log.
  static void reset_kernel() {
    offline::switch_on();
    offline::set_config_records(false);
    offline::set_path_check([](const std::string&) { return true; });
    clear_log();
  }
};

}  // namespace test
