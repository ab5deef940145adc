// The library's record intake beside the reference parser: the same records go into both, and
// results, log lines and the contexts that reach event assembly have to be the same.
//
// QEL_MODEL_ROUNDS and QEL_MODEL_SEED make longer or other runs of the damaged records.
#include <audit_event.h>
#include <gtest/gtest.h>
#include <libaudit.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "captured_log.h"
#include "clock.h"
#include "record_file.h"
#include "reference_parser.h"

static std::string finished;  // the contexts

// Takes the place of the library's event assembly.
int handle_audit_event(audit_ctx* ctx) {
  finished += test::describe(test::snapshot(*ctx));
  return 0;
}

namespace {

constexpr std::time_t kStart_s = 1714557610;

struct Record {
  int type;
  std::string text;
};

class ParserModel : public testing::Test {
 protected:
  ParserModel() {
    offline::set_clock(kStart_s);
    test::clear_log();
    audit_msg_init();
  }
  ~ParserModel() override {
    audit_msg_fini();
    offline::release_clock();
  }

  void feed(int type, std::string_view text) {
    const int result = test::feed_library(type, text);
    ASSERT_EQ(result, reference_.handle(type, text, std::time(nullptr)));
    ++records_;
    compare();
  }

  void pass_time(std::int64_t seconds) {
    offline::advance_clock(std::chrono::seconds(seconds));
    scan_audit_ctx(std::time(nullptr));
    reference_.scan(std::time(nullptr));
    compare();
  }

  std::size_t records_ = 0;
  std::size_t contexts_ = 0;
  std::size_t complete_lists_ = 0;

 private:
  void compare() {
    std::string expected;
    for (const auto& context : reference_.finished) {
      expected += test::describe(context);
      ++contexts_;
      if (context.argc > 0 && context.arg_index == context.argc) ++complete_lists_;
    }
    ASSERT_EQ(finished, expected);
    ASSERT_EQ(test::describe(test::log_lines()), test::describe(reference_.log));
    finished.clear();
    test::clear_log();
    reference_.finished.clear();
    reference_.log.clear();
  }

  test::ReferenceIntake reference_;
};

TEST_F(ParserModel, ReadsEveryRecordingAsTheReferenceDoes) {
  constexpr std::size_t kRecordsPerSecond = 500;
  for (const auto& entry : std::filesystem::directory_iterator(QEL_RECORDINGS_DIR)) {
    const std::string path = entry.path();
    if (!path.ends_with(".rec") && !path.ends_with(".rec.gz")) continue;
    const std::size_t contexts_before = contexts_;
    const std::string problem = offline::read_records(path, [&](const offline::Record& record) {
      if (HasFatalFailure() || record.type == AUDIT_GET) return;
      feed(record.type, record.payload);
      if (records_ % kRecordsPerSecond == 0) pass_time(1);
    });
    ASSERT_FALSE(HasFatalFailure()) << path << ", record " << records_;
    EXPECT_EQ(problem, "");
    EXPECT_GT(contexts_, contexts_before) << path << " has no context";
  }
  pass_time(11);
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
  auto& one_of(Container& choices) {
    return std::data(choices)[below(std::size(choices))];
  }

 private:
  std::mt19937_64 engine_;
};

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c != separator) parts.back() += c;
    if (c == separator) parts.emplace_back();
  }
  return parts;
}

const std::vector<std::string> kKeys = split(
    "\"execve_rule\"|\"execve_rule\"|6578656376655F72756C65|\"bind_rule\"|\"syscall_rule\"|"
    "(execve_rule)|\"wtmp_rule\"|\"fakelogin_rule\"|(null)|\"Execve_rule\"|\"passwd_rule|"
    "shadow_rule",
    '|');
const std::vector<std::string> kNumbers = split(
    "0|1|2|3|5|6|7|00|-1|+2||0x|0x1|08|0x1g|4294967295|4294967299|2147483648|-2147483649|"
    "99999999999999999999|\t4|40001|9x|1e3|18446744073709551616",
    '|');
