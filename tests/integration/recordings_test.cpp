// Every recording through the library: the events are the ones that its list names, and those that
// a plain reading of its records gives.
#include <gtest/gtest.h>
#include <libaudit.h>
#include <qel_base.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "captured_log.h"
#include "clock.h"
#include "databases.h"
#include "event_log.h"
#include "offline_kernel.h"

namespace {

using test::EventLine;
using Texts = std::vector<std::string>;
using Counts = std::map<std::string, int>;

const std::filesystem::path kDirectory = QEL_RECORDINGS_DIR;

const std::map<std::string, std::string> kUsers = {
    {"0", "root"}, {"1000", "alice"}, {"1001", "bob"}};

// ---- Expectations ------------------------------------------------------------------------------

// A list of expected events, as its notation is described next to the recordings.
struct Expected {
  Texts lines;
  Counts counts;
  bool others = false;
  Counts errors;
};

void expand_numbers(std::string& line) {
  const std::size_t at = line.find("{1..5000}");
  if (at == std::string::npos) return;
  std::string numbers = "1";
  for (int i = 2; i <= 5000; ++i) numbers += " " + std::to_string(i);
  line.replace(at, std::strlen("{1..5000}"), numbers);
}

Expected read_expected(const std::string& name) {
  Expected expected;
  std::ifstream file(kDirectory / (name + ".events"));
  if (!file) throw std::runtime_error("no list of events for " + name);
  for (std::string line; std::getline(file, line);) {
    const std::size_t times = line.find(" x ");
    const bool counted =
        times != std::string::npos && line.find_first_not_of("0123456789") == times;
    const std::string what = counted ? line.substr(times + 3) : "";
    if (line == "and others") {
      expected.others = true;
    } else if (what.starts_with("error ")) {
      expected.errors[what.substr(6)] = std::stoi(line);
    } else if (counted) {
      expected.counts[what] = std::stoi(line);
    } else {
      expand_numbers(line);
      expected.lines.push_back(line);
    }
  }
  return expected;
}

// A line as it is counted: up to the command name, and without the results of successful calls.
std::string counted_form(const std::string& line) {
  const std::size_t result = line.find(" result=") + std::strlen(" result=");
  const std::size_t user = line.find(' ', result);
  const std::size_t end = line.find(' ', line.find(" process=") + 1);
  const bool failed = line.find(" success=") != std::string::npos
                          ? line.find(" success=0 ") != std::string::npos
                          : line[result] == '-';
  return line.substr(0, result) + (failed ? line.substr(result, user - result) : "N") +
         line.substr(user, end - user);
}

Counts count(const Texts& lines) {
  Counts counts;
  for (const std::string& line : lines) ++counts[counted_form(line)];
  return counts;
}

// One text, so that a failure shows the lines that differ.
std::string lines_of(const Counts& counts) {
  std::string text;
  for (const auto& [line, count] : counts) text += std::to_string(count) + " x " + line + "\n";
  return text;
}

std::string lines_of(const Texts& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

// ---- A plain reading of the records ------------------------------------------------------------

using Fields = std::map<std::string, std::string>;

Fields fields_of(const std::string& payload) {
  Fields fields;
  std::istringstream words(payload);
  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    if (equals != std::string::npos)
      fields.emplace(word.substr(0, equals), word.substr(equals + 1));
  }
  return fields;
}

bool is_quoted(const std::string& written) {
  return written.front() == '"';
}

std::string from_hex(const std::string& digits) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

std::string decode(const std::string& written) {
  return is_quoted(written) ? written.substr(1, written.size() - 2) : from_hex(written);
}

struct Group {
  Fields syscall = {};
  std::string path = {};
  std::string address = {};
  Texts arguments = {};  // as they are written, the pieces of one put together
};

void add_argument(Group& group, const std::string& name, const std::string& value) {
  if (name == "argc") group.arguments.resize(std::stoul(value));
  if (name[0] != 'a' || name.size() < 2 || !std::isdigit(name[1])) return;
  if (name.ends_with("_len")) return;
  std::string& argument = group.arguments.at(std::stoul(name.substr(1)));
  if (!argument.empty() && is_quoted(argument)) {
    argument.pop_back();
    argument += value.substr(1);
  } else {
    argument += value;
  }
}

void add_arguments(Group& group, const std::string& payload) {
  std::istringstream words(payload);
  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    if (equals != std::string::npos) {
      add_argument(group, word.substr(0, equals), word.substr(equals + 1));
    }
  }
}

