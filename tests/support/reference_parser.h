// A second reading of audit records, slow and plain: on a terminated copy of each text, with libc's
// own searches and conversions. A differential test gives it what the library gets.
#pragma once

#include <audit_msg.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace test {

// All that a context holds: two are the same when this is.
std::string describe(const audit_ctx& ctx);

// Has the library handle a record whose text ends where readable memory ends.
int feed_library(int type, std::string_view text);

class ReferenceIntake {
 public:
  // Takes a record's text. Returns what handle_audit_msg does.
  int handle(int type, std::string_view record, std::int64_t now_s);

  // Drops every expired context.
  void scan(std::int64_t now_s);

  // The log lines, as "LEVEL audit_msg: MESSAGE", and descriptions of the contexts that ended. The
  // caller empties it.
  std::string heard;

 private:
  // The inherited pointers are null, the texts stand beside them.
  struct Context : audit_ctx {
    std::optional<std::string> path_text, key_text, comm_text;
    std::vector<std::optional<std::string>> arguments;
  };
  struct Fields;

  static bool read_syscall(const char* text, Context& record);
  static void add_piece(Context& ctx, std::string piece);
  static std::string describe_texts(Context ctx);

  int report(int level, const std::string& message);  // returns -1
  int fail(const std::string& what);                  // the same, as an error
  Context* find_context(const char* text);
  int open_context(const char* text, std::int64_t now_s);
  int add_path(Context& ctx, const char* text);
  int add_address(Context& ctx, const char* text);
  int add_arguments(Context& ctx, const char* text);

  std::map<std::uint32_t, Context> contexts_;
};

}  // namespace test
