// Standard output as a stream of lines, each of which a reader at the other end of a pipe sees at
// once.
#pragma once

#include <string>

// Reserves standard output for write_line. Other output, such as the library's line for each
// deleted rule, goes to the file at `path` instead, or to standard error when `path` is null. On
// failure, prints a message on standard error and returns false.
bool open_output(const char* path);

// Writes one line. A failure is reported on standard error, nothing is written after it, and the
// program is asked to stop. Gives up when a stop is requested while the reader blocks the output.
void write_line(std::string line);

// Whether writing has failed.
bool output_failed();
