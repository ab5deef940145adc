// The command line.
#pragma once

#include <string>
#include <vector>

#include "watch.h"

// The program's exit statuses.
constexpr int kDone = 0;
constexpr int kFailed = 1;   // no output, or no audit connection
constexpr int kRefused = 2;  // a bad argument or file

struct Options {
  std::vector<Request> requests;      // never empty
  std::vector<std::string> replayed;  // files; empty when watching live
  bool take_over = false;
  WatchSettings watch;
};

// Ends the program when there is nothing to run: after --help and --version, and with a message on
// standard error when an argument is refused or --take-over is missing for live watching.
Options parse_options(int argc, char** argv);
