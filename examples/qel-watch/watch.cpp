#include "watch.h"

#include <cstdio>
#include <numeric>

#include "event_fields.h"
#include "event_line.h"
#include "output.h"
#include "stop.h"

namespace {

struct {
  WatchSettings settings = {};
  EventCounts counts = {};
} state;

bool limit_reached() {
  const auto printed = std::accumulate(state.counts.begin(), state.counts.end(), std::uint64_t{0});
  return printed == state.settings.limit;
}

// One record can cause several events, and several callbacks for one event. None is printed after a
// stop.
template <int kClass, typename Info>
int print_event(const Info* event, void*) {
  if (stop_requested()) return 0;
  const auto make_line = state.settings.json ? json_line : text_line;
  write_line(make_line(kClassNames[kClass], describe(*event)));
  ++state.counts[kClass];
  if (limit_reached()) request_stop();
  return 0;
}

using Register = int (*)(const Request& request);
constexpr Register kRegister[QEL_CLASS_COUNT] = {
    [](const Request& r) {
      return qel_login_reg_callback(r.key.c_str(), r.filter,
                                    print_event<QEL_CLASS_LOGIN, qel_login_info>, nullptr);
    },
    [](const Request& r) {
      return qel_user_reg_callback(r.key.c_str(), r.filter,
                                   print_event<QEL_CLASS_USER, qel_user_info>, nullptr);
    },
    [](const Request& r) {
      return qel_syscall_reg_callback(r.key.c_str(), r.filter,
                                      print_event<QEL_CLASS_SYSCALL, qel_syscall_info>, nullptr);
    },
    [](const Request& r) {
      return qel_execve_reg_callback(r.key.c_str(), print_event<QEL_CLASS_EXECVE, qel_execve_info>,
                                     nullptr);
    },
    [](const Request& r) {
      return qel_bind_reg_callback(r.port, print_event<QEL_CLASS_BIND, qel_bind_info>, nullptr);
    },
};

}  // namespace

bool start_watching(const WatchSettings& settings, const std::vector<Request>& requests) {
  state.settings = settings;
  for (const Request& request : requests) {
    if (kRegister[request.event_class](request) >= 0) continue;
    std::fprintf(stderr, "qel-watch: cannot register for %s events (QEL_LOG_LEVEL=2 says why)\n",
                 kClassNames[request.event_class]);
    qel_audit_fini();
    return false;
  }
  return true;
}

const EventCounts& event_counts() {
  return state.counts;
}
