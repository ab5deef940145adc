#include "audit_ops.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/log.h"
#include "base/table_keys.h"

namespace {

constexpr char kLogSource[] = "audit_ops";

constexpr std::size_t kTextSize = 32;

constexpr std::uint32_t kAnySuccess = static_cast<std::uint32_t>(QEL_SYSCALL_ANY);

static_assert(offsetof(login_event, info) == 8 && offsetof(user_event, info) == 8 &&
              offsetof(syscall_event, info) == 8 && offsetof(execve_event, info) == 8 &&
              offsetof(bind_event, info) == 8);
static_assert(offsetof(qel_login_info, time) == 1072 && sizeof(qel_login_info) == 1080);
static_assert(offsetof(qel_user_info, groupname) == 260 && sizeof(qel_user_info) == 516);
static_assert(offsetof(qel_syscall_info, arg1) == 560 && sizeof(qel_syscall_info) == 592);
static_assert(offsetof(qel_execve_info, argv) == 528 && sizeof(qel_execve_info) == 536);
static_assert(offsetof(qel_bind_info, addr) == 528 && sizeof(qel_bind_info) == 656);

// Texts for log lines; each stays valid until the function that made it is called again.
struct {
  char filter[QEL_CLASS_SYSCALL + 1][kTextSize];
  char port[kTextSize];
  char address[INET6_ADDRSTRLEN];
} texts;
static_assert(INET6_ADDRSTRLEN == 46);

template <typename Event>
const auto& info_of(const void* event) {
  return static_cast<const Event*>(event)->info;
}

// ---- Filters -----------------------------------------------------------------------------------

template <int Class>
const char* mask_to_string(const std::uint32_t* filter) {
  str_snprintf(texts.filter[Class], kTextSize, "event=%u", *filter);
  return texts.filter[Class];
}

const char* success_to_string(const std::uint32_t* filter) {
  str_snprintf(texts.filter[QEL_CLASS_SYSCALL], kTextSize, "success=%u", *filter);
  return texts.filter[QEL_CLASS_SYSCALL];
}

const char* no_filter_to_string(const std::uint32_t*) {
  return "none";
}

int compare_values(const std::uint32_t* a, const std::uint32_t* b) {
  return *a != *b;
}

int same_filter(const std::uint32_t*, const std::uint32_t*) {
  return 0;
}

int match_mask(const std::uint32_t* registered, const std::uint32_t* value) {
  return (*registered & *value) == 0;
}

int match_success(const std::uint32_t* registered, const std::uint32_t* value) {
  return *registered != kAnySuccess && *registered != *value;
}

// ---- Keys --------------------------------------------------------------------------------------

int is_empty(const key_slot* key) {
  return key->text[0] == '\0';
}

int is_all(const key_slot* key) {
  return std::strcmp(key->text, "all") == 0;
}

const char* text_key_to_string(const key_slot* key) {
  return key->text;
}

int compare_texts(const key_slot* a, const key_slot* b) {
  return std::strcmp(a->text, b->text);
}

int is_port_0(const key_slot* key) {
  return key->port == 0;
}

const char* port_to_string(const key_slot* key) {
  str_snprintf(texts.port, kTextSize, "%u", static_cast<unsigned>(ntohs(key->port)));
  return texts.port;
}

int compare_ports(const key_slot* a, const key_slot* b) {
  return a->port != b->port;
}

// The keys of the per-key tables are addresses of key slots.
const key_slot* slot_of(const void* key) {
  return static_cast<const key_slot*>(key);
}

std::uint32_t hash_text_key(const void* key, std::size_t) {
  return qel::hash_text(slot_of(key)->text);
}

int compare_text_keys(const void* a, std::size_t, const void* b, std::size_t) {
  return compare_texts(slot_of(a), slot_of(b));
}

std::uint32_t hash_port_key(const void* key, std::size_t) {
  return slot_of(key)->port;
}

int compare_port_keys(const void* a, std::size_t, const void* b, std::size_t) {
  return compare_ports(slot_of(a), slot_of(b));
}

// Prints as inet_ntop(3) does, which takes ten times as long. Every bind prints an address for a
// log line.
void print_ipv4(const char* address, char* text) {
  for (int i = 0; i < 4; ++i) {
    text = std::to_chars(text, text + 3, static_cast<unsigned char>(address[i])).ptr;
    *text++ = i < 3 ? '.' : '\0';
  }
}

// ---- Runners -----------------------------------------------------------------------------------

template <typename Callback, typename Info>
void call(const callback_pair* callback, const Info& info) noexcept {
  reinterpret_cast<Callback>(callback->function)(&info, callback->arg);
}

const char* argument_text(const qel_execve_info& info, int index) {
  return index < info.argc ? info.argv[index] : "";
}

// ctime(3) returns null for a year beyond its range.
const char* time_text(std::time_t time) {
  const char* text = ctime(&time);
  return text == nullptr ? "" : text;
}

// ---- Tables ------------------------------------------------------------------------------------

constexpr event_class_ops kLoginOps = {
    .name = "login",
    .filter_to_string = mask_to_string<QEL_CLASS_LOGIN>,
    .set_filter = set_login_filter_func,
    .filter_compare = compare_values,
    .filter_match = match_mask,
    .key_is_global = is_empty,
    .key_to_string = text_key_to_string,
    .key_compare = compare_texts,
    .set_key = set_login_key_func,
    .run = run_login_callback,
    .reserved = {},
};

constexpr event_class_ops kUserOps = {
    .name = "user",
    .filter_to_string = mask_to_string<QEL_CLASS_USER>,
    .set_filter = set_user_filter_func,
    .filter_compare = compare_values,
    .filter_match = match_mask,
    .key_is_global = is_empty,
    .key_to_string = text_key_to_string,
    .key_compare = compare_texts,
    .set_key = set_user_key_func,
    .run = run_user_callback,
    .reserved = {},
};

constexpr event_class_ops kSyscallOps = {
    .name = "syscall",
    .filter_to_string = success_to_string,
    .set_filter = set_syscall_filter_func,
    .filter_compare = compare_values,
    .filter_match = match_success,
    .key_is_global = is_all,
    .key_to_string = text_key_to_string,
    .key_compare = compare_texts,
    .set_key = set_syscall_key_func,
    .run = run_syscall_callback,
    .reserved = {},
};

constexpr event_class_ops kExecveOps = {
    .name = "execve",
    .filter_to_string = no_filter_to_string,
    .set_filter = set_execve_filter_func,
    .filter_compare = same_filter,
    .filter_match = same_filter,
    .key_is_global = is_empty,
    .key_to_string = text_key_to_string,
    .key_compare = compare_texts,
    .set_key = set_execve_key_func,
    .run = run_execve_callback,
    .reserved = {},
};

constexpr event_class_ops kBindOps = {
    .name = "bind",
    .filter_to_string = no_filter_to_string,
    .set_filter = set_bind_filter_func,
    .filter_compare = same_filter,
    .filter_match = same_filter,
    .key_is_global = is_port_0,
    .key_to_string = port_to_string,
    .key_compare = compare_ports,
    .set_key = set_bind_key_func,
    .run = run_bind_callback,
    .reserved = {},
};

constexpr key_hash_ops kTextKeyHash = {std::free, hash_text_key, compare_text_keys};
constexpr key_hash_ops kPortKeyHash = {std::free, hash_port_key, compare_port_keys};

}  // namespace

