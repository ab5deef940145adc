// Deterministic streams of audit records in the form that a Linux 6.1 kernel writes: generated
// groups of executions, binds and opens, and a recording with fresh serials. For benchmarks and for
// tests that count.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

struct Record {
  int type;
  std::string text;
};

struct Stream {
  std::vector<Record> records;
  std::size_t groups = 0;  // each ends with AUDIT_EOE
};

// Groups of one kind. Executions have mostly short arguments, some in hexadecimal and a few that
// are split over several records. Some opens fail, binds use all common address families, and there
// are several users.
Stream make_execve_stream(std::size_t groups);
Stream make_bind_stream(std::size_t groups);
Stream make_openat_stream(std::size_t groups);
// Half of the groups are opens, a quarter executions and a quarter binds.
Stream make_mixed_stream(std::size_t groups);
// Executions with 500 to 3000 arguments.
Stream make_many_arguments_stream(std::size_t groups);
// Executions with exactly `argc` short arguments.
Stream make_arguments_stream(std::size_t groups, std::size_t argc);

// The text records of a recording, repeated `copies` times with distinct serials in each copy.
// Replies to requests are left out. Throws std::runtime_error when the recording cannot be read.
Stream read_recording(const std::string& path, std::size_t copies);

// The stream with the given name: execve, bind, openat, mixed, many-arguments or real (the
// recording of busy loops in QEL_RECORDINGS_DIR). All streams contain about the same amount of
// work. Throws std::runtime_error for any other name.
Stream make_stream(std::string_view name);

// The stream as auditd writes it to its log, end-of-event records included.
std::string to_log(const Stream& stream, std::size_t from, std::size_t to);

}  // namespace bench