// No more than 32768 written characters of a split argument are kept. Those of the kernel that are
// quoted are shorter anyway.
std::string decode_argument(const std::string& written) {
  constexpr std::size_t kMost = 32768;
  return decode(is_quoted(written) ? written : written.substr(0, kMost));
}

template <std::size_t Size>
void fill(char (&field)[Size], const std::string& text) {
  ASSERT_LT(text.size(), Size);
  std::strcpy(field, text.c_str());
}

template <typename Info>
Info common_info(const Fields& fields) {
  Info info = {};
  // The low half of what mmap returns may look negative.
  info.result = fields.contains("exit") ? static_cast<int>(std::stol(fields.at("exit"))) : 0;
  info.ppid = static_cast<std::uint32_t>(std::stoul(fields.at("ppid")));
  info.pid = static_cast<std::uint32_t>(std::stoul(fields.at("pid")));
  fill(info.user, kUsers.at(fields.at("uid")));
  fill(info.process, decode(fields.at("comm")));
  return info;
}

void read_execve(const Group& group, std::vector<EventLine>& lines) {
  auto info = common_info<qel_execve_info>(group.syscall);
  Texts arguments;
  for (const std::string& written : group.arguments) arguments.push_back(decode_argument(written));
  if (arguments.empty() && !group.path.empty()) arguments = {info.process, group.path};
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  info.argc = static_cast<int>(argv.size());
  info.argv = argv.data();
  test::note_execve(&info, &lines);
}

bool is_whole_address(const std::string& address) {
  static const std::map<int, std::size_t> kLengths = {{1, 110}, {2, 16},  {5, 16}, {9, 18},
                                                      {10, 28}, {16, 12}, {17, 20}};
  if (address.size() < 4 || address[1] != '\0' || address[0] == '\0') return false;
  const auto known = kLengths.find(address[0]);
  return known == kLengths.end() || known->second == address.size();
}

void read_bind(const Group& group, std::vector<EventLine>& lines) {
  if (!is_whole_address(group.address)) return;
  auto info = common_info<qel_bind_info>(group.syscall);
  group.address.copy(reinterpret_cast<char*>(&info.addr), sizeof(info.addr));
  test::note_bind(&info, &lines);
}

void read_syscall(const Group& group, std::vector<EventLine>& lines) {
  const Fields& fields = group.syscall;
  auto info = common_info<qel_syscall_info>(fields);
  info.success = fields.contains("success") && fields.at("success") == "no" ? 0 : 1;
  fill(info.syscall, audit_syscall_to_name(std::stoi(fields.at("syscall")), MACH_86_64));
  info.arg1 = std::stoul(fields.at("a0"), nullptr, 16);
  info.arg2 = std::stoul(fields.at("a1"), nullptr, 16);
  info.arg3 = std::stoul(fields.at("a2"), nullptr, 16);
  info.arg4 = std::stoul(fields.at("a3"), nullptr, 16);
  test::note_syscall(&info, &lines);
}

void read_group(const Group& group, std::vector<EventLine>& lines) {
  const std::string& key = group.syscall.at("key");
  if (key == "\"execve_rule\"") read_execve(group, lines);
  if (key == "\"bind_rule\"") read_bind(group, lines);
  if (key == "\"syscall_rule\"") read_syscall(group, lines);
}

