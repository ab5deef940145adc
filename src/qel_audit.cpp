// The library's entry points: start and stop, the audit poller, the callback registries and the
// registration functions that fill them.
#include <libaudit.h>
#include <poll.h>
#include <qel_audit.h>
#include <qel_frame.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <iterator>
#include <utility>

#include "audit_event.h"
#include "audit_msg.h"
#include "audit_ops.h"
#include "audit_rule.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/record_scope.h"
#include "callback_registry.h"
#include "monitors/late_write.h"
#include "passwd.h"
#include "rules/audit_replies.h"
#include "wtmp.h"

namespace {

constexpr char kLogSource[] = "qel_audit";

constexpr std::int64_t kScanPause_s = 3;

struct {
  bool started;
  std::int64_t next_scan;  // seconds since the epoch; not reset by a stop
} state;

// ---- Poller ------------------------------------------------------------------------------------

// Expires contexts at most once every four seconds. Times are compared as differences of 32 bits; a
// clock beyond 2038 must not prevent the first scan.
void scan_when_due() {
  const std::int64_t now = std::time(nullptr);
  const auto left = static_cast<std::int32_t>(static_cast<std::uint32_t>(state.next_scan) -
                                              static_cast<std::uint32_t>(now));
  if (left >= 0 && state.next_scan != 0) return;
  scan_audit_ctx(now);
  state.next_scan = std::time(nullptr) + kScanPause_s;
}

// Returns 1 when a message is waiting and 0 when none is. When that cannot be determined, logs a
// line and returns -1. Uses poll(2), because a busy agent has descriptors that select(2) cannot
// handle.
int check_readable(int fd) {
  pollfd audit = {.fd = fd, .events = POLLIN, .revents = 0};
  int ready = poll(&audit, 1, 0);
  if (ready > 0 && (audit.revents & POLLNVAL) != 0) {
    ready = -1;
    errno = EBADF;
  }
  if (ready < 0) QEL_ERROR("select failed, error=%s\n", strerror(errno));
  return ready;
}

// Reads and handles one message. Returns 1, or 0 when the read failed.
int read_message() {
  audit_reply reply;
  const int result = audit_get_reply(audit_fd, &reply, GET_REPLY_NONBLOCKING, 0);
  if (result <= 0) {
    if (result == -ENOBUFS) note_overrun();
    QEL_ERROR("audit_get_reply failed\n");
    return 0;
  }
  handle_audit_msg(&reply);
  return 1;
}

// Called by the main loop over and over, even while the library is stopped, because the framework
// cannot unregister a poller. Reads at most one message; returns 1 when there was one. If a
// callback has stopped the library, the stop is complete before look_at_watches is called and has
// already forgotten the files.
int poll_audit(void*) {
  if (!state.started || qel::handling_record()) return 0;
  scan_when_due();
  const int readable = check_readable(audit_fd);
  if (readable < 0) return 0;
  const int taken = readable > 0 ? read_message() : 0;
  qel::look_at_watches(handle_audit_event);
  return taken;
}

// ---- Start and stop ----------------------------------------------------------------------------

void open_registries() {
  for (int event_class = 0; event_class < QEL_CLASS_COUNT; ++event_class) {
    callback_registry& registry = audit_cb_list[event_class];
    const key_hash_ops& hash = audit_hash_func[event_class];
    registry.entry_count = 0;
    registry.global_count = 0;
    registry.buckets = xhash_create2(hash.release, hash.hash, hash.compare, 1);
    registry.ops = audit_ops[event_class];
  }
}

void free_keys(callback_registry& registry) {
  for (int i = 0; i < registry.entry_count; ++i) {
    std::free(const_cast<char*>(std::exchange(registry.entries[i].key.text, nullptr)));
  }
}

void close_registries() {
  for (int event_class = 0; event_class < QEL_CLASS_COUNT; ++event_class) {
    callback_registry& registry = audit_cb_list[event_class];
    xhash_destroy(std::exchange(registry.buckets, nullptr));
    if (event_class != QEL_CLASS_BIND) free_keys(registry);  // a bind key is the port itself
  }
}

// The parts of the library in the order of their start; they are stopped in reverse.
struct Part {
  int (*start)();
  void (*stop)();
};

int start_looking() {
  qel::note_watched_files();
  return 0;
}

constexpr Part kParts[] = {
    {audit_msg_init, audit_msg_fini},     {audit_subsys_init, [] { audit_subsys_fini(); }},
    {start_looking, qel::forget_watches}, {[] { return login_log_init(nullptr); }, login_log_fini},
    {passwd_init, passwd_fini},
};

// Starts one part after another. Returns the first that failed, or the end.
const Part* start_parts() {
  const Part* part = std::begin(kParts);
  while (part != std::end(kParts) && part->start() == 0) ++part;
  return part;
}

// Stops the parts before `end`, last started first.
void stop_parts(const Part* end) {
  while (end != std::begin(kParts)) (--end)->stop();
}

bool register_poller() {
  if (qel_mainloop_reg_poller(poll_audit, nullptr) == 0) return true;
  QEL_ERROR("qel_mainloop_reg_poller failed\n");
  return false;
}

int start() {
  open_registries();
  const Part* const reached = start_parts();
  if (reached == std::end(kParts) && register_poller()) {
    state.started = true;
    return 0;
  }
  stop_parts(reached);
  close_registries();
  return -1;
}

void stop() {
  if (!state.started) return;
  state.started = false;
  stop_parts(std::end(kParts));
  close_registries();
}

// ---- Registry ----------------------------------------------------------------------------------

// What a client asks for.
struct Registration {
  int event_class;
  key_slot key;
  std::uint32_t filter;
  callback_pair callback;
};

bool is_same(const event_class_ops& ops, const callback_entry& entry, const Registration& wanted) {
  return ops.key_compare(&entry.key, &wanted.key) == 0 &&
         entry.callback.function == wanted.callback.function &&
         entry.callback.arg == wanted.callback.arg &&
         ops.filter_compare(&entry.filter, &wanted.filter) == 0;
}

// The address of the function, for log lines.
const void* address_of(const callback_pair& callback) {
  return reinterpret_cast<const void*>(callback.function);
}

bool check_not_registered(const callback_registry& registry, const Registration& wanted) {
  const event_class_ops& ops = *registry.ops;
  for (int i = 0; i < registry.entry_count; ++i) {
    if (!is_same(ops, registry.entries[i], wanted)) continue;
    QEL_ERROR("callback already exist for %s: %s, %s, cb_index=%d, cb=%p\n", ops.name,
              ops.key_to_string(&wanted.key), ops.filter_to_string(&wanted.filter), i,
              address_of(wanted.callback));
    return false;
  }
  return true;
}

key_bucket* find_bucket(const callback_registry& registry, const key_slot& key) {
  void* found = nullptr;
  if (xhash_search(registry.buckets, &key, sizeof(key), &found) != 0) return nullptr;
  return static_cast<key_bucket*>(found);
}

key_bucket* add_bucket(const callback_registry& registry, const key_slot& key) {
  auto* bucket = QEL_CHECKED(qel::new_zeroed<key_bucket>());
  bucket->key = key;
  xhash_insert(registry.buckets, &bucket->key, sizeof(key), bucket);
  return bucket;
}

int add_global(callback_registry& registry, const Registration& wanted, int index) {
  QEL_NOTICE("add global %s event callback: %s, cb_index=%d, cb=%p\n", registry.ops->name,
             registry.ops->filter_to_string(&wanted.filter), index, address_of(wanted.callback));
  registry.global_indexes[registry.global_count++] = static_cast<std::uint16_t>(index);
  return 0;
}

int add_to_bucket(callback_registry& registry, const Registration& wanted, int index) {
  const event_class_ops& ops = *registry.ops;
  key_bucket* bucket = find_bucket(registry, wanted.key);
  if (bucket == nullptr) bucket = add_bucket(registry, wanted.key);
  if (bucket->count >= kMaxCallbacksPerKey) {
    --registry.entry_count;
    QEL_ERROR("too many callback for %s: %s\n", ops.name, ops.key_to_string(&wanted.key));
    return -1;
  }
  QEL_NOTICE("add event callback for %s: %s, %s, cb_index=%d, cb=%p\n", ops.name,
             ops.key_to_string(&wanted.key), ops.filter_to_string(&wanted.filter), index,
             address_of(wanted.callback));
  bucket->indexes[bucket->count++] = static_cast<std::uint16_t>(index);
  return index;
}

// Takes ownership of the key's text when it succeeds. Returns the index of a keyed callback, 0 for
// a global one, or -1 when the callback was refused.
int add_event_callback(const Registration& wanted) {
  callback_registry& registry = audit_cb_list[wanted.event_class];
  if (!check_not_registered(registry, wanted)) return -1;
  if (registry.entry_count >= kMaxCallbacks) {
    QEL_ERROR("too many audit callbacks\n");
    return -1;
  }
  const int index = registry.entry_count++;
  registry.entries[index] = {wanted.key, wanted.filter, wanted.callback};
  return registry.ops->key_is_global(&wanted.key) != 0 ? add_global(registry, wanted, index)
                                                       : add_to_bucket(registry, wanted, index);
}

// ---- Registration ------------------------------------------------------------------------------

// A kernel rule that a registration needs; only system call rules have a name. `add` returns 1 when
// it loaded the rule, 0 when the rule was already loaded, and -1 when it failed.
struct NeededRule {
  int (*add)(const char* name);
  void (*remove)(const char* name);
};

constexpr NeededRule kPasswd = {[](const char*) { return audit_add_passwd_rule(); },
                                [](const char*) { audit_del_passwd_rule(); }};
constexpr NeededRule kShadow = {[](const char*) { return audit_add_shadow_rule(); },
                                [](const char*) { audit_del_shadow_rule(); }};
constexpr NeededRule kWtmp = {[](const char*) { return audit_add_wtmp_rule(); },
                              [](const char*) { audit_del_wtmp_rule(); }};
constexpr NeededRule kExecve = {[](const char*) { return audit_add_execve_rule(); },
                                [](const char*) { audit_del_execve_rule(); }};
constexpr NeededRule kBind = {[](const char*) { return audit_add_bind_rule(); },
                              [](const char*) { audit_del_bind_rule(); }};
constexpr NeededRule kSyscall = {audit_add_syscall_rule, audit_del_syscall_rule};

// The rules that this registration itself has loaded. They are deleted again, in the order of
// loading, unless the registration succeeds.
class LoadedRules {
 public:
  explicit LoadedRules(const char* name) : name_(name) {}
  LoadedRules(const LoadedRules&) = delete;
  LoadedRules& operator=(const LoadedRules&) = delete;
  ~LoadedRules() {
    for (int i = 0; i < count_; ++i) rules_[i]->remove(name_);
  }

