#include "base/record_scope.h"

#include <utility>

namespace qel {

RecordState record_state;

void run_what_was_put_off() {
  std::exchange(record_state.put_off, nullptr)();
}

}  // namespace qel
