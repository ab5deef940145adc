// Puts off a stop that a client callback asks for until the record being handled is finished:
// stopping frees the contexts, snapshots and registries that the code below the callback still
// uses.
#pragma once

namespace qel {

// Held by every function that may run client callbacks. They nest; the outermost one carries out
// what was put off when it ends, so it must be the first object of its function.
class RecordScope {
 public:
  RecordScope();
  ~RecordScope();
  RecordScope(const RecordScope&) = delete;
  RecordScope& operator=(const RecordScope&) = delete;
};

// Whether a record is being handled.
bool handling_record();

// Has `action` called when the record being handled is finished, once however often it was asked
// for.
void after_record(void (*action)());

}  // namespace qel
