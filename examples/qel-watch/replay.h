// Replay: recorded records go through the library by way of a kernel in memory.
#pragma once

#include <string>
#include <vector>

// Replaces the real kernel with the kernel in memory. Call this before the library is started.
void prepare_replay();

// Makes the library, once it is started, read the answers to its own requests, which do not count
// as records.
void finish_start();

// Passes the records of each file ("-" is standard input) to the library until a stop is requested.
// When a file cannot be read or is malformed, prints a message on standard error and returns false.
// The records before that place have then been handled.
bool replay_files(const std::vector<std::string>& paths);
