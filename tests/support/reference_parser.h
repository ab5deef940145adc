// A second reading of audit records, slow and plain: on a terminated copy of each text, with libc's
// own searches and conversions. A differential test gives it what the library gets.
#pragma once

#include <audit_msg.h>
#include <qel_base.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "guarded_text.h"

namespace test {

using Text = std::optional<std::string>;

// All that a context holds: two are the same when this is.
inline std::string describe(const audit_ctx& ctx) {
  std::ostringstream out;
  const auto put = [&out](auto... numbers) { ((out << +numbers << ' '), ...); };
  const auto show = [&out](const char* text) { out << (text ? text : "(none)") << "' "; };
  put(ctx.deadline, ctx.msgtype, ctx.ruletype, ctx.serial, ctx.arch, ctx.syscall, ctx.success,
      ctx.exit, ctx.args[0], ctx.args[1], ctx.args[2], ctx.args[3], ctx.ppid, ctx.pid, ctx.uid,
      ctx.gid, ctx.argc, ctx.arg_index, ctx.arg_left, ctx.arg_offset, ctx.arg_parts);
  for (const char* text : {ctx.path, ctx.key, ctx.comm}) show(text);
  for (int i = 0; ctx.argv != nullptr && i < ctx.argc; ++i) show(ctx.argv[i]);
  for (const std::uint8_t byte : ctx.sockaddr) put(byte);
  return out.str() + "\n";
}

// Has the library handle a record whose text ends where readable memory ends.
inline int feed_library(int type, std::string_view text) {
  audit_reply reply = {};
  reply.type = type;
  reply.len = static_cast<int>(text.size());
  reply.message = const_cast<char*>(guarded(text).data());
  return handle_audit_msg(&reply);
}

// Returns the number of bytes.
inline std::size_t decode_hex(const std::string& digits, std::uint8_t* bytes, std::size_t room) {
  std::size_t count = digits.find_first_not_of("0123456789ABCDEFabcdef");
  count = std::min(std::min(count, digits.size()) / 2, room);
  for (std::size_t i = 0; i < count; ++i)
    bytes[i] = static_cast<std::uint8_t>(std::stoi(digits.substr(2 * i, 2), nullptr, 16));
  return count;
}

inline std::string decode(const std::string& value) {
  if (value.starts_with('"') || value.starts_with('('))
    return value.substr(1, value.find(value[0] == '"' ? '"' : ')', 1) - 1);
  std::vector<std::uint8_t> bytes(value.size() / 2 + 1);
  decode_hex(value, bytes.data(), value.size() / 2);
  return reinterpret_cast<const char*>(bytes.data());
}

// Steps through the fields of a record, each of which is looked for behind the one before.
struct ReferenceFields {
  const char* at;

  Text value(const char* field, std::size_t name_length) {
    if (field == nullptr) return std::nullopt;
    const char* from = field + name_length;
    at = from + std::strcspn(from, " ");
    return std::string(from, at);
  }

  Text next(const std::string& name) { return value(std::strstr(at, name.c_str()), name.size()); }

  // The first "key=" that does not lie in the value of "exe=".
  Text next_key() {
    const char* key = std::strstr(at, "key=");
    const char* exe = std::strstr(at, "exe=");
    if (key == nullptr || exe == nullptr || key < exe) return value(key, std::strlen("key="));
    value(exe, std::strlen("exe="));
    return next_key();
  }

  template <typename Number>
  bool number(const std::string& name, int base, Number& result) {
    const Text text = next(name);
    if (text) result = static_cast<Number>(std::strtoull(text->c_str(), nullptr, base));
    return text.has_value();
  }

  void skip_word() {
    at += std::strcspn(at, " ");
    if (*at != '\0') ++at;
  }
};

class ReferenceIntake {
 public:
  // Takes a record's text. Returns what handle_audit_msg does.
  int handle(int type, std::string_view record, std::int64_t now_s) {
    if (type == AUDIT_LOGIN) return fail("parse_login failed");
    const std::string copy(record);
    const char* text = copy.c_str();
    if (type == AUDIT_SYSCALL) return open_context(text, now_s);
    if (type != AUDIT_PATH && type != AUDIT_SOCKADDR && type != AUDIT_EXECVE && type != AUDIT_EOE)
      return -1;
    Context* ctx = find_context(text);
    if (ctx == nullptr) return -1;
    if (type == AUDIT_PATH) return add_path(*ctx, text);
    if (type == AUDIT_SOCKADDR) return add_address(*ctx, text);
    if (type == AUDIT_EXECVE) return add_arguments(*ctx, text);
    heard += describe_texts(*ctx);
    contexts_.erase(ctx->serial);
    return 0;
  }

