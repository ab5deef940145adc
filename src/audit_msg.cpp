#include "audit_msg.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>
#include <utility>

#include "audit_event.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/record_scope.h"
#include "base/table_keys.h"
#include "records/execve_args.h"
#include "records/record_text.h"
#include "rules/rule_types.h"

namespace {

constexpr char kLogSource[] = "audit_msg";

constexpr std::int64_t kContextLifetime_s = 10;
constexpr float kScanShare = 0.05F;  // of the table, in one expiry scan

// The context found last, and the header "audit(SECONDS.MILLISECONDS:SERIAL):" with which all
// records of its group begin. Records of a group mostly arrive in a row, so their serial need not
// be parsed again.
struct Recent {
  audit_ctx* ctx;
  std::size_t header_length;  // 0 when the last record began differently
  char header[40];            // the kernel's header has at most 35 characters
};

struct {
  xhash_t* contexts;  // by serial; owns them
  xhash_cookie_t* scan_place;
  audit_ctx* spare;  // the context freed last; groups mostly come one after another
  Recent recent;
} state;

// ---- Context table -----------------------------------------------------------------------------

// The serial is both the key and its hash.
constexpr xhash_hash_fn audit_ctx_hash = qel::hash_number;
constexpr xhash_compare_fn audit_ctx_compare = qel::compare_numbers;

void free_audit_ctx(void* value) {
  auto* ctx = static_cast<audit_ctx*>(value);
  if (ctx == state.recent.ctx) state.recent = {};
  clear_audit_ctx(ctx);
  std::free(std::exchange(state.spare, ctx));
}

void remember(audit_ctx* ctx, std::string_view header) {
  state.recent.ctx = ctx;
  state.recent.header_length = header.size() <= sizeof(state.recent.header)
                                   ? header.copy(state.recent.header, header.size())
                                   : 0;
}

bool is_of_recent(std::string_view text) {
  const Recent& recent = state.recent;
  return recent.header_length != 0 && text.starts_with({recent.header, recent.header_length});
}

audit_ctx* search_ctx(std::uint32_t serial) {
  void* found = nullptr;
  if (state.contexts == nullptr || xhash_count(state.contexts) == 0 ||
      xhash_search(state.contexts, qel::number_key(serial), 0, &found) != 0)
    return nullptr;
  return static_cast<audit_ctx*>(found);
}

// The open context of a record, or null.
audit_ctx* find_audit_ctx(std::string_view text) {
  if (is_of_recent(text)) return state.recent.ctx;
  std::uint32_t serial = 0;
  std::string_view header;
  if (!qel::parse_serial(text, serial, header)) {
    QEL_ERROR("parse_serial failed\n");
    return nullptr;
  }
  audit_ctx* ctx = search_ctx(serial);
  if (ctx != nullptr) {
    remember(ctx, header);
  } else {
    QEL_DEBUG("search audit context failed\n");
  }
  return ctx;
}

// Returns storage for a context. Its content is undefined.
audit_ctx* new_audit_ctx() {
  if (state.spare != nullptr) return std::exchange(state.spare, nullptr);
  return QEL_CHECKED(static_cast<audit_ctx*>(std::malloc(sizeof(audit_ctx))));
}

// The context that a SYSCALL record of this serial fills: a new one, or the open one, cleared of
// what earlier records of its group brought.
audit_ctx* open_audit_ctx(std::uint32_t serial) {
  audit_ctx* ctx = search_ctx(serial);
  if (ctx != nullptr) {
    clear_audit_ctx(ctx);
  } else {
    ctx = new_audit_ctx();
    xhash_insert(state.contexts, qel::number_key(serial), 0, ctx);
  }
  *ctx = {};
  ctx->serial = serial;
  ctx->deadline = std::time(nullptr) + kContextLifetime_s;
  return ctx;
}

// Times are compared as differences of 32 bits, which also works beyond 2038.
bool has_passed(std::int64_t deadline, std::int64_t now) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(deadline) -
                                   static_cast<std::uint32_t>(now)) < 0;
}

int audit_ctx_timeout(const void* key, std::size_t key_length, void* value, void* now) {
  const auto* ctx = static_cast<const audit_ctx*>(value);
  if (!has_passed(ctx->deadline, static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(now))))
    return 0;
  xhash_delete(state.contexts, key, key_length);
  QEL_DEBUG("audit ctx timeout: %i\n", static_cast<int>(xhash_count(state.contexts)));
  return 0;
}

// ---- Records -----------------------------------------------------------------------------------

// The content of a SYSCALL record. The texts lie in the record.
struct SyscallRecord {
  std::uint32_t arch;
  std::uint32_t syscall;
  bool success = true;    // records of exit and exit_group, which do not return, ...
  std::int32_t exit = 0;  // ... lack these two fields
  std::uint64_t args[4];
  std::uint32_t ppid;
  std::uint32_t pid;
  std::uint32_t uid;
  std::uint32_t gid;
  std::string_view comm;
  std::string_view key;
};