std::vector<EventLine> read_plainly(const std::vector<test::RecordedMessage>& recording) {
  std::vector<EventLine> lines;
  std::map<unsigned, Group> groups;
  for (const test::RecordedMessage& message : recording) {
    const unsigned serial = test::serial_of(message);
    if (message.type == AUDIT_SYSCALL) groups[serial] = {.syscall = fields_of(message.payload)};
    if (!groups.contains(serial)) continue;
    Group& group = groups[serial];
    if (message.type == AUDIT_EXECVE) add_arguments(group, message.payload);
    if (message.type == AUDIT_SOCKADDR) {
      group.address = from_hex(fields_of(message.payload).at("saddr"));
    }
    if (message.type == AUDIT_PATH && group.path.empty()) {
      group.path = decode(fields_of(message.payload).at("name"));
    }
    if (message.type == AUDIT_EOE) {
      read_group(group, lines);
      groups.erase(serial);
    }
  }
  return lines;
}

// ---- The library -------------------------------------------------------------------------------

// Nobody logs in and no account changes meanwhile: callbacks for that must not be called.
class Recordings : public testing::TestWithParam<std::string> {
 protected:
  Recordings() {
    test::reset_databases();
    test::clear_log();
    test::databases.passwd = {{"root", 0, 0}, {"alice", 1000, 100}, {"bob", 1001, 100}};
    test::redirect("/etc/passwd", file_.path());
    offline::switch_on();
    offline::set_path_check([](const std::string&) { return true; });
    offline::set_clock(1'714'557'600);
    recording_ = test::read_recording(recording_path());
  }
  ~Recordings() override {
    qel_audit_fini();
    offline::switch_off();
    offline::release_clock();
  }

  std::string recording_path() const {
    const std::filesystem::path plain = kDirectory / (GetParam() + ".rec");
    return std::filesystem::exists(plain) ? plain.string() : plain.string() + ".gz";
  }

  std::vector<EventLine> play() {
    std::vector<EventLine> lines;
    EXPECT_EQ(qel_execve_reg_callback(nullptr, test::note_execve, &lines), 0);
    EXPECT_EQ(qel_bind_reg_callback(0, test::note_bind, &lines), 0);
    EXPECT_EQ(qel_syscall_reg_callback("all", QEL_SYSCALL_ANY, test::note_syscall, &lines), 0);
    EXPECT_EQ(qel_user_reg_callback(nullptr, 15, test::note_user, &lines), 0);
    EXPECT_EQ(qel_login_reg_callback(nullptr, 3, test::note_login, &lines), 0);
    test::poll_all();
    test::clear_log();
    test::play(recording_);
    return lines;
  }

  test::ScratchFile file_;
  std::vector<test::RecordedMessage> recording_;
};

TEST_P(Recordings, GivesTheEventsOfItsList) {
  const Expected expected = read_expected(GetParam());
  const Texts lines = test::texts_of(play());
  if (expected.counts.empty()) {
    EXPECT_EQ(lines_of(lines), lines_of(expected.lines));
  } else {
    Counts counts = count(lines);
    if (expected.others) {
      std::erase_if(counts, [&](const auto& c) { return !expected.counts.contains(c.first); });
    }
    EXPECT_EQ(lines_of(counts), lines_of(expected.counts));
  }
  Counts errors;
  for (const test::LogLine& line : test::log_lines()) {
    if (line.level == QEL_LOG_ERROR) ++errors[line.message.substr(0, line.message.size() - 1)];
  }
  EXPECT_EQ(lines_of(errors), lines_of(expected.errors));
}

TEST_P(Recordings, GivesWhatAPlainReadingGives) {
  const std::vector<EventLine> lines = play();
  const std::vector<EventLine> read = read_plainly(recording_);
  ASSERT_EQ(lines.size(), read.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    ASSERT_EQ(lines[i].text, read[i].text) << "event " << i;
    ASSERT_EQ(lines[i].details, read[i].details) << "event " << i << ": " << lines[i].text;
  }
}

Texts recording_names() {
  Texts names;
  for (const auto& file : std::filesystem::directory_iterator(kDirectory)) {
    const std::string name = file.path().filename();
    if (name.ends_with(".rec") || name.ends_with(".rec.gz")) {
      names.push_back(name.substr(0, name.find('.')));
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

INSTANTIATE_TEST_SUITE_P(All, Recordings, testing::ValuesIn(recording_names()),
                         [](const auto& test) {
                           std::string name = test.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

}  // namespace
