// A clock that a test sets, and a poll(2) that does not wait for it.
//
// Linked into an executable, this library defines time, clock_gettime and poll for it and for the
// shared libraries it loads. While no clock is set they ask the kernel, as ever. While one is set,
// time() and the clocks for wall, monotonic and boot time stand still at it, and a poll with a
// positive timeout and nothing ready moves the clock on by the timeout instead of waiting. A poll
// without timeout still waits.
#pragma once

#include <chrono>
#include <ctime>

namespace offline {

void set_clock(std::time_t seconds);
// The clock has to be set.
void advance_clock(std::chrono::nanoseconds by);
// From now on each look at the clock moves it on by `by`, and each interrupted poll as well: for code
// that waits until a time has come.
void set_clock_tick(std::chrono::nanoseconds by);
// Back to the kernel's clocks and poll; forgets the tick, planned failures and the count of polls.
void release_clock();

// The next `times` calls of poll fail with this errno.
void fail_poll(int errno_value, unsigned times = 1);
// Calls of poll since the clock was last released.
unsigned poll_calls();

}  // namespace offline
