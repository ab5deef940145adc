// The five event classes as data. Each class has the operations through which registry and dispatch
// treat all classes alike, and the runner that passes an event to a client's callback.
#pragma once

#include <qel_audit.h>
#include <qel_base.h>

#include <cstdint>

// A client's function, which has the callback type of its class, and the argument it gets.
struct callback_pair {
  void (*function)();
  void* arg;
};

// A key as it is stored: the address of a text, or a port in network byte order in the first 16
// bits.
union key_slot {
  const char* text;
  std::uint16_t port;
};
static_assert(sizeof(key_slot) == 8);

// The operations of one class. `event` is always a whole event record, beginning with `type`.
struct event_class_ops {
  const char* name;
  // Text for log lines, valid until the next call.
  const char* (*filter_to_string)(const std::uint32_t* filter);
  void (*set_filter)(const void* event, std::uint32_t* filter);
  // Returns 0 when the filters count as the same registration.
  int (*filter_compare)(const std::uint32_t* a, const std::uint32_t* b);
  // Returns 0 when an event with filter value `value` passes the registered filter.
  int (*filter_match)(const std::uint32_t* registered, const std::uint32_t* value);
  // Returns nonzero when the key stands for every event of the class.
  int (*key_is_global)(const key_slot* key);
  const char* (*key_to_string)(const key_slot* key);
  // Returns 0 when the keys are equal.
  int (*key_compare)(const key_slot* a, const key_slot* b);
  void (*set_key)(const void* event, key_slot* key);
  void (*run)(const void* event, const callback_pair* callback);
  void* reserved[2];
};
static_assert(sizeof(event_class_ops) == 12 * sizeof(void*));

// What xhash_create2 needs for a class's table of key buckets. The keys of that table are addresses
// of key slots.
struct key_hash_ops {
  xhash_release_fn release;
  xhash_hash_fn hash;
  xhash_compare_fn compare;
};

extern "C" {

extern QEL_API const event_class_ops* const audit_ops[QEL_CLASS_COUNT];
extern QEL_API const key_hash_ops audit_hash_func[QEL_CLASS_COUNT];

QEL_API void set_login_filter_func(const void* event, std::uint32_t* filter);
QEL_API void set_user_filter_func(const void* event, std::uint32_t* filter);
QEL_API void set_syscall_filter_func(const void* event, std::uint32_t* filter);
QEL_API void set_execve_filter_func(const void* event, std::uint32_t* filter);
QEL_API void set_bind_filter_func(const void* event, std::uint32_t* filter);

QEL_API void set_login_key_func(const void* event, key_slot* key);
QEL_API void set_user_key_func(const void* event, key_slot* key);
QEL_API void set_syscall_key_func(const void* event, key_slot* key);
QEL_API void set_execve_key_func(const void* event, key_slot* key);
QEL_API void set_bind_key_func(const void* event, key_slot* key);

// Each of these logs one line at debug level and calls the callback with the event's `info`.
QEL_API void run_login_callback(const void* event, const callback_pair* callback);
QEL_API void run_user_callback(const void* event, const callback_pair* callback);
QEL_API void run_syscall_callback(const void* event, const callback_pair* callback);
QEL_API void run_execve_callback(const void* event, const callback_pair* callback);
QEL_API void run_bind_callback(const void* event, const callback_pair* callback);

// The printable form of a socket address that has the size of sockaddr_storage: the path, not
// copied, for AF_UNIX, the IP address for AF_INET and AF_INET6, "PORTID.GROUPS" for AF_NETLINK,
// "IFINDEX.PROTOCOL" for AF_PACKET, and otherwise an empty text. Valid until the next call.
QEL_API const char* get_socket_addr(const void* address);

// The port of an AF_INET or AF_INET6 address, in network byte order; otherwise 0.
QEL_API std::uint16_t get_socket_port(const void* address);
}
