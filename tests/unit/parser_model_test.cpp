// The library's record intake beside the reference parser: the same records go into both, and
// results, log lines and the contexts that reach event assembly have to be the same.
//
// QEL_MODEL_SEED repeats a run, QEL_MODEL_ROUNDS makes a longer one.
#include <audit_event.h>
#include <gtest/gtest.h>
#include <libaudit.h>
#include <qel_base.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "clock.h"
#include "reference_parser.h"

static struct {
  std::string text;  // log lines and contexts
  std::size_t contexts = 0, complete_lists = 0;
} heard;

// These two take the place of the framework's log and of the library's event assembly.
extern "C" void error_output(int level, const char* source, int, const char* format, ...) {
  char message[MAX_AUDIT_MESSAGE_LENGTH + 100];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(message, sizeof(message), format, arguments);
  va_end(arguments);
  heard.text += std::to_string(level) + " " + source + ": " + message;
}

int handle_audit_event(audit_ctx* ctx) {
  heard.text += test::describe(*ctx);
  ++heard.contexts;
  if (ctx->argc > 0 && ctx->arg_index == ctx->argc) ++heard.complete_lists;
  return 0;
}

namespace {

struct Record {
  int type;
  std::string text;
};

// The same with every compiler and library for a seed: no standard distributions, and no two calls
// in one expression.
struct Random {
  std::size_t below(std::size_t limit) { return static_cast<std::size_t>(engine() % limit); }
  bool one_in(std::size_t n) { return below(n) == 0; }
  auto& one_of(const auto& choices) { return std::data(choices)[below(std::size(choices))]; }
  std::string digits(std::size_t count) {
    std::string text;
    while (text.size() < count) text += one_of(std::string_view("0123456789ABCDEFabcdef"));
    return text;
  }

