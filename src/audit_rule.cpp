#include "audit_rule.h"

#include <libaudit.h>
#include <libgen.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/log.h"
#include "base/memory.h"
#include "records/digits.h"
#include "rules/audit_replies.h"
#include "rules/rule_purge.h"

namespace {

constexpr char kLogSource[] = "audit_rule";

constexpr std::uint32_t kBacklogLimit = 102400;  // records that the kernel queues for a slow reader
constexpr std::uint32_t kNoRateLimit = 0;
constexpr int kLocked = 2;  // result of audit_is_enabled: no changes until reboot

constexpr int kRuleFlags = AUDIT_FILTER_EXIT | AUDIT_FILTER_PREPEND;

constexpr int kMaxSyscallRules = 256;
constexpr std::size_t kKeyPairSize = 40;
constexpr std::size_t kMaxPathLength = PATH_MAX - 1;
constexpr std::size_t kMaxNameLength = NAME_MAX;
constexpr std::size_t kMaxPermissions = 4;

// libaudit returns this when a key is set on a rule that has only a system call, unless the process
// has already built a rule with a permission field.
constexpr int kKeyNeedsSyscallOrPermission = -19;

// Rules are allocated and freed as libaudit does it, because libaudit moves them when a string
// field is added.
using Rule = qel::Owned<audit_rule_data>;

struct State {
  bool passwd_loaded;
  bool shadow_loaded;
  bool wtmp_loaded;
  bool execve_loaded;
  bool bind_loaded;
  int syscall_count;
  char* syscalls[kMaxSyscallRules];  // one per loaded rule, in order of loading; owned
};
State state;

// ---- Building and sending a rule ---------------------------------------------------------------

Rule new_rule() {
  return Rule(QEL_CHECKED(qel::new_zeroed<audit_rule_data>()));
}

// Calls a libaudit function that may move the rule.
template <typename Function>
int with_rule_address(Rule& rule, Function function) {
  audit_rule_data* moved = rule.release();
  const int result = function(&moved);
  rule.reset(moved);
  return result;
}

// libaudit writes into the pair, so it gets a copy each time.
int try_fieldpair(Rule& rule, const char* pair) {
  char scratch[kKeyPairSize];
  str_snprintf(scratch, sizeof(scratch), "%s", pair);
  return with_rule_address(rule, [&scratch](audit_rule_data** address) {
    return audit_rule_fieldpair_data(address, scratch, AUDIT_FILTER_EXIT);
  });
}

// Builds a watch, which has a permission field, and discards it. From then on libaudit accepts keys
// on every rule of this process. Nothing is sent to the kernel.
void make_libaudit_accept_keys() {
  Rule scratch = new_rule();
  with_rule_address(scratch, [](audit_rule_data** address) {
    return audit_add_watch_dir(AUDIT_WATCH, address, "/etc/passwd");
  });
}

bool add_rule_fieldpair(Rule& rule, const char* pair) {
  int result = try_fieldpair(rule, pair);
  if (result == kKeyNeedsSyscallOrPermission) {
    make_libaudit_accept_keys();
    result = try_fieldpair(rule, pair);
  }
  if (result == 0) return true;
  QEL_ERROR("audit_rule_fieldpair_data failed: %s\n", pair);
  return false;
}

bool add_key(Rule& rule, RuleType type) {
  char pair[kKeyPairSize];
  str_snprintf(pair, sizeof(pair), "key=%s", audit_rule_types[type].name);
  return add_rule_fieldpair(rule, pair);
}

// The kernel stores a rule without the prepend bit and compares flags when it looks for the rule to
// delete. So real kernels refuse a delete with the flags of the add. An unread message hides that
// refusal.
int delete_rule(audit_rule_data* rule) {
  const int result = audit_delete_rule_data(audit_fd, rule, kRuleFlags, AUDIT_ALWAYS);
  if (result >= 0 && !has_unread()) return result;
  const int listed = delete_listed_rule(rule, AUDIT_FILTER_EXIT, AUDIT_ALWAYS);
  if (result == -ENOBUFS) return listed == -ENOENT ? outcome_of(result) : listed;
  return result >= 0 ? result : listed;
}

// When it is unknown whether the kernel has loaded the rule, the rule is deleted and added again,
// because the kernel accepts the same rule any number of times with the prepend bit.
int add_rule(audit_rule_data* rule) {
  int result = audit_add_rule_data(audit_fd, rule, kRuleFlags, AUDIT_ALWAYS);
  if (result != -ENOBUFS) return result;
  note_overrun();
  delete_rule(rule);
  result = audit_add_rule_data(audit_fd, rule, kRuleFlags, AUDIT_ALWAYS);
  return result == -EEXIST ? 1 : outcome_of(result);
}

bool send_rule(const Rule& rule, Request request) {
  const bool add = request == Request::kAdd;
  const int result = add ? add_rule(rule.get()) : delete_rule(rule.get());
  if (result >= 0) return true;
  QEL_ERROR("audit_%s_rule_data failed\n", add ? "add" : "del");
  return false;
}

// ---- System call rules -------------------------------------------------------------------------

// Whether events of the call carry another name. libaudit ignores case and also accepts numbers. A
// rule under such a name would precede other rules for the same call and bring events that nobody
// asked for.
bool has_another_name(const char* name) {
  const int machine = audit_detect_machine();
  int number = audit_name_to_syscall(name, machine);
  if (number < 0 && qel::is_decimal(name[0])) {
    number = static_cast<int>(std::strtol(name, nullptr, 0));
  }
  const char* known = number >= 0 ? audit_syscall_to_name(number, machine) : nullptr;
  return known != nullptr && std::strcmp(known, name) != 0;
}

// Sets the call's bit in the rule. Returns libaudit's result, or -1 for a name that differs from
// the one in events.
int set_syscall_bit(const Rule& rule, const char* name) {
  const int result = audit_rule_syscallbyname_data(rule.get(), name);
  return result == 0 && has_another_name(name) ? -1 : result;
}

bool set_syscall(const Rule& rule, const char* name) {
  switch (set_syscall_bit(rule, name)) {
    case 0:
      return true;
    case -1:
      QEL_ERROR("unknown syscall name: %s\n", name);
      return false;
    case -2:
      QEL_ERROR("unknown elf type\n");
      return false;
    default:
      return false;
  }
}

bool send_syscall_rule(Request request, const char* name, RuleType type) {
  Rule rule = new_rule();
  return set_syscall(rule, name) && add_key(rule, type) && send_rule(rule, request);
}

// The slot of a name among the loaded rules, or one past the last.
char** find_syscall(std::string_view name) {
  return std::find(state.syscalls, state.syscalls + state.syscall_count, name);
}

bool is_syscall_loaded(const char* name) {
  return find_syscall(name) != state.syscalls + state.syscall_count;
}

void forget_syscalls() {
  for (char*& name : state.syscalls) std::free(std::exchange(name, nullptr));
  state.syscall_count = 0;
}

// ---- Watch rules -------------------------------------------------------------------------------

struct Watch {
  bool State::*loaded;
  const char* path;
  const char* permissions;
  RuleType type;
};
constexpr Watch kPasswdWatch = {&State::passwd_loaded, "/etc/passwd", "wa", kPasswdRule};
constexpr Watch kShadowWatch = {&State::shadow_loaded, "/etc/shadow", "wa", kShadowRule};
constexpr Watch kWtmpWatch = {&State::wtmp_loaded, "/var/log/wtmp", "wa", kWtmpRule};

struct Permission {
  char letter;
  int bit;
};
constexpr Permission kPermissions[] = {{'r', AUDIT_PERM_READ},
                                       {'w', AUDIT_PERM_WRITE},
                                       {'x', AUDIT_PERM_EXEC},
                                       {'a', AUDIT_PERM_ATTR}};

bool check_path(std::string_view path) {
  if (path.size() > kMaxPathLength) {
    QEL_ERROR("path too long\n");
    return false;
  }
  if (!path.starts_with('/')) {
    QEL_ERROR("must use absolute path\n");
    return false;
  }
  char copy[PATH_MAX];
  copy[path.copy(copy, kMaxPathLength)] = '\0';
  if (std::strlen(basename(copy)) > kMaxNameLength) {
    QEL_ERROR("dirname or filename too long\n");
    return false;
  }
  // Such paths are sent all the same; the kernel takes them literally.
  if (path.find("/..") != path.npos) QEL_ERROR("relative path not supported\n");
  if (path.find_first_of("*?") != path.npos) QEL_ERROR("wildcard is not supported\n");
  return true;
}

int watch_type(const char* path) {
  struct stat status;
  if (stat(path, &status) == 0) return S_ISDIR(status.st_mode) ? AUDIT_DIR : AUDIT_WATCH;
  QEL_ERROR("file %s not exist\n", path);
  return AUDIT_WATCH;
}

bool set_path(Rule& rule, std::string_view path) {
  while (path.ends_with('/')) path.remove_suffix(1);
  char copy[PATH_MAX];
  copy[path.copy(copy, kMaxPathLength)] = '\0';
  const int type = watch_type(copy);
  return with_rule_address(rule, [&copy, type](audit_rule_data** address) {
           return audit_add_watch_dir(type, address, copy);
         }) == 0;
}

// The AUDIT_PERM_ bit of one letter, or 0 for any other character.
int permission_bit(char letter) {
  const auto lower = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  const auto* found = std::find_if(std::begin(kPermissions), std::end(kPermissions),
                                   [lower](const Permission& p) { return p.letter == lower; });
  return found == std::end(kPermissions) ? 0 : found->bit;
}

bool set_permissions(const Rule& rule, std::string_view letters) {
  if (letters.empty() || letters.size() > kMaxPermissions) {
    QEL_ERROR("invalid file permission: %s\n", letters.data());
    return false;
  }
  int bits = 0;
  for (const char letter : letters) {
    const int bit = permission_bit(letter);
    if (bit == 0) {
      QEL_ERROR("permission %c not support\n", letter);
      return false;
    }
    bits |= bit;
  }
  if (audit_update_watch_perms(rule.get(), bits) == 0) return true;
  QEL_ERROR("audit_update_watch_perms failed: %s\n", letters.data());
  return false;
}

// ---- Loaded once, whoever needs it -------------------------------------------------------------

template <typename Send>
int load_once(bool& loaded, Send send) {
  if (loaded) return 0;
  if (!send(Request::kAdd)) return -1;
  loaded = true;
  return 1;
}

template <typename Send>
void take_back(bool& loaded, Send send) {
  if (loaded && send(Request::kDelete)) loaded = false;
}

int add_watch(const Watch& watch) {
  return load_once(state.*watch.loaded, [&watch](Request request) {
    return send_watch_rule(request, watch.path, watch.permissions, watch.type);
  });
}

void delete_watch(const Watch& watch) {
  take_back(state.*watch.loaded, [&watch](Request request) {
    return send_watch_rule(request, watch.path, watch.permissions, watch.type);
  });
}

bool send_execve_rule(Request request) {
  return send_syscall_rule(request, "execve", kExecveRule);
}

bool send_bind_rule(Request request) {
  return send_syscall_rule(request, "bind", kBindRule);
}

// ---- Connection --------------------------------------------------------------------------------

void close_connection() {
  audit_close(audit_fd);
  audit_fd = -1;
}

void unregister_and_close() {
  audit_set_pid(audit_fd, 0, WAIT_NO);
  close_connection();
}

bool become_receiver() {
  const auto pid = static_cast<std::uint32_t>(getpid());
  if (outcome_of(audit_set_pid(audit_fd, pid, WAIT_YES)) >= 0) return true;
  QEL_ERROR("audit_set_pid failed, uid=%u pid=%d", audit_getloginuid(), getpid());
  return false;
}

bool check_unlocked() {
  if (ask_enabled() < kLocked) return true;
  QEL_ERROR("audit is locked\n");
  return false;
}

bool switch_on() {
  if (ask_twice([] { return audit_set_enabled(audit_fd, 1); }) >= 0) return true;
  QEL_ERROR("audit_set_enabled failed, uid=%u pid=%d", audit_getloginuid(), getpid());
  return false;
}

// None of these failures is worth failing a start for.
void set_limits_and_purge() {
  if (ask_twice([] { return audit_set_rate_limit(audit_fd, kNoRateLimit); }) <= 0) {
    QEL_ERROR("audit_set_rate_limit failed\n");
  }
  if (ask_twice([] { return audit_set_backlog_limit(audit_fd, kBacklogLimit); }) <= 0) {
    QEL_ERROR("audit_set_backlog_limit failed\n");
  }
  if (!delete_all_audit_rules()) QEL_ERROR("delete_all_audit_rules failed\n");
  // The answer arrives through the poller.
  if (audit_request_status(audit_fd) < 0) QEL_DEBUG("audit_request_status failed\n");
}

}  // namespace