  bool load(const NeededRule& rule) {
    const int result = rule.add(name_);
    if (result > 0) rules_[count_++] = &rule;
    return result >= 0;
  }

  void keep() { count_ = 0; }

 private:
  const char* name_;
  const NeededRule* rules_[2] = {};
  int count_ = 0;
};

// Starts the library, loads the rules and adds the callback. A text key is copied.
int register_callback(Registration wanted, std::initializer_list<const NeededRule*> rules) {
  if (qel_audit_init() != 0) return -1;
  const bool has_text = wanted.event_class != QEL_CLASS_BIND;
  LoadedRules loaded(has_text ? wanted.key.text : nullptr);
  for (const NeededRule* rule : rules) {
    if (!loaded.load(*rule)) return -1;
  }
  qel::Owned<char> text(has_text ? QEL_CHECKED(qel::copy_of(wanted.key.text)) : nullptr);
  if (has_text) wanted.key.text = text.get();
  const int index = add_event_callback(wanted);
  if (index < 0) return -1;
  static_cast<void>(text.release());
  loaded.keep();
  return index;
}

template <typename Callback>
callback_pair pair_of(Callback callback, void* arg) {
  return {reinterpret_cast<void (*)()>(callback), arg};
}

key_slot text_key(const char* text) {
  return {.text = text != nullptr ? text : ""};
}

bool check_mask(int event_mask, const callback_pair& callback) {
  if (event_mask != 0 && callback.function != nullptr) return true;
  QEL_ERROR("invalid cb param, ev_mask=%d, cb=%p\n", event_mask, address_of(callback));
  return false;
}

}  // namespace

