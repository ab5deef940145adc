#include "reference_parser.h"

#include <qel_base.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sstream>

#include "guarded_text.h"

namespace test {
namespace {

constexpr const char* kRuleNames[] = {"passwd_rule",    "shadow_rule",   "wtmp_rule",
                                      "lastlogin_rule", "execve_rule",   "bind_rule",
                                      "syscall_rule",   "fakelogin_rule"};
constexpr int kExecveRuleType = 4;

std::size_t decode_hex(const char* source, std::uint8_t* destination, std::size_t room) {
  const std::size_t digits = std::min(std::strspn(source, "0123456789ABCDEFabcdef"), 2 * room);
  for (std::size_t i = 0; i < digits / 2; ++i) {
    const char pair[] = {source[2 * i], source[2 * i + 1], '\0'};
    destination[i] = static_cast<std::uint8_t>(std::strtoul(pair, nullptr, 16));
  }
  return digits / 2;
}

std::string decode(const std::string& value) {
  if (value.starts_with('"') || value.starts_with('('))
    return value.substr(1, value.find(value[0] == '"' ? '"' : ')', 1) - 1);
  std::vector<std::uint8_t> bytes(value.size() / 2 + 1);
  decode_hex(value.c_str(), bytes.data(), value.size() / 2);
  return reinterpret_cast<const char*>(bytes.data());
}

bool read_serial(const char* text, std::uint32_t& serial) {
  const char* stamp = std::strstr(text, "audit(");
  if (stamp == nullptr) return false;
  stamp += std::strlen("audit(");
  const std::string cut(stamp, std::strcspn(stamp, ")"));
  return std::sscanf(cut.c_str(), "%*u.%*u:%u", &serial) == 1;
}

}  // namespace

std::string describe(const audit_ctx& ctx) {
  std::ostringstream out;
  const auto put = [&out](auto... numbers) { ((out << +numbers << ' '), ...); };
  const auto show = [&out](const char* text) {
    out << (text != nullptr ? text : "(none)") << "' ";
  };
  put(ctx.deadline, ctx.msgtype, ctx.ruletype, ctx.serial, ctx.arch, ctx.syscall, ctx.success);
  put(ctx.exit, ctx.args[0], ctx.args[1], ctx.args[2], ctx.args[3]);
  put(ctx.ppid, ctx.pid, ctx.uid, ctx.gid);
  for (const char* text : {ctx.path, ctx.key, ctx.comm}) show(text);
  put(ctx.argc, ctx.arg_index, ctx.arg_left, ctx.arg_offset, ctx.arg_parts);
  for (int i = 0; ctx.argv != nullptr && i < ctx.argc; ++i) show(ctx.argv[i]);
  for (const std::uint8_t byte : ctx.sockaddr) put(byte);
  return out.str() + "\n";
}

int feed_library(int type, std::string_view text) {
  audit_reply reply = {};
  reply.type = type;
  reply.len = static_cast<int>(text.size());
  reply.message = const_cast<char*>(guarded(text).data());
  return handle_audit_msg(&reply);
}

// Steps through the fields of a record, each of which is looked for behind the one before.
struct ReferenceIntake::Fields {
  const char* at;

  std::optional<std::string> next(const std::string& name) {
    return value(std::strstr(at, name.c_str()), name.size());
  }

  // The first "key=" that does not lie in the value of "exe=".
  std::optional<std::string> next_key() {
    const char* key = std::strstr(at, "key=");
    const char* exe = std::strstr(at, "exe=");
    if (key == nullptr || exe == nullptr || key < exe) return value(key, std::strlen("key="));
    value(exe, std::strlen("exe="));
    return next_key();
  }

  std::optional<std::string> value(const char* field, std::size_t name_length) {
    if (field == nullptr) return std::nullopt;
    const char* from = field + name_length;
    at = from + std::strcspn(from, " ");
    return std::string(from, at);
  }

  template <typename Number>
  bool number(const std::string& name, int base, Number& result) {
    const auto text = next(name);
    if (text) result = static_cast<Number>(std::strtoull(text->c_str(), nullptr, base));
    return text.has_value();
  }

