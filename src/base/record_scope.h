// What callbacks and emitters of the host may do while the library is at work further up the call
// stack. A stop that they request is put off until the record being handled is finished, because it
// frees the contexts, snapshots and registries that their callers still use. Exported functions
// that would change those are refused.
#pragma once

namespace qel {

// The state behind the scopes; nothing outside this module touches it.
struct RecordState {
  int depth;
  int host_depth;
  void (*put_off)();
};
extern RecordState record_state;

void run_what_was_put_off();

// Held by every function that may run client callbacks. Scopes nest. When the outermost one ends,
// it carries out what was put off, so it must be the first object of its function.
class RecordScope {
 public:
  RecordScope() { ++record_state.depth; }
  ~RecordScope() {
    if (--record_state.depth == 0 && record_state.put_off != nullptr) run_what_was_put_off();
  }
  RecordScope(const RecordScope&) = delete;
  RecordScope& operator=(const RecordScope&) = delete;
};

// Held while a callback or emitter of the host runs.
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

// Whether a callback or emitter of the host is running.
inline bool in_host_function() {
  return record_state.host_depth > 0;
}

// Has `action` called once when the record being handled is finished, however often this is
// requested.
inline void after_record(void (*action)()) {
  record_state.put_off = action;
}

// Whether an action is waiting for the end of the record.
inline bool has_put_off() {
  return record_state.put_off != nullptr;
}

}  // namespace qel
