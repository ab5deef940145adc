// The path of a record from the kernel's socket to the client: the library's poller, compared on
// the same socket and in the same run with what must happen before the library can work.
//
// "bench_socket --drain STREAM PASSES" makes the poller read a stream PASSES times and prints the
// number of records and events, for system call tracers.
#include <audit_msg.h>
#include <benchmark/benchmark.h>
#include <libaudit.h>
#include <poll.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <stdexcept>

#include "client.h"
#include "kernel_socket.h"
#include "measuring.h"
#include "stand_ins.h"
#include "streams.h"

namespace {

using benchmark::State;

void send_all(const bench::Stream& stream, std::size_t from, std::size_t to) {
  for (std::size_t i = from; i < to; ++i) {
    if (!bench::send_record(stream.records[i]))
      throw std::runtime_error("the socket's buffer is too small for a batch");
  }
}

bool wait_and_read(audit_reply& reply) {
  pollfd audit = {.fd = bench::kernel_socket(), .events = POLLIN, .revents = 0};
  return poll(&audit, 1, 0) > 0 &&
         audit_get_reply(bench::kernel_socket(), &reply, GET_REPLY_NONBLOCKING, 0) > 0;
}

void read_bare(std::size_t count) {
  audit_reply reply;
  for (; count > 0; --count) {
    if (!wait_and_read(reply)) throw std::runtime_error("a record is missing");
  }
}

// What every reader that also checks the clock has to do.
void read_with_clock(std::size_t count) {
  audit_reply reply;
  for (; count > 0; --count) {
    benchmark::DoNotOptimize(std::time(nullptr));
    if (!wait_and_read(reply)) throw std::runtime_error("a record is missing");
  }
}

void read_with_poller(std::size_t count) {
  for (; count > 0; --count) {
    if (bench::run_poller() != 1) throw std::runtime_error("a record is missing");
  }
}

// Each batch of the stream is read in four ways: by the library's poller, by a bare loop that also
// reads the clock, by a loop that only waits and reads, and by the library without a socket. The
// last way shows the library's own cost, here without the stat(2) of its user name cache. It is
// measured first right after the kernel's work, which has evicted the library's code and data from
// the nearest caches, and then several times in a row.
struct Times {
  double poller_ns = 0;
  double clock_ns = 0;
  double bare_ns = 0;
  double behind_kernel_ns = 0;
  double library_ns = 0;

  static constexpr int kDeliveries = 3;

  void add_batch(const bench::Stream& stream, std::size_t from, std::size_t to) {
    send_all(stream, from, to);
    clock_ns += bench::time_ns([&] { read_with_clock(to - from); });
    send_all(stream, from, to);
    poller_ns += bench::time_ns([&] { read_with_poller(to - from); });
    send_all(stream, from, to);
    bare_ns += bench::time_ns([&] { read_bare(to - from); });
    bench::skip_stat("/etc/passwd");
    const auto deliver = [&] { bench::deliver(stream, from, to); };
    behind_kernel_ns += bench::time_ns(deliver);
    library_ns += bench::time_ns([&] {
                    for (int i = 0; i < kDeliveries; ++i) deliver();
                  }) /
                  kDeliveries;
    bench::skip_stat(nullptr);
  }
};

// Runs first, because after account changes in a stream the poller checks files for some seconds.
void idle(State& state) {
  constexpr int kRounds = 1000;
  double poller_ns = 0;
  double poll_ns = 0;
  for ([[maybe_unused]] auto _ : state) {
    poll_ns += bench::time_ns([] {
      pollfd audit = {.fd = bench::kernel_socket(), .events = POLLIN, .revents = 0};
      for (int i = 0; i < kRounds; ++i) poll(&audit, 1, 0);
    });
    poller_ns += bench::time_ns([] {
      for (int i = 0; i < kRounds; ++i) bench::run_poller();
    });
  }
  const double rounds = kRounds * static_cast<double>(state.iterations());
  state.counters["poller_ns"] = poller_ns / rounds;
  state.counters["poll_ns"] = poll_ns / rounds;
  state.counters["ratio"] = poller_ns / poll_ns;
}
BENCHMARK(idle);

void stream(State& state, const char* name) {
  const bench::Stream records = bench::make_stream(name);
  Times times;
  for ([[maybe_unused]] auto _ : state) {
    for (std::size_t from = 0; from < records.records.size();) {
      const std::size_t to = bench::end_of_batch(records, from);
      times.add_batch(records, from, to);
      from = to;
    }
  }
  const double delivered =
      static_cast<double>(records.records.size()) * static_cast<double>(state.iterations());
  state.counters["poller_ns_per_record"] = times.poller_ns / delivered;
  state.counters["clock_ns_per_record"] = times.clock_ns / delivered;
  state.counters["bare_ns_per_record"] = times.bare_ns / delivered;
  state.counters["behind_kernel_ns_per_record"] = times.behind_kernel_ns / delivered;
  state.counters["library_ns_per_record"] = times.library_ns / delivered;
  state.counters["poller_by_clock"] = times.poller_ns / times.clock_ns;
  state.counters["library_by_bare"] = times.library_ns / times.bare_ns;
}
QEL_BENCHMARK_STREAMS(stream);

int drain(const char* name, int passes) {
  bench::start_client();
  const bench::Stream records = bench::make_stream(name);
  for (int pass = 0; pass < passes; ++pass) {
    for (std::size_t from = 0; from < records.records.size();) {
      const std::size_t to = bench::end_of_batch(records, from);
      send_all(records, from, to);
      read_with_poller(to - from);
      from = to;
    }
  }
  std::printf("records=%zu events=%llu\n",
              records.records.size() * static_cast<std::size_t>(passes),
              static_cast<unsigned long long>(bench::delivered_events()));
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc == 4 && std::strcmp(argv[1], "--drain") == 0) return drain(argv[2], std::atoi(argv[3]));
  return bench::run_benchmarks(argc, argv, bench::start_client);
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 2;
}
