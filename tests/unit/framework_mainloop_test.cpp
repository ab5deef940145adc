// The main loop. Registrations last as long as the process, so every test fills the same slots.
#include <gtest/gtest.h>
#include <time.h>

#include <array>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "qel_frame.h"

namespace {

std::array<std::function<int()>, 3> slots;
std::vector<long> pauses_ms;
std::function<int()> during_pause;

int call_slot(void* slot) {
  auto& action = *static_cast<std::function<int()>*>(slot);
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

}  // namespace

// Takes the place of libc's in the main loop: pauses are noted and take no time.
extern "C" int nanosleep(const struct timespec* requested, struct timespec* /*remaining*/) {
  pauses_ms.push_back(requested->tv_sec * 1000 + requested->tv_nsec / 1'000'000);
  return during_pause();
}

namespace {

TEST_F(MainLoop, PausesGrowWhileIdleAndVanishWhileBusy) {
  // W: the poller worked, i: it was idle, F: it failed, which is no work either.
  const std::string rounds = "iiiiiiWWWWiWiFi";
  size_t round = 0;
  slots[0] = [&] {
    const char outcome = rounds[round++];
    if (round == rounds.size()) stop();
    return outcome == 'W' ? 1 : outcome == 'F' ? -1 : 0;
  };
  size_t idle_calls = 0;
  EXPECT_EQ(qel_mainloop_reg_poller(call_slot, &slots[1]), 0);
  slots[1] = [&] { return ++idle_calls, 0; };
  qel_mainloop_run();
  EXPECT_EQ(idle_calls, rounds.size()) << "a busy poller keeps the others going";
  EXPECT_EQ(round, rounds.size());
  EXPECT_EQ(pauses_ms, (std::vector<long>{1, 2, 4, 8, 9, 9, 1, 1, 2}));
}

TEST_F(MainLoop, RegistersEachPairOnceAndInOrderAlsoFromAPoller) {
  EXPECT_NE(qel_mainloop_reg_poller(nullptr, &slots[0]), 0);
  std::string calls;
  slots[0] = [&] {
    calls += 'a';
    for (auto& slot : slots) EXPECT_EQ(qel_mainloop_reg_poller(call_slot, &slot), 0);
    // Enough of them to move the list under the running round.
    static std::array<std::function<int()>, 100> more;
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
  slots[0] = [&] { return ++calls, 0; };
  during_pause = [] { return raise(SIGUSR1), -1; };
  std::signal(SIGUSR1, [](int) { qel_mainloop_stop(); });
  qel_mainloop_run();
  std::signal(SIGUSR1, SIG_DFL);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(pauses_ms.size(), 1U);
}

}  // namespace