callback_registry audit_cb_list[QEL_CLASS_COUNT];

int qel_audit_init() {
  if (qel::has_put_off()) {
    QEL_ERROR("the library is about to stop\n");
    return -1;
  }
  return state.started ? 0 : start();
}

void qel_audit_fini() {
  if (qel::handling_record()) {
    qel::after_record(stop);
  } else {
    stop();
  }
}

int qel_login_reg_callback(const char* username, int event_mask, qel_login_callback callback,
                           void* arg) {
  const callback_pair pair = pair_of(callback, arg);
  if (!check_mask(event_mask, pair)) return -1;
  return register_callback(
      {QEL_CLASS_LOGIN, text_key(username), static_cast<std::uint32_t>(event_mask), pair},
      {&kWtmp});
}

int qel_user_reg_callback(const char* username, int event_mask, qel_user_callback callback,
                          void* arg) {
  const callback_pair pair = pair_of(callback, arg);
  if (!check_mask(event_mask, pair)) return -1;
  const Registration wanted = {QEL_CLASS_USER, text_key(username),
                               static_cast<std::uint32_t>(event_mask), pair};
  if (event_mask == QEL_USER_PASSWORD) return register_callback(wanted, {&kShadow});
  if ((event_mask & QEL_USER_PASSWORD) == 0) return register_callback(wanted, {&kPasswd});
  return register_callback(wanted, {&kPasswd, &kShadow});
}

