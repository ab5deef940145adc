// A second reading of audit records, slow and plain: on a terminated copy of each text, with libc's
// own searches and conversions. Differential tests feed it what the library gets and compare
// results, log lines and the contexts that come out.
#pragma once

#include <audit_msg.h>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "captured_log.h"

namespace test {

// What an audit_ctx holds, comparable. Texts end where C sees their end.
struct Context {
  std::int64_t deadline = 0;
  std::uint32_t msgtype = 0;
  std::int32_t ruletype = 0;
  std::uint32_t serial = 0;
  std::uint32_t arch = 0;
  std::uint32_t syscall = 0;
  std::int32_t success = 0;
  std::int32_t exit = 0;
  std::array<std::uint64_t, 4> args = {};
  std::uint32_t ppid = 0;
  std::uint32_t pid = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::array<std::uint8_t, 128> sockaddr = {};
  std::optional<std::string> path;
  std::optional<std::string> key;
  std::optional<std::string> comm;
  std::int32_t arg_index = 0;
  std::int32_t arg_left = 0;
  std::int32_t arg_offset = 0;
  std::int32_t arg_parts = 0;
  std::int32_t argc = 0;
  std::vector<std::optional<std::string>> argv;

  bool operator==(const Context&) const = default;
};

Context snapshot(const audit_ctx& ctx);

// All fields, for messages.
std::string describe(const Context& context);

class ReferenceIntake {
 public:
  // Takes a record's text, or the payload of a status reply. Returns what handle_audit_msg does.
  int handle(int type, std::string_view payload, std::int64_t now_s);

  // Drops every expired context.
  void scan(std::int64_t now_s);

  // What handle_audit_event and error_output would have got; the caller empties them.
  std::vector<Context> finished;
  std::vector<LogLine> log;

 private:
  int report(int level, const std::string& message);  // returns -1
  int report_status(std::string_view payload);
  Context* find_context(const char* text);
  int open_context(const char* text, std::int64_t now_s);
  int parse_path(const char* text);
  int parse_sockaddr(const char* text);
  int parse_execve(const char* text);
  int end_context(const char* text);

  std::map<std::uint32_t, Context> contexts_;
};

}  // namespace test
