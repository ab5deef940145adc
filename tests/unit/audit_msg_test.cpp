// Record intake through its one entry: contexts that open, fill, expire and end, and the fate of
// every reply that is dropped. What a record's text means is compared with the reference parser in
// another test.
#include <audit_event.h>
#include <gtest/gtest.h>
#include <libaudit.h>
#include <qel_base.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "captured_log.h"
#include "clock.h"
#include "reference_parser.h"

static std::vector<test::Context> finished;

// Takes the place of the library's event assembly. Its result does not count.
int handle_audit_event(audit_ctx* ctx) {
  finished.push_back(test::snapshot(*ctx));
  return -1;
}

namespace {

using namespace std::string_literals;
using test::feed_library;
using Texts = std::vector<std::optional<std::string>>;

constexpr std::time_t kNow_s = 1714557610;
constexpr std::int64_t kLifetime_s = 10;
constexpr int kTextTypes[] = {AUDIT_PATH, AUDIT_SOCKADDR, AUDIT_EXECVE, AUDIT_EOE};

std::string header(unsigned serial) {
  return "audit(1714557610.448:" + std::to_string(serial) + "): ";
}

std::string syscall_text(unsigned serial, const std::string& key = "\"execve_rule\"") {
  return header(serial) +
         "arch=c000003e syscall=59 success=yes exit=-13 a0=1 a1=7ffe95097150 a2=ffffffffffffff9c "
         "a3=0 items=2 ppid=90 pid=200 auid=7 uid=1000 gid=1001 euid=8 suid=8 fsuid=8 egid=9 "
         "sgid=9 fsgid=9 tty=(none) ses=1 comm=\"ls\" exe=\"/bin/ls\" subj=unconfined key=" +
         key;
}

std::string line(int level, const std::string& message) {
  return std::to_string(level) + " audit_msg: " + message + "\n";
}

std::string error(const std::string& message) {
  return line(QEL_LOG_ERROR, message);
}

std::string debug(const std::string& message) {
  return line(QEL_LOG_DEBUG, message);
}

class AuditMsg : public testing::Test {
 protected:
  AuditMsg() {
    offline::set_clock(kNow_s);
    test::clear_log();
    finished.clear();
    audit_msg_init();
  }
  ~AuditMsg() override {
    audit_msg_fini();
    offline::release_clock();
  }

  static void open(unsigned serial, const std::string& key = "\"execve_rule\"") {
    EXPECT_EQ(feed_library(AUDIT_SYSCALL, syscall_text(serial, key)), 0);
  }

  // Closes the context and returns what it held.
  static test::Context end(unsigned serial) {
    EXPECT_EQ(feed_library(AUDIT_EOE, header(serial)), 0) << "no context " << serial;
    const test::Context last = finished.empty() ? test::Context() : finished.back();
    finished.clear();
    return last;
  }

  // The lines since the last call, each with its level and source.
  static std::string log() {
    const std::string text = test::describe(test::log_lines());
    test::clear_log();
    return text;
  }

