// What callbacks and emitters of the host may do while the library is at work below them. A stop
// that they ask for is put off until the record being handled is finished, because it frees the
// contexts, snapshots and registries that the code below them still uses. Exported functions that
// would change those are refused.
#pragma once

namespace qel {

// The state that RecordScope keeps; nobody else touches it.
struct RecordState {
  int depth;
  int host_depth;
  void (*put_off)();
};
extern RecordState record_state;

void run_what_was_put_off();

// Held by every function that may run client callbacks. They nest; the outermost one carries out
// what was put off when it ends, so it must be the first object of its function.
class RecordScope {
 public:
  RecordScope() { ++record_state.depth; }
  ~RecordScope() {
    if (--record_state.depth == 0 && record_state.put_off != nullptr) run_what_was_put_off();
  }
  RecordScope(const RecordScope&) = delete;
  RecordScope& operator=(const RecordScope&) = delete;
};

// Held while a function of the host runs.
class HostScope {
 public:
  HostScope() { ++record_state.host_depth; }
  ~HostScope() { --record_state.host_depth; }
  HostScope(const HostScope&) = delete;
  HostScope& operator=(const HostScope&) = delete;
};

// Whether a record is being handled.
inline bool handling_record() {
  return record_state.depth > 0;
}

// Whether a function of the host runs.
inline bool in_host_function() {
  return record_state.host_depth > 0;
}

// Has `action` called when the record being handled is finished, once however often it was asked
// for.
inline void after_record(void (*action)()) {
  record_state.put_off = action;
}

// Whether something was put off.
inline bool has_put_off() {
  return record_state.put_off != nullptr;
}

}  // namespace qel