const event_class_ops* const audit_ops[QEL_CLASS_COUNT] = {&kLoginOps, &kUserOps, &kSyscallOps,
                                                           &kExecveOps, &kBindOps};

const key_hash_ops audit_hash_func[QEL_CLASS_COUNT] = {kTextKeyHash, kTextKeyHash, kTextKeyHash,
                                                       kTextKeyHash, kPortKeyHash};

void set_login_filter_func(const void* event, std::uint32_t* filter) {
  *filter = info_of<login_event>(event).event;
}

void set_user_filter_func(const void* event, std::uint32_t* filter) {
  *filter = info_of<user_event>(event).event;
}

void set_syscall_filter_func(const void* event, std::uint32_t* filter) {
  *filter = static_cast<std::uint32_t>(info_of<syscall_event>(event).success);
}

void set_execve_filter_func(const void*, std::uint32_t* filter) {
  *filter = 0;
}

void set_bind_filter_func(const void*, std::uint32_t* filter) {
  *filter = 0;
}

void set_login_key_func(const void* event, key_slot* key) {
  key->text = info_of<login_event>(event).username;
}

void set_user_key_func(const void* event, key_slot* key) {
  key->text = info_of<user_event>(event).username;
}

void set_syscall_key_func(const void* event, key_slot* key) {
  key->text = info_of<syscall_event>(event).syscall;
}

