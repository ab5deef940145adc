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
static std::function<int()> during_pause;

// Takes the place of libc's in the main loop: pauses are noted and take no time.
extern "C" int nanosleep(const struct timespec* requested, struct timespec* /*remaining*/) {
  pauses_ms.push_back(requested->tv_sec * 1000 + requested->tv_nsec / 1'000'000);
  return during_pause();
}

namespace {

using Action = std::function<int()>;
std::array<Action, 3> slots;

int call_slot(void* slot) {
  auto& action = *static_cast<Action*>(slot);
  return action ? action() : 0;
}

int stop() {
  qel_mainloop_stop();
  return 0;
}

struct MainLoop : testing::Test {
  MainLoop() {
    slots = {};
    pauses_ms.clear();
    during_pause = [] { return 0; };
    qel_mainloop_reg_poller(call_slot, &slots[0]);
  }
};

TEST_F(MainLoop, PausesGrowWhileIdleAndVanishWhileBusy) {
  // W: the poller worked, i: it was idle, F: it failed, which is no work either.
  const std::string rounds = "iiiiiiWWWWiWiFi";
  size_t round = 0, idle_calls = 0;
  slots[0] = [&] {
    const char outcome = rounds[round++];
    if (round == rounds.size()) stop();
    return outcome == 'W' ? 1 : outcome == 'F' ? -1 : 0;
  };
  EXPECT_EQ(qel_mainloop_reg_poller(call_slot, &slots[1]), 0);
  slots[1] = [&] { return ++idle_calls, 0; };
  qel_mainloop_run();
  EXPECT_EQ(idle_calls, rounds.size()) << "a busy poller keeps the others going";
  EXPECT_EQ(pauses_ms, (std::vector<long>{1, 2, 4, 8, 9, 9, 1, 1, 2}));
}

TEST_F(MainLoop, RegistersEachPairOnceAndInOrderAlsoFromAPoller) {
  EXPECT_NE(qel_mainloop_reg_poller(nullptr, &slots[0]), 0);
  std::string calls;
  slots[0] = [&] {
    calls += 'a';
    static std::array<Action, 100> more;  // enough to move the list under the running round
    for (auto& slot : slots) EXPECT_EQ(qel_mainloop_reg_poller(call_slot, &slot), 0);
    for (auto& slot : more) EXPECT_EQ(qel_mainloop_reg_poller(call_slot, &slot), 0);
    return 0;
  };
  slots[1] = [&] { return calls += 'b', 0; };
  slots[2] = [&] { return (calls += 'c').size() == 6 ? stop() : 0; };
  qel_mainloop_run();
  EXPECT_EQ(calls, "abcabc");
}

TEST_F(MainLoop, StopEndsOneRunAlsoFromASignalDuringAPause) {
  int calls = 0;
  slots[0] = [&] { return ++calls, stop(); };
  stop();
  for (const int expected : {0, 1, 2}) {
    qel_mainloop_run();
    EXPECT_EQ(calls, expected);
  }
  EXPECT_EQ(pauses_ms.size(), 0U);
  slots[0] = [&] { return ++calls, 0; };
  during_pause = [] { return raise(SIGUSR1), -1; };
  std::signal(SIGUSR1, [](int) { qel_mainloop_stop(); });
  qel_mainloop_run();
  EXPECT_EQ(calls, 3);
}

}  // namespace
