// The library compared with libauparse, the audit project's own parser: both read the same streams.
// A client of libauparse reads of each event either the fields that the library's events have, or
// the full event.
//
// "bench_auparse --peak library|auparse FILE" makes one of the two read a recording and prints the
// peak memory of the process.
#include <audit_msg.h>
#include <auparse.h>
#include <benchmark/benchmark.h>
#include <libaudit.h>
#include <record_file.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "client.h"
#include "measuring.h"
#include "stand_ins.h"
#include "streams.h"

namespace {

using benchmark::State;

// ---- Clients of libauparse ---------------------------------------------------------------------

struct Field {
  std::string_view name;
  bool interpreted;  // read as a name or as decoded text; otherwise read unchanged
};
constexpr Field kSyscallFields[] = {{"syscall", true}, {"success", false}, {"exit", false},
                                    {"a0", false},     {"a1", false},      {"a2", false},
                                    {"a3", false},     {"ppid", false},    {"pid", false},
                                    {"uid", true},     {"comm", true},     {"key", true}};

std::uint64_t events_read;

void read_text(const char* text) {
  benchmark::DoNotOptimize(text);
}

// Reads every field once, in order. Searching for the fields by name would read the record again
// and again.
void read_syscall(auparse_state_t* parser) {
  do {
    const std::string_view name = auparse_get_field_name(parser);
    const auto* field = std::find_if(std::begin(kSyscallFields), std::end(kSyscallFields),
                                     [name](const Field& f) { return f.name == name; });
    if (field == std::end(kSyscallFields)) continue;
    read_text(field->interpreted ? auparse_interpret_field(parser) : auparse_get_field_str(parser));
  } while (auparse_next_field(parser) > 0);
}

void read_arguments(auparse_state_t* parser) {
  do {
    const char* name = auparse_get_field_name(parser);
    if (name[0] == 'a' && name[1] >= '0' && name[1] <= '9')
      read_text(auparse_interpret_field(parser));
  } while (auparse_next_field(parser) > 0);
}

void read_address(auparse_state_t* parser) {
  if (auparse_find_field(parser, "saddr") != nullptr) read_text(auparse_interpret_field(parser));
}

// Reads the fields that the library's events have.
void read_fields(auparse_state_t* parser, auparse_cb_event_t, void*) {
  if (auparse_first_record(parser) <= 0) return;
  do {
    if (auparse_first_field(parser) <= 0) continue;
    switch (auparse_get_type(parser)) {
      case AUDIT_SYSCALL:
        ++events_read;
        read_syscall(parser);
        break;
      case AUDIT_EXECVE:
        read_arguments(parser);
        break;
      case AUDIT_SOCKADDR:
        read_address(parser);
        break;
      default:
        break;
    }
  } while (auparse_next_record(parser) > 0);
}

// Reads every field of every record, and interprets encoded texts and numbers.
void read_all(auparse_state_t* parser, auparse_cb_event_t, void*) {
  if (auparse_first_record(parser) <= 0) return;
  do {
    if (auparse_get_type(parser) == AUDIT_SYSCALL) ++events_read;
    if (auparse_first_field(parser) <= 0) continue;
    do {
      read_text(auparse_get_field_name(parser));
      read_text(auparse_interpret_field(parser));
    } while (auparse_next_field(parser) > 0);
  } while (auparse_next_record(parser) > 0);
}

struct FreeParser {
  void operator()(auparse_state_t* parser) const { auparse_destroy(parser); }
};
using Parser = std::unique_ptr<auparse_state_t, FreeParser>;

Parser make_parser(auparse_callback_ptr client) {
  Parser parser(auparse_init(AUSOURCE_FEED, nullptr));
  if (!parser) throw std::runtime_error("libauparse does not start");
  auparse_add_callback(parser.get(), client, nullptr, nullptr);
  return parser;
}

// ---- Side by side ------------------------------------------------------------------------------

void stream(State& state, const char* name) {
  const bench::Stream records = bench::make_stream(name);
  const Parser fields_parser = make_parser(read_fields);
  const Parser full_parser = make_parser(read_all);
  const std::uint64_t delivered_before = bench::delivered_events();
  const std::uint64_t read_before = events_read;
  double library_ns = 0;
  double fields_ns = 0;
  double full_ns = 0;
  for ([[maybe_unused]] auto _ : state) {
    for (std::size_t from = 0; from < records.records.size();) {
      const std::size_t to = bench::end_of_batch(records, from);
      const std::string log = bench::to_log(records, from, to);
      library_ns += bench::time_ns([&] { bench::deliver(records, from, to); });
      fields_ns +=
          bench::time_ns([&] { auparse_feed(fields_parser.get(), log.data(), log.size()); });
      full_ns += bench::time_ns([&] { auparse_feed(full_parser.get(), log.data(), log.size()); });
      from = to;
    }
  }
  const auto delivered = static_cast<double>(bench::delivered_events() - delivered_before);
  const double read = static_cast<double>(events_read - read_before) / 2;
  const double library_ns_per_event = library_ns / delivered;
  state.counters["library_ns_per_event"] = library_ns_per_event;
  state.counters["fields_ns_per_event"] = fields_ns / read;
  state.counters["full_ns_per_event"] = full_ns / read;
  state.counters["fields_ratio"] = fields_ns / read / library_ns_per_event;
  state.counters["full_ratio"] = full_ns / read / library_ns_per_event;
}
BENCHMARK_CAPTURE(stream, real, "real");
BENCHMARK_CAPTURE(stream, mixed, "mixed");
BENCHMARK_CAPTURE(stream, execve, "execve");
BENCHMARK_CAPTURE(stream, many_arguments, "many-arguments");

// ---- Memory ------------------------------------------------------------------------------------

void give_to_library(const offline::Record& record) {
  audit_reply reply;
  reply.type = record.type;
  reply.len = static_cast<int>(record.payload.size());
  reply.message = const_cast<char*>(record.payload.data());
  handle_audit_msg(&reply);
}

void give_to_auparse(auparse_state_t* parser, const offline::Record& record) {
  std::string line = "type=";
  line.append(audit_msg_type_to_name(record.type)).append(" msg=").append(record.payload);
  line.append("\n");
  auparse_feed(parser, line.data(), line.size());
}

// The peak is not taken from getrusage, which reports that of the parent process if it is greater.
long peak_kib() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::stol(line.substr(std::strlen("VmHWM:")));
  }
  throw std::runtime_error("no peak in /proc/self/status");
}

// The recording is read record by record, so that reading it needs hardly any memory.
int print_peak(std::string_view reader, const std::string& path) {
  const bool is_library = reader == "library";
  if (!is_library && reader != "auparse") throw std::runtime_error("no such reader");
  if (is_library) bench::start_client();
  const Parser parser = is_library ? nullptr : make_parser(read_fields);
  const std::string error = offline::read_records(path, [&](const offline::Record& record) {
    if (record.type < AUDIT_FIRST_USER_MSG) return;
    if (is_library) {
      give_to_library(record);
    } else {
      give_to_auparse(parser.get(), record);
    }
  });
  if (!error.empty()) throw std::runtime_error(error);
  std::printf("events=%llu peak_kib=%ld\n",
              static_cast<unsigned long long>(bench::delivered_events() + events_read), peak_kib());
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc == 4 && std::strcmp(argv[1], "--peak") == 0) return print_peak(argv[2], argv[3]);
  return bench::run_benchmarks(argc, argv, bench::start_client);
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 2;
}
