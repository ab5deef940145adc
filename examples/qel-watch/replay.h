// Replay: recorded records go through the library by way of a kernel in memory.
#pragma once

#include <string>
#include <vector>

// Puts the kernel in memory in place of the real one, before the library is started.
void prepare_replay();

// Has the library, once it is started, read the answers to its own requests, which are no records.
void finish_start();

// Hands the records of each file ("-": standard input) to the library, until a stop is requested.
// Returns false after a message on standard error when a file cannot be read or is malformed;
// records before that place have been handled.
bool replay_files(const std::vector<std::string>& paths);
