// A clock that a test sets, and a poll(2) that does not really wait.
//
// Linked into an executable, this library defines time, clock_gettime and poll for the executable
// and for the shared libraries that it loads. While no clock is set, they ask the kernel as usual.
// While one is set, time() and the wall, monotonic and boot clocks stand still at it. A poll with a
// positive timeout and nothing ready then advances the clock by the timeout instead of waiting. A
// poll without a timeout still waits.
#pragma once

#include <chrono>
#include <ctime>

namespace offline {

void set_clock(std::time_t seconds);
// The clock must be set.
void advance_clock(std::chrono::nanoseconds by);
// From now on each reading of the clock advances it by `by`, and so does each poll that is made to
// fail. For code that waits until some time is reached.
void set_clock_tick(std::chrono::nanoseconds by);
// Returns to the kernel's clocks and poll. Forgets the tick, the planned failures and the count of
// polls.
void release_clock();

// The next `times` calls of poll fail with this errno value.
void fail_poll(int errno_value, unsigned times = 1);
// Calls of poll since the clock was last released.
unsigned poll_calls();

}  // namespace offline