// Reads the fields in the kernel's order; all must be present except success and exit. Names with a
// blank in front would otherwise be found at the end of longer ones: pid in ppid, uid in auid and
// euid.
bool parse_syscall(std::string_view text, SyscallRecord& record) {
  qel::FieldWalk fields(text);
  if (!fields.hex("arch=", record.arch) || !fields.decimal("syscall=", record.syscall))
    return false;
  if (std::string_view success; fields.text("success=", success)) record.success = success == "yes";
  fields.any_base("exit=", record.exit);
  if (!fields.hex("a0=", record.args[0]) || !fields.hex("a1=", record.args[1]) ||
      !fields.hex("a2=", record.args[2]) || !fields.hex("a3=", record.args[3]))
    return false;
  fields.skip(" items=");
  if (!fields.decimal(" ppid=", record.ppid) || !fields.decimal(" pid=", record.pid)) return false;
  fields.skip(" auid=");
  return fields.decimal(" uid=", record.uid) && fields.decimal(" gid=", record.gid) &&
         fields.text("comm=", record.comm) && fields.key(record.key);
}

// The rule type with this name, or null.
const audit_rule_type* find_rule_type(const char* name) {
  const auto* type = std::find_if(
      std::begin(audit_rule_types), std::end(audit_rule_types), [name](const audit_rule_type& t) {
        return *name == *t.name && std::strcmp(name, t.name) == 0;  // cheap check first
      });
  return type == std::end(audit_rule_types) ? nullptr : type;
}

const audit_rule_type* rule_type_of(std::string_view key_value) {
  char key[sizeof(audit_rule_type::name)];  // a key that is cut here is longer than any name
  qel::decode_field_value(key_value, key, sizeof(key));
  return find_rule_type(key);
}

[[gnu::noinline]] void report_unknown_key(std::string_view key_value) {
  char key[MAX_AUDIT_MESSAGE_LENGTH + 1];
  qel::decode_field_value(key_value, key, sizeof(key));
  QEL_ERROR("get_audit_type failed: %s\n", key);
}

[[gnu::noinline]] int take_syscall(std::string_view text) {
  std::uint32_t serial = 0;
  std::string_view header;
  if (!qel::parse_serial(text, serial, header)) return -1;
  SyscallRecord record;
  if (!parse_syscall(text.substr(header.size()), record)) {
    QEL_ERROR("parse_syscall failed\n");
    return -1;
  }
  const audit_rule_type* const type = rule_type_of(record.key);
  if (type == nullptr) {
    report_unknown_key(record.key);
    return -1;
  }
  if (state.contexts == nullptr) return -1;

  audit_ctx* ctx = open_audit_ctx(serial);
  remember(ctx, header);
  ctx->msgtype = AUDIT_SYSCALL;
  ctx->ruletype = type->id;
  ctx->arch = record.arch;
  ctx->syscall = record.syscall;
  ctx->success = record.success ? 1 : 0;
  ctx->exit = record.exit;
  std::copy(std::begin(record.args), std::end(record.args), ctx->args);
  ctx->ppid = record.ppid;
  ctx->pid = record.pid;
  ctx->uid = record.uid;
  ctx->gid = record.gid;
  ctx->comm = QEL_CHECKED(qel::decode_field_value(record.comm));
  ctx->key = QEL_CHECKED(qel::copy_of(type->name));
  return 0;
}

// The value of a field, searched for from the start of the text. Returns whether there is one.
template <std::size_t Size>
bool find_value(std::string_view text, const char (&name)[Size], std::string_view& value) {
  return qel::FieldWalk(text).text(name, value);
}

// The path is only needed for an execution without arguments, that is, one that failed.
int parse_path(std::string_view text) {
  audit_ctx* ctx = find_audit_ctx(text);
  if (ctx == nullptr) return -1;
  if (ctx->ruletype != kExecveRule || ctx->argc != 0 || ctx->path != nullptr) return -1;
  std::string_view name;
  if (!find_value(text, "name=", name)) {
    QEL_ERROR("parse_path failed\n");
    return -1;
  }
  ctx->path = QEL_CHECKED(qel::decode_field_value(name));
  return 0;
}

struct AddressLength {
  std::uint16_t family;
  std::size_t length;
};
// Lengths of complete addresses. The record has the caller's bytes in the caller's length, captured
// before the kernel checks them.
constexpr AddressLength kAddressLengths[] = {{AF_UNIX, 110}, {AF_INET, 16},  {AF_APPLETALK, 16},
                                             {AF_X25, 18},   {AF_INET6, 28}, {AF_NETLINK, 12},
                                             {AF_PACKET, 20}};
constexpr std::size_t kMinOtherLength = 4;

bool check_sockaddr(const audit_ctx& ctx, std::size_t length) {
  std::uint16_t family = 0;
  std::memcpy(&family, ctx.sockaddr, sizeof(family));
  const auto* known = std::find_if(std::begin(kAddressLengths), std::end(kAddressLengths),
                                   [family](const AddressLength& a) { return a.family == family; });
  const bool good =
      known != std::end(kAddressLengths) ? length == known->length : length >= kMinOtherLength;
  if (!good) QEL_ERROR("check_sockaddr failed\n");
  return good;
}

