// The main loop. Registrations last as long as the process, so every test fills the same slots.
#include <gtest/gtest.h>
#include <time.h>

#include <array>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "qel_frame.h"

static std::vector<long> pauses_ms;
static std::function<int()> during_pause = [] { return 0; };

// Takes the place of libc's in the main loop: pauses are noted and take no time.
extern "C" int nanosleep(const struct timespec* requested, struct timespec* /*remaining*/) {
  pauses_ms.push_back(requested->tv_sec * 1000 + requested->tv_nsec / 1'000'000);
  return during_pause();
}

namespace {

using Action = std::function<int()>;
std::array<Action, 100> slots;  // so many that the list moves while they are registered

int call_slot(void* slot) {
  auto& action = *static_cast<Action*>(slot);
  return action ? action() : 0;
}

int stop() {
  qel_mainloop_stop();
  return 0;
}

// Runs with these in the first slots, in a loop that knows the first of them.
void run(const Action& first, const Action& second = {}, const Action& third = {}) {
  slots = {first, second, third};
  pauses_ms.clear();
  qel_mainloop_reg_poller(call_slot, &slots[0]);
  qel_mainloop_run();
}

TEST(MainLoop, RegistersEachPairOnceAndInOrderAlsoFromAPoller) {
  EXPECT_NE(qel_mainloop_reg_poller(nullptr, &slots[0]), 0);
  std::string calls;
  const auto reg = [&] {
    calls += 'a';
    for (auto& slot : slots) EXPECT_EQ(qel_mainloop_reg_poller(call_slot, &slot), 0);
    return 0;
  };
  run(
      reg, [&] { return calls += 'b', 0; },
      [&] { return (calls += 'c').size() == 6 ? stop() : 0; });
  EXPECT_EQ(calls, "abcabc");
}

// W: the poller worked, i: it was idle, F: it failed, which is no work either.
TEST(MainLoop, PausesGrowWhileIdleAndVanishWhileBusy) {
  const std::string rounds = "iiiiiiWWWWiWiFi";
  size_t round = 0, idle_calls = 0;
  const auto work = [&] {
    const char outcome = rounds[round++];
    if (round == rounds.size()) stop();
    return outcome == 'W' ? 1 : outcome == 'F' ? -1 : 0;
  };
  EXPECT_EQ(qel_mainloop_reg_poller(call_slot, &slots[1]), 0);
  run(work, [&] { return ++idle_calls, 0; });
  EXPECT_EQ(idle_calls, rounds.size()) << "a busy poller keeps the others going";
  EXPECT_EQ(pauses_ms, (std::vector<long>{1, 2, 4, 8, 9, 9, 1, 1, 2}));
}

TEST(MainLoop, StopEndsOneRunAlsoFromASignalDuringAPause) {
  int calls = 0;
  stop();
  for (const int expected : {0, 1, 2}) {
    run([&] { return ++calls, stop(); });
    EXPECT_EQ(calls, expected);
    EXPECT_EQ(pauses_ms.size(), 0U);
  }
  during_pause = [] { return raise(SIGUSR1), -1; };
  std::signal(SIGUSR1, [](int) { stop(); });
  run([&] { return ++calls, 0; });
  EXPECT_EQ(calls, 3);
}

}  // namespace