  // Drops every expired context.
  void scan(std::int64_t now_s) {
    const auto is_due = [now_s](const auto& entry) { return entry.second.deadline < now_s; };
    for (auto left = std::erase_if(contexts_, is_due); left > 0; --left)
      report(QEL_LOG_DEBUG, "audit ctx timeout: " + std::to_string(contexts_.size() + left - 1));
  }

  // The log lines, as "LEVEL audit_msg: MESSAGE", and descriptions of the contexts that ended. The
  // caller empties it.
  std::string heard;

 private:
  // The inherited pointers are null, the texts stand beside them.
  struct Context : audit_ctx {
    Text path_text, key_text, comm_text;
    std::vector<Text> arguments;
  };

  static std::string describe_texts(Context ctx) {
    const auto pointer = [](Text& text) { return text ? text->data() : nullptr; };
    ctx.path = pointer(ctx.path_text);
    ctx.key = pointer(ctx.key_text);
    ctx.comm = pointer(ctx.comm_text);
    std::vector<char*> slots;
    for (Text& argument : ctx.arguments) slots.push_back(pointer(argument));
    ctx.argv = slots.data();
    return describe(ctx);
  }

  int report(int level, const std::string& message) {
    heard += std::to_string(level) + " audit_msg: " + message + "\n";
    return -1;
  }
  int fail(const std::string& what) { return report(QEL_LOG_ERROR, what); }

  static bool parse_serial(const char* text, std::uint32_t& serial) {
    const char* stamp = std::strstr(text, "audit(");
    if (stamp == nullptr) return false;
    const std::string cut(stamp, std::strcspn(stamp, ")"));
    return std::sscanf(cut.c_str(), "audit(%*u.%*u:%u", &serial) == 1;
  }

  Context* find_context(const char* text) {
    std::uint32_t serial = 0;
    if (!parse_serial(text, serial)) return fail("parse_serial failed"), nullptr;
    const auto found = contexts_.find(serial);
    if (found != contexts_.end()) return &found->second;
    return report(QEL_LOG_DEBUG, "search audit context failed"), nullptr;
  }

  static bool parse_syscall(const char* text, Context& record) {
    ReferenceFields fields{text};
    const auto number = [&fields](const std::string& name, int base, auto& result) {
      return fields.number(name, base, result);
    };
    if (!number("arch=", 16, record.arch) || !number("syscall=", 10, record.syscall)) return false;
    record.success = fields.next("success=").value_or("yes") == "yes" ? 1 : 0;
    number("exit=", 0, record.exit);
    for (const int i : {0, 1, 2, 3})
      if (!number("a" + std::to_string(i) + "=", 16, record.args[i])) return false;
    if (!number(" ppid=", 10, record.ppid) || !number(" pid=", 10, record.pid) ||
        !number(" uid=", 10, record.uid) || !number(" gid=", 10, record.gid))
      return false;
    record.comm_text = fields.next("comm=");
    record.key_text = record.comm_text ? fields.next_key() : std::nullopt;
    return record.key_text.has_value();
  }

  int open_context(const char* text, std::int64_t now_s) {
    const std::vector<std::string> types = {"passwd_rule",    "shadow_rule",   "wtmp_rule",
                                            "lastlogin_rule", "execve_rule",   "bind_rule",
                                            "syscall_rule",   "fakelogin_rule"};
    Context record = {};
    record.msgtype = AUDIT_SYSCALL;
    record.deadline = now_s + 10;
    if (!parse_serial(text, record.serial)) return -1;
    if (!parse_syscall(text, record)) return fail("parse_syscall failed");
    record.comm_text = decode(*record.comm_text);
    record.key_text = decode(*record.key_text);
    const auto type = std::find(types.begin(), types.end(), record.key_text);
    if (type == types.end()) return fail("get_audit_type failed: " + *record.key_text);
    record.ruletype = static_cast<std::int32_t>(type - types.begin());
    contexts_[record.serial] = record;
    return 0;
  }

