// The main loop: calls the registered pollers in rounds and sleeps while they have nothing to do.
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <vector>

#include "qel_base.h"
#include "qel_frame.h"

namespace {

// A poller cannot say what it waits for, so the loop has to poll. It polls often enough that
// nothing waits for more than ten milliseconds, even when a sleep takes too long. That is about a
// hundred rounds a second, well below a hundredth of a CPU.
constexpr int kMinPause_ms = 1;
constexpr int kMaxPause_ms = 9;

struct Poller {
  qel_poller_fn poll;
  void* argument;
  bool operator==(const Poller&) const = default;
};

struct MainLoop {
  std::vector<Poller> pollers;
  std::atomic<bool> stop_requested = false;
};
MainLoop main_loop;

// A signal handler may only touch lock-free atomics.
static_assert(std::atomic<bool>::is_always_lock_free);

// Iterates by index, because a poller may register another, which moves the list.
bool run_round() {
  bool busy = false;
  for (size_t i = 0; i < main_loop.pollers.size(); ++i) {
    const Poller& poller = main_loop.pollers[i];
    if (poller.poll(poller.argument) == 1) busy = true;
  }
  return busy;
}

int next_pause_ms(int pause_ms) {
  return std::clamp(2 * pause_ms, kMinPause_ms, kMaxPause_ms);
}

// The sleep is not resumed when a signal ends it, because that signal may have requested the stop.
void pause_for(int pause_ms) {
  const struct timespec pause = {.tv_sec = 0, .tv_nsec = pause_ms * 1'000'000L};
  nanosleep(&pause, nullptr);
}

}  // namespace

int qel_mainloop_reg_poller(qel_poller_fn poller, void* argument) {
  if (poller == nullptr) return -1;
  const Poller added = {poller, argument};
  if (std::ranges::find(main_loop.pollers, added) != main_loop.pollers.end()) return 0;
  try {
    main_loop.pollers.push_back(added);
  } catch (const std::exception&) {
    error_output(QEL_LOG_FATAL, "mainloop", __LINE__, "Out of memory\n");
    std::exit(0);
  }
  return 0;
}

void qel_mainloop_run(void) {
  int pause_ms = 0;
  while (!main_loop.stop_requested.exchange(false)) {
    pause_ms = run_round() ? 0 : next_pause_ms(pause_ms);
    if (pause_ms > 0 && !main_loop.stop_requested) pause_for(pause_ms);
  }
}

void qel_mainloop_stop(void) {
  main_loop.stop_requested = true;
}
