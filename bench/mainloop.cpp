// The library in the framework's real main loop, with records from another thread: the cost of the
// loop while nothing happens, the time that a record waits, and whether a burst is read without a
// pause.
#include <benchmark/benchmark.h>
#include <qel_audit.h>
#include <qel_base.h>
#include <qel_frame.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <thread>
#include <vector>

#include "kernel_socket.h"
#include "measuring.h"
#include "streams.h"

namespace {

using benchmark::State;
using Clock = std::chrono::steady_clock;

// The values that the main loop's thread shares with the sender.
struct {
  std::atomic<std::uint64_t> events;
  std::atomic<Clock::time_point> last_event;
  std::atomic<std::uint64_t> pauses;
  std::atomic<std::uint64_t> pauses_before_event;  // at the time of the last event
} seen;

template <typename Event>
int take_event(const Event*, void*) {
  seen.last_event = Clock::now();
  seen.pauses_before_event = seen.pauses.load();
  ++seen.events;
  return 0;
}

void start_library() {
  error_output_set_level(QEL_LOG_ERROR);
  const bool registered =
      qel_execve_reg_callback(nullptr, take_event<qel_execve_info>, nullptr) == 0 &&
      qel_bind_reg_callback(0, take_event<qel_bind_info>, nullptr) == 0 &&
      qel_syscall_reg_callback("all", QEL_SYSCALL_ANY, take_event<qel_syscall_info>, nullptr) == 0;
  if (!registered) throw std::runtime_error("the library did not start");
}

struct Elapsed {
  double wall_ns;
  double processor_ns;
};

// Runs the main loop on this thread until `sender`, which runs on another one, is done.
template <typename Sender>
Elapsed run_beside(Sender sender) {
  std::thread thread([&] {
    sender();
    qel_mainloop_stop();
  });
  const Clock::time_point start = Clock::now();
  const double processor_ns = bench::time_ns(qel_mainloop_run);
  const std::chrono::duration<double, std::nano> wall = Clock::now() - start;
  thread.join();
  return {wall.count(), processor_ns};
}

// Sends the stream, waiting whenever the socket is full.
void send_all(const bench::Stream& stream) {
  for (const bench::Record& record : stream.records) {
    while (!bench::send_record(record)) std::this_thread::yield();
  }
}

void wait_for_events(std::uint64_t count) {
  while (seen.events < count) std::this_thread::yield();
}

void idle(State& state) {
  for ([[maybe_unused]] auto _ : state) {
    const Elapsed elapsed =
        run_beside([] { std::this_thread::sleep_for(std::chrono::seconds(3)); });
    state.counters["cpu_share"] = elapsed.processor_ns / elapsed.wall_ns;
  }
}
BENCHMARK(idle)->Iterations(1);

// Each record arrives after a silence in which the loop's pauses have grown to their full length.
// The few longest waits are due to the machine, when it does not wake the loop's thread in time.
void waiting_record(State& state) {
  constexpr int kRecords = 200;
  const bench::Stream group = bench::make_bind_stream(1);
  std::vector<double> waits_ms;
  for ([[maybe_unused]] auto _ : state) {
    run_beside([&] {
      for (int i = 0; i < kRecords; ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(40000 + 97 * i));
        const std::uint64_t before = seen.events;
        const Clock::time_point sent = Clock::now();
        send_all(group);
        wait_for_events(before + 1);
        const std::chrono::duration<double, std::milli> waited = seen.last_event.load() - sent;
        waits_ms.push_back(waited.count());
      }
    });
  }
  std::sort(waits_ms.begin(), waits_ms.end());
  state.counters["longest_ms"] = waits_ms.back();
  state.counters["longest_of_98_in_100_ms"] = waits_ms[waits_ms.size() * 98 / 100 - 1];
}
BENCHMARK(waiting_record)->Iterations(1);

// The first records are already waiting when the loop starts, and the sender is faster than any
// reader. So every pause before the last event is one too many.
void burst(State& state) {
  const bench::Stream stream = bench::make_mixed_stream(20000);
  for ([[maybe_unused]] auto _ : state) {
    const std::uint64_t before = seen.events;
    std::atomic<bool> is_filled = false;
    std::thread sender([&] {
      for (const bench::Record& record : stream.records) {
        while (!bench::send_record(record)) {
          is_filled = true;
          std::this_thread::yield();
        }
      }
    });
    while (!is_filled) std::this_thread::yield();
    seen.pauses = 0;
    const Elapsed elapsed = run_beside([&] { wait_for_events(before + stream.groups); });
    sender.join();
    state.counters["records"] = static_cast<double>(stream.records.size());
    state.counters["records_per_s"] =
        static_cast<double>(stream.records.size()) / elapsed.wall_ns * 1e9;
    state.counters["pauses"] = static_cast<double>(seen.pauses_before_event);
  }
}
BENCHMARK(burst)->Iterations(1);

}  // namespace

// Counts the pauses of the main loop.
extern "C" int nanosleep(const timespec* requested, timespec* remaining) {
  ++seen.pauses;
  return static_cast<int>(syscall(SYS_nanosleep, requested, remaining));
}

int main(int argc, char** argv) try {
  return bench::run_benchmarks(argc, argv, start_library);
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 2;
}
