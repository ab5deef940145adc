#include "audit_event.h"

#include <libaudit.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

#include "audit_ops.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/record_scope.h"
#include "callback_registry.h"
#include "monitors/late_write.h"
#include "passwd.h"
#include "records/execve_args.h"
#include "rules/rule_types.h"
#include "wtmp.h"

namespace {

constexpr char kLogSource[] = "audit_event";

constexpr std::size_t kLoginTextSize = 16;  // of the user name and the line in a login event

// Runs the callback of one entry if its filter lets the event pass.
void run_entry(const callback_registry& registry, std::uint16_t index, const void* event,
               std::uint32_t filter) {
  const callback_entry& entry = registry.entries[index];
  if (registry.ops->filter_match(&entry.filter, &filter) != 0) return;
  const qel::HostScope scope;
  registry.ops->run(event, &entry.callback);
}

const char* text_or_empty(const char* text) {
  return text != nullptr ? text : "";
}

// Fills the members that the three system call classes have in common.
template <typename Info>
void fill_process(Info& info, const audit_ctx& ctx) {
  info.result = ctx.exit;
  info.ppid = ctx.ppid;
  info.pid = ctx.pid;
  qel::copy_text(info.user, get_uname_by_uid(ctx.uid));
  qel::copy_text(info.process, text_or_empty(ctx.comm));
}

// ---- execve ------------------------------------------------------------------------------------

// Takes the complete argument list out of the context.
void take_args(audit_ctx& ctx, qel_execve_info& info) {
  if (ctx.argv != nullptr) complete_execve_args(ctx);
  info.argv = std::exchange(ctx.argv, nullptr);
  info.argc = std::exchange(ctx.argc, 0);
  if (info.argv == nullptr) info.argc = std::min(info.argc, 0);
}

// A failed execution has no EXECVE record. Only the command name of the caller and the program's
// path are known.
void take_path_as_args(audit_ctx& ctx, qel_execve_info& info) {
  info.argv = static_cast<char**>(QEL_CHECKED(std::calloc(2, sizeof(char*))));
  info.argc = 2;
  info.argv[0] = std::exchange(ctx.comm, nullptr);
  if (info.argv[0] == nullptr) info.argv[0] = QEL_CHECKED(qel::copy_of(""));
  info.argv[1] = std::exchange(ctx.path, nullptr);
}

int emit_execve_event(audit_ctx& ctx) {
  execve_event event = {.type = QEL_CLASS_EXECVE, .padding = 0, .info = {}};
  fill_process(event.info, ctx);
  take_args(ctx, event.info);
  if (event.info.argc == 0 && ctx.path != nullptr) take_path_as_args(ctx, event.info);
  dispatch_event(&event);
  free_args(event.info.argv, event.info.argc);
  return 0;
}

// ---- bind --------------------------------------------------------------------------------------

int emit_bind_event(const audit_ctx& ctx) {
  // A path that fills the address is not terminated. The zero bytes after the address terminate it
  // for anyone who prints it.
  struct {
    bind_event event;
    char terminator;
  } record = {};
  bind_event& event = record.event;
  event.type = QEL_CLASS_BIND;
  fill_process(event.info, ctx);
  static_assert(sizeof(event.info.addr) == sizeof(ctx.sockaddr));
  std::memcpy(&event.info.addr, ctx.sockaddr, sizeof(event.info.addr));
  if (event.info.addr.ss_family == AF_UNSPEC) {
    QEL_ERROR("sockaddr family unspecified\n");
    return -1;
  }
  dispatch_event(&event);
  return 0;
}

// ---- syscall -----------------------------------------------------------------------------------

void fill_syscall_name(qel_syscall_info& info, const audit_ctx& ctx) {
  const int machine = audit_elf_to_machine(ctx.arch);
  const char* name = audit_syscall_to_name(static_cast<int>(ctx.syscall), machine);
  if (name != nullptr) {
    qel::copy_text(info.syscall, name);
  } else {
    str_snprintf(info.syscall, sizeof(info.syscall), "%d_%x", static_cast<int>(ctx.syscall),
                 ctx.arch);
  }
}

int emit_syscall_event(const audit_ctx& ctx) {
  syscall_event event = {.type = QEL_CLASS_SYSCALL, .padding = 0, .info = {}};
  qel_syscall_info& info = event.info;
  info.success = ctx.success;
  fill_process(info, ctx);
  fill_syscall_name(info, ctx);
  info.arg1 = ctx.args[0];
  info.arg2 = ctx.args[1];
  info.arg3 = ctx.args[2];
  info.arg4 = ctx.args[3];
  dispatch_event(&event);
  return 0;
}

// ---- Accounts ----------------------------------------------------------------------------------

int emit_user_event(passwd_entry* entry, audit_ctx*) {
  user_event event = {.type = QEL_CLASS_USER, .padding = 0, .info = {}};
  qel::copy_text(event.info.username, entry->name);
  qel::copy_text(event.info.groupname, entry->group);

  // Nothing else is reported about an account that was added or deleted.
  constexpr std::uint32_t kOrder[] = {QEL_USER_ADDED, QEL_USER_DELETED, QEL_USER_PASSWORD,
                                      QEL_USER_GROUP};
  for (const std::uint32_t change : kOrder) {
    if ((entry->flags & change) == 0) continue;
    event.info.event = change;
    dispatch_event(&event);
    if (change == QEL_USER_ADDED || change == QEL_USER_DELETED) break;
  }
  return 0;
}

// The account tools open both files before they have anything to write, and then write both. The
// records that are skipped here would only cause a second comparison. For usermod, a change of the
// shadow file alone counts.
struct SkippedTool {
  std::string_view comm;
  bool skips_shadow;
};
constexpr SkippedTool kSkippedTools[] = {{"useradd", true}, {"userdel", true}, {"usermod", false}};
constexpr std::uint32_t kOpenSyscall = 2;  // open(2) on x86-64

bool is_skipped(const audit_ctx& ctx) {
  const auto* tool = std::find_if(
      std::begin(kSkippedTools), std::end(kSkippedTools),
      [comm = text_or_empty(ctx.comm)](const SkippedTool& t) { return t.comm == comm; });
  if (tool == std::end(kSkippedTools)) return false;
  return ctx.syscall == kOpenSyscall || (tool->skips_shadow && ctx.ruletype == kShadowRule);
}

int compare_accounts(audit_ctx* ctx) {
  return check_passwd_event(emit_user_event, ctx);
}

// ---- Logins ------------------------------------------------------------------------------------

int emit_login_event(wtmp_entry* entry, audit_ctx* ctx) {
  login_event event = {.type = QEL_CLASS_LOGIN, .padding = 0, .info = {}};
  qel_login_info& info = event.info;
  info.status = 1;
  info.pid = static_cast<std::uint32_t>(entry->ut.ut_pid);
  if (ctx->pid == info.pid) {  // the audited process has written the record about itself
    qel::copy_text(info.user, get_uname_by_uid(ctx->uid));
    qel::copy_text(info.process, text_or_empty(ctx->comm));
  }
  std::memcpy(&info.ipaddr, &entry->ut.ut_addr_v6[0], sizeof(info.ipaddr));
  qel::copy_text(info.username, entry->ut.ut_user, kLoginTextSize);
  qel::copy_text(info.logintype, entry->ut.ut_line, kLoginTextSize);

  if ((entry->flags & QEL_LOGIN_LOGIN) != 0) {
    info.event = QEL_LOGIN_LOGIN;
    info.time = login_time(*entry);
    dispatch_event(&event);
  }
  if ((entry->flags & QEL_LOGIN_LOGOUT) != 0) {
    info.event = QEL_LOGIN_LOGOUT;
    info.time = entry->logout;
    dispatch_event(&event);
  }
  return 0;
}

int compare_logins(audit_ctx* ctx) {
  return check_login_event(nullptr, emit_login_event, ctx);
}

// ---- Watches -----------------------------------------------------------------------------------

// A call that was refused has changed nothing. Any user can make any number of such calls, so none
// of them causes a database to be read.
bool was_refused(const audit_ctx& ctx) {
  return ctx.success == 0 && ctx.exit < 0;
}

int handle_watch_ctx(audit_ctx& ctx, int (*compare)(audit_ctx* ctx)) {
  if (was_refused(ctx)) {
    qel::remember_refused(ctx);
    return 0;
  }
  const qel::FileIdentity before = qel::watched_file(ctx);
  if (compare(&ctx) != 0) return -1;
  qel::remember_opener(ctx, before);
  return 0;
}

int handle_passwd_ctx(audit_ctx& ctx) {
  return is_skipped(ctx) ? 0 : handle_watch_ctx(ctx, compare_accounts);
}

int handle_login_ctx(audit_ctx& ctx) {
  return handle_watch_ctx(ctx, compare_logins);
}

}  // namespace

