// error_output and str_snprintf.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "qel_base.h"

namespace {

constexpr wchar_t kUnencodable[] = {0x7fffffff, 0};

// Runs `action` with standard error on a socket that keeps writes apart. Returns what each wrote.
template <typename Action>
std::vector<std::string> logged_by(Action action) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
  const int saved_stderr = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  action();
  dup2(saved_stderr, STDERR_FILENO);
  close(saved_stderr);
  close(ends[1]);

  std::vector<std::string> writes;
  std::string buffer(1 << 17, '\0');
  for (ssize_t size; (size = recv(ends[0], buffer.data(), buffer.size(), 0)) > 0;) {
    writes.push_back(buffer.substr(0, static_cast<size_t>(size)));
  }
  close(ends[0]);
  return writes;
}

TEST(ErrorOutput, PrintsTimeLevelSourceLineAndMessage) {
  error_output_set_level(QEL_LOG_NOTICE);
  const auto writes = logged_by([] {
    error_output(QEL_LOG_FATAL, "audit_msg", 7, "Out of memory\n");
    error_output(QEL_LOG_ERROR, "audit_rule", 123, "%s failed: %d", "open", -2);
    error_output(QEL_LOG_NOTICE, "wtmp", 1, "user %ls\n", kUnencodable);
    error_output(-3, "wtmp", 1, "odd\n");
  });
  const char* const expected[] = {"fatal audit_msg:7: Out of memory\n",
                                  "error audit_rule:123: open failed: -2\n",
                                  "notice wtmp:1: user %ls\n", "-3 wtmp:1: odd\n"};
  ASSERT_EQ(writes.size(), std::size(expected));
  const std::regex time(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d )");
  for (size_t i = 0; i < writes.size(); ++i) {
    EXPECT_EQ(std::regex_replace(writes[i], time, "TIME "), std::string("TIME ") + expected[i]);
  }
}

TEST(ErrorOutput, EveryMessageIsOneWholeLineAndKeepsErrno) {
  std::string escaped;
  for (int i = 0; i < 10000; ++i) escaped += "\\x01";
  std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},
      {"\n", ""},
      {"a\nb\n", "a\\x0Ab"},
      {"a\r\n\n", "a\\x0D\\x0A"},
      {"\x1b[2J\t\x7f ~\xc3\xa9", "\\x1B[2J\\x09\\x7F ~\xc3\xa9"},
      {std::string(10000, '\1'), escaped}};
  // Around the room that a line finds on the stack.
  for (size_t size = 4000; size < 4120; ++size) {
    cases.emplace_back(std::string(size, 'x'), std::string(size, 'x'));
  }
  for (const auto& [message, line] : cases) {
    const auto writes = logged_by([text = message.c_str()] {
      errno = ENOENT;
      error_output(QEL_LOG_ERROR, "m", 1, "%s", text);
      close(STDERR_FILENO);
      error_output(QEL_LOG_ERROR, "m", 1, "lost");
      EXPECT_EQ(errno, ENOENT);
    });
    ASSERT_EQ(writes.size(), 1U);
    ASSERT_EQ(writes[0].substr(writes[0].find(" error ")), " error m:1: " + line + "\n");
  }
}

TEST(ErrorOutputDeathTest, ThresholdDecidesBeforeAnythingIsFormatted) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the environment is read once in a process
  const struct {
    const char* environment;
    std::optional<int> set;
    int lines;
  } cases[] = {{nullptr, {}, 3}, {"2", {}, 2},          {"17", {}, 4}, {"-1", {}, 1},
               {"", {}, 3},      {"2x", {}, 3},         {"4", -7, 1},  {"0", 2, 2},
               {"0", 99, 4},     {"99999999999", {}, 4}};
  for (const auto& [environment, set, lines] : cases) {
    setenv("QEL_LOG_LEVEL", environment != nullptr ? environment : "", 1);
    if (environment == nullptr) unsetenv("QEL_LOG_LEVEL");
    EXPECT_EXIT(
        {
          if (set) error_output_set_level(*set);
          for (const int level : {0, 2, 3, 4}) error_output(level, "m", 1, "text");
          error_output(5, "m", 1, "%s", reinterpret_cast<const char*>(1));  // fatal if it is read
          std::_Exit(0);
        },
        testing::ExitedWithCode(0), "^([^\n]+\n){" + std::to_string(lines) + "}$");
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
