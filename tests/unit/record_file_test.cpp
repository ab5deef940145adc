// The reader for recordings: what it takes, and that it says where it stopped.
#include "record_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <libaudit.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Records = std::vector<std::pair<int, std::string>>;

class RecordFile : public testing::Test {
 protected:
  RecordFile() {
    std::string directory = (fs::temp_directory_path() / "record_file_XXXXXX").string();
    if (mkdtemp(directory.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    directory_ = directory;
    path_ = directory_ / "file";
  }
  ~RecordFile() override { fs::remove_all(directory_); }

  void write(const std::string& content) const {
    std::ofstream(path_, std::ios::binary).write(content.data(), std::ssize(content));
  }

  void write_compressed(const std::string& content) const {
    const gzFile file = gzopen(path_.c_str(), "w");
    gzwrite(file, content.data(), static_cast<unsigned>(content.size()));
    gzclose(file);
  }

  std::string read(const std::string& path) {
    records_.clear();
    return offline::read_records(path, [this](const offline::Record& record) {
      records_.emplace_back(record.type, record.payload);
    });
  }

  // What is wrong with the file that is written, without the file's name.
  std::string problem() {
    const std::string text = read(path_);
    EXPECT_TRUE(text.starts_with(path_.string() + ":")) << text;
    return text.substr(path_.string().size() + 1);
  }

  fs::path directory_;
  fs::path path_;
  Records records_;
};

const std::string kMixedLines =
    "1300\taudit(1.000:1): arch=c000003e comm=\"caf\xc3\xa9\"\r\n"
    "\n"
    "1320\taudit(1.000:1): \n"
    "2\thex:00000000fFAa\n"
    "3\thex:\n"
    "type=SYSCALL msg=audit(2.000:2): arch=c000003e key=\"a\"\x1d"
    "ARCH=x86_64 msg=audit(x\n"
    "node=host.example type=EOE msg=audit(2.000:2): \n"
    "type=UNKNOWN[1420] msg=audit(2.000:3): subj=\n"
    "type=USER_LOGIN msg=audit(2.000:4): pid=1 msg='op=login res=success'\n"
    "1327\taudit(2.000:5): type=EOE msg=audit(6): no line feed";

const Records kMixedRecords = {
    {1300, "audit(1.000:1): arch=c000003e comm=\"caf\xc3\xa9\"\r"},
    {1320, "audit(1.000:1): "},
    {2, std::string("\0\0\0\0\xff\xaa", 6)},
    {3, ""},
    {1300, "audit(2.000:2): arch=c000003e key=\"a\""},
    {1320, "audit(2.000:2): "},
    {1420, "audit(2.000:3): subj="},
    {1112, "audit(2.000:4): pid=1 msg='op=login res=success'"},
    {1327, "audit(2.000:5): type=EOE msg=audit(6): no line feed"},
};

TEST_F(RecordFile, ReadsEveryKindOfLine) {
  write(kMixedLines);
  EXPECT_EQ(read(path_), "");
  EXPECT_EQ(records_, kMixedRecords);
  write_compressed(kMixedLines);
  EXPECT_EQ(read(path_), "");
  EXPECT_EQ(records_, kMixedRecords);
  write("");
  EXPECT_EQ(read(path_), "");
  EXPECT_TRUE(records_.empty());
}

TEST_F(RecordFile, ReadsStandardInput) {
  write_compressed(kMixedLines + "\nx");
  const int saved = dup(STDIN_FILENO);
  const int file = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  dup2(file, STDIN_FILENO);
  close(file);
  EXPECT_EQ(read("-"), "standard input:11: no tab behind the record type");
  EXPECT_GE(fcntl(STDIN_FILENO, F_GETFD), 0) << "standard input stays open";
  if (saved < 0) {
    close(STDIN_FILENO);
  } else {
    dup2(saved, STDIN_FILENO);
    close(saved);
  }
  EXPECT_EQ(records_, kMixedRecords);
}

TEST_F(RecordFile, ReadsRecordsUpToTheSizeOfLibauditsBuffer) {
  const std::string longest(MAX_AUDIT_MESSAGE_LENGTH, 'x');
  std::string hex;
  for (std::size_t i = 0; i < longest.size(); ++i) hex += "78";
  const std::string lines = "1309\t" + longest + "\n1309\thex:" + hex + "\n";
  // Over many chunks, so that lines are put together from two of them.
  std::string content;
  for (int i = 0; i < 20; ++i) content += lines;
  write(content);
  EXPECT_EQ(read(path_), "");
  EXPECT_EQ(records_, Records(40, {1309, longest}));
  write(lines + "1309\t" + longest + "x\n");
  EXPECT_EQ(problem(), "3: the record is longer than 8970 bytes");
  write("1309\thex:78" + hex);
  EXPECT_EQ(problem(), "1: the record is longer than 8970 bytes");
  write("1309\ttext\n" + std::string(1 << 20, 'x'));
  EXPECT_EQ(problem(), "2: the line is too long");
}

struct Malformed {
  const char* line;
  const char* problem;
};

class MalformedLine : public RecordFile, public testing::WithParamInterface<Malformed> {};

TEST_P(MalformedLine, IsNamedAndEndsTheReading) {
  write(std::string("1300\tbefore\n\n") + GetParam().line + "\n1300\tbehind\n");
  EXPECT_EQ(problem(), std::string("3: ") + GetParam().problem) << GetParam().line;
  EXPECT_EQ(records_, (Records{{1300, "before"}}));
}

constexpr const char* kBadType = "the record type is not a number from 1 to 65535";
constexpr const char* kNoTab = "no tab behind the record type";
constexpr const char* kBadHex = "the payload is not in hexadecimal";
constexpr const char* kUnknownType = "unknown record type";
constexpr const char* kNoMessage = "no msg=audit( behind the record type";

INSTANTIATE_TEST_SUITE_P(
    Lines, MalformedLine,
    testing::Values(Malformed{"1300 audit(1.000:1): ", kNoTab}, Malformed{"\r", kNoTab},
                    Malformed{"\taudit(1.000:1): ", kBadType}, Malformed{"0\tx", kBadType},
                    Malformed{"-1\tx", kBadType}, Malformed{" 1300\tx", kBadType},
                    Malformed{"65536\tx", kBadType}, Malformed{"99999999999999999999\tx", kBadType},
                    Malformed{"1300x\tx", kBadType}, Malformed{"SYSCALL\tx", kBadType},
                    Malformed{"2\thex:0", kBadHex}, Malformed{"2\thex:0g", kBadHex},
                    Malformed{"2\thex:00 11", kBadHex},
                    Malformed{"type=NOTHING msg=audit(1.000:1): ", kUnknownType},
                    Malformed{"type=1300 msg=audit(1.000:1): ", kUnknownType},
                    Malformed{"type= msg=audit(1.000:1): ", kUnknownType},
                    Malformed{"type=SYSCALL", kUnknownType},
                    Malformed{"type=UNKNOWN[] msg=audit(1.000:1): ", kUnknownType},
                    Malformed{"type=UNKNOWN[14 msg=audit(1.000:1): ", kUnknownType},
                    Malformed{"type=UNKNOWN[65536] msg=audit(1.000:1): ", kUnknownType},
                    Malformed{"type=SYSCALL arch=c000003e", kNoMessage},
                    Malformed{"type=SYSCALL msg=arch=c000003e", kNoMessage},
                    Malformed{"node=host", "no type= behind the node"},
                    Malformed{"node=host SYSCALL msg=audit(1.000:1): ",
                              "no type= behind the node"}));

TEST_F(RecordFile, SaysWhyAFileCannotBeRead) {
  EXPECT_EQ(read(path_), path_.string() + ": No such file or directory");
  EXPECT_EQ(read(directory_), directory_.string() + ":1: Is a directory");
}

TEST_F(RecordFile, NoticesDamagedCompression) {
  std::string content;
  for (int i = 0; i < 20000; ++i)
    content += "1300\taudit(1.000:" + std::to_string(i * i) + "): x\n";
  write_compressed(content);
  const auto size = fs::file_size(path_);
  ASSERT_EQ(read(path_), "");
  ASSERT_EQ(records_.size(), 20000U);

  fs::resize_file(path_, size / 2);
  EXPECT_NE(problem().find(": the compressed data ends too early"), std::string::npos);
  EXPECT_GT(records_.size(), 1000U);
  EXPECT_TRUE(records_.back().second.ends_with(": x")) << "the broken line is not taken";

  // Without the end of its check sum the data itself is whole.
  write_compressed(content);
  fs::resize_file(path_, size - 1);
  EXPECT_EQ(problem(), "20001: the compressed data ends too early");

  write_compressed(content);
  std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(static_cast<std::streamoff>(size) - 6).put('\xa5').put('\x5a');
  file.close();
  EXPECT_NE(problem().find(": the compressed data is damaged"), std::string::npos);
}

// ---- Recordings -------------------------------------------------------------------------------

struct Recording {
  const char* file;
  std::size_t records;
};

class RecordingFile : public testing::TestWithParam<Recording> {};

TEST_P(RecordingFile, IsReadToItsEnd) {
  std::size_t count = 0;
  std::size_t odd_texts = 0;
  const std::string path = std::string(QEL_TEST_DATA_DIR "/recordings/") + GetParam().file;
  EXPECT_EQ(offline::read_records(path,
                                  [&](const offline::Record& record) {
                                    ++count;
                                    if (record.type == NLMSG_ERROR || record.type == AUDIT_GET) {
                                      odd_texts += record.payload.size() != 20 &&
                                                   record.payload.size() != sizeof(audit_status);
                                      return;
                                    }
                                    odd_texts += !record.payload.starts_with("audit(");
                                    if (record.type == AUDIT_EOE)
                                      odd_texts += !record.payload.ends_with("): ");
                                  }),
            "");
  EXPECT_EQ(count, GetParam().records);
  EXPECT_EQ(odd_texts, 0U);
}

INSTANTIATE_TEST_SUITE_P(
    All, RecordingFile,
    testing::Values(Recording{"account-add.rec", 98}, Recording{"account-change.rec", 151},
                    Recording{"account-delete.rec", 100}, Recording{"bind-fail.rec", 66},
                    Recording{"bind-inet.rec", 50}, Recording{"bind-other.rec", 50},
                    Recording{"bind-unix.rec", 55}, Recording{"compat-32bit.rec", 72},
                    Recording{"exec-comm.rec", 54}, Recording{"exec-empty.rec", 62},
                    Recording{"exec-fail.rec", 143}, Recording{"exec-long.rec.gz", 103},
                    Recording{"exec-many.rec.gz", 46}, Recording{"exec-quoting.rec", 39},
                    Recording{"exec-script.rec", 58}, Recording{"exec-setuid.rec", 62},
                    Recording{"exec-simple.rec", 88}, Recording{"exec-split.rec.gz", 232},
                    Recording{"login-real.rec", 58}, Recording{"mixed.rec.gz", 60520},
                    Recording{"syscall-all.rec.gz", 459},
                    Recording{"syscall-and-execve.rec.gz", 1083},
                    Recording{"syscall-files.rec", 87}, Recording{"syscall-openat.rec.gz", 911},
                    Recording{"wtmp-append.rec", 50}, Recording{"wtmp-truncate.rec", 53}));

}  // namespace
