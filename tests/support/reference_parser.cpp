#include "reference_parser.h"

#include <qel_base.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace test {
namespace {

constexpr const char* kRuleNames[] = {"passwd_rule",    "shadow_rule",   "wtmp_rule",
                                      "lastlogin_rule", "execve_rule",   "bind_rule",
                                      "syscall_rule",   "fakelogin_rule"};
constexpr int kExecveRuleType = 4;

// The text of a value that begins at `from`; `behind` becomes the place of the space behind it, or
// of the terminator.
std::string value_at(const char* from, const char*& behind) {
  const char* space = std::strchr(from, ' ');
  behind = space != nullptr ? space : from + std::strlen(from);
  return {from, behind};
}

std::size_t decode_hex(const char* source, std::uint8_t* destination, std::size_t room) {
  const std::size_t digits = std::min(std::strspn(source, "0123456789ABCDEFabcdef"), 2 * room);
  for (std::size_t i = 0; i < digits / 2; ++i) {
    const char pair[] = {source[2 * i], source[2 * i + 1], '\0'};
    destination[i] = static_cast<std::uint8_t>(std::strtoul(pair, nullptr, 16));
  }
  return digits / 2;
}

std::string decode(const std::string& value) {
  const char opening = value.c_str()[0];
  if (opening == '"' || opening == '(') {
    const std::size_t closing = value.find(opening == '"' ? '"' : ')', 1);
    return value.substr(1, closing == value.npos ? value.npos : closing - 1);
  }
  std::vector<std::uint8_t> bytes(value.size() / 2 + 1);
  bytes[decode_hex(value.c_str(), bytes.data(), value.size() / 2)] = 0;
  return reinterpret_cast<const char*>(bytes.data());
}

bool parse_serial(const char* text, std::uint32_t& serial) {
  const char* stamp = std::strstr(text, "audit(");
  if (stamp == nullptr) return false;
  stamp += std::strlen("audit(");
  const std::string cut(stamp, std::strcspn(stamp, ")"));
  return std::sscanf(cut.c_str(), "%*u.%*u:%u", &serial) == 1;
}

// The first "key=" that does not lie in the value of "exe=".
const char* find_key(const char* from) {
  for (;;) {
    const char* key = std::strstr(from, "key=");
    const char* exe = std::strstr(from, "exe=");
    if (key == nullptr || exe == nullptr || key < exe) return key;
    value_at(exe + std::strlen("exe="), from);
  }
}

// Steps through the fields of a record in a fixed order.
struct Fields {
  const char* at;

  std::optional<std::string> next(const char* name) {
    const bool is_key = std::strcmp(name, "key=") == 0;
    const char* field = is_key ? find_key(at) : std::strstr(at, name);
    if (field == nullptr) return std::nullopt;
    return value_at(field + std::strlen(name), at);
  }

  bool number(const char* name, int base, std::uint64_t& result) {
    const auto value = next(name);
    if (value) result = std::strtoull(value->c_str(), nullptr, base);
    return value.has_value();
  }

