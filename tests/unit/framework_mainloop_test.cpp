// The main loop. Registrations last as long as the process, so every test fills the same slots.
#include <gtest/gtest.h>
#include <time.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <thread>
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

class MainLoop : public testing::Test {
 protected:
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
    if (round + 1 == rounds.size()) qel_mainloop_stop();
    const char outcome = rounds[round++];
    return outcome == 'W' ? 1 : outcome == 'F' ? -1 : 0;
  };
  qel_mainloop_run();
  EXPECT_EQ(round, rounds.size());
  EXPECT_EQ(pauses_ms, (std::vector<long>{1, 2, 4, 8, 10, 10, 1, 1, 2}));
}

TEST_F(MainLoop, OneBusyPollerKeepsTheOthersGoing) {
  int idle_calls = 0;
  int work_left = 50;
  EXPECT_EQ(qel_mainloop_reg_poller(call_slot, &slots[1]), 0);
  slots[0] = [&] { return work_left-- > 0 ? 1 : stop(); };
  slots[1] = [&] { return ++idle_calls, 0; };
  qel_mainloop_run();
  EXPECT_EQ(idle_calls, 51);
  EXPECT_TRUE(pauses_ms.empty());
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
  slots[2] = [&] {
    if ((calls += 'c').size() == 6) qel_mainloop_stop();
    return 0;
  };
  qel_mainloop_run();
  EXPECT_EQ(calls, "abcabc");
}

TEST_F(MainLoop, StopEndsOneRun) {
  int calls = 0;
  slots[0] = [&] { return ++calls, stop(); };
  qel_mainloop_stop();
  qel_mainloop_stop();
  qel_mainloop_run();
  EXPECT_EQ(calls, 0);
  qel_mainloop_run();
  EXPECT_EQ(calls, 1);
  qel_mainloop_run();
  EXPECT_EQ(calls, 2);
}

TEST_F(MainLoop, SignalDuringAPauseStopsIt) {
  std::signal(SIGUSR1, [](int) { qel_mainloop_stop(); });
  int calls = 0;
  slots[0] = [&] { return ++calls, 0; };
  during_pause = [] {
    raise(SIGUSR1);
    errno = EINTR;
    return -1;
  };
  qel_mainloop_run();
  std::signal(SIGUSR1, SIG_DFL);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(pauses_ms.size(), 1U);
}

TEST_F(MainLoop, AnotherThreadStopsIt) {
  std::thread stopper;
  slots[0] = [&] {
    if (!stopper.joinable()) stopper = std::thread(stop);
    return 0;
  };
  qel_mainloop_run();
  stopper.join();
}

}  // namespace
