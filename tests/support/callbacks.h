// Client callbacks that keep copies of the events they receive.
#pragma once

#include <qel_audit.h>

#include <string>
#include <vector>

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
};

inline int keep(const qel_login_info* event, void* received) {
  static_cast<Received*>(received)->logins.push_back(*event);
  return 0;
}

inline int keep(const qel_user_info* event, void* received) {
  static_cast<Received*>(received)->users.push_back(*event);
  return 0;
}

inline int keep(const qel_syscall_info* event, void* received) {
  static_cast<Received*>(received)->syscalls.push_back(*event);
  return 0;
}

inline int keep(const qel_execve_info* event, void* received) {
  Execution copy = {.info = *event, .has_args = event->argv != nullptr, .args = {}};
  copy.info.argv = nullptr;
  for (int i = 0; i < event->argc; ++i) copy.args.emplace_back(event->argv[i]);
  static_cast<Received*>(received)->executions.push_back(std::move(copy));
  return 0;
}

inline int keep(const qel_bind_info* event, void* received) {
  static_cast<Received*>(received)->binds.push_back(*event);
  return 0;
}

}  // namespace test
