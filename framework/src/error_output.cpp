// The agent's log: one line per message on standard error. Every module calls it, and so does a
// process that ends because memory is exhausted. So nothing here depends on the heap.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "qel_base.h"

namespace {

// Holds nearly every line; longer ones take memory from the heap.
constexpr size_t kStackRoom = 4096;
// Holds time, level, source and line; a longer source is cut.
constexpr size_t kPrefixRoom = 160;
constexpr std::array<const char*, 5> kLevelNames = {"fatal", nullptr, "error", "notice", "debug"};

struct LogState {
  std::optional<int> threshold;  // empty until first needed or set
};
LogState log_state;

// Storage for a text. When the heap refuses more, the storage keeps its size and the text is cut.
class Text {
 public:
  void make_room(size_t size) {
    if (size <= room_.size()) return;
    std::unique_ptr<char[]> larger(new (std::nothrow) char[size]);
    if (larger == nullptr) return;
    heap_ = std::move(larger);
    room_ = {heap_.get(), size};
  }
  std::span<char> room() const { return room_; }

 private:
  std::array<char, kStackRoom> fixed_;
  std::unique_ptr<char[]> heap_;
  std::span<char> room_ = fixed_;
};

int clamp_level(int level) {
  return std::clamp<int>(level, QEL_LOG_FATAL, QEL_LOG_DEBUG);
}

int read_threshold() {
  const char* value = std::getenv("QEL_LOG_LEVEL");
  const std::string_view digits = value != nullptr ? value : "";
  int level = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), level);
  if (error == std::errc::invalid_argument || end != digits.data() + digits.size())
    return QEL_LOG_NOTICE;
  if (error == std::errc::result_out_of_range)
    return digits.front() == '-' ? QEL_LOG_FATAL : QEL_LOG_DEBUG;
  return clamp_level(level);
}

bool is_control(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

size_t format_prefix(std::span<char, kPrefixRoom> prefix, int level, const char* source, int line) {
  const time_t now = time(nullptr);
  struct tm local = {};
  localtime_r(&now, &local);
  char when[32] = "";
  strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", &local);

  char number[12];
  str_snprintf(number, sizeof(number), "%d", level);
  const bool known = level >= 0 && static_cast<size_t>(level) < kLevelNames.size();
  const char* name = known ? kLevelNames[static_cast<size_t>(level)] : nullptr;
  return static_cast<size_t>(str_snprintf(prefix.data(), prefix.size(), "%s %s %.100s:%d: ", when,
                                          name != nullptr ? name : number, source, line));
}

__attribute__((format(printf, 2, 0))) std::string_view format_message(Text& text,
                                                                      const char* format,
                                                                      va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int result = std::vsnprintf(text.room().data(), text.room().size(), format, arguments);
  const size_t length = static_cast<size_t>(std::max(result, 0));
  if (length >= text.room().size()) {
    text.make_room(length + 1);
    std::vsnprintf(text.room().data(), text.room().size(), format, again);
  }
  va_end(again);
  if (result < 0) return format;
  return {text.room().data(), std::min(length, text.room().size() - 1)};
}

// Appends `part` to the `used` bytes of `room`, as far as it fits.
size_t append(std::span<char> room, size_t used, std::string_view part) {
  return used + part.copy(room.data() + used, room.size() - used);
}

std::string_view compose_line(Text& text, std::string_view prefix, std::string_view message) {
  const auto controls = std::count_if(message.begin(), message.end(), is_control);
  text.make_room(prefix.size() + message.size() + 3 * static_cast<size_t>(controls) + 1);
  const std::span<char> body = text.room().first(text.room().size() - 1);

  size_t used = append(body, 0, prefix);
  for (const char c : message) {
    char escaped[5] = {c, '\0'};
    if (is_control(c)) str_snprintf(escaped, sizeof(escaped), "\\x%02X", static_cast<unsigned>(c));
    used = append(body, used, escaped);
  }
  text.room()[used] = '\n';
  return {text.room().data(), used + 1};
}

// Makes one write, so that the lines of several processes stay apart. Makes more only when a write
// was interrupted or incomplete.
void write_line(std::string_view line) {
  while (!line.empty()) {
    const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    line.remove_prefix(static_cast<size_t>(written));
  }
}

}  // namespace

void error_output(int level, const char* source, int line, const char* format, ...) {
  if (!log_state.threshold) log_state.threshold = read_threshold();
  if (level > *log_state.threshold) return;

  const int saved_errno = errno;
  Text message_text;
  va_list arguments;
  va_start(arguments, format);
  std::string_view message = format_message(message_text, format, arguments);
  va_end(arguments);
  if (message.ends_with('\n')) message.remove_suffix(1);

  std::array<char, kPrefixRoom> prefix;
  const size_t prefix_length = format_prefix(prefix, level, source, line);
  Text line_text;
  write_line(compose_line(line_text, {prefix.data(), prefix_length}, message));
  errno = saved_errno;
}

void error_output_set_level(int level) {
  log_state.threshold = clamp_level(level);
}
