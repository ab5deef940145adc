// The library's record intake beside the reference parser: the same records go into both, and
// results, log lines and the contexts that reach event assembly have to be the same.
//
// QEL_MODEL_ROUNDS and QEL_MODEL_SEED make longer or other runs of the mutated records.
#include <audit_event.h>
#include <gtest/gtest.h>
#include <libaudit.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "captured_log.h"
#include "clock.h"
#include "record_file.h"
#include "reference_parser.h"

namespace {

std::vector<test::Context> finished;

}  // namespace

// Takes the place of the library's event assembly.
int handle_audit_event(audit_ctx* ctx) {
  finished.push_back(test::snapshot(*ctx));
  return 0;
}

namespace {

namespace fs = std::filesystem;

constexpr std::time_t kStart_s = 1714557610;

struct Record {
  int type;
  std::string text;
};

std::string show(const std::vector<test::LogLine>& lines) {
  std::string text;
  for (const auto& line : lines)
    text += std::to_string(line.level) + " " + line.source + ": " + line.message;
  return text;
}

std::string show(const std::vector<test::Context>& contexts) {
  std::string text;
  for (const auto& context : contexts) text += test::describe(context) + "\n";
  return text;
}

class ParserModel : public testing::Test {
 protected:
  ParserModel() {
    offline::set_clock(kStart_s);
    test::clear_log();
    finished.clear();
    audit_msg_init();
  }
  ~ParserModel() override {
    audit_msg_fini();
    offline::release_clock();
  }

  // Returns whether library and reference agree about this record.
  bool feed(int type, std::string_view text) {
    // A block of its own size, so that the address sanitizer sees every read beyond the text.
    std::vector<char> block(text.begin(), text.end());
    audit_reply reply = {};
    reply.type = type;
    reply.len = static_cast<int>(block.size());
    char nothing = '\0';
    reply.message = block.empty() ? &nothing : block.data();
    const int result = handle_audit_msg(&reply);
    const int expected = reference_.handle(type, text, std::time(nullptr));
    EXPECT_EQ(result, expected);
    EXPECT_EQ(std::string_view(block.data(), block.size()), text) << "the text was written to";
    ++records_;
    return agree() && result == expected;
  }

  bool pass_time(std::int64_t seconds) {
    offline::advance_clock(std::chrono::seconds(seconds));
    scan_audit_ctx(std::time(nullptr));
    reference_.scan(std::time(nullptr));
    return agree();
  }

  std::size_t records_ = 0;
  std::size_t contexts_ = 0;
  std::size_t complete_lists_ = 0;

 private:
  bool agree() {
    const bool same_log =
        std::equal(test::log_lines().begin(), test::log_lines().end(), reference_.log.begin(),
                   reference_.log.end(), [](const test::LogLine& a, const test::LogLine& b) {
                     return a.level == b.level && a.source == b.source && a.message == b.message;
                   });
    if (!same_log) {
      EXPECT_EQ(show(test::log_lines()), show(reference_.log));
    }
    const bool same_contexts = finished == reference_.finished;
    if (!same_contexts) {
      EXPECT_EQ(show(finished), show(reference_.finished));
    }
    for (const auto& context : finished) {
      ++contexts_;
      if (context.argc > 0 && context.arg_index == context.argc) ++complete_lists_;
    }
    test::clear_log();
    reference_.log.clear();
    finished.clear();
    reference_.finished.clear();
    return same_log && same_contexts;
  }