  static void expect_no_context(unsigned serial) {
    EXPECT_EQ(feed_library(AUDIT_EOE, header(serial)), -1) << "there is a context";
    EXPECT_EQ(log(), debug("search audit context failed"));
  }
};

// ---- Life cycle --------------------------------------------------------------------------------

TEST_F(AuditMsg, SyscallRecordOpensAContextWithItsFields) {
  open(7);
  const std::string text = test::describe(end(7));
  EXPECT_EQ(text.substr(0, text.find("\nsockaddr")),
            "deadline 1714557620 msgtype 1300 ruletype 4 serial 7 arch 3221225534 syscall 59 "
            "success 1 exit -13 args 1 140731398844752 18446744073709551516 0 "
            "ppid 90 pid 200 uid 1000 gid 1001\n"
            "path null key 'execve_rule' comm 'ls'\n"
            "argc 0 arg_index 0 arg_left 0 arg_offset 0 arg_parts 0");
  EXPECT_EQ(log(), "");
}

TEST_F(AuditMsg, KeyGivesTheRuleType) {
  const std::pair<const char*, int> keys[] = {{"\"passwd_rule\"", 0},  {"\"shadow_rule\"", 1},
                                              {"\"wtmp_rule\"", 2},    {"\"lastlogin_rule\"", 3},
                                              {"\"execve_rule\"", 4},  {"\"bind_rule\"", 5},
                                              {"\"syscall_rule\"", 6}, {"\"fakelogin_rule\"", 7},
                                              {"(bind_rule)", 5},      {"62696E645F72756C65", 5}};
  for (const auto& [key, id] : keys) {
    open(7, key);
    EXPECT_EQ(end(7).ruletype, id) << key;
  }
}

TEST_F(AuditMsg, SecondSyscallRecordStartsTheContextAnew) {
  open(7);
  feed_library(AUDIT_SOCKADDR, header(7) + "saddr=0200005016000000AABBCCDDEEFF0011");
  feed_library(AUDIT_PATH, header(7) + "name=\"/x\"");
  feed_library(AUDIT_EXECVE, header(7) + "argc=3 a0=\"x\" a1_len=9 a1[0]=\"ab\"");
  offline::advance_clock(std::chrono::seconds(3));
  open(7, "\"bind_rule\"");
  EXPECT_EQ(log(), "");
  const test::Context renewed = end(7);
  expect_no_context(7);
  open(7, "\"bind_rule\"");
  EXPECT_EQ(test::describe(end(7)), test::describe(renewed));
  EXPECT_EQ(renewed.deadline, kNow_s + 3 + kLifetime_s);
}

TEST_F(AuditMsg, ContextsExpireBehindTheirDeadline) {
  for (unsigned serial = 1; serial <= 5; ++serial) {
    open(serial);
    offline::advance_clock(std::chrono::seconds(1));
  }
  scan_audit_ctx(kNow_s + kLifetime_s);
  EXPECT_EQ(log(), "");
  scan_audit_ctx(kNow_s + kLifetime_s + 3);
  EXPECT_EQ(log(), debug("audit ctx timeout: 4") + debug("audit ctx timeout: 3") +
                       debug("audit ctx timeout: 2"));
  expect_no_context(3);
  EXPECT_EQ(end(4).serial, 4U);
}

TEST_F(AuditMsg, DeadlinesPassBeyond2038) {
  constexpr std::time_t kLast_s = 0x7fffffff;
  offline::set_clock(kLast_s - 2);
  open(7);
  scan_audit_ctx(kLast_s - 2);  // the deadline has a 32nd bit already
  scan_audit_ctx(kLast_s - 2 + kLifetime_s);
  EXPECT_EQ(log(), "");
  scan_audit_ctx(kLast_s - 1 + kLifetime_s);
  EXPECT_EQ(log(), debug("audit ctx timeout: 0"));
}

TEST_F(AuditMsg, StopFreesOpenContexts) {
  open(7);
  feed_library(AUDIT_EXECVE, header(7) + "argc=3 a0=\"x\" a2_len=9 a2[0]=\"ab\"");
  open(8);
  feed_library(AUDIT_PATH, header(8) + "name=\"/x\"");
  audit_msg_fini();
  EXPECT_EQ(feed_library(AUDIT_SYSCALL, syscall_text(7)), -1) << "nothing opens while stopped";
  EXPECT_EQ(feed_library(AUDIT_EOE, header(7)), -1);
  scan_audit_ctx(kNow_s);
  audit_msg_fini();
  audit_msg_init();
  test::clear_log();
  expect_no_context(7);
  expect_no_context(8);
}

// ---- Dropped replies ---------------------------------------------------------------------------

struct Dropped {
  int type;
  std::string text;
  std::string log;
};

TEST_F(AuditMsg, RecordsAreDroppedWithTheirMessages) {
  const std::string long_key = "\"execve_rule" + std::string(300, '\x01');
  std::vector<Dropped> rows = {
      {AUDIT_SYSCALL, "argc=1", ""},
      {AUDIT_SYSCALL, "audit(1.0): arch=c000003e", ""},
      {AUDIT_SYSCALL, header(7), error("parse_syscall failed")},
      {AUDIT_SYSCALL, syscall_text(7, "(null)"), error("get_audit_type failed: null")},
      {AUDIT_SYSCALL, syscall_text(7, "\"%s%n\""), error("get_audit_type failed: %s%n")},
      {AUDIT_SYSCALL, syscall_text(7, long_key),
       error("get_audit_type failed: " + long_key.substr(1))},
      {AUDIT_PATH, header(7) + "nam=\"/x\"", error("parse_path failed")},
      {AUDIT_SOCKADDR, header(7) + "SADDR=0200", error("parse_sockaddr failed")},
      {AUDIT_SOCKADDR, header(7) + "saddr=02",
       error("check_sockaddr failed") + error("parse_sockaddr failed")},
      {AUDIT_EXECVE, header(7) + "a0=\"x\"", error("parse_execve failed")},
      {AUDIT_EXECVE, header(7) + "argc=0", error("parse_execve failed")},
      {AUDIT_LOGIN, header(7) + "pid=1 uid=0", error("parse_login failed")},
      {AUDIT_LOGIN, "x", error("parse_login failed")}};
  for (const int type : kTextTypes) {
    for (const char* text : {"", "argc=1", "audit(1.0): ", "audit(1:7): "})
      rows.push_back({type, text, error("parse_serial failed")});
    rows.push_back({type, header(8) + "argc=1 a0=\"x\" name=\"/x\" saddr=00000000",
                    debug("search audit context failed")});
  }
  for (const int type : {-1, 0, 2, 999, 1001, 1013, 1301, 1303, 1305, 1307, 1319, 1321, 1327})
    rows.push_back({type, header(7) + "argc=1 a0=\"x\"", ""});

  open(7);
  const std::string untouched = test::describe(end(7));
  for (const Dropped& row : rows) {
    SCOPED_TRACE(std::to_string(row.type) + " " + row.text);
    open(7);
    EXPECT_EQ(feed_library(row.type, row.text), -1);
    EXPECT_EQ(log(), row.log);
    EXPECT_EQ(test::describe(end(7)), untouched);
  }
}

TEST_F(AuditMsg, ReplyWithoutPayloadOrWithALyingLengthIsDropped) {
  open(7);
  const auto reply = std::make_unique<audit_reply>();
  header(7).copy(reply->msg.data, MAX_AUDIT_MESSAGE_LENGTH);
  for (const int type :
       {AUDIT_GET, AUDIT_SYSCALL, AUDIT_PATH, AUDIT_SOCKADDR, AUDIT_EXECVE, AUDIT_EOE, AUDIT_CWD}) {
    reply->type = type;
    reply->message = reply->msg.data;
    for (const int length : {-1, -0x7fffffff - 1, MAX_AUDIT_MESSAGE_LENGTH + 1, 0x7fffffff, 30}) {
      reply->len = length;
      if (length == 30) reply->message = nullptr;
      EXPECT_EQ(handle_audit_msg(reply.get()), -1) << type << " " << length;
    }
  }
  EXPECT_EQ(log(), "");
  end(7);
}

TEST_F(AuditMsg, TextsEndWithTheLengthOrAZeroByteAndMayFillTheStorage) {
  open(7);
  std::string text = header(7) + "argc=2 a0=\"";
  const std::size_t room = MAX_AUDIT_MESSAGE_LENGTH - text.size();
  text.resize(MAX_AUDIT_MESSAGE_LENGTH, 'x');
  EXPECT_EQ(feed_library(AUDIT_EXECVE, text), 0);
  EXPECT_EQ(feed_library(AUDIT_EXECVE, header(7) + "b\0 a1=\"y\""s), 0);
  const auto reply = std::make_unique<audit_reply>();  // with stale bytes behind the text
  text = header(7) + "a1=\"stale\"";
  text.copy(reply->msg.data, text.size());
  reply->message = reply->msg.data;
  reply->type = AUDIT_EXECVE;
  reply->len = static_cast<int>(text.find("a1"));
  EXPECT_EQ(handle_audit_msg(reply.get()), 0);
  const test::Context context = end(7);
  EXPECT_EQ(context.arguments, (Texts{std::string(room, 'x'), std::nullopt}));
}

TEST_F(AuditMsg, StatusReplyGivesOneLine) {
  // mask, enabled, failure, pid, rate_limit, backlog_limit, lost, backlog and newer ones
  const std::uint32_t status[] = {99,         1,          2,  300, 0x80000000, 102400,
                                  0xffffffff, 0xfffffffe, 98, 97,  96};
  static_assert(sizeof(status) == sizeof(audit_status));
  const std::string payload(reinterpret_cast<const char*>(status), sizeof(status));
  EXPECT_EQ(feed_library(AUDIT_GET, payload), 0);
  EXPECT_EQ(log(), line(QEL_LOG_NOTICE,
                        "AUDIT_STATUS: enabled=1 flag=2 pid=300 rate_limit=-2147483648 "
                        "backlog_limit=102400 lost=-1 backlog=4294967294"));
}

// ---- PATH and SOCKADDR -------------------------------------------------------------------------

TEST_F(AuditMsg, FirstPathOfAnExecutionWithoutArgumentsIsTaken) {
  open(7);
  EXPECT_EQ(feed_library(AUDIT_PATH, header(7) + "item=0 name=2F612062 inode=1"), 0);
  EXPECT_EQ(feed_library(AUDIT_PATH, header(7) + "item=1 name=\"/second\""), -1);
  EXPECT_EQ(end(7).path_text, "/a b");
  open(7);
  feed_library(AUDIT_EXECVE, header(7) + "argc=1");
  open(8, "\"bind_rule\"");
  for (const unsigned serial : {7U, 8U}) {
    EXPECT_EQ(feed_library(AUDIT_PATH, header(serial) + "name=\"/x\""), -1);
    EXPECT_EQ(end(serial).path_text, std::nullopt);
  }
  EXPECT_EQ(log(), "");
}

// The digits of an address: the family, then bytes 0x11.
std::string address(unsigned family, std::size_t length) {
  char digits[16];
  std::snprintf(digits, sizeof(digits), "%02X%02X", family & 0xff, family >> 8);
  return (digits + std::string(276, '1')).substr(0, 2 * length);
}

class Address : public AuditMsg {
 protected:
  // Ends the context, whose address must be this one and zeros behind it.
  static void expect_address(std::string digits) {
    digits.resize(256, '0');
    std::string found;
    for (const unsigned byte : end(7).sockaddr) {
      char pair[3];
      std::snprintf(pair, sizeof(pair), "%02X", byte);
      found += pair;
    }
    EXPECT_EQ(found, digits);
  }

