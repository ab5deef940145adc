// error_output and str_snprintf.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "qel_base.h"

using Texts = std::vector<std::string>;

static struct {
  bool open;            // what is written to standard error goes to `texts` ...
  Texts texts;          // ... one for each write
  int interruptions;    // of the next writes
  std::size_t at_most;  // bytes that a write takes
} writes;

// Takes the place of libc's.
extern "C" ssize_t write(int fd, const void* data, size_t size) {
  if (!writes.open || fd != STDERR_FILENO) return syscall(SYS_write, fd, data, size);
  errno = writes.interruptions > 0 ? EINTR : EBADF;
  if (writes.interruptions-- > 0 || writes.at_most == 0) return -1;
  writes.texts.emplace_back(static_cast<const char*>(data), std::min(size, writes.at_most));
  return static_cast<ssize_t>(writes.texts.back().size());
}

namespace {

constexpr wchar_t kUnencodable[] = {0x7fffffff, 0};

// Runs `action`, which logs. Returns what it wrote, with the same time in front of every line.
Texts written_by(auto action, int interruptions = 0, std::size_t at_most = 1 << 20) {
  writes = {true, {}, interruptions, at_most};
  errno = ENOENT;
  action();
  EXPECT_EQ(errno, ENOENT);
  writes.open = false;
  const std::regex time(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d )");
  for (std::string& text : writes.texts) text = std::regex_replace(text, time, "TIME ");
  return writes.texts;
}

TEST(ErrorOutput, PrintsTimeLevelSourceLineAndMessageAndGivesUpAtAFailure) {
  const auto log = [] {
    error_output(QEL_LOG_NOTICE, "audit_rule", 123, "%s failed: %d", "open", -2);
    error_output(INT_MIN, "wtmp", 1, "user %ls\n", kUnencodable);
  };
  EXPECT_EQ(written_by(log), (Texts{"TIME notice audit_rule:123: open failed: -2\n",
                                    "TIME -2147483648 wtmp:1: user %ls\n"}));
  EXPECT_EQ(written_by(log, 2, 30), (Texts{"TIME notice aud", "it_rule:123: open failed: -2\n",
                                           "TIME -214748364", "8 wtmp:1: user %ls\n"}));
  EXPECT_EQ(written_by(log, 0, 0), Texts());
}

TEST(ErrorOutput, EveryMessageIsOneWholeLine) {
  std::map<std::string, std::string> lines = {
      {"", ""},
      {"\n", ""},
      {"a\r\nb\n\n", "a\\x0D\\x0Ab\\x0A"},
      {"\x1b[2J\t\x7f\x1f ~\xc3\xa9", "\\x1B[2J\\x09\\x7F\\x1F ~\xc3\xa9"}};
  std::string& escaped = lines[std::string(10000, '\1')];
  for (int i = 0; i < 10000; ++i) escaped += "\\x01";
  // Around the room that a line finds on the stack.
  for (std::string text(4000, 'x'); text.size() < 4120; text += 'x') lines[text] = text;
  for (const auto& [message, line] : lines) {
    const auto log = [text = message.c_str()] { error_output(2, "m", 1, "%s", text); };
    ASSERT_EQ(written_by(log), Texts{"TIME error m:1: " + line + "\n"});
  }
}

TEST(ErrorOutputDeathTest, ThresholdDecidesBeforeAnythingIsFormatted) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the environment is read once in a process
  constexpr int kUnset = 55;
  const struct {
    const char* environment;
    int set, lines;
  } cases[] = {
      {nullptr, kUnset, 3}, {"2", kUnset, 2}, {"-1", kUnset, 1}, {"99999999999", kUnset, 4},
      {"2x", kUnset, 3},    {"", kUnset, 3},  {"4", -7, 1},      {"0", 99, 4}};
  for (const auto& [environment, set, lines] : cases) {
    environment != nullptr ? setenv("QEL_LOG_LEVEL", environment, 1) : unsetenv("QEL_LOG_LEVEL");
    const auto log = [level = set] {
      if (level != kUnset) error_output_set_level(level);
      for (const int each : {0, 2, 3, 4}) error_output(each, "m", 1, "text");
      error_output(5, "m", 1, "%s", reinterpret_cast<const char*>(1));  // fatal if it is read
      std::_Exit(0);
    };
    EXPECT_EXIT(log(), testing::ExitedWithCode(0), "^([^\n]+\n){" + std::to_string(lines) + "}$");
  }
  unsetenv("QEL_LOG_LEVEL");
}

TEST(StrSnprintf, CutsAndReturnsWhatIsStored) {
  for (const size_t size : {0U, 1U, 5U, 6U, 8U}) {
    std::string buffer(8, '~');
    const std::string stored = std::string("12345").substr(0, size == 0 ? 0 : size - 1);
    EXPECT_EQ(str_snprintf(buffer.data(), size, "%d%s", 123, "45"), std::ssize(stored));
    const std::string expected = size == 0 ? "" : stored + '\0';
    EXPECT_EQ(buffer, expected + std::string(8 - expected.size(), '~')) << size;
  }
  char buffer[8] = "old";
  EXPECT_EQ(str_snprintf(buffer, sizeof(buffer), "ab%ls", kUnencodable), 0);
  EXPECT_STREQ(buffer, "");
}

}  // namespace
