// Replacements for functions of libc and of the framework that measuring needs, defined by this
// module for the whole process: a count of heap allocations, a stat(2) that can be skipped, and
// access to the poller that the library registers with the main loop.
#pragma once

#include <cstdint>

namespace bench {

// The number of calls by which anything in the process requested heap memory since its start.
std::uint64_t allocations();

// The number of calls of stat(2), counted likewise.
std::uint64_t stats();

// From now on stat returns the result for `path` at once, whatever the file. A null pointer
// restores its normal behaviour.
void skip_stat(const char* path);

// Calls once the poller that the library registered; returns its result.
int run_poller();

}  // namespace bench
