// What measuring needs from functions of libc and of the framework, which this module defines in
// their place for the whole process: a count of heap allocations, a stat(2) that can be left out,
// and the poller that the library hands to the main loop.
#pragma once

#include <cstdint>

namespace bench {

// Calls that asked the heap for memory, by anything in the process, since its start.
std::uint64_t allocations();

// Calls of stat(2), likewise.
std::uint64_t stats();

// From now on stat answers at once for every file as for `path`; as ever again with a null pointer.
void skip_stat(const char* path);

// One round of the poller that the library registered; returns its result.
int run_poller();

}  // namespace bench
