/*
 * client - starts and stops the library over and over in one process of a test guest.
 *   client RECEIVER_PID    begins beside the audit receiver with that process id, then kills it
 * Writes what it finds on standard error. Standard output is left to the library, which prints the
 * rules that it deletes there. Nothing may run it elsewhere: the library deletes all audit rules.
 */
#include <malloc.h>
#include <qel_audit.h>
#include <qel_frame.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <thread>

namespace {

constexpr int kPairs = 100;
constexpr int kWarmUpPairs = 10;  // the first ones fill caches of libc

int print_program(const qel_execve_info* event, void*) {
  std::fprintf(stderr, "event %s\n", event->argv[event->argc - 1]);
  qel_mainloop_stop();
  return 0;
}

// An agent may have a timer that interrupts every wait.
void send_signals() {
  constexpr itimerspec kEvery20ms = {{0, 20'000'000}, {0, 20'000'000}};
  sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGUSR1;
  timer_t timer;
  signal(SIGUSR1, [](int) {});
  if (timer_create(CLOCK_MONOTONIC, &event, &timer) == 0)
    timer_settime(timer, 0, &kEvery20ms, nullptr);
}

template <typename Info>
int ignore(const Info*, void*) {
  return 0;
}

bool start() {
  return qel_login_reg_callback("", QEL_LOGIN_LOGIN, ignore<qel_login_info>, nullptr) >= 0 &&
         qel_user_reg_callback("", 15, ignore<qel_user_info>, nullptr) >= 0 &&
         qel_syscall_reg_callback("mkdir", -1, ignore<qel_syscall_info>, nullptr) >= 0 &&
         qel_execve_reg_callback("echo", print_program, nullptr) >= 0 &&
         qel_bind_reg_callback(0, ignore<qel_bind_info>, nullptr) >= 0;
}

void say_start() {
  std::fputs(start() ? "started\n" : "refused\n", stderr);
}

// What is in use, without what malloc keeps for later.
struct Usage {
  long descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  size_t heap = mallinfo2().uordblks;
};

void say_growth_since(const Usage& before) {
  const Usage now;
  const auto bytes = static_cast<long>(now.heap) - static_cast<long>(before.heap);
  std::fprintf(stderr, "descriptors %+ld heap %+ld\n", now.descriptors - before.descriptors, bytes);
}

void run_pairs(int pairs) {
  for (int i = 0; i < pairs; ++i) {
    if (!start()) std::fputs("refused\n", stderr);
    qel_audit_fini();
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || access("/qel-guest", F_OK) != 0) return 2;
  send_signals();
  say_start();
  const Usage before_refusal;
  say_start();
  say_growth_since(before_refusal);
  kill(std::atoi(argv[1]), SIGKILL);
  std::this_thread::sleep_for(
      std::chrono::seconds(1));  // the kernel notices when it has something to send
  say_start();
  qel_audit_fini();

  if (std::system("/usr/bin/echo unseen >&2") != 0) return 1;
  say_start();
  if (std::system("/usr/bin/echo seen >&2") != 0) return 1;
  qel_mainloop_run();
  qel_audit_fini();

  run_pairs(kWarmUpPairs);
  const Usage before_pairs;
  run_pairs(kPairs - kWarmUpPairs);
  say_growth_since(before_pairs);
}
