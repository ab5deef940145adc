// Standard output as a stream of lines that a reader behind a pipe sees at once.
#pragma once

#include <string>

// Keeps standard output for write_line alone. What others print there, as the library does with
// each rule that it deletes, goes to the file at `path` instead, or to standard error when it is
// null. Returns false after a message on standard error.
bool open_output(const char* path);

// Writes one line. After a failure, which is told on standard error, nothing is written any more
// and the program is asked to stop. Gives up when a stop is requested while the reader has the
// output blocked.
void write_line(std::string line);

// Whether writing has failed.
bool output_failed();