  int add_path(Context& ctx, const char* text) {
    constexpr int kExecveRuleType = 4;
    if (ctx.ruletype != kExecveRuleType || ctx.argc != 0 || ctx.path_text) return -1;
    const Text name = ReferenceFields{text}.next("name=");
    if (!name) return fail("parse_path failed");
    ctx.path_text = decode(*name);
    return 0;
  }

  int add_address(Context& ctx, const char* text) {
    const Text address = ReferenceFields{text}.next("saddr=");
    if (!address) return fail("parse_sockaddr failed");
    const std::size_t length = decode_hex(*address, ctx.sockaddr, sizeof(ctx.sockaddr));
    const std::map<unsigned, std::size_t> lengths = {{1, 110}, {2, 16},  {5, 16}, {9, 18},
                                                     {10, 28}, {16, 12}, {17, 20}};
    const auto known = lengths.find(ctx.sockaddr[0] + 256U * ctx.sockaddr[1]);
    if (known != lengths.end() ? length == known->second : length > 3) return 0;
    fail("check_sockaddr failed");
    std::memset(ctx.sockaddr, 0, sizeof(ctx.sockaddr));
    return fail("parse_sockaddr failed");
  }

  int add_arguments(Context& ctx, const char* text) {
    ReferenceFields fields{text};
    if (ctx.argc == 0) {
      if (!fields.number("argc=", 10, ctx.argc) || ctx.argc <= 0)
        return fail("parse_execve failed");
      ctx.argc = std::min(ctx.argc, 40000);
      ctx.arguments.resize(static_cast<std::size_t>(ctx.argc));
    }
    while (ctx.arg_index < ctx.argc && *fields.at != '\0') {
      Text& slot = ctx.arguments[static_cast<std::size_t>(ctx.arg_index)];
      const std::string name = "a" + std::to_string(ctx.arg_index);
      char mark[2];
      if (std::sscanf(fields.at, "a%*d%1[_=[]", mark) != 1) {
        fields.skip_word();
      } else if (mark[0] == '[') {
        Text piece;
        if (ctx.arg_left > 0)
          piece = fields.next(name + "[" + std::to_string(ctx.arg_parts) + "]=");
        piece ? add_piece(ctx, *piece) : fields.skip_word();
      } else if (ctx.arg_left > 0) {  // another argument: the split one stays as it was written
        slot = slot.value_or("");
        ctx.arg_left = 0;
        ++ctx.arg_index;
      } else if (mark[0] == '=') {
        slot = decode(fields.next(name + "=").value_or(""));
        ++ctx.arg_index;
      } else if (fields.number(name + "_len=", 10, ctx.arg_left)) {
        ctx.arg_parts = ctx.arg_offset = 0;
        if (ctx.arg_left <= 0) return fail("parse_execve failed");
        ctx.arg_left = std::min(ctx.arg_left, 32768);
      } else {
        slot = "";
        ++ctx.arg_index;
      }
    }
    return 0;
  }

  // The slot keeps what is written of a split argument, with the opening quote.
  static void add_piece(Context& ctx, std::string piece) {
    Text& slot = ctx.arguments[static_cast<std::size_t>(ctx.arg_index)];
    const bool first = ctx.arg_parts++ == 0;
    const bool quoted = piece.starts_with('"');
    if (first) slot = "";
    if (quoted && !first) piece.erase(0, 1);
    const int quotes = quoted ? 1 + first : 0;
    const int length = std::min(static_cast<int>(piece.size()), ctx.arg_left + quotes);
    slot->resize(static_cast<std::size_t>(ctx.arg_offset));
    slot->append(piece, 0, static_cast<std::size_t>(length));
    if (quoted && length == 0) return;
    ctx.arg_left -= length - quotes;
    ctx.arg_offset += length - quoted;
    if (ctx.arg_left > 0) return;
    slot = decode(slot->substr(0, static_cast<std::size_t>(ctx.arg_offset)));
    ++ctx.arg_index;
  }

  std::map<std::uint32_t, Context> contexts_;
};

}  // namespace test
