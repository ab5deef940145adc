// Deterministic streams of audit records, as a Linux 6.1 kernel writes them: generated groups of
// executions, binds and opens, and a recording with fresh serials. For benchmarks and for tests
// that count.
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
// are split over records; open failures, binds of all common families and several users occur.
Stream make_execve_stream(std::size_t groups);
Stream make_bind_stream(std::size_t groups);
Stream make_openat_stream(std::size_t groups);
// Half opens, a quarter each of executions and binds.
Stream make_mixed_stream(std::size_t groups);
// Executions with 500 to 3000 arguments.
Stream make_many_arguments_stream(std::size_t groups);
// Executions with exactly `argc` short arguments.
Stream make_arguments_stream(std::size_t groups, std::size_t argc);

// The text records of a recording, `copies` times, each copy with serials of its own. Replies to
// requests are left out. Throws std::runtime_error when it cannot be read.
Stream read_recording(const std::string& path, std::size_t copies);

// The stream of a name: execve, bind, openat, mixed, many-arguments or real (the recording of busy
// loops in QEL_RECORDINGS_DIR). Every one has about as much work in it. Throws
// std::runtime_error for another name.
Stream make_stream(std::string_view name);

// The stream as auditd writes it to its log, end-of-event records included.
std::string to_log(const Stream& stream, std::size_t from, std::size_t to);

}  // namespace bench
