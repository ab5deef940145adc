// What all benchmark programs of this directory have in common.
#pragma once

#include <benchmark/benchmark.h>
#include <time.h>

#include <cstdint>

// Registers a benchmark of one stream for every stream of streams.h.
#define QEL_BENCHMARK_STREAMS(function)          \
  BENCHMARK_CAPTURE(function, real, "real");     \
  BENCHMARK_CAPTURE(function, mixed, "mixed");   \
  BENCHMARK_CAPTURE(function, execve, "execve"); \
  BENCHMARK_CAPTURE(function, bind, "bind");     \
  BENCHMARK_CAPTURE(function, openat, "openat"); \
  BENCHMARK_CAPTURE(function, many_arguments, "many-arguments")

namespace bench {

// Processor time of this thread.
inline std::int64_t thread_time_ns() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

// The processor time that `work` takes.
template <typename Work>
double time_ns(Work work) {
  const std::int64_t start = thread_time_ns();
  work();
  return static_cast<double>(thread_time_ns() - start);
}

// Runs the benchmarks that the command line selects; `start` makes the library ready. Returns the
// exit status of the program.
inline int run_benchmarks(int argc, char** argv, void (*start)()) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  start();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

}  // namespace bench
