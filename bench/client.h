// The library's client in a benchmark, registered for every execution, bind and system call.
#pragma once

#include <cstddef>
#include <cstdint>

#include "streams.h"

namespace bench {

// Starts the library as in production, without debug lines and with callbacks that count. Throws
// std::runtime_error when it does not start.
void start_client();

// The number of events delivered so far, and of the program arguments in them.
std::uint64_t delivered_events();
std::uint64_t delivered_arguments();

// Passes records to handle_audit_msg, as if each had just been received.
void deliver(const Stream& stream, std::size_t from, std::size_t to);

// The end of a batch that starts at `from`: some hundred records, or fewer if they are long, ending
// with a whole group. A batch fits into a socket buffer of the size that Linux grants to every
// process.
std::size_t end_of_batch(const Stream& stream, std::size_t from);

}  // namespace bench