const std::vector<std::string> kFragments = split(
    "key=|exe=| exe=\"/key=bind_rule/x\"|exe=key=|\"key=(null)\"|a0=|a1=\"x\"| a1=79|a2_len=4|"
    " a0_len=3 a0[0]=\"abc\"|a0[0]=|a1[1]=\"|a1[0]=6162|a01=|a 1=|a-1_|a1234567890=|a0001[|argc=3|"
    " pid=|comm=|success=yes|exit=-13|saddr=02|name=|audit(1.1:3)|audit(|)|=|_len=|  |\n|\"\"",
    '|');
constexpr std::string_view kBytes(" \"=[]_a()01F\0\t\n\x7f\xff-+x.:", 22);
constexpr int kTypes[] = {AUDIT_SYSCALL, AUDIT_EXECVE, AUDIT_PATH, AUDIT_SOCKADDR, AUDIT_EOE};

std::string header(std::size_t serial) {
  return "audit(1714557610.448:" + std::to_string(serial) + "): ";
}

std::string hex_digits(Random& random, std::size_t count) {
  std::string digits;
  while (digits.size() < count) digits += "0123456789ABCDEFabcdef"[random.below(22)];
  return digits;
}

// The words of one argument, whole or in pieces, quoted or in digits.
std::string argument_words(Random& random, const std::string& name) {
  const std::string quote = random.one_in(2) ? "\"" : "";
  if (random.one_in(2))
    return " " + name + "=" + quote + hex_digits(random, random.below(8)) + quote;
  const std::size_t pieces = 1 + random.below(4);
  std::size_t length = 0;
  std::string words;
  for (std::size_t piece = 0; piece < pieces; ++piece) {
    const std::string digits = hex_digits(random, random.below(6));
    length += digits.size();
    const bool mixed = random.one_in(12);
    const std::string mark = mixed != quote.empty() ? "" : "\"";
    words += " " + name + "[" + std::to_string(piece) + "]=" + mark + digits;
    if (!random.one_in(12)) words += mark;
  }
  if (random.one_in(4)) length = random.below(20);
  return " " + name + "_len=" + std::to_string(length) + words;
}

std::vector<Record> make_group(Random& random, std::size_t serial) {
  constexpr std::string_view kFamilies[] = {"0100", "0200", "0900", "0A00",
                                            "1000", "1100", "2800", "0000"};
  constexpr std::size_t kLengths[] = {0, 1, 4, 20, 24, 28, 32, 36, 40, 56, 220, 260, 300};
  const std::string front = header(serial);
  const std::string comm = hex_digits(random, random.below(4));
  std::vector<Record> group = {
      {AUDIT_SYSCALL,
       front +
           "arch=c000003e syscall=59 success=yes exit=0 a0=55d0 a1=7ffe95097150 a2=3c a3=8 "
           "items=2 ppid=90 pid=200 auid=4294967295 uid=1000 gid=1001 euid=0 suid=0 fsuid=0 "
           "egid=0 sgid=0 fsgid=0 tty=(none) ses=4294967295 comm=\"" +
           comm + "\" exe=\"/bin/ls\" subj=unconfined key=" + random.one_of(kKeys)}};
  if (random.one_in(3)) group.push_back({AUDIT_PATH, front + "item=0 name=\"/early\""});
  if (!random.one_in(4)) {
    const std::size_t count = random.below(6);
    group.push_back({AUDIT_EXECVE, front + "argc=" + std::to_string(count)});
    for (std::size_t i = 0; i < count; ++i) {
      const std::string words = argument_words(random, "a" + std::to_string(i));
      for (const std::string& word : split(words.substr(1), ' ')) {
        if (random.one_in(6)) group.push_back({AUDIT_EXECVE, front});
        group.back().text += " " + word;
      }
    }
  }
  if (random.one_in(3)) {
    std::string address(random.one_of(kFamilies));
    address += hex_digits(random, 300);
    address.resize(random.one_of(kLengths));
    group.push_back({AUDIT_SOCKADDR, front + "saddr=" + address});
  }
  if (random.one_in(3)) group.push_back({AUDIT_PATH, front + "item=0 name=2F6C617465"});
  group.push_back({AUDIT_EOE, front});
  return group;
}

