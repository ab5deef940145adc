// The callbacks: registers those that are wanted, prints what they receive and counts it.
#pragma once

#include <qel_audit.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// One registration with the library.
struct Request {
  int event_class = QEL_CLASS_LOGIN;
  std::string key = {};  // user, system call or command name; empty, and "all" for calls: every one
  int port = 0;          // the key of the bind class; 0: every one
  int filter = 0;        // event mask, or a QEL_SYSCALL_ value
  bool operator==(const Request&) const = default;
};

struct WatchSettings {
  bool json = false;
  std::uint64_t limit = 0;  // events after which to stop; 0: none
};

using EventCounts = std::array<std::uint64_t, QEL_CLASS_COUNT>;

// Starts the library and registers a callback for each request. Returns false, with a message on
// standard error and the library stopped, when one is refused.
bool start_watching(const WatchSettings& settings, const std::vector<Request>& requests);

// Printed events by class.
const EventCounts& event_counts();
