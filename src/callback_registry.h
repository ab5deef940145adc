// The registered callbacks of each event class. The registration functions of qel_audit add to
// them, and dispatch in audit_event searches them.
#pragma once

#include <qel_audit.h>
#include <qel_base.h>

#include <cstddef>
#include <cstdint>

#include "audit_ops.h"

inline constexpr int kMaxCallbacks = 4096;  // per class, so that an index fits 16 bits
inline constexpr int kMaxCallbacksPerKey = 8;

struct callback_entry {
  key_slot key;  // the registry owns texts until the library is stopped
  std::uint32_t filter;
  callback_pair callback;
};
static_assert(offsetof(callback_entry, filter) == 8 && offsetof(callback_entry, callback) == 16 &&
              sizeof(callback_entry) == 32);

// The entries under one key, in order of registration. The per-key table owns the bucket and uses
// the address of `key` as its key.
struct key_bucket {
  key_slot key;
  int count;
  std::uint16_t indexes[kMaxCallbacksPerKey];
};
static_assert(offsetof(key_bucket, count) == 8 && offsetof(key_bucket, indexes) == 12 &&
              sizeof(key_bucket) == 32);

// Every entry below `entry_count` is in exactly one place: the bucket of its key, or the global
// list.
struct callback_registry {
  int entry_count;
  int global_count;
  callback_entry entries[kMaxCallbacks];
  std::uint16_t global_indexes[kMaxCallbacks];
  xhash_t* buckets;  // null while the library is stopped
  const event_class_ops* ops;
};
static_assert(offsetof(callback_registry, global_count) == 4 &&
              offsetof(callback_registry, entries) == 8 &&
              offsetof(callback_registry, global_indexes) == 8 + 32 * kMaxCallbacks &&
              offsetof(callback_registry, buckets) == 8 + 34 * kMaxCallbacks &&
              sizeof(callback_registry) == 24 + 34 * kMaxCallbacks);

extern "C" QEL_API callback_registry audit_cb_list[QEL_CLASS_COUNT];