// Takes a word away, doubles or moves one, or puts another number in it or in place of its value.
void change_words(Random& random, std::string& text) {
  std::vector<std::string> words = split(text, ' ');
  std::string& word = random.one_of(words);
  const std::size_t change = random.below(5);
  const std::size_t number = change == 3 ? word.find('=') + 1 : word.find_first_of("0123456789");
  if (change == 0) words.erase(words.begin() + (&word - words.data()));
  if (change == 1) random.one_of(words) += " " + std::string(word);
  if (change == 2) std::swap(word, random.one_of(words));
  if (change == 3) word.replace(number, word.npos, random.one_of(kNumbers));
  if (change == 4 && number != word.npos) word.replace(number, 1, random.one_of(kNumbers));
  text.clear();
  for (const std::string& each : words) text += (text.empty() ? "" : " ") + each;
}

void change_bytes(Random& random, std::string& text) {
  const std::size_t place = random.below(text.size() + 1);
  const std::size_t change = random.below(5);
  if (change == 0) text.resize(place);
  if (change == 1) text.insert(place, 1, random.one_of(kBytes));
  if (change == 2) text.insert(place, random.one_of(kFragments));
  if (change == 3 && place < text.size()) text[place] ^= static_cast<char>(1 << random.below(8));
  const std::size_t separator = text.find_first_of("=_[] ", place);
  if (change == 4 && separator != text.npos) text[separator] = random.one_of(kBytes);
}

void damage(Random& random, Record& record) {
  const std::size_t changes = random.one_in(2) ? 0 : 1 + random.below(3);
  for (std::size_t i = 0; i < changes; ++i)
    (random.one_in(2) ? change_words : change_bytes)(random, record.text);
  if (random.one_in(40)) record.type = random.one_of(kTypes);
}

// Damaged records of up to three groups in turn, now and then out of order.
std::vector<Record> make_records(Random& random) {
  constexpr std::size_t kSerials = 4;
  std::vector<std::vector<Record>> groups(1 + random.below(3));
  for (auto& group : groups) group = make_group(random, 1 + random.below(kSerials));
  std::vector<Record> records;
  while (!groups.empty()) {
    auto& group = random.one_of(groups);
    const auto next = random.one_in(20) ? group.end() - 1 : group.begin();
    records.push_back(std::move(*next));
    damage(random, records.back());
    group.erase(next);
    std::erase_if(groups, [](const auto& g) { return g.empty(); });
  }
  for (std::size_t i = 1; i <= kSerials; ++i) records.push_back({AUDIT_EOE, header(i)});
  return records;
}

std::uint64_t from_environment(const char* name, const char* otherwise) {
  const char* value = std::getenv(name);
  return std::strtoull(value != nullptr ? value : otherwise, nullptr, 10);
}

TEST_F(ParserModel, ReadsDamagedRecordsAsTheReferenceDoes) {
  const std::uint64_t rounds = from_environment("QEL_MODEL_ROUNDS", "4000");
  const std::uint64_t first_seed = from_environment("QEL_MODEL_SEED", "1");
  for (std::uint64_t seed = first_seed; seed < first_seed + rounds; ++seed) {
    Random random(seed);
    for (const Record& record : make_records(random)) {
      feed(record.type, record.text);
      ASSERT_FALSE(HasFatalFailure())
          << "QEL_MODEL_SEED=" << seed << " QEL_MODEL_ROUNDS=1, type " << record.type << "\n"
          << testing::PrintToString(record.text);
    }
    pass_time(static_cast<std::int64_t>(random.below(4)));
    ASSERT_FALSE(HasFatalFailure()) << "QEL_MODEL_SEED=" << seed;
  }
  // Most of the damage must leave something to compare.
  EXPECT_GT(contexts_, rounds / 2);
  EXPECT_GT(complete_lists_, rounds / 10);
  std::cout << records_ << " records, " << contexts_ << " contexts, " << complete_lists_
            << " complete argument lists\n";
}

}  // namespace
