// Puts off a stop that a client callback asks for until the record being handled is finished:
// stopping frees the contexts, snapshots and registries that the code below the callback still
// uses.
#pragma once

namespace qel {

// The state that RecordScope keeps; nobody else touches it.
struct RecordState {
  int depth;
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

// Whether a record is being handled.
inline bool handling_record() {
  return record_state.depth > 0;
}

// Has `action` called when the record being handled is finished, once however often it was asked
// for.
inline void after_record(void (*action)()) {
  record_state.put_off = action;
}

}  // namespace qel
