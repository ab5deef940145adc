#include "replay.h"

#include <libaudit.h>
#include <offline_kernel.h>
#include <qel_base.h>
#include <qel_frame.h>
#include <record_file.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <deque>

#include "stop.h"

namespace {

// The number of records that wait in memory together.
constexpr std::size_t kPortion = 64;

// The number of groups of a log that are open at a time, which is more than the processors of a
// machine interleave.
constexpr std::size_t kMaxOpenGroups = 64;

// The text "audit(TIME:SERIAL): " with which the records of each open group begin, oldest first.
// Used only for logs, because auditd does not log the records that end a group.
struct {
  std::deque<std::string> open_groups;
} state;

// Thrown to end the reading of a file early.
struct Stopped {};

// Ends the main loop when the library has read all waiting records.
int stop_when_all_is_read(void*) {
  if (offline::waiting() == 0) qel_mainloop_stop();
  return 0;
}

void run_until_all_is_read() {
  if (offline::waiting() != 0) qel_mainloop_run();
}

void handle_waiting() {
  run_until_all_is_read();
  if (stop_requested()) throw Stopped();
}

void end_oldest_group() {
  offline::feed(AUDIT_EOE, state.open_groups.front());
  state.open_groups.pop_front();
}

void close_group(const std::string& group) {
  auto& groups = state.open_groups;
  const auto place = std::find(groups.begin(), groups.end(), group);
  if (place == groups.end()) return;
  groups.erase(place);
  offline::feed(AUDIT_EOE, group);
}

// Inserts the record that ends a group after its PROCTITLE record, which the kernel writes last.
// Where PROCTITLE records are not logged, the group ends when enough younger groups have begun.
void end_logged_groups(const offline::Record& record) {
  const std::string group(record.payload.substr(0, record.payload.find(' ') + 1));
  if (record.type == AUDIT_SYSCALL) state.open_groups.push_back(group);
  if (record.type == AUDIT_PROCTITLE) close_group(group);
  if (state.open_groups.size() > kMaxOpenGroups) end_oldest_group();
}

void take_record(const offline::Record& record) {
  offline::feed(record.type, record.payload);
  if (record.logged) end_logged_groups(record);
  if (offline::waiting() >= kPortion) handle_waiting();
}

// Returns a description of the problem with the file, or an empty text.
std::string replay_file(const std::string& path) {
  std::string problem = offline::read_records(path, take_record);
  while (!state.open_groups.empty()) end_oldest_group();
  handle_waiting();
  return problem;
}

}  // namespace

void prepare_replay() {
  offline::switch_on();
  // Otherwise the kernel in memory would insert records about this program's own requests among the
  // records of another machine, and would check watched paths on this machine.
  offline::set_config_records(false);
  offline::set_path_check([](const std::string&) { return true; });
  // Recordings hold much that the library logs as an error, such as records without its keys.
  if (std::getenv("QEL_LOG_LEVEL") == nullptr) error_output_set_level(QEL_LOG_FATAL);
}

void finish_start() {
  qel_mainloop_reg_poller(stop_when_all_is_read, nullptr);
  run_until_all_is_read();
}

bool replay_files(const std::vector<std::string>& paths) try {
  for (const std::string& path : paths) {
    const std::string problem = replay_file(path);
    if (problem.empty()) continue;
    std::fprintf(stderr, "qel-watch: %s\n", problem.c_str());
    return false;
  }
  return true;
} catch (const Stopped&) {
  return true;
}
