#include "record_scope.h"

#include <utility>

namespace qel {
namespace {

struct {
  int depth;
  void (*put_off)();
} state;

}  // namespace

RecordScope::RecordScope() {
  ++state.depth;
}

RecordScope::~RecordScope() {
  if (--state.depth > 0 || state.put_off == nullptr) return;
  std::exchange(state.put_off, nullptr)();
}

bool handling_record() {
  return state.depth > 0;
}

void after_record(void (*action)()) {
  state.put_off = action;
}

}  // namespace qel