int audit_fd = -1;

int audit_subsys_init() {
  audit_fd = audit_open();
  if (audit_fd < 0) {
    QEL_ERROR("audit_open failed: %s\n", strerror(errno));
    audit_fd = -1;
    return -1;
  }
  const KernelExchange exchange;
  prepare_socket();
  if (!become_receiver()) {
    close_connection();
    return -1;
  }
  if (!check_unlocked() || !switch_on()) {
    unregister_and_close();
    return -1;
  }
  set_limits_and_purge();
  return 0;
}

int audit_subsys_fini() {
  forget_syscalls();
  if (audit_fd >= 0) {
    const KernelExchange exchange;
    delete_all_audit_rules();
    unregister_and_close();
  }
  state = {};
  return 0;
}

bool send_watch_rule(Request request, const char* path, const char* permissions, RuleType type) {
  Rule rule = new_rule();
  return check_path(path) && set_path(rule, path) && set_permissions(rule, permissions) &&
         add_key(rule, type) && send_rule(rule, request);
}

int audit_add_syscall_rule(const char* name) {
  if (name == nullptr || name[0] == '\0') name = "all";
  const std::string_view wanted(name);
  if (wanted == "execve" || wanted == "bind") {
    QEL_ERROR("syscall %s reserved inside\n", name);
    return -1;
  }
  if (is_syscall_loaded(name)) return 0;
  if (state.syscall_count >= kMaxSyscallRules) {
    QEL_ERROR("too many syscall rule\n");
    return -1;
  }
  if (!send_syscall_rule(Request::kAdd, name, kSyscallRule)) return -1;
  state.syscalls[state.syscall_count++] = QEL_CHECKED(qel::copy_of(wanted));
  return 1;
}

