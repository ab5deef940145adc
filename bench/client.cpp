#include "client.h"

#include <audit_msg.h>
#include <libaudit.h>
#include <qel_audit.h>
#include <qel_base.h>

#include <stdexcept>

namespace bench {
namespace {

struct {
  std::uint64_t events;
  std::uint64_t arguments;
} delivered;

template <typename Event>
int count_event(const Event*, void*) {
  ++delivered.events;
  return 0;
}

int count_execution(const qel_execve_info* event, void*) {
  ++delivered.events;
  delivered.arguments += static_cast<std::uint64_t>(event->argc);
  return 0;
}

}  // namespace

void start_client() {
  error_output_set_level(QEL_LOG_ERROR);
  const bool registered =
      qel_execve_reg_callback(nullptr, count_execution, nullptr) == 0 &&
      qel_bind_reg_callback(0, count_event<qel_bind_info>, nullptr) == 0 &&
      qel_syscall_reg_callback("all", QEL_SYSCALL_ANY, count_event<qel_syscall_info>, nullptr) == 0;
  if (!registered) throw std::runtime_error("the library did not start");
}

std::uint64_t delivered_events() {
  return delivered.events;
}

std::uint64_t delivered_arguments() {
  return delivered.arguments;
}

void deliver(const Stream& stream, std::size_t from, std::size_t to) {
  audit_reply reply;
  for (std::size_t i = from; i < to; ++i) {
    const Record& record = stream.records[i];
    reply.type = record.type;
    reply.len = static_cast<int>(record.text.size());
    reply.message = const_cast<char*>(record.text.data());
    handle_audit_msg(&reply);
  }
}

std::size_t end_of_batch(const Stream& stream, std::size_t from) {
  constexpr std::size_t kRecords = 250;
  constexpr std::size_t kBytes = 60000;
  std::size_t bytes = 0;
  std::size_t end = from;
  while (end < stream.records.size()) {
    const Record& record = stream.records[end++];
    bytes += record.text.size();
    if (record.type == AUDIT_EOE && (end - from >= kRecords || bytes >= kBytes)) break;
  }
  return end;
}

}  // namespace bench