  std::mt19937_64 engine;
};

std::vector<std::string> split(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> parts;
  for (std::string part; std::getline(in, part, '|');) parts.push_back(part);
  return parts;
}

const auto kKeys = split(
    "\"execve_rule\"|\"execve_rule\"|6578656376655F72756C65|\"bind_rule\"|\"syscall_rule\"|"
    "(execve_rule)|\"wtmp_rule\"|\"fakelogin_rule\"|(null)|\"Execve_rule\"|\"passwd_rule|"
    "shadow_rule");
const auto kNumbers = split(
    "0|1|2|3|5|6|7|00|07|-1|-13|+2|--1|-|+||0x|0X1F|08|0x1g|-0x1f|0x-1|x1|FfFf|abc12|4294967295|"
    "4294967296|4294967299|2147483648|-2147483649|99999999999999999|18446744073709551615|"
    "18446744073709551616|-18446744073709551615|-18446744073709551616|1ffffffffffffffff|\t4|40001|"
    "\t-\t5|\v\f\r\n5|9x|1e3|1.5|3(|1\"|\xff|123456789|1234567890|00000000000000000000000012");
const auto kStamps = split(
    "1714557610.448:3|0.0:4294967297|1.0:4294967296|1.0:99999999999|1.0:-1|1.0:+2|1.0: \t1|"
    " 1.\n0:2|1.0:18446744073709551617|-1.+2:3|1 .0:2|1.0 :2|1,0:2|1.0;2|1:2|.0:2|1.:2|1.0:|1.0|"
    "1.0:x|1.0:2x|1.0:2.6|99999999999999999999.1:2|1.0:0000000000000000000000003|1.0:0x1|");
const auto kFragments = split(
    "key=|exe=| exe=\"/key=bind_rule/x\"|exe=key=|\"key=(null)\"|a0=|a1=\"x\"| a1=79|a2_len=4|"
    " a0_len=3 a0[0]=\"abc\"|a0[0]=|a1[1]=\"|a1[0]=6162|a01=|a 1=|a-1_|a1234567890=|a0001[|argc=3|"
    " pid=|comm=|success=yes|exit=-13|saddr=02|name=|audit(1.1:3)|audit(|)|=|_len=|  |\n|\"\"");
const auto kFronts = split(" | | | x| b=| a1=|| \"| a");
const auto kMarks = split("=|=\"|_len=|_le|[0]=|[1]=\"|[2]=|[|_");
const auto kFamilies = split("0100|0200|0500|0900|0A00|1000|1100|2800|0000");
constexpr std::string_view kBytes(" \"=[]_a()01F\0\t\n\x7f\xff-+x.:", 22);
constexpr std::size_t kAddressDigits[] = {0, 1, 4, 6, 8, 20, 24, 28, 32, 36, 40, 56, 220, 260, 300};
constexpr int kTypes[] = {AUDIT_SYSCALL, AUDIT_EXECVE, AUDIT_PATH, AUDIT_SOCKADDR, AUDIT_EOE};

std::string header(std::size_t serial) {
  return "audit(1714557610.448:" + std::to_string(serial) + "): ";
}

// The words of one argument, whole or in pieces, quoted or in digits.
std::string argument(Random& random, std::size_t index) {
  const std::string name = " a" + std::to_string(index);
  const std::string quote = random.one_in(2) ? "\"" : "";
  if (random.one_in(2)) return name + "=" + quote + random.digits(random.below(20)) + quote;
  std::size_t length = 0;
  std::string words;
  for (std::size_t piece = 0, end = 1 + random.below(4); piece < end; ++piece) {
    const std::string digits = random.digits(random.below(6));
    const std::string mark = random.one_in(12) ? "\"" : quote;
    length += digits.size();
    words += name + "[" + std::to_string(piece) + "]=" + mark + digits;
    if (!random.one_in(12)) words += mark;
  }
  if (random.one_in(4)) length = random.below(20);
  return name + "_len=" + std::to_string(length) + words;
}

// Words that look like those of arguments, in any order, some inside of others, and perhaps a number
// that is as long as any is read.
std::string odd_words(Random& random) {
  std::string words;
  for (std::size_t count = random.below(25); count > 0; --count) {
    words += random.one_of(kFronts);
    words += "a" + std::to_string(random.below(random.one_in(8) ? 14 : 7));
    words += random.one_of(kMarks);
    words += random.digits(random.below(4));
  }
  return words + (random.one_in(4) ? " a123456789" : "");
}

std::vector<Record> make_group(Random& random, std::size_t serial) {
  const std::string front = header(serial);
  const std::string comm = random.digits(random.below(4));
  std::vector<Record> group = {
      {AUDIT_SYSCALL,
       front +
           "arch=c000003e syscall=59 success=yes exit=0 a0=55d0 a1=7ffe95097150 a2=3c a3=8 "
           "items=2 ppid=90 pid=200 auid=4294967295 uid=1000 gid=1001 euid=0 egid=0 comm=\"" +
           comm + "\" exe=\"/bin/ls\" subj=unconfined key=" + random.one_of(kKeys)}};
  if (random.one_in(3)) group.push_back({AUDIT_PATH, front + "item=0 name=\"/early\""});
  if (!random.one_in(4)) {
    const std::size_t count = random.below(random.one_in(8) ? 14 : 7);
    group.push_back({AUDIT_EXECVE, front + "argc=" + std::to_string(count)});
    const bool odd = random.one_in(3);
    for (std::size_t i = 0; i < count; ++i) {
      for (const char c : odd ? odd_words(random) : argument(random, i)) {
        if (c == ' ' && random.one_in(6)) group.push_back({AUDIT_EXECVE, front});
        group.back().text += c;
      }
    }
  }
  if (random.one_in(3)) {
    std::string address = random.one_of(kFamilies);
    address += random.digits(300);
    address.resize(random.one_of(kAddressDigits));
    group.push_back({AUDIT_SOCKADDR, front + "saddr=" + address});
  }
  if (random.one_in(3)) group.push_back({AUDIT_PATH, front + "item=0 name=2F6C617465"});
  group.push_back({AUDIT_EOE, front});
  return group;
}

// Changes a word or a byte.
void damage(Random& random, std::string& text) {
  const std::size_t change = random.below(10);
  const std::size_t place = random.below(text.size() + 1);
  const std::size_t word = text.rfind(' ', random.below(text.size() + 1)) + 1;
  const std::string copy = text.substr(word, text.find(' ', word) - word) + " ";
  const std::size_t number = text.find_first_of("0123456789", word);
  const std::size_t separator = text.find_first_of("=_[] ", place);
  if (change <= 1) text.erase(word, copy.size());
  if (change >= 1 && change <= 2)
    text.insert(text.rfind(' ', std::min(place, text.size())) + 1, copy);
  if (change == 3 && number != text.npos) {
    const std::size_t length = random.one_in(2) ? 1 : text.find(' ', number) - number;
    text.replace(number, length, random.one_of(kNumbers));
  }
  if (change == 4) text.resize(place);
  if (change == 5) text.insert(place, 1, random.one_of(kBytes));
  if (change == 6) text.insert(place, random.one_of(kFragments));
  if (change == 7 && place < text.size()) text[place] ^= static_cast<char>(1 << random.below(8));
  if (change == 8 && separator != text.npos) text[separator] = random.one_of(kBytes);
  if (change == 9 && text.starts_with("audit("))
    text.replace(6, std::min(text.find(')'), text.size()) - 6, random.one_of(kStamps));
}

// Records of up to three groups in turn, half of them damaged, now and then out of order.
std::vector<Record> make_records(Random& random) {
  constexpr std::size_t kSerials = 4;
  std::vector<std::vector<Record>> groups(1 + random.below(3));
  for (auto& group : groups) group = make_group(random, 1 + random.below(kSerials));
  std::vector<Record> records;
  while (!groups.empty()) {
    auto& group = groups[random.below(groups.size())];
    const auto next = random.one_in(20) ? group.end() - 1 : group.begin();
    records.push_back(std::move(*next));
    group.erase(next);
    std::erase_if(groups, [](const auto& g) { return g.empty(); });
    for (std::size_t n = random.one_in(2) ? 0 : 1 + random.below(3); n > 0; --n)
      damage(random, records.back().text);
    if (random.one_in(40)) records.back().type = random.one_of(kTypes);
  }
  for (std::size_t i = 1; i <= kSerials; ++i) records.push_back({AUDIT_EOE, header(i)});
  return records;
}

TEST(ParserModel, ReadsDamagedRecordsAsTheReferenceDoes) {
  const char* given_rounds = std::getenv("QEL_MODEL_ROUNDS");
  const char* given_seed = std::getenv("QEL_MODEL_SEED");
  const auto rounds = given_rounds != nullptr ? std::stoul(given_rounds) : 6000;
  const auto first_seed = given_seed != nullptr ? std::stoul(given_seed) : std::random_device()();
  std::printf("QEL_MODEL_SEED=%lu QEL_MODEL_ROUNDS=%lu\n", first_seed, rounds);
  offline::set_clock(1714557610);
  audit_msg_init();
  test::ReferenceIntake reference;
  for (unsigned long seed = first_seed; seed < first_seed + rounds; ++seed) {
    Random random{std::mt19937_64(seed)};
    SCOPED_TRACE("QEL_MODEL_SEED=" + std::to_string(seed) + " QEL_MODEL_ROUNDS=1");
    for (const auto& [type, text] : make_records(random)) {
      const int result = test::feed_library(type, text);
      ASSERT_EQ(result, reference.handle(type, text, std::time(nullptr)))
          << type << testing::PrintToString(text);
      ASSERT_EQ(heard.text, reference.heard) << type << testing::PrintToString(text);
    }
    offline::advance_clock(std::chrono::seconds(random.below(4)));
    scan_audit_ctx(std::time(nullptr));
    reference.scan(std::time(nullptr));
    ASSERT_EQ(std::exchange(heard.text, {}), std::exchange(reference.heard, {}));
  }
  audit_msg_fini();
  offline::release_clock();
  // Most of the damage must leave something to compare.
  EXPECT_GE(heard.contexts, rounds / 2);
  EXPECT_GE(heard.complete_lists, rounds / 10);
}

}  // namespace
