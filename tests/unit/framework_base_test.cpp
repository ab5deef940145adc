// error_output and str_snprintf.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "qel_base.h"

namespace {

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
  std::string buffer(1 << 20, '\0');
  for (ssize_t size; (size = recv(ends[0], buffer.data(), buffer.size(), 0)) > 0;) {
    writes.push_back(buffer.substr(0, static_cast<size_t>(size)));
  }
  close(ends[0]);
  return writes;
}

// The one line that `message` makes, from behind the prefix on.
std::string line_of(const std::string& message) {
  const auto writes =
      logged_by([&] { error_output(QEL_LOG_ERROR, "m", 1, "%s", message.c_str()); });
  EXPECT_EQ(writes.size(), 1U);
  const std::string prefix = " error m:1: ";
  const size_t at = writes.empty() ? std::string::npos : writes[0].find(prefix);
  return at == std::string::npos ? "no line" : writes[0].substr(at + prefix.size());
}

class ErrorOutput : public testing::Test {
 protected:
  void SetUp() override { error_output_set_level(QEL_LOG_NOTICE); }
};

TEST_F(ErrorOutput, PrintsTimeLevelSourceLineAndMessage) {
  const auto writes = logged_by([] {
    error_output(QEL_LOG_FATAL, "audit_msg", 7, "Out of memory\n");
    error_output(QEL_LOG_ERROR, "audit_rule", 123, "%s failed: %d", "open", -2);
    error_output(QEL_LOG_NOTICE, "wtmp", 1, "seen\n");
    error_output(-3, "wtmp", 1, "odd\n");
  });
  ASSERT_EQ(writes.size(), 4U);
  const char* const expected[] = {"fatal audit_msg:7: Out of memory",
                                  "error audit_rule:123: open failed: -2", "notice wtmp:1: seen",
                                  "-3 wtmp:1: odd"};
  for (size_t i = 0; i < writes.size(); ++i) {
    const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d )" + std::string(expected[i]) + "\n");
    EXPECT_TRUE(std::regex_match(writes[i], line)) << writes[i];
  }
}

TEST_F(ErrorOutput, ThresholdDecidesBeforeAnythingIsFormatted) {
  const struct {
    int threshold;
    size_t printed;
  } cases[] = {{-7, 1}, {0, 1}, {2, 2}, {3, 3}, {4, 4}, {99, 4}};
  for (const auto& [threshold, printed] : cases) {
    error_output_set_level(threshold);
    const auto writes = logged_by([] {
      for (const int level : {0, 2, 3, 4}) error_output(level, "m", 1, "text");
      error_output(5, "m", 1, "%s", reinterpret_cast<const char*>(1));  // fatal if it is read
    });
    EXPECT_EQ(writes.size(), printed) << "threshold " << threshold;
  }
}

TEST_F(ErrorOutput, MessageStaysOneLine) {
  EXPECT_EQ(line_of(""), "\n");
  EXPECT_EQ(line_of("\n"), "\n");
  EXPECT_EQ(line_of("a\nb\n"), "a\\x0Ab\n");
  EXPECT_EQ(line_of("a\r\n\n"), "a\\x0D\\x0A\n");
  EXPECT_EQ(line_of("\x1b[2J\t\x7f ~\xc3\xa9"), "\\x1B[2J\\x09\\x7F ~\xc3\xa9\n");
}

TEST_F(ErrorOutput, LongMessagesAreNotCut) {
  for (size_t length = 4000; length < 4120; ++length) {
    const std::string text(length, 'x');
    ASSERT_EQ(line_of(text), text + "\n");
  }
  std::string escaped;
  for (int i = 0; i < 10000; ++i) escaped += "\\x01";
  EXPECT_EQ(line_of(std::string(10000, '\1')), escaped + "\n");
}

TEST_F(ErrorOutput, UnformattableMessageShowsItsFormat) {
  const wchar_t unencodable[] = {0x7fffffff, 0};
  const auto writes = logged_by([&] { error_output(2, "m", 1, "user %ls\n", unencodable); });
  ASSERT_EQ(writes.size(), 1U);
  EXPECT_NE(writes[0].find("m:1: user %ls\n"), std::string::npos) << writes[0];
}

TEST_F(ErrorOutput, KeepsErrno) {
  const auto writes = logged_by([] {
    errno = ENOENT;
    error_output(QEL_LOG_ERROR, "m", 1, "%5000d\n", 1);
    EXPECT_EQ(errno, ENOENT);
    close(STDERR_FILENO);
    error_output(QEL_LOG_ERROR, "m", 1, "lost\n");
    EXPECT_EQ(errno, ENOENT);
  });
  EXPECT_EQ(writes.size(), 1U);
}

TEST(ErrorOutputDeathTest, EnvironmentGivesTheFirstThreshold) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the level is read once in a process
  const std::string fatal = "^[^\n]* fatal m:1: 0\n";
  const std::string error = fatal + "[^\n]* error m:1: a\n";
  const std::string notice = error + "[^\n]* notice m:1: b\n";
  const std::string debug = notice + "[^\n]* debug m:1: c\n";
  const struct {
    const char* value;
    std::string printed;
  } cases[] = {{nullptr, notice}, {"2", error},    {"4", debug},
               {"17", debug},     {"-1", fatal},   {"", notice},
               {"2x", notice},    {"all", notice}, {"99999999999", notice}};
  for (const auto& [value, printed] : cases) {
    SCOPED_TRACE(value != nullptr ? value : "unset");
    value != nullptr ? setenv("QEL_LOG_LEVEL", value, 1) : unsetenv("QEL_LOG_LEVEL");
    EXPECT_EXIT(
        {
          error_output(QEL_LOG_FATAL, "m", 1, "0");
          error_output(QEL_LOG_ERROR, "m", 1, "a");
          error_output(QEL_LOG_NOTICE, "m", 1, "b");
          error_output(QEL_LOG_DEBUG, "m", 1, "c");
          std::_Exit(0);
        },
        testing::ExitedWithCode(0), printed + "$");
  }
  unsetenv("QEL_LOG_LEVEL");
}

TEST(StrSnprintf, CutsAndReturnsWhatIsStored) {
  const struct {
    size_t size;
    int result;
    std::string bytes;  // the whole buffer
  } cases[] = {{0, 0, "~~~~~~~~"},
               {1, 0, std::string("\0~~~~~~~", 8)},
               {4, 3, std::string("123\0~~~~", 8)},
               {5, 4, std::string("1234\0~~~", 8)},
               {6, 5, std::string("12345\0~~", 8)},
               {8, 5, std::string("12345\0~~", 8)}};
  for (const auto& [size, result, bytes] : cases) {
    std::string buffer(8, '~');
    EXPECT_EQ(str_snprintf(buffer.data(), size, "%d%s", 123, "45"), result) << size;
    EXPECT_EQ(buffer, bytes) << size;
  }
}

TEST(StrSnprintf, FailingFormatLeavesAnEmptyText) {
  char buffer[8] = "old";
  const wchar_t unencodable[] = {0x7fffffff, 0};
  EXPECT_EQ(str_snprintf(buffer, sizeof(buffer), "ab%ls", unencodable), 0);
  EXPECT_STREQ(buffer, "");
}

}  // namespace
