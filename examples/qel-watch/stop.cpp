#include "stop.h"

#include <qel_frame.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGALRM};
constexpr unsigned kRepeat_s = 1;

struct {
  volatile sig_atomic_t requested = 0;
} state;

// A signal may arrive after the program has checked for a request and before it enters a system
// call that blocks, such as a read from a pipe. The request would then go unnoticed there. So the
// signal repeats itself until the program has stopped.
void handle_signal(int) {
  const int saved_errno = errno;
  request_stop();
  alarm(kRepeat_s);
  errno = saved_errno;
}

}  // namespace

// SA_RESTART is not set, so that a blocked read or write returns.
void catch_signals() {
  struct sigaction action = {};
  action.sa_handler = handle_signal;
  sigemptyset(&action.sa_mask);
  for (const int number : kStopSignals) sigaction(number, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

void request_stop() {
  state.requested = 1;
  qel_mainloop_stop();
}

bool stop_requested() {
  return state.requested != 0;
}

void finish_stop() {
  for (const int number : kStopSignals) signal(number, SIG_IGN);
  alarm(0);
}
