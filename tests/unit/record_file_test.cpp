// The reader for recordings: what it takes, and that it says where it stopped.
#include "record_file.h"

#include <gtest/gtest.h>
#include <libaudit.h>
#include <unistd.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Records = std::vector<std::pair<int, std::string>>;

struct RecordFile : testing::Test {
  ~RecordFile() override { fs::remove(path_); }

  void write(const std::string& content, const char* mode = "wT") const {  // T: plain
    const gzFile file = gzopen(path_.c_str(), mode);
    gzwrite(file, content.data(), static_cast<unsigned>(content.size()));
    gzclose(file);
  }

  // Returns what is wrong, without the name.
  std::string read() {
    records_.clear();
    const std::string problem = offline::read_records(
        path_, [this](const auto& record) { records_.emplace_back(record.type, record.payload); });
    return problem.starts_with(path_ + ":") ? problem.substr(path_.size() + 1) : problem;
  }

  const std::string path_ = testing::TempDir() + "record_file_test." + std::to_string(getpid());
  Records records_;
};

TEST_F(RecordFile, ReadsEveryKindOfLine) {
  const std::pair<std::string, Records::value_type> lines[] = {
      {"1300\tcomm=\"caf\xc3\xa9\"\r\n\n", {1300, "comm=\"caf\xc3\xa9\"\r"}},
      {"1320\taudit(1.000:1): \n", {1320, "audit(1.000:1): "}},
      {"2\thex:00000000fFAa09\n", {2, std::string("\0\0\0\0\xff\xaa\x09", 7)}},
      {"65535\thex:\n", {65535, ""}},
      {"type=SYSCALL msg=audit(2.000:2): key=k\x1dUID=x msg=audit(x\n",
       {1300, "audit(2.000:2): key=k"}},
      {"node=host.example type=EOE msg=audit(2.000:2): \n", {1320, "audit(2.000:2): "}},
      {"type=UNKNOWN[1420] msg=audit(2.000:3): subj=\n", {1420, "audit(2.000:3): subj="}},
      {"1\ttype=EOE msg=audit(6): no line feed", {1, "type=EOE msg=audit(6): no line feed"}}};
  std::string content;
  Records records;
  for (const auto& [line, record] : lines) {
    content += line;
    records.push_back(record);
  }
  for (const char* mode : {"w", "wT"}) {
    write(content, mode);
    EXPECT_EQ(read(), "");
    EXPECT_EQ(records_, records);
  }
}

TEST_F(RecordFile, ReadsRecordsUpToTheSizeOfLibauditsBuffer) {
  const std::string longest(MAX_AUDIT_MESSAGE_LENGTH, 'x');
  std::string hex;
  for (std::size_t i = 0; i < longest.size(); ++i) hex += "78";
  std::string content;  // of many chunks, so that lines are put together from two of them
  for (int i = 0; i < 20; ++i) content += "1309\t" + longest + "\n1309\thex:" + hex + "\n";
  write(content);
  EXPECT_EQ(read(), "");
  EXPECT_EQ(records_, Records(40, {1309, longest}));
  for (const std::string& line : {"1309\t" + longest + "x\n", "1309\thex:78" + hex}) {
    write(content + line);
    EXPECT_EQ(read(), "41: the record is longer than 8970 bytes");
  }
  write("1309\ttext\n" + std::string(1 << 20, 'x'));
  EXPECT_EQ(read(), "2: the line is too long");
}

TEST_F(RecordFile, NamesAMalformedLineAndStopsThere) {
  const std::pair<const char*, std::vector<const char*>> cases[] = {
      {"no tab behind the record type", {"1300 audit(1.000:1): ", "\r"}},
      {"the record type is not a number from 1 to 65535",
       {"\tx", "0\tx", "-1\tx", " 1300\tx", "65536\tx", "99999999999999999999\tx", "1300x\tx"}},
      {"the payload is not in hexadecimal", {"2\thex:0", "2\thex:0g", "2\thex:00 11"}},
      {"unknown record type",
       {"type=NOTHING msg=audit(1:1)", "type=1300 msg=audit(1:1)", "type= msg=audit(1:1)",
        "type=SYSCALL", "type=UNKNOWN[14 msg=audit(1:1)", "type=UNKNOWN[65536] msg=audit(1:1)"}},
      {"no msg=audit( behind the record type",
       {"type=SYSCALL arch=c000003e", "type=SYSCALL msg=arch=c000003e"}},
      {"no type= behind the node", {"node=host", "node=host SYSCALL msg=audit(1:1)"}}};
  for (const auto& [problem, lines] : cases) {
    for (const std::string line : lines) {
      write("1300\tbefore\n\n" + line + "\n1300\tbehind\n");
      EXPECT_EQ(read(), std::string("3: ") + problem) << line;
      EXPECT_EQ(records_, (Records{{1300, "before"}})) << line;
    }
  }
}

TEST_F(RecordFile, SaysWhyAFileCannotBeReadToItsEnd) {
  EXPECT_EQ(read(), " No such file or directory");
  std::string content;
  for (int i = 0; i < 9999; ++i) content += "1300\taudit(1.000:" + std::to_string(i * i) + "): x\n";
  write(content, "w");
  const auto size = fs::file_size(path_);
  std::fstream(path_).seekp(static_cast<std::streamoff>(size) - 6).write("\xa5\x5a", 2);
  EXPECT_TRUE(read().ends_with(": the compressed data is damaged"));
  fs::resize_file(path_, size - 7);  // the data itself is whole, and its check sum is not there
  EXPECT_EQ(read(), "10000: the compressed data ends too early");
  fs::resize_file(path_, size / 2);
  EXPECT_TRUE(read().ends_with(": the compressed data ends too early"));
  EXPECT_TRUE(records_.back().second.ends_with(": x")) << "the broken line is not taken";
  fs::remove(path_);
  fs::create_directory(path_);
  EXPECT_EQ(read(), "1: Is a directory");
}

}  // namespace