int parse_sockaddr(std::string_view text) {
  audit_ctx* ctx = find_audit_ctx(text);
  if (ctx == nullptr) return -1;
  std::string_view saddr;
  if (!find_value(text, "saddr=", saddr)) {
    QEL_ERROR("parse_sockaddr failed\n");
    return -1;
  }
  const std::size_t length = qel::decode_hex(saddr, ctx->sockaddr, sizeof(ctx->sockaddr));
  if (check_sockaddr(*ctx, length)) return 0;
  std::fill(std::begin(ctx->sockaddr), std::end(ctx->sockaddr), std::uint8_t{0});
  QEL_ERROR("parse_sockaddr failed\n");
  return -1;
}

int parse_execve(std::string_view text) {
  audit_ctx* ctx = find_audit_ctx(text);
  if (ctx == nullptr) return -1;
  if (add_execve_args(*ctx, text)) return 0;
  QEL_ERROR("parse_execve failed\n");
  return -1;
}

// The end-of-event record is the only one that causes callbacks to run.
int take_end_of_event(std::string_view text) {
  const qel::RecordScope scope;
  audit_ctx* ctx = find_audit_ctx(text);
  if (ctx == nullptr) return -1;
  handle_audit_event(ctx);
  xhash_delete(state.contexts, qel::number_key(ctx->serial), 0);
  return 0;
}

int report_status(const audit_status& status) {
  QEL_NOTICE(
      "AUDIT_STATUS: enabled=%d flag=%d pid=%d rate_limit=%d backlog_limit=%d lost=%d "
      "backlog=%u\n",
      static_cast<int>(status.enabled), static_cast<int>(status.failure),
      static_cast<int>(status.pid), static_cast<int>(status.rate_limit),
      static_cast<int>(status.backlog_limit), static_cast<int>(status.lost), status.backlog);
  return 0;
}

// Whether the payload is one that audit_get_reply can have delivered.
bool has_payload(const audit_reply& reply) {
  return reply.message != nullptr && reply.len >= 0 && reply.len <= MAX_AUDIT_MESSAGE_LENGTH;
}

// A record's length is that of its text alone, and bytes of an earlier message may follow. Only
// libaudit's own storage is known to have room for a terminator.
void terminate(audit_reply& reply) {
  if (reply.message == reply.msg.data && reply.len < MAX_AUDIT_MESSAGE_LENGTH)
    reply.msg.data[reply.len] = '\0';
}

std::string_view text_of(const audit_reply& reply) {
  return {reply.message, strnlen(reply.message, static_cast<std::size_t>(reply.len))};
}

}  // namespace

int audit_msg_init() {
  state.scan_place = xhash_cookie_create(kScanShare);
  state.contexts = xhash_create2(free_audit_ctx, audit_ctx_hash, audit_ctx_compare, 1);
  return 0;
}

void audit_msg_fini() {
  if (state.contexts == nullptr || qel::handling_record()) return;
  xhash_destroy(std::exchange(state.contexts, nullptr));
  xhash_cookie_destroy(std::exchange(state.scan_place, nullptr));
  std::free(std::exchange(state.spare, nullptr));
  free_spare_args();
}

void scan_audit_ctx(std::int64_t now) {
  if (qel::handling_record()) return;  // the scan might delete the context in progress
  if (state.contexts == nullptr || xhash_count(state.contexts) == 0) return;
  xhash_walk_partial(state.contexts, state.scan_place, reinterpret_cast<void*>(now),
                     audit_ctx_timeout);
}

void clear_audit_ctx(audit_ctx* ctx) {
  free_args(std::exchange(ctx->argv, nullptr), ctx->argc);
  std::free(std::exchange(ctx->path, nullptr));
  std::free(std::exchange(ctx->key, nullptr));
  std::free(std::exchange(ctx->comm, nullptr));
}

int get_audit_type(audit_ctx* ctx) {
  const audit_rule_type* const type = ctx->key != nullptr ? find_rule_type(ctx->key) : nullptr;
  if (type == nullptr) return -1;
  ctx->ruletype = type->id;
  return 0;
}

int handle_audit_msg(audit_reply* reply) {
  if (qel::handling_record() || !has_payload(*reply)) return -1;
  terminate(*reply);
  // The type is checked first: for many records, such as CWD and PROCTITLE, no byte of the text is
  // read.
  switch (reply->type) {
    case AUDIT_GET:
      return report_status(*reply->status);
    case AUDIT_LOGIN:
      QEL_ERROR("parse_login failed\n");
      return -1;
    case AUDIT_SYSCALL:
      return take_syscall(text_of(*reply));
    case AUDIT_PATH:
      return parse_path(text_of(*reply));
    case AUDIT_SOCKADDR:
      return parse_sockaddr(text_of(*reply));
    case AUDIT_EXECVE:
      return parse_execve(text_of(*reply));
    case AUDIT_EOE:
      return take_end_of_event(text_of(*reply));
    default:
      return -1;
  }
}
