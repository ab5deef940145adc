// The settable clock. Sanitizer runtimes and the test framework call these functions before main
// and from inside memory allocation. So nothing here allocates, locks or looks up symbols, and the
// kernel is reached with raw system calls.

// The fortified headers define poll themselves.
#undef _FORTIFY_SOURCE

#include "clock.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace offline {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;

struct Clock {
  std::atomic<bool> set = false;
  std::atomic<std::int64_t> now_ns = 0;
  std::atomic<std::int64_t> tick_ns = 0;
  std::atomic<unsigned> polls = 0;
  std::atomic<unsigned> polls_to_fail = 0;
  std::atomic<int> poll_errno = 0;
};

constinit Clock clock_state;

// Clocks of processor time measure work, so they are never set.
bool is_settable(clockid_t id) {
  return id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE || id == CLOCK_MONOTONIC ||
         id == CLOCK_MONOTONIC_COARSE || id == CLOCK_MONOTONIC_RAW || id == CLOCK_BOOTTIME;
}

timespec to_timespec(std::int64_t ns) {
  return {.tv_sec = ns / kNanosecondsPerSecond, .tv_nsec = ns % kNanosecondsPerSecond};
}

int poll_kernel(pollfd* fds, nfds_t count, int timeout_ms) {
  timespec timeout = to_timespec(timeout_ms * kNanosecondsPerMillisecond);
  return static_cast<int>(
      syscall(SYS_ppoll, fds, count, timeout_ms < 0 ? nullptr : &timeout, nullptr, 0));
}

}  // namespace

void set_clock(std::time_t seconds) {
  clock_state.now_ns = seconds * kNanosecondsPerSecond;
  clock_state.set = true;
}

void advance_clock(std::chrono::nanoseconds by) {
  clock_state.now_ns += by.count();
}

void set_clock_tick(std::chrono::nanoseconds by) {
  clock_state.tick_ns = by.count();
}

void release_clock() {
  clock_state.set = false;
  clock_state.tick_ns = 0;
  clock_state.polls = 0;
  clock_state.polls_to_fail = 0;
}

void fail_poll(int errno_value, unsigned times) {
  clock_state.poll_errno = errno_value;
  clock_state.polls_to_fail = times;
}

unsigned poll_calls() {
  return clock_state.polls;
}

}  // namespace offline

using namespace offline;

extern "C" {

int clock_gettime(clockid_t id, timespec* now) noexcept {
  if (!clock_state.set || !is_settable(id))
    return static_cast<int>(syscall(SYS_clock_gettime, id, now));
  *now = to_timespec(clock_state.now_ns += clock_state.tick_ns);
  return 0;
}

// The kernel's own time() has the granularity of the coarse clock.
time_t time(time_t* seconds) noexcept {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  if (seconds != nullptr) *seconds = now.tv_sec;
  return now.tv_sec;
}

int poll(pollfd* fds, nfds_t count, int timeout_ms) {
  ++clock_state.polls;
  if (clock_state.polls_to_fail != 0) {
    --clock_state.polls_to_fail;
    clock_state.now_ns += clock_state.tick_ns;
    errno = clock_state.poll_errno;
    return -1;
  }
  if (!clock_state.set || timeout_ms <= 0) return poll_kernel(fds, count, timeout_ms);
  const int ready = poll_kernel(fds, count, 0);
  if (ready == 0) clock_state.now_ns += timeout_ms * kNanosecondsPerMillisecond;
  return ready;
}
}