int dispatch_event(const void* event) {
  const auto type = *static_cast<const std::uint32_t*>(event);
  if (type >= QEL_CLASS_COUNT) return -1;
  const qel::RecordScope scope;
  const callback_registry& registry = audit_cb_list[type];
  if (registry.buckets == nullptr) return 0;
  std::uint32_t filter = 0;
  key_slot key = {};
  registry.ops->set_filter(event, &filter);
  registry.ops->set_key(event, &key);

  // Callbacks may register more callbacks, so the counts are read anew each time.
  void* found = nullptr;
  if (xhash_count(registry.buckets) != 0 && xhash_search(registry.buckets, &key, 0, &found) == 0) {
    const auto* bucket = static_cast<const key_bucket*>(found);
    for (int i = 0; i < bucket->count; ++i) run_entry(registry, bucket->indexes[i], event, filter);
  }
  for (int i = 0; i < registry.global_count; ++i) {
    run_entry(registry, registry.global_indexes[i], event, filter);
  }
  return 0;
}

int handle_audit_event(audit_ctx* ctx) {
  if (qel::in_host_function()) return -1;
  const qel::RecordScope scope;
  switch (ctx->ruletype) {
    case kPasswdRule:
    case kShadowRule:
      return handle_passwd_ctx(*ctx);
    case kWtmpRule:
    case kLastloginRule:
      return handle_login_ctx(*ctx);
    case kExecveRule:
      return emit_execve_event(*ctx);
    case kBindRule:
      return emit_bind_event(*ctx);
    case kSyscallRule:
      return emit_syscall_event(*ctx);
    case kFakeloginRule:
      return 0;
    default:
      QEL_ERROR("unknown ctx->ruletype: %d\n", ctx->ruletype);
      return -1;
  }
}