  void skip_word() {
    at += std::strcspn(at, " ");
    if (*at != '\0') ++at;
  }
};

bool ReferenceIntake::read_syscall(const char* text, Context& record) {
  Fields fields{text};
  if (!fields.number("arch=", 16, record.arch)) return false;
  if (!fields.number("syscall=", 10, record.syscall)) return false;
  record.success = fields.next("success=").value_or("yes") == "yes" ? 1 : 0;
  fields.number("exit=", 0, record.exit);
  for (const int i : {0, 1, 2, 3})
    if (!fields.number("a" + std::to_string(i) + "=", 16, record.args[i])) return false;
  if (!fields.number(" ppid=", 10, record.ppid) || !fields.number(" pid=", 10, record.pid) ||
      !fields.number(" uid=", 10, record.uid) || !fields.number(" gid=", 10, record.gid))
    return false;
  const auto comm = fields.next("comm=");
  const auto key = comm ? fields.next_key() : std::nullopt;
  if (!key) return false;
  record.comm_text = decode(*comm);
  record.key_text = decode(*key);
  return true;
}

// The slot keeps what is written of a split argument, with the opening quote.
void ReferenceIntake::add_piece(Context& ctx, std::string piece) {
  std::optional<std::string>& slot = ctx.arguments[static_cast<std::size_t>(ctx.arg_index)];
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

std::string ReferenceIntake::describe_texts(Context ctx) {
  const auto pointer = [](auto& text) { return text ? text->data() : nullptr; };
  ctx.path = pointer(ctx.path_text);
  ctx.key = pointer(ctx.key_text);
  ctx.comm = pointer(ctx.comm_text);
  std::vector<char*> slots;
  for (auto& argument : ctx.arguments) slots.push_back(pointer(argument));
  ctx.argv = slots.data();
  return describe(ctx);
}

int ReferenceIntake::handle(int type, std::string_view record, std::int64_t now_s) {
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

void ReferenceIntake::scan(std::int64_t now_s) {
  const auto is_due = [now_s](const auto& entry) { return entry.second.deadline < now_s; };
  for (;;) {
    const auto due = std::find_if(contexts_.begin(), contexts_.end(), is_due);
    if (due == contexts_.end()) return;
    contexts_.erase(due);
    report(QEL_LOG_DEBUG, "audit ctx timeout: " + std::to_string(contexts_.size()));
  }
}

int ReferenceIntake::report(int level, const std::string& message) {
  heard += std::to_string(level) + " audit_msg: " + message + "\n";
  return -1;
}

int ReferenceIntake::fail(const std::string& what) {
  return report(QEL_LOG_ERROR, what);
}

ReferenceIntake::Context* ReferenceIntake::find_context(const char* text) {
  std::uint32_t serial = 0;
  if (!read_serial(text, serial)) {
    fail("parse_serial failed");
    return nullptr;
  }
  const auto found = contexts_.find(serial);
  if (found != contexts_.end()) return &found->second;
  report(QEL_LOG_DEBUG, "search audit context failed");
  return nullptr;
}

int ReferenceIntake::open_context(const char* text, std::int64_t now_s) {
  Context record = {};
  record.msgtype = AUDIT_SYSCALL;
  record.deadline = now_s + 10;
  if (!read_serial(text, record.serial)) return -1;
  if (!read_syscall(text, record)) return fail("parse_syscall failed");
  const auto* name = std::find(std::begin(kRuleNames), std::end(kRuleNames), *record.key_text);
  if (name == std::end(kRuleNames)) return fail("get_audit_type failed: " + *record.key_text);
  record.ruletype = static_cast<std::int32_t>(name - kRuleNames);
  contexts_[record.serial] = record;
  return 0;
}

int ReferenceIntake::add_path(Context& ctx, const char* text) {
  if (ctx.ruletype != kExecveRuleType || ctx.argc != 0 || ctx.path_text) return -1;
  const auto name = Fields{text}.next("name=");
  if (!name) return fail("parse_path failed");
  ctx.path_text = decode(*name);
  return 0;
}

int ReferenceIntake::add_address(Context& ctx, const char* text) {
  const auto address = Fields{text}.next("saddr=");
  if (!address) return fail("parse_sockaddr failed");
  const std::size_t length = decode_hex(address->c_str(), ctx.sockaddr, sizeof(ctx.sockaddr));
  std::uint16_t family = 0;
  std::memcpy(&family, ctx.sockaddr, sizeof(family));
  const std::map<unsigned, std::size_t> lengths = {{1, 110}, {2, 16},  {5, 16}, {9, 18},
                                                   {10, 28}, {16, 12}, {17, 20}};
  const auto known = lengths.find(family);
  if (known != lengths.end() ? length == known->second : length > 3) return 0;
  fail("check_sockaddr failed");
  std::memset(ctx.sockaddr, 0, sizeof(ctx.sockaddr));
  return fail("parse_sockaddr failed");
}

int ReferenceIntake::add_arguments(Context& ctx, const char* text) {
  Fields fields{text};
  if (ctx.argc == 0) {
    if (!fields.number("argc=", 10, ctx.argc) || ctx.argc <= 0) return fail("parse_execve failed");
    ctx.argc = std::min(ctx.argc, 40000);
    ctx.arguments.resize(static_cast<std::size_t>(ctx.argc));
  }
  while (ctx.arg_index < ctx.argc && *fields.at != '\0') {
    std::optional<std::string>& slot = ctx.arguments[static_cast<std::size_t>(ctx.arg_index)];
    const std::string name = "a" + std::to_string(ctx.arg_index);
    char mark[2];
    if (std::sscanf(fields.at, "a%*d%1[_=[]", mark) != 1) {
      fields.skip_word();
    } else if (mark[0] == '[') {
      std::optional<std::string> piece;
      if (ctx.arg_left > 0) piece = fields.next(name + "[" + std::to_string(ctx.arg_parts) + "]=");
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

}  // namespace test