void audit_del_syscall_rule(const char* name) {
  if (name == nullptr) name = "all";
  if (name[0] == '\0') {
    QEL_ERROR("invalid param\n");
    return;
  }
  if (!is_syscall_loaded(name)) return;
  if (!send_syscall_rule(Request::kDelete, name, kSyscallRule)) return;
  char** const slot = find_syscall(name);
  std::free(*slot);
  char** const end = state.syscalls + state.syscall_count;
  *std::move(slot + 1, end, slot) = nullptr;
  --state.syscall_count;
}

int audit_add_execve_rule() {
  return load_once(state.execve_loaded, send_execve_rule);
}
void audit_del_execve_rule() {
  take_back(state.execve_loaded, send_execve_rule);
}
int audit_add_bind_rule() {
  return load_once(state.bind_loaded, send_bind_rule);
}
void audit_del_bind_rule() {
  take_back(state.bind_loaded, send_bind_rule);
}
int audit_add_passwd_rule() {
  return add_watch(kPasswdWatch);
}
void audit_del_passwd_rule() {
  delete_watch(kPasswdWatch);
}
int audit_add_shadow_rule() {
  return add_watch(kShadowWatch);
}
void audit_del_shadow_rule() {
  delete_watch(kShadowWatch);
}
int audit_add_wtmp_rule() {
  return add_watch(kWtmpWatch);
}
void audit_del_wtmp_rule() {
  delete_watch(kWtmpWatch);
}