  test::ReferenceIntake reference_;
};

std::vector<std::string> recordings() {
  std::vector<std::string> paths;
  for (const auto& entry : fs::directory_iterator(QEL_TEST_DATA_DIR "/recordings")) {
    const std::string path = entry.path();
    if (path.ends_with(".rec") || path.ends_with(".rec.gz")) paths.push_back(path);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

TEST_F(ParserModel, ReadsEveryRecordingAsTheReferenceDoes) {
  constexpr std::size_t kRecordsPerSecond = 500;
  for (const std::string& path : recordings()) {
    const std::size_t contexts_before = contexts_;
    bool same = true;
    const std::string problem = offline::read_records(path, [&](const offline::Record& record) {
      if (!same) return;
      same = feed(record.type, record.payload);
      EXPECT_TRUE(same) << path << ", type " << record.type << ":\n" << record.payload;
      if (same && records_ % kRecordsPerSecond == 0) same = pass_time(1);
    });
    EXPECT_EQ(problem, "");
    EXPECT_GT(contexts_, contexts_before) << path << " has no context";
  }
  EXPECT_TRUE(pass_time(11));
}

// ---- Made-up and damaged records ---------------------------------------------------------------

// Chooses with a seed, the same with every compiler and library: no standard distributions, and no
// two calls in one expression.
class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}
  std::size_t below(std::size_t limit) { return static_cast<std::size_t>(engine_() % limit); }
  bool one_in(std::size_t n) { return below(n) == 0; }
  template <typename Container>
  const auto& one_of(const Container& choices) {
    return std::data(choices)[below(std::size(choices))];
  }

 private:
  std::mt19937_64 engine_;
};

constexpr std::string_view kKeys[] = {
    "\"execve_rule\"",  "\"execve_rule\"", "6578656376655F72756C65", "\"bind_rule\"",
    "\"syscall_rule\"", "(execve_rule)",   "\"wtmp_rule\"",          "\"fakelogin_rule\"",
    "(null)",           "\"Execve_rule\"", "\"passwd_rule",          "shadow_rule"};
constexpr std::string_view kNumbers[] = {"0",
                                         "1",
                                         "2",
                                         "3",
                                         "5",
                                         "7",
                                         "00",
                                         "-1",
                                         "+2",
                                         "",
                                         "0x",
                                         "0x1",
                                         "08",
                                         "0x1g",
                                         "4294967295",
                                         "4294967299",
                                         "2147483648",
                                         "-2147483649",
                                         "99999999999999999999",
                                         "\t4",
                                         "40001",
                                         "9x",
                                         "1e3",
                                         "18446744073709551616",
                                         "6"};
constexpr std::string_view kFragments[] = {"key=",
                                           "exe=",
                                           " exe=\"/key=bind_rule/x\"",
                                           "exe=key=",
                                           "\"key=(null)\"",
                                           "a0=",
                                           "a1=\"x\"",
                                           " a1=79",
                                           "a2_len=4",
                                           " a0_len=3 a0[0]=\"abc\"",
                                           "a0[0]=",
                                           "a1[1]=\"",
                                           "a1[0]=6162",
                                           "a01=",
                                           "a 1=",
                                           "a-1_",
                                           "a1234567890=",
                                           "a0001[",
                                           "argc=3",
                                           " pid=",
                                           "comm=",
                                           "success=yes",
                                           "exit=-13",
                                           "saddr=02",
                                           "name=",
                                           "audit(1.1:3)",
                                           "audit(",
                                           ")",
                                           "=",
                                           "_len=",
                                           "  ",
                                           "\n",
                                           "\"\""};
constexpr char kBytes[] = {' ', '"',  '=',  '[',  ']',    '_',    'a', '(', ')', '0', '1',
                           'F', '\0', '\t', '\n', '\x7f', '\xff', '-', '+', 'x', '.', ':'};
constexpr int kTypes[] = {AUDIT_SYSCALL, AUDIT_EXECVE, AUDIT_PATH, AUDIT_SOCKADDR, AUDIT_EOE};

std::string header(unsigned serial) {
  return "audit(1714557610.448:" + std::to_string(serial) + "): ";
}

std::string hex_digits(Random& random, std::size_t count) {
  std::string digits;
  while (digits.size() < count) digits += "0123456789ABCDEFabcdef"[random.below(22)];
  return digits;
}

std::string syscall_record(Random& random, unsigned serial) {
  const std::string comm = hex_digits(random, random.below(4));
  const std::string key(random.one_of(kKeys));
  return header(serial) +
         "arch=c000003e syscall=59 success=yes exit=0 a0=55d0 a1=7ffe95097150 a2=3c a3=8 items=2 "
         "ppid=90 pid=200 auid=4294967295 uid=1000 gid=1001 euid=0 suid=0 fsuid=0 egid=0 sgid=0 "
         "fsgid=0 tty=(none) ses=4294967295 comm=\"" +
         comm + "\" exe=\"/bin/ls\" subj=unconfined key=" + key;
}

// The words of an argument list, with arguments whole or in pieces, quoted or in digits.
std::vector<std::string> argument_words(Random& random, std::size_t count) {
  std::vector<std::string> words;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string name = "a" + std::to_string(i);
    const std::string quote = random.one_in(2) ? "\"" : "";
    if (random.one_in(2)) {
      words.push_back(name + "=" + quote + hex_digits(random, random.below(8)) + quote);
      continue;
    }
    const std::size_t pieces = 1 + random.below(4);
    std::size_t length = 0;
    std::vector<std::string> piece_words;
    for (std::size_t piece = 0; piece < pieces; ++piece) {
      const std::string digits = hex_digits(random, random.below(6));
      length += digits.size();
      const bool mixed = random.one_in(12);
      const std::string mark = mixed != quote.empty() ? "" : "\"";
      piece_words.push_back(name + "[" + std::to_string(piece) + "]=" + mark + digits + mark);
    }
    if (random.one_in(4)) length = random.below(20);
    words.push_back(name + "_len=" + std::to_string(length));
    std::move(piece_words.begin(), piece_words.end(), std::back_inserter(words));
  }
  return words;
}

