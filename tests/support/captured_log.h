// Takes the place of the framework's error_output in a test program, and keeps every line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace test {

struct LogLine {
  int level;
  std::string source;
  std::string message;
};

const std::vector<LogLine>& log_lines();
void clear_log();

// How many lines were exactly this message, at this level and from this source.
std::size_t logged(int level, std::string_view source, std::string_view message);

// Lines of this level, one after the other, as "source: message".
std::string log_text(int level);

}  // namespace test