  bool number(const char* name, int base, std::uint32_t& result) {
    std::uint64_t wide = result;
    const bool found = number(name, base, wide);
    result = static_cast<std::uint32_t>(wide);
    return found;
  }
};

bool parse_syscall(const char* text, Context& record) {
  Fields fields{text};
  if (!fields.number("arch=", 16, record.arch)) return false;
  if (!fields.number("syscall=", 10, record.syscall)) return false;
  const auto success = fields.next("success=");
  record.success = !success || *success == "yes" ? 1 : 0;
  std::uint64_t exit = 0;
  fields.number("exit=", 0, exit);
  record.exit = static_cast<std::int32_t>(exit);
  if (!fields.number("a0=", 16, record.args[0])) return false;
  if (!fields.number("a1=", 16, record.args[1])) return false;
  if (!fields.number("a2=", 16, record.args[2])) return false;
  if (!fields.number("a3=", 16, record.args[3])) return false;
  if (!fields.number(" ppid=", 10, record.ppid)) return false;
  if (!fields.number(" pid=", 10, record.pid)) return false;
  if (!fields.number(" uid=", 10, record.uid)) return false;
  if (!fields.number(" gid=", 10, record.gid)) return false;
  record.comm = fields.next("comm=");
  if (!record.comm) return false;
  record.key = fields.next("key=");
  if (!record.key) return false;
  record.comm = decode(*record.comm);
  record.key = decode(*record.key);
  return true;
}

std::string format_name(const char* format, int first, int second = 0) {
  char name[64];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::snprintf(name, sizeof(name), format, first, second);
#pragma GCC diagnostic pop
  return name;
}

const char* skip_word(const char* at) {
  const char* space = std::strchr(at, ' ');
  return space != nullptr ? space + 1 : at + std::strlen(at);
}

// A bounded copy: stores at most room - 1 characters and a terminator, returns the characters
// stored.
std::int32_t copy_bounded(std::string& buffer, std::int32_t offset, std::int32_t room,
                          const std::string& text) {
  if (offset < 0 || room < 1 || static_cast<std::size_t>(offset + room) > buffer.size())
    throw std::logic_error("a copy beyond the buffer");
  const int length =
      std::snprintf(buffer.data() + offset, static_cast<std::size_t>(room), "%s", text.c_str());
  return std::min(length, room - 1);
}

void fill_slot(Context& ctx, const std::string& text) {
  ctx.argv[static_cast<std::size_t>(ctx.arg_index++)] = text;
}

void add_first_piece(Context& ctx, std::string& buffer, const std::string& piece) {
  buffer.assign(static_cast<std::size_t>(ctx.arg_left) + 3, '\0');
  if (piece.starts_with('"')) {
    const std::int32_t n = copy_bounded(buffer, 0, ctx.arg_left + 3, piece);
    ctx.arg_left -= n - 2;
    ctx.arg_offset += n - 1;
  } else {
    const std::int32_t n = copy_bounded(buffer, 0, ctx.arg_left + 1, piece);
    ctx.arg_left -= n;
    ctx.arg_offset += n;
  }
}

void add_later_piece(Context& ctx, std::string& buffer, const std::string& piece) {
  if (piece.starts_with('"')) {
    const std::int32_t n = copy_bounded(buffer, ctx.arg_offset, ctx.arg_left + 2, piece.substr(1));
    if (n == 0) return;
    ctx.arg_left -= n - 1;
    ctx.arg_offset += n - 1;
  } else {
    const std::int32_t n = copy_bounded(buffer, ctx.arg_offset, ctx.arg_left + 1, piece);
    ctx.arg_left -= n;
    ctx.arg_offset += n;
  }
}

// Each of the following returns where scanning goes on.

const char* take_piece(Context& ctx, const char* at) {
  const std::string name = format_name("a%d[%d]=", ctx.arg_index, ctx.arg_parts);
  const char* field = std::strstr(at, name.c_str());
  if (field == nullptr) return skip_word(at);
  const std::string piece = value_at(field + name.size(), at);
  auto& slot = ctx.argv[static_cast<std::size_t>(ctx.arg_index)];
  if (ctx.arg_parts == 0) {
    add_first_piece(ctx, slot.emplace(), piece);
  } else {
    add_later_piece(ctx, slot.value(), piece);
  }
  ++ctx.arg_parts;
  if (ctx.arg_left <= 0)
    fill_slot(ctx, decode(slot->substr(0, static_cast<std::size_t>(ctx.arg_offset))));
  return at;
}

void abandon_split(Context& ctx) {
  auto& slot = ctx.argv[static_cast<std::size_t>(ctx.arg_index)];
  if (ctx.arg_parts == 0) slot = "";
  ctx.arg_left = 0;
  ++ctx.arg_index;
}

const char* take_argument(Context& ctx, const char* at) {
  const std::string name = format_name("a%d=", ctx.arg_index);
  const char* field = std::strstr(at, name.c_str());
  if (field == nullptr) {
    fill_slot(ctx, "");
    return at;
  }
  fill_slot(ctx, decode(value_at(field + name.size(), at)));
  return at;
}

// Null when the announced length is refused.
const char* take_announcement(Context& ctx, const char* at) {
  const std::string name = format_name("a%d_len=", ctx.arg_index);
  const char* field = std::strstr(at, name.c_str());
  if (field == nullptr) {
    fill_slot(ctx, "");
    return at;
  }
  const std::string length = value_at(field + name.size(), at);
  ctx.arg_left = static_cast<std::int32_t>(std::strtoul(length.c_str(), nullptr, 10));
  ctx.arg_parts = 0;
  ctx.arg_offset = 0;
  if (ctx.arg_left <= 0) return nullptr;
  ctx.arg_left = std::min(ctx.arg_left, 32768);
  return at;
}

std::optional<std::string> text_or_null(const char* text) {
  return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

std::string shown(const std::optional<std::string>& text) {
  return text ? "'" + *text + "'" : "null";
}

}  // namespace

Context snapshot(const audit_ctx& ctx) {
  Context copy = {.deadline = ctx.deadline,
                  .msgtype = ctx.msgtype,
                  .ruletype = ctx.ruletype,
                  .serial = ctx.serial,
                  .arch = ctx.arch,
                  .syscall = ctx.syscall,
                  .success = ctx.success,
                  .exit = ctx.exit,
                  .args = {},
                  .ppid = ctx.ppid,
                  .pid = ctx.pid,
                  .uid = ctx.uid,
                  .gid = ctx.gid,
                  .sockaddr = {},
                  .path = text_or_null(ctx.path),
                  .key = text_or_null(ctx.key),
                  .comm = text_or_null(ctx.comm),
                  .arg_index = ctx.arg_index,
                  .arg_left = ctx.arg_left,
                  .arg_offset = ctx.arg_offset,
                  .arg_parts = ctx.arg_parts,
                  .argc = ctx.argc,
                  .argv = {}};
  std::copy_n(ctx.args, copy.args.size(), copy.args.begin());
  std::copy_n(ctx.sockaddr, copy.sockaddr.size(), copy.sockaddr.begin());
  if (ctx.argv != nullptr) {
    std::transform(ctx.argv, ctx.argv + ctx.argc, std::back_inserter(copy.argv), text_or_null);
  }
  return copy;
}

std::string describe(const Context& context) {
  char numbers[512];
  std::snprintf(numbers, sizeof(numbers),
                "deadline %lld msgtype %u ruletype %d serial %u arch %x syscall %u success %d "
                "exit %d args %llx %llx %llx %llx ppid %u pid %u uid %u gid %u\narg_index %d "
                "arg_left %d arg_offset %d arg_parts %d argc %d\n",
                static_cast<long long>(context.deadline), context.msgtype, context.ruletype,
                context.serial, context.arch, context.syscall, context.success, context.exit,
                static_cast<unsigned long long>(context.args[0]),
                static_cast<unsigned long long>(context.args[1]),
                static_cast<unsigned long long>(context.args[2]),
                static_cast<unsigned long long>(context.args[3]), context.ppid, context.pid,
                context.uid, context.gid, context.arg_index, context.arg_left, context.arg_offset,
                context.arg_parts, context.argc);
  std::string text = numbers;
  text += "path " + shown(context.path) + " key " + shown(context.key) + " comm " +
          shown(context.comm) + "\nsockaddr ";
  for (const std::uint8_t byte : context.sockaddr) text += format_name("%02x", byte);
  for (std::size_t i = 0; i < context.argv.size(); ++i)
    text += "\nargv " + std::to_string(i) + " " + shown(context.argv[i]);
  return text;
}

int ReferenceIntake::handle(int type, std::string_view payload, std::int64_t now_s) {
  if (type == AUDIT_GET) return report_status(payload);
  const std::string copy(payload);
  const char* text = copy.c_str();
  if (type == AUDIT_LOGIN) return report(QEL_LOG_ERROR, "parse_login failed\n");
  if (type == AUDIT_SYSCALL) return open_context(text, now_s);
  if (type == AUDIT_PATH) return parse_path(text);
  if (type == AUDIT_SOCKADDR) return parse_sockaddr(text);
  if (type == AUDIT_EXECVE) return parse_execve(text);
  if (type == AUDIT_EOE) return end_context(text);
  return -1;
}

void ReferenceIntake::scan(std::int64_t now_s) {
  for (auto at = contexts_.begin(); at != contexts_.end();) {
    if (at->second.deadline >= now_s) {
      ++at;
      continue;
    }
    at = contexts_.erase(at);
    report(QEL_LOG_DEBUG, "audit ctx timeout: " + std::to_string(contexts_.size()) + "\n");
  }
}

int ReferenceIntake::report(int level, const std::string& message) {
  log.push_back({level, "audit_msg", message});
  return -1;
}

int ReferenceIntake::report_status(std::string_view payload) {
  audit_status status = {};
  payload.copy(reinterpret_cast<char*>(&status), sizeof(status));
  char line[256];
  std::snprintf(line, sizeof(line),
                "AUDIT_STATUS: enabled=%d flag=%d pid=%d rate_limit=%d backlog_limit=%d lost=%d "
                "backlog=%u\n",
                static_cast<int>(status.enabled), static_cast<int>(status.failure),
                static_cast<int>(status.pid), static_cast<int>(status.rate_limit),
                static_cast<int>(status.backlog_limit), static_cast<int>(status.lost),
                status.backlog);
  report(QEL_LOG_NOTICE, line);
  return 0;
}

Context* ReferenceIntake::find_context(const char* text) {
  std::uint32_t serial = 0;
  if (!parse_serial(text, serial)) {
    report(QEL_LOG_ERROR, "parse_serial failed\n");
    return nullptr;
  }
  const auto found = contexts_.find(serial);
  if (found != contexts_.end()) return &found->second;
  report(QEL_LOG_DEBUG, "search audit context failed\n");
  return nullptr;
}

int ReferenceIntake::open_context(const char* text, std::int64_t now_s) {
  Context record;
  record.msgtype = AUDIT_SYSCALL;
  if (!parse_serial(text, record.serial)) return -1;
  if (!parse_syscall(text, record)) return report(QEL_LOG_ERROR, "parse_syscall failed\n");
  const auto* const name = std::find(std::begin(kRuleNames), std::end(kRuleNames), *record.key);
  if (name == std::end(kRuleNames))
    return report(QEL_LOG_ERROR, "get_audit_type failed: " + *record.key + "\n");
  record.ruletype = static_cast<std::int32_t>(name - kRuleNames);
  record.deadline = now_s + 10;
  contexts_[record.serial] = record;
  return 0;
}

int ReferenceIntake::parse_path(const char* text) {
  Context* ctx = find_context(text);
  if (ctx == nullptr) return -1;
  if (ctx->ruletype != kExecveRuleType || ctx->argc != 0 || ctx->path) return -1;
  const auto name = Fields{text}.next("name=");
  if (!name) return report(QEL_LOG_ERROR, "parse_path failed\n");
  ctx->path = decode(*name);
  return 0;
}

int ReferenceIntake::parse_sockaddr(const char* text) {
  Context* ctx = find_context(text);
  if (ctx == nullptr) return -1;
  const auto address = Fields{text}.next("saddr=");
  if (!address) return report(QEL_LOG_ERROR, "parse_sockaddr failed\n");
  const std::size_t length =
      decode_hex(address->c_str(), ctx->sockaddr.data(), ctx->sockaddr.size());
  std::uint16_t family = 0;
  std::memcpy(&family, ctx->sockaddr.data(), sizeof(family));
  const std::map<unsigned, std::size_t> lengths = {{1, 110}, {2, 16},  {5, 16}, {9, 18},
                                                   {10, 28}, {16, 12}, {17, 20}};
  const auto known = lengths.find(family);
  if (known != lengths.end() ? length == known->second : length > 3) return 0;
  report(QEL_LOG_ERROR, "check_sockaddr failed\n");
  ctx->sockaddr.fill(0);
  return report(QEL_LOG_ERROR, "parse_sockaddr failed\n");
}

int ReferenceIntake::parse_execve(const char* text) {
  Context* ctx = find_context(text);
  if (ctx == nullptr) return -1;
  const char* at = text;
  if (ctx->argc == 0) {
    const char* field = std::strstr(text, "argc=");
    if (field == nullptr) return report(QEL_LOG_ERROR, "parse_execve failed\n");
    const std::string count = value_at(field + std::strlen("argc="), at);
    ctx->argc = static_cast<std::int32_t>(std::strtoul(count.c_str(), nullptr, 10));
    if (ctx->argc <= 0) return report(QEL_LOG_ERROR, "parse_execve failed\n");
    ctx->argc = std::min(ctx->argc, 40000);
    ctx->arg_index = 0;
    ctx->argv.assign(static_cast<std::size_t>(ctx->argc), std::nullopt);
  }
  while (ctx->arg_index < ctx->argc && *at != '\0') {
    int number = 0;
    char separator[2];
    if (std::sscanf(at, "a%d%1[_=[]", &number, separator) != 2) {
      at = skip_word(at);
    } else if (ctx->arg_left > 0 && separator[0] == '[') {
      at = take_piece(*ctx, at);
    } else if (ctx->arg_left > 0) {
      abandon_split(*ctx);
    } else if (separator[0] == '=') {
      at = take_argument(*ctx, at);
    } else if (separator[0] == '[') {
      at = skip_word(at);
    } else {
      at = take_announcement(*ctx, at);
      if (at == nullptr) return report(QEL_LOG_ERROR, "parse_execve failed\n");
    }
  }
  return 0;
}

int ReferenceIntake::end_context(const char* text) {
  Context* ctx = find_context(text);
  if (ctx == nullptr) return -1;
  for (auto& argument : ctx->argv) {
    if (argument) argument = argument->c_str();
  }
  finished.push_back(*ctx);
  contexts_.erase(ctx->serial);
  return 0;
}

}  // namespace test