void add_execve_records(Random& random, unsigned serial, std::vector<Record>& group) {
  const std::size_t count = random.below(6);
  std::string text = header(serial) + "argc=" + std::to_string(count);
  for (const std::string& word : argument_words(random, count)) {
    if (random.one_in(6)) {
      group.push_back({AUDIT_EXECVE, text});
      text = header(serial);
    }
    text += " " + word;
  }
  group.push_back({AUDIT_EXECVE, text});
}

std::vector<Record> make_group(Random& random, unsigned serial) {
  constexpr std::string_view kFamilies[] = {"0100", "0200", "0A00", "1000", "1100", "2800", "0000"};
  constexpr std::size_t kLengths[] = {0, 1, 4, 20, 24, 28, 32, 36, 40, 56, 220, 260, 300};
  std::vector<Record> group = {{AUDIT_SYSCALL, syscall_record(random, serial)}};
  if (random.one_in(3)) group.push_back({AUDIT_PATH, header(serial) + "item=0 name=\"/early\""});
  if (!random.one_in(4)) add_execve_records(random, serial, group);
  if (random.one_in(3)) {
    std::string saddr(random.one_of(kFamilies));
    saddr += hex_digits(random, 300);
    saddr.resize(random.one_of(kLengths));
    group.push_back({AUDIT_SOCKADDR, header(serial) + "saddr=" + saddr});
  }
  if (random.one_in(3)) group.push_back({AUDIT_PATH, header(serial) + "item=0 name=2F6C617465"});
  group.push_back({AUDIT_EOE, header(serial)});
  return group;
}

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> words(1);
  for (const char c : text) {
    if (c == ' ') {
      words.emplace_back();
    } else {
      words.back() += c;
    }
  }
  return words;
}

std::string join(const std::vector<std::string>& words) {
  std::string text = words.front();
  for (std::size_t i = 1; i < words.size(); ++i) text += " " + words[i];
  return text;
}

void change_words(Random& random, std::string& text) {
  std::vector<std::string> words = split(text);
  const std::size_t chosen = random.below(words.size());
  std::string& word = words[chosen];
  switch (random.below(5)) {
    case 0:
      if (words.size() > 1) words.erase(words.begin() + static_cast<std::ptrdiff_t>(chosen));
      break;
    case 1:
      words.insert(words.begin() + static_cast<std::ptrdiff_t>(random.below(words.size())),
                   std::string(word));
      break;
    case 2:
      std::swap(word, words[random.below(words.size())]);
      break;
    case 3:  // another value
      word.replace(word.find('=') + 1, word.npos, random.one_of(kNumbers));
      break;
    default:  // another number of an argument, or of a piece
      if (const auto digit = word.find_first_of("0123456789"); digit != word.npos)
        word.replace(digit, 1, random.one_of(kNumbers));
  }
  text = join(words);
}

void change_bytes(Random& random, std::string& text) {
  const std::size_t place = random.below(text.size() + 1);
  switch (random.below(5)) {
    case 0:
      text.resize(place);
      break;
    case 1:
      text.insert(place, 1, random.one_of(kBytes));
      break;
    case 2:
      text.insert(place, random.one_of(kFragments));
      break;
    case 3:  // another separator
      if (const auto mark = text.find_first_of("=_[] ", place); mark != text.npos)
        text[mark] = random.one_of(kBytes);
      break;
    default:
      if (place < text.size())
        text[place] = static_cast<char>(text[place] ^ (1 << random.below(8)));
  }
}