  static void expect_taken(unsigned family, std::size_t length, bool taken) {
    const std::string digits = address(family, length);
    SCOPED_TRACE(digits);
    open(7, "\"bind_rule\"");
    EXPECT_EQ(feed_library(AUDIT_SOCKADDR, header(7) + "saddr=" + digits), taken ? 0 : -1);
    EXPECT_EQ(log(), taken ? "" : error("check_sockaddr failed") + error("parse_sockaddr failed"));
    expect_address(taken ? digits : "");
  }
};

TEST_F(Address, IsTakenInTheLengthOfItsFamily) {
  const std::pair<unsigned, std::size_t> known[] = {
      {AF_UNIX, 110}, {AF_INET, 16},    {AF_APPLETALK, 16}, {AF_X25, 18},
      {AF_INET6, 28}, {AF_NETLINK, 12}, {AF_PACKET, 20}};
  for (const auto& [family, whole] : known) {
    for (const std::size_t length : {std::size_t{2}, whole - 1, whole, whole + 1, std::size_t{128}})
      expect_taken(family, length, length == whole);
  }
  for (const unsigned other : {0U, 3U, 4U, 11U, 15U, 18U, 40U, 0x0200U, 0xffffU}) {
    for (const std::size_t length : {0U, 2U, 3U, 4U, 5U, 128U, 140U})
      expect_taken(other, length, length >= 4);
  }
}

TEST_F(Address, OverwritesTheEarlierOneAsFarAsItGoesAndRefusedClearsIt) {
  open(7);
  feed_library(AUDIT_SOCKADDR, header(7) + "saddr=" + address(AF_UNIX, 110));
  EXPECT_EQ(feed_library(AUDIT_SOCKADDR, header(7) + "saddr=" + std::string(8, '2')), 0);
  expect_address(std::string(8, '2') + address(AF_UNIX, 110).substr(8));
  open(7);
  feed_library(AUDIT_SOCKADDR, header(7) + "saddr=" + address(AF_UNIX, 110));
  EXPECT_EQ(feed_library(AUDIT_SOCKADDR, header(7) + "saddr=0200"), -1);
  expect_address("");
}

TEST(RuleType, ComesFromTheWholeKey) {
  audit_ctx ctx = {};
  ctx.ruletype = 55;
  EXPECT_EQ(get_audit_type(&ctx), -1) << "no key";
  for (std::string key : {"", "bind", "bind_rule ", "Bind_rule", "fakelogin_rule"}) {
    const bool known = key == "fakelogin_rule";
    ctx.key = key.data();
    EXPECT_EQ(get_audit_type(&ctx), known ? 0 : -1) << key;
    EXPECT_EQ(ctx.ruletype, known ? 7 : 55);
  }
}

}  // namespace
