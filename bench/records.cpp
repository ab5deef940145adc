// The library's work on records, without any socket: handle_audit_msg over whole streams, and the
// growth of its cost with arguments, open groups and registered callbacks. Costs that are compared
// are measured alternately, so that both are measured under the same conditions.
//
// "bench_records --write-log STREAM" prints a stream as auditd logs it, for other readers.
// "bench_records --deliver STREAM" passes a stream to the library and prints the number of records,
// for profilers.
#include <audit_event.h>
#include <audit_msg.h>
#include <audit_rule.h>
#include <benchmark/benchmark.h>
#include <libaudit.h>
#include <qel_audit.h>
#include <qel_base.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client.h"
#include "measuring.h"
#include "stand_ins.h"
#include "streams.h"

namespace {

using benchmark::State;

double time_of(const bench::Stream& stream) {
  return bench::time_ns([&] { bench::deliver(stream, 0, stream.records.size()); });
}

double size_of(const bench::Stream& stream) {
  return static_cast<double>(stream.records.size());
}

void report_ratio(State& state, double ns_with_many, double ns_with_few) {
  state.counters["ns_with_many"] = ns_with_many;
  state.counters["ns_with_few"] = ns_with_few;
  state.counters["ratio"] = ns_with_many / ns_with_few;
}

// ---- Whole streams -----------------------------------------------------------------------------

void stream(State& state, const char* name) {
  const bench::Stream records = bench::make_stream(name);
  bench::deliver(records, 0, records.records.size());
  const std::uint64_t events_before = bench::delivered_events();
  const std::uint64_t arguments_before = bench::delivered_arguments();
  const std::uint64_t allocations_before = bench::allocations();
  double ns = 0;
  for ([[maybe_unused]] auto _ : state) ns += time_of(records);
  const auto events = static_cast<double>(bench::delivered_events() - events_before);
  const auto allocations = static_cast<double>(bench::allocations() - allocations_before);
  const auto arguments = static_cast<double>(bench::delivered_arguments() - arguments_before);
  const double delivered = size_of(records) * static_cast<double>(state.iterations());
  state.counters["ns_per_record"] = ns / delivered;
  state.counters["ns_per_event"] = ns / events;
  state.counters["records_per_event"] = delivered / events;
  state.counters["allocations_per_event"] = allocations / events;
  state.counters["allocations_beside_arguments"] = (allocations - arguments) / events;
}
QEL_BENCHMARK_STREAMS(stream);

// ---- Arguments ---------------------------------------------------------------------------------

// The cost per argument is derived from the difference between executions with several arguments
// and those with a single one.
void arguments(State& state) {
  constexpr std::size_t kMany = 3000;
  constexpr std::size_t kFew = 30;
  constexpr std::size_t kExecutions = 100;
  const bench::Stream many = bench::make_arguments_stream(1, kMany);
  const bench::Stream few = bench::make_arguments_stream(kExecutions, kFew);
  const bench::Stream one = bench::make_arguments_stream(kExecutions, 1);
  double many_ns = 0;
  double few_ns = 0;
  double one_ns = 0;
  for ([[maybe_unused]] auto _ : state) {
    many_ns += time_of(many);
    few_ns += time_of(few) / kExecutions;
    one_ns += time_of(one) / kExecutions;
  }
  const auto runs = static_cast<double>(state.iterations());
  report_ratio(state, (many_ns - one_ns) / runs / (kMany - 1),
               (few_ns - one_ns) / runs / (kFew - 1));
}
BENCHMARK(arguments);

// Executions whose first record announces all slots of a list, and whose second record holds only
// fields whose values look like other fields. Such records occur after lost records, or are forged.
bench::Stream make_posing_stream(std::size_t groups, std::size_t fields) {
  bench::Stream posing = bench::make_arguments_stream(groups, 1);
  std::vector<bench::Record> records;
  for (bench::Record& record : posing.records) {
    records.push_back(std::move(record));
    if (records.back().type != AUDIT_EXECVE) continue;
    std::string& first = records.back().text;
    const std::string header = first.substr(0, first.find(' ') + 1);
    first = header + "argc=" + std::to_string(3 * fields) + " a0=\"x\"";
    std::string text = header;
    for (std::size_t i = 0; i < fields; ++i)
      text += " a" + std::to_string(2 * fields + i) + "=\"a" + std::to_string(2 * i + 1) + "=\"";
    records.push_back({AUDIT_EXECVE, text});
  }
  posing.records = std::move(records);
  return posing;
}

// The cost of such a field in a long record, compared with a short one.
void posing_fields(State& state) {
  constexpr std::size_t kMany = 500;
  constexpr std::size_t kFew = 50;
  constexpr std::size_t kExecutions = 200;
  const bench::Stream many = make_posing_stream(kExecutions, kMany);
  const bench::Stream few = make_posing_stream(kExecutions, kFew);
  double many_ns = 0;
  double few_ns = 0;
  for ([[maybe_unused]] auto _ : state) {
    many_ns += time_of(many);
    few_ns += time_of(few);
  }
  const double executions = kExecutions * static_cast<double>(state.iterations());
  report_ratio(state, many_ns / executions / kMany, few_ns / executions / kFew);
}
BENCHMARK(posing_fields);

// ---- Open groups -------------------------------------------------------------------------------

constexpr std::size_t kManyGroups = 10000;
constexpr std::size_t kFewGroups = 10;

// A SYSCALL record for each of `count` groups, with serials that occur nowhere else.
bench::Stream make_openings(std::size_t count) {
  constexpr std::size_t kFirstSerial = 2000000000;
  bench::Stream openings;
  for (const bench::Record& record : bench::make_openat_stream(count).records) {
    if (record.type != AUDIT_SYSCALL) continue;
    const std::string before = record.text.substr(0, record.text.find(':') + 1);
    const std::string serial = std::to_string(kFirstSerial + openings.records.size());
    openings.records.push_back(
        {record.type, before + serial + record.text.substr(record.text.find(')'))});
  }
  return openings;
}

bench::Stream make_ends(const bench::Stream& openings) {
  bench::Stream ends;
  for (const bench::Record& record : openings.records) {
    ends.records.push_back({AUDIT_EOE, record.text.substr(0, record.text.find(')')) + "): "});
  }
  return ends;
}

double time_beside(const bench::Stream& openings, const bench::Stream& work) {
  const bench::Stream ends = make_ends(openings);
  bench::deliver(openings, 0, openings.records.size());
  time_of(work);  // refills the caches
  const double ns = time_of(work);
  bench::deliver(ends, 0, ends.records.size());
  return ns;
}

// Groups that begin and end while others stay open.
void beside_open_groups(State& state) {
  const bench::Stream many = make_openings(kManyGroups);
  const bench::Stream few = make_openings(kFewGroups);
  const bench::Stream work = bench::make_mixed_stream(2000);
  double many_ns = 0;
  double few_ns = 0;
  for ([[maybe_unused]] auto _ : state) {
    many_ns += time_beside(many, work);
    few_ns += time_beside(few, work);
  }
  const double records = size_of(work) * static_cast<double>(state.iterations());
  report_ratio(state, many_ns / records, few_ns / records);
}
BENCHMARK(beside_open_groups);

// Reorders the records of groups of equal size, so that `width` groups advance in turn.
bench::Stream interleave(const bench::Stream& groups, std::size_t width) {
  const std::size_t size = groups.records.size() / groups.groups;
  bench::Stream turns;
  for (std::size_t first = 0; first < groups.groups; first += width) {
    for (std::size_t turn = 0; turn < size; ++turn) {
      for (std::size_t i = first; i < std::min(first + width, groups.groups); ++i)
        turns.records.push_back(groups.records[i * size + turn]);
    }
  }
  return turns;
}

// The worst order: consecutive records never belong to the same group.
void interleaved_groups(State& state) {
  const bench::Stream groups = bench::make_openat_stream(kManyGroups);
  const bench::Stream many = interleave(groups, kManyGroups);
  const bench::Stream few = interleave(groups, kFewGroups);
  double many_ns = 0;
  double few_ns = 0;
  for ([[maybe_unused]] auto _ : state) {
    many_ns += time_of(many);
    few_ns += time_of(few);
  }
  const double records = size_of(groups) * static_cast<double>(state.iterations());
  report_ratio(state, many_ns / records, few_ns / records);
}
BENCHMARK(interleaved_groups);

// ---- Dispatch ----------------------------------------------------------------------------------

constexpr std::size_t kDispatches = 2000;

int ignore(const qel_execve_info*, void*) {
  return 0;
}

// The time of events for one callback beside `others` that have other keys. The group has no
// arguments and no texts to decode, and the user name is known, so that only the dispatch remains.
double time_dispatch(int others) {
  char comm[] = "wanted";
  audit_ctx ctx = {};
  ctx.ruletype = kExecveRule;
  ctx.comm = comm;
  qel_audit_fini();
  qel_execve_reg_callback(comm, ignore, nullptr);
  for (int i = 0; i < others; ++i)
    qel_execve_reg_callback(("other" + std::to_string(i)).c_str(), ignore, nullptr);
  const auto dispatch = [&ctx] {
    for (std::size_t i = 0; i < kDispatches; ++i) handle_audit_event(&ctx);
  };
  bench::skip_stat("/etc/passwd");
  dispatch();
  const double ns = bench::time_ns(dispatch);
  bench::skip_stat(nullptr);
  qel_audit_fini();
  return ns;
}

void dispatch(State& state) {
  double many_ns = 0;
  double few_ns = 0;
  for ([[maybe_unused]] auto _ : state) {
    many_ns += time_dispatch(4095);
    few_ns += time_dispatch(0);
  }
  const double count = kDispatches * static_cast<double>(state.iterations());
  report_ratio(state, many_ns / count, few_ns / count);
  bench::start_client();
}
BENCHMARK(dispatch);

int write_log(std::string_view name) {
  const bench::Stream records = bench::make_stream(name);
  const std::string log = bench::to_log(records, 0, records.records.size());
  return std::fwrite(log.data(), 1, log.size(), stdout) == log.size() ? 0 : 1;
}

// Delivers the stream several times, so that costs of only the first records do not count.
int deliver_all(std::string_view name) {
  constexpr std::size_t kPasses = 5;
  bench::start_client();
  const bench::Stream records = bench::make_stream(name);
  for (std::size_t i = 0; i < kPasses; ++i) bench::deliver(records, 0, records.records.size());
  std::printf("records=%zu\n", kPasses * records.records.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc == 3 && std::strcmp(argv[1], "--write-log") == 0) return write_log(argv[2]);
  if (argc == 3 && std::strcmp(argv[1], "--deliver") == 0) return deliver_all(argv[2]);
  return bench::run_benchmarks(argc, argv, bench::start_client);
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 2;
}
