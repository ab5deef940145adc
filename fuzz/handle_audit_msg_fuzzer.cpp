// Fuzz target: series of audit replies through the whole library, from record intake to client
// callbacks of every class, on the offline kernel and made-up databases.
//
// An input is a recording: a record a line, its netlink type, a tab and its text. A mark in front of
// the type has the reply lie. libFuzzer adds what it finds to the first directory it is given, so
// name the seeds behind it: handle_audit_msg_fuzzer CORPUS fuzz/seeds recordings
#include <audit_msg.h>
#include <libaudit.h>
#include <qel_audit.h>
#include <qel_base.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "databases.h"
#include "fuzz_target.h"
#include "offline_kernel.h"

namespace {

enum Lie : char { kNoPayload = '!', kNegativeLength = '-', kLengthBeyondStorage = '+' };

std::size_t events;
volatile std::size_t touched;  // keeps what is read from being optimised away

// A callback reads all texts that its event points to. Returns 0, as callbacks do.
int touch(const auto&... texts) {
  ++events;
  touched = (touched + ... + std::strlen(texts));
  return 0;
}

int on_login(const qel_login_info* event, void*) {
  return touch(event->user, event->process, event->username, event->logintype);
}

int on_user(const qel_user_info* event, void*) {
  return touch(event->username, event->groupname);
}

int on_syscall(const qel_syscall_info* event, void*) {
  return touch(event->user, event->process, event->syscall);
}

int on_execve(const qel_execve_info* event, void*) {
  for (int i = 0; i < event->argc; ++i) touched = touched + std::strlen(event->argv[i]);
  return touch(event->user, event->process);
}

int on_bind(const qel_bind_info* event, void*) {
  touched = touched + event->addr.ss_family;
  return touch(event->user, event->process);
}

bool start_library() {
  offline::switch_on();
  offline::databases = {.passwd = {{"root", 0, 0}, {"alice", 1000, 1000}},
                        .shadow = {{"root", "*"}, {"alice", "!"}},
                        .group = {{"root", 0}, {"alice", 1000}}};
  offline::redirect("/var/log/wtmp", QEL_RECORDINGS_DIR "/login-real.wtmp");
  if (qel_login_reg_callback(nullptr, QEL_LOGIN_LOGIN | QEL_LOGIN_LOGOUT, on_login, nullptr) < 0 ||
      qel_user_reg_callback(nullptr, QEL_USER_ADDED | QEL_USER_PASSWORD, on_user, nullptr) < 0 ||
      qel_syscall_reg_callback("all", QEL_SYSCALL_ANY, on_syscall, nullptr) < 0 ||
      qel_execve_reg_callback(nullptr, on_execve, nullptr) < 0 ||
      qel_bind_reg_callback(0, on_bind, nullptr) < 0)
    throw std::runtime_error("a registration failed");
  return true;
}

// The payload stands in a block of its own size, so that the address sanitizer sees every access
// beyond the storage. A status reply is never shorter than its structure.
void send(int type, char lie, std::string_view payload) {
  std::vector<char> block(payload.begin(), payload.end());
  if (type == AUDIT_GET) block.resize(std::max(block.size(), sizeof(audit_status)));
  audit_reply reply = {};
  reply.type = type;
  reply.len = static_cast<int>(payload.size());
  if (lie == kNegativeLength) reply.len = -1 - reply.len;
  if (lie == kLengthBeyondStorage) reply.len += MAX_AUDIT_MESSAGE_LENGTH + 1;
  char nothing = '\0';
  reply.message = block.empty() ? &nothing : block.data();
  if (lie == kNoPayload) reply.message = nullptr;
  handle_audit_msg(&reply);
}

}  // namespace

// Every line is formatted, and none is written.
extern "C" void error_output(int, const char*, int, const char* format, ...) {
  char message[MAX_AUDIT_MESSAGE_LENGTH];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(message, sizeof(message), format, arguments);
  va_end(arguments);
}

std::size_t events_seen() {
  return events;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool started = start_library();
  std::istringstream lines(std::string(reinterpret_cast<const char*>(data), size));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t tab = line.find('\t');
    if (tab == line.npos) continue;
    const std::size_t digit = line.find_first_of("0123456789");
    send(std::atoi(line.c_str() + std::min(digit, tab)), line.front(),
         line.substr(tab + 1, MAX_AUDIT_MESSAGE_LENGTH));
  }
  // Nothing is left for the next input.
  audit_msg_fini();
  audit_msg_init();
  return 0;
}
