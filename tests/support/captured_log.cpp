#include "captured_log.h"

#include <qel_base.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace test {
namespace {

std::vector<LogLine> lines;

}  // namespace

const std::vector<LogLine>& log_lines() {
  return lines;
}

void clear_log() {
  lines.clear();
}

std::size_t logged(int level, std::string_view source, std::string_view message) {
  return static_cast<std::size_t>(
      std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
        return line.level == level && line.source == source && line.message == message;
      }));
}

std::string log_text(int level) {
  std::string text;
  for (const LogLine& line : lines) {
    if (line.level == level) text += line.source + ": " + line.message;
  }
  return text;
}

}  // namespace test

// Fatal lines go to standard error as well: the process ends right behind them.
extern "C" void error_output(int level, const char* source, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* message = nullptr;
  const int length = vasprintf(&message, format, arguments);
  va_end(arguments);
  if (length < 0) return;
  if (level == QEL_LOG_FATAL) std::fputs(message, stderr);
  test::lines.push_back({level, source, message});
  std::free(message);
}