int qel_syscall_reg_callback(const char* syscall, int success, qel_syscall_callback callback,
                             void* arg) {
  const callback_pair pair = pair_of(callback, arg);
  if (success < QEL_SYSCALL_ANY || success > QEL_SYSCALL_SUCCEEDED || callback == nullptr) {
    QEL_ERROR("invalid cb param, success=%d, cb=%p\n", success, address_of(pair));
    return -1;
  }
  if (syscall == nullptr || syscall[0] == '\0') {
    QEL_ERROR("use param \"all\" to audit all syscall event\n");
    return -1;
  }
  return register_callback(
      {QEL_CLASS_SYSCALL, text_key(syscall), static_cast<std::uint32_t>(success), pair},
      {&kSyscall});
}

int qel_execve_reg_callback(const char* command, qel_execve_callback callback, void* arg) {
  if (callback == nullptr) {
    QEL_ERROR("execve cb cant be null\n");
    return -1;
  }
  return register_callback({QEL_CLASS_EXECVE, text_key(command), 0, pair_of(callback, arg)},
                           {&kExecve});
}

int qel_bind_reg_callback(int port, qel_bind_callback callback, void* arg) {
  if (callback == nullptr) {
    QEL_ERROR("bind cb cant be null\n");
    return -1;
  }
  key_slot key = {};
  key.port = htons(static_cast<std::uint16_t>(port));
  return register_callback({QEL_CLASS_BIND, key, 0, pair_of(callback, arg)}, {&kBind});
}

int qel_login_unreg_callback(const char*, int, qel_login_callback, void*) {
  return 0;
}

int qel_user_unreg_callback(const char*, int, qel_user_callback, void*) {
  return 0;
}

int qel_syscall_unreg_callback(const char*, int, qel_syscall_callback, void*) {
  return 0;
}

int qel_execve_unreg_callback(const char*, qel_execve_callback, void*) {
  return 0;
}

int qel_bind_unreg_callback(int, qel_bind_callback, void*) {
  return 0;
}
