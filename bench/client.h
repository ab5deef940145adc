// The library's client in a benchmark: registered for every execution, bind and system call.
#pragma once

#include <cstddef>
#include <cstdint>

#include "streams.h"

namespace bench {

// Starts the library as in production, without its debug lines, with the counting callbacks.
// Throws std::runtime_error when it does not start.
void start_client();

// Events that came back so far, and the program arguments in them.
std::uint64_t delivered_events();
std::uint64_t delivered_arguments();

// Hands records to handle_audit_msg, as if each had just been received.
void deliver(const Stream& stream, std::size_t from, std::size_t to);

// The end of a batch that starts at `from`: some hundred records, or fewer if they are long, with
// the last group whole. It fits a socket's buffer of the size that Linux gives to everybody.
std::size_t end_of_batch(const Stream& stream, std::size_t from);

}  // namespace bench
