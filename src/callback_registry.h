// The registered callbacks of each event class: filled by qel_audit's registration functions,
// searched by audit_event's dispatch.
#pragma once

#include <qel_audit.h>
#include <qel_base.h>

#include <cstdint>

#include "audit_ops.h"

inline constexpr int kMaxCallbacks = 4096;  // per class, so that an index fits 16 bits
inline constexpr int kMaxCallbacksPerKey = 8;

struct callback_entry {
  key_slot key;  // texts are owned by the registry until the library is stopped
  std::uint32_t filter;
  callback_pair callback;
};

// The entries under one key, in order of registration. The per-key table owns it and has the
// address of `key` as its key.
struct key_bucket {
  key_slot key;
  int count;
  std::uint16_t indexes[kMaxCallbacksPerKey];
};

// Every entry below `entry_count` stands in one place, a key's bucket or the global list.
struct callback_registry {
  int entry_count;
  int global_count;
  callback_entry entries[kMaxCallbacks];
  std::uint16_t global_indexes[kMaxCallbacks];
  xhash_t* buckets;  // null while the library is stopped
  const event_class_ops* ops;
};

extern "C" QEL_API callback_registry audit_cb_list[QEL_CLASS_COUNT];