void set_execve_key_func(const void* event, key_slot* key) {
  key->text = info_of<execve_event>(event).process;
}

void set_bind_key_func(const void* event, key_slot* key) {
  key->port = get_socket_port(&info_of<bind_event>(event).addr);
}

void run_login_callback(const void* event, const callback_pair* callback) {
  const qel_login_info& info = info_of<login_event>(event);
  QEL_DEBUG(
      "run_login_callback: event=%x, pid=%u, user=%s, process=%s, ipaddr=%s, username=%s, "
      "logintype=%s, time=%19.19s\n",
      info.event, info.pid, info.user, info.process, inet_ntoa(info.ipaddr), info.username,
      info.logintype, time_text(info.time));
  call<qel_login_callback>(callback, info);
}

void run_user_callback(const void* event, const callback_pair* callback) {
  const qel_user_info& info = info_of<user_event>(event);
  QEL_DEBUG("run_user_callback: event=%x, username=%s, groupname=%s\n", info.event, info.username,
            info.groupname);
  call<qel_user_callback>(callback, info);
}

void run_syscall_callback(const void* event, const callback_pair* callback) {
  const qel_syscall_info& info = info_of<syscall_event>(event);
  QEL_DEBUG(
      "run_syscall_callback: success=%d, result=%d, ppid=%u, pid=%u, user=%s, process=%s, "
      "syscall=%s, arg1=%lx, arg2=%lx, arg3=%lx, arg4=%lx\n",
      info.success, info.result, info.ppid, info.pid, info.user, info.process, info.syscall,
      info.arg1, info.arg2, info.arg3, info.arg4);
  call<qel_syscall_callback>(callback, info);
}

void run_execve_callback(const void* event, const callback_pair* callback) {
  const qel_execve_info& info = info_of<execve_event>(event);
  QEL_DEBUG(
      "run_execve_callback: result=%d, ppid=%u, pid=%u, user=%s, process=%s, argc=%d, argv[0]=%s, "
      "argv[1]=%s, argv[2]=%s, argv[3]=%s\n",
      info.result, info.ppid, info.pid, info.user, info.process, info.argc, argument_text(info, 0),
      argument_text(info, 1), argument_text(info, 2), argument_text(info, 3));
  call<qel_execve_callback>(callback, info);
}

void run_bind_callback(const void* event, const callback_pair* callback) {
  const qel_bind_info& info = info_of<bind_event>(event);
  QEL_DEBUG(
      "run_bind_callback: result=%d, ppid=%u, pid=%u, user=%s, process=%s, family=%d, addr=%s, "
      "port=%d\n",
      info.result, info.ppid, info.pid, info.user, info.process, info.addr.ss_family,
      get_socket_addr(&info.addr), ntohs(get_socket_port(&info.addr)));
  call<qel_bind_callback>(callback, info);
}

const char* get_socket_addr(const void* address) {
  const auto* base = static_cast<const char*>(address);
  auto& text = texts.address;
  text[0] = '\0';
  switch (static_cast<const sockaddr_storage*>(address)->ss_family) {
    case AF_UNIX:
      return base + offsetof(sockaddr_un, sun_path);
    case AF_INET:
      print_ipv4(base + offsetof(sockaddr_in, sin_addr), text);
      break;
    case AF_INET6:
      inet_ntop(AF_INET6, base + offsetof(sockaddr_in6, sin6_addr), text, sizeof(text));
      break;
    case AF_NETLINK: {
      const auto* netlink = static_cast<const sockaddr_nl*>(address);
      str_snprintf(text, sizeof(text), "%d.%x", static_cast<int>(netlink->nl_pid),
                   netlink->nl_groups);
      break;
    }
    case AF_PACKET: {
      const auto* packet = static_cast<const sockaddr_ll*>(address);
      str_snprintf(text, sizeof(text), "%d.%x", packet->sll_ifindex,
                   static_cast<unsigned>(packet->sll_protocol));
      break;
    }
    default:
      break;
  }
  return text;
}

std::uint16_t get_socket_port(const void* address) {
  const auto family = static_cast<const sockaddr_storage*>(address)->ss_family;
  if (family != AF_INET && family != AF_INET6) return 0;
  return static_cast<const sockaddr_in*>(address)->sin_port;
}
