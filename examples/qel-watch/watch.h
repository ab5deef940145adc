// The callbacks: registers the requested ones, prints what they receive and counts it.
#pragma once

#include <qel_audit.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// One registration with the library.
struct Request {
  int event_class = QEL_CLASS_LOGIN;
  std::string key = {};  // user, command or call name; empty, or "all" for calls: every event
  int port = 0;          // the key of the bind class; 0: every event
  int filter = 0;        // event mask, or a QEL_SYSCALL_ value
  bool operator==(const Request&) const = default;
};

struct WatchSettings {
  bool json = false;
  std::uint64_t limit = 0;  // number of events after which to stop; 0: no limit
};

using EventCounts = std::array<std::uint64_t, QEL_CLASS_COUNT>;

// Starts the library and registers a callback for each request. When one is refused, prints a
// message on standard error, stops the library and returns false.
bool start_watching(const WatchSettings& settings, const std::vector<Request>& requests);

// The number of printed events, by class.
const EventCounts& event_counts();
