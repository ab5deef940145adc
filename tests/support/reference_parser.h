// A second reading of audit records, slow and plain: on a terminated copy of each text, with libc's
// own searches and conversions. Differential tests feed it what the library gets and compare
// results, log lines and the contexts that come out.
#pragma once

#include <audit_msg.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "captured_log.h"

namespace test {

// An audit_ctx whose pointers are null; the texts stand beside it.
struct Context : audit_ctx {
  std::optional<std::string> path_text;
  std::optional<std::string> key_text;
  std::optional<std::string> comm_text;
  std::vector<std::optional<std::string>> arguments;
};

Context snapshot(const audit_ctx& ctx);

// All fields: contexts are the same when this is.
std::string describe(const Context& context);

// Each line with its level and source.
std::string describe(const std::vector<LogLine>& lines);

// Has the library handle a reply whose payload stands in a block of its own size, so that the
// address sanitizer sees every access beyond it.
int feed_library(int type, std::string_view payload);

class ReferenceIntake {
 public:
  // Takes a record's text. Returns what handle_audit_msg does.
  int handle(int type, std::string_view record, std::int64_t now_s);

  // Drops every expired context.
  void scan(std::int64_t now_s);

  // What handle_audit_event and error_output would have got; the caller empties them.
  std::vector<Context> finished;
  std::vector<LogLine> log;

 private:
  int report(int level, const std::string& message);  // returns -1
  Context* find_context(const char* text);
  int open_context(const char* text, std::int64_t now_s);
  int add_path(Context& ctx, const char* text);
  int add_address(Context& ctx, const char* text);
  int add_arguments(Context& ctx, const char* text);

  std::map<std::uint32_t, Context> contexts_;
};

}  // namespace test