void damage(Random& random, Record& record) {
  const std::size_t changes = random.one_in(2) ? 0 : 1 + random.below(3);
  for (std::size_t i = 0; i < changes; ++i) {
    if (random.one_in(2)) {
      change_words(random, record.text);
    } else {
      change_bytes(random, record.text);
    }
  }
  if (random.one_in(40)) record.type = random.one_of(kTypes);
}

// Records of several groups in turn, now and then out of order.
std::vector<Record> interleave(Random& random, std::vector<std::vector<Record>> groups) {
  std::vector<Record> records;
  while (!groups.empty()) {
    auto& group = groups[random.below(groups.size())];
    auto next = group.begin() + (random.one_in(20) ? std::ssize(group) - 1 : 0);
    records.push_back(std::move(*next));
    group.erase(next);
    std::erase_if(groups, [](const auto& g) { return g.empty(); });
  }
  return records;
}

std::string show(const std::vector<Record>& records) {
  std::string text;
  for (const Record& record : records)
    text += std::to_string(record.type) + " " + testing::PrintToString(record.text) + "\n";
  return text;
}

std::uint64_t number_from_environment(const char* name, std::uint64_t otherwise) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::strtoull(value, nullptr, 10) : otherwise;
}

// Recorded groups by their header, in which another serial can be put.
std::vector<std::vector<Record>> recorded_groups() {
  constexpr std::size_t kMostBytes = 2000;
  std::map<std::string, std::vector<Record>> groups;
  for (const std::string& path : recordings()) {
    if (path.find("mixed") != path.npos || path.find("many") != path.npos) continue;
    offline::read_records(path, [&](const offline::Record& record) {
      const std::size_t end = record.payload.find("): ");
      if (end == record.payload.npos || record.payload.size() > kMostBytes) return;
      groups[path + std::string(record.payload.substr(0, end))].push_back(
          {record.type, std::string(record.payload.substr(end + 3))});
    });
  }
  std::vector<std::vector<Record>> keyed;
  for (auto& [name, group] : groups) {
    if (group.size() > 2 && group.front().text.find("_rule\"") != std::string::npos)
      keyed.push_back(std::move(group));
  }
  return keyed;
}

TEST_F(ParserModel, ReadsDamagedRecordsAsTheReferenceDoes) {
  const std::uint64_t rounds = number_from_environment("QEL_MODEL_ROUNDS", 4000);
  const std::uint64_t seed = number_from_environment("QEL_MODEL_SEED", 1);
  const std::vector<std::vector<Record>> recorded = recorded_groups();
  ASSERT_FALSE(recorded.empty());
  std::cout << "seeds " << seed << " to " << seed + rounds - 1 << "\n";

  for (std::uint64_t round = 0; round < rounds; ++round) {
    Random random(seed + round);
    std::vector<std::vector<Record>> groups;
    for (std::size_t i = 1 + random.below(3); i > 0; --i) {
      const auto serial = static_cast<unsigned>(1 + random.below(4));
      groups.push_back(make_group(random, serial));
      if (!random.one_in(4)) continue;
      groups.back() = random.one_of(recorded);
      for (Record& record : groups.back()) record.text.insert(0, header(serial));
    }
    std::vector<Record> records = interleave(random, std::move(groups));
    for (Record& record : records) damage(random, record);
    for (unsigned serial = 1; serial <= 4; ++serial) records.push_back({AUDIT_EOE, header(serial)});

    bool same = true;
    for (const Record& record : records) {
      same = feed(record.type, record.text);
      EXPECT_TRUE(same) << "at " << show(std::vector{record});
      if (!same) break;
    }
    ASSERT_TRUE(same && pass_time(static_cast<std::int64_t>(random.below(4))))
        << "QEL_MODEL_SEED=" << seed + round << " QEL_MODEL_ROUNDS=1\n"
        << show(records);
  }
  // Most of the damage must leave something to compare.
  EXPECT_GT(contexts_, rounds / 2);
  EXPECT_GT(complete_lists_, rounds / 10);
  std::cout << records_ << " records, " << contexts_ << " contexts, " << complete_lists_
            << " complete argument lists\n";
}

}  // namespace
