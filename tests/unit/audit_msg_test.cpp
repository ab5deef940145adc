// Record intake through its one entry: contexts that open, fill, expire and end, and the fate of
// every reply that is dropped.
#include <audit_event.h>
#include <gtest/gtest.h>
#include <libaudit.h>
#include <qel_base.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "captured_log.h"
#include "clock.h"
#include "reference_parser.h"

namespace {

std::vector<test::Context> finished;

}  // namespace

// Takes the place of the library's event assembly. Its result does not count.
int handle_audit_event(audit_ctx* ctx) {
  finished.push_back(test::snapshot(*ctx));
  return -1;
}

namespace {

using namespace std::string_literals;

constexpr std::time_t kNow_s = 1714557610;
constexpr std::int64_t kLifetime_s = 10;
constexpr int kTextTypes[] = {AUDIT_PATH, AUDIT_SOCKADDR, AUDIT_EXECVE, AUDIT_EOE};

std::string header(unsigned serial) {
  return "audit(1714557610.448:" + std::to_string(serial) + "): ";
}

std::string syscall_text(unsigned serial, const std::string& key = "\"execve_rule\"",
                         const std::string& comm = "\"ls\"") {
  return header(serial) +
         "arch=c000003e syscall=59 success=yes exit=-13 a0=1 a1=7ffe95097150 a2=ffffffffffffff9c "
         "a3=0 items=2 ppid=90 pid=200 auid=7 uid=1000 gid=1001 euid=8 suid=8 fsuid=8 egid=9 "
         "sgid=9 fsgid=9 tty=(none) ses=1 comm=" +
         comm + " exe=\"/bin/ls\" subj=unconfined key=" + key;
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

  static int feed(int type, const std::string& text) {
    // A block of its own size, so that the address sanitizer sees every access beyond the text.
    std::vector<char> block(text.begin(), text.end());
    audit_reply reply = {};
    reply.type = type;
    reply.len = static_cast<int>(block.size());
    char nothing = '\0';
    reply.message = block.empty() ? &nothing : block.data();
    return handle_audit_msg(&reply);
  }

  static void open(unsigned serial, const std::string& key = "\"execve_rule\"") {
    EXPECT_EQ(feed(AUDIT_SYSCALL, syscall_text(serial, key)), 0);
  }

  // Closes the context and returns what it held.
  static test::Context end(unsigned serial) {
    EXPECT_EQ(feed(AUDIT_EOE, header(serial)), 0) << "no context " << serial;
    test::Context last = finished.empty() ? test::Context() : finished.back();
    finished.clear();
    return last;
  }

  // The only line that was logged, as level, source and message.
  static testing::AssertionResult logged_only(int level, const std::string& message) {
    const std::size_t lines = test::log_lines().size();
    const bool good = lines == 1 && test::logged(level, "audit_msg", message) == 1;
    const std::string all = test::log_text(2) + test::log_text(3) + test::log_text(4);
    test::clear_log();
    if (good) return testing::AssertionSuccess();
    return testing::AssertionFailure() << lines << " lines: " << all;
  }

  static testing::AssertionResult logged_nothing() {
    if (test::log_lines().empty()) return testing::AssertionSuccess();
    return testing::AssertionFailure() << test::log_text(2) << test::log_text(4);
  }

  static testing::AssertionResult has_no_context(unsigned serial) {
    const int result = feed(AUDIT_EOE, header(serial));
    if (result != -1) return testing::AssertionFailure() << "there is a context";
    return logged_only(QEL_LOG_DEBUG, "search audit context failed\n");
  }
};

// ---- SYSCALL -----------------------------------------------------------------------------------

TEST_F(AuditMsg, SyscallRecordOpensAContextWithItsFields) {
  open(7);
  const test::Context expected = {.deadline = kNow_s + kLifetime_s,
                                  .msgtype = AUDIT_SYSCALL,
                                  .ruletype = 4,
                                  .serial = 7,
                                  .arch = 0xc000003e,
                                  .syscall = 59,
                                  .success = 1,
                                  .exit = -13,
                                  .args = {1, 0x7ffe95097150, 0xffffffffffffff9c, 0},
                                  .ppid = 90,
                                  .pid = 200,
                                  .uid = 1000,
                                  .gid = 1001,
                                  .sockaddr = {},
                                  .path = std::nullopt,
                                  .key = "execve_rule",
                                  .comm = "ls",
                                  .argv = {}};
  EXPECT_EQ(test::describe(end(7)), test::describe(expected));
  EXPECT_TRUE(logged_nothing());
}

std::string replaced(std::string text, std::string_view from, std::string_view to) {
  return text.replace(text.find(from), from.size(), to);
}

TEST_F(AuditMsg, SuccessIsYesOrNotThere) {
  for (const auto& [field, success] :
       {std::pair("success=yes", 1), std::pair("success=no", 0), std::pair("success=YES", 0),
        std::pair("success=yess", 0), std::pair("success=ye", 0), std::pair("success=", 0),
        std::pair("ok=no", 1)}) {
    EXPECT_EQ(feed(AUDIT_SYSCALL, replaced(syscall_text(7), "success=yes", field)), 0);
    EXPECT_EQ(end(7).success, success) << field;
  }
}

TEST_F(AuditMsg, ExitIsReadInAnyBaseAndMayBeMissing) {
  for (const auto& [field, exit] :
       {std::pair("exit=5", 5), std::pair("exit=-1", -1), std::pair("exit=0x10", 16),
        std::pair("exit=010", 8), std::pair("exit=4294967291", -5), std::pair("exit=x", 0),
        std::pair("left=5", 0)}) {
    EXPECT_EQ(feed(AUDIT_SYSCALL, replaced(syscall_text(7), "exit=-13", field)), 0);
    EXPECT_EQ(end(7).exit, exit) << field;
  }
}

TEST_F(AuditMsg, SyscallRecordNeedsEachOtherField) {
  for (const char* field : {"arch=", "syscall=", "a0=", "a1=", "a2=", "a3=", " ppid=", " pid=",
                            " uid=", " gid=", "comm=", "key="}) {
    EXPECT_EQ(feed(AUDIT_SYSCALL, replaced(syscall_text(7), field, " x=")), -1);
    EXPECT_TRUE(logged_only(QEL_LOG_ERROR, "parse_syscall failed\n")) << field;
    EXPECT_TRUE(has_no_context(7)) << field;
  }
}

TEST_F(AuditMsg, SyscallRecordNeedsItsFieldsInOrder) {
  const std::string text = replaced(syscall_text(7), "comm=\"ls\"", "");
  EXPECT_EQ(feed(AUDIT_SYSCALL, text + " comm=\"ls\""), -1);
  EXPECT_TRUE(logged_only(QEL_LOG_ERROR, "parse_syscall failed\n"));
}

TEST_F(AuditMsg, KeyOfEachRuleTypeGivesItsId) {
  const std::pair<const char*, int> keys[] = {
      {"\"passwd_rule\"", 0},     {"\"shadow_rule\"", 1},    {"\"wtmp_rule\"", 2},
      {"\"lastlogin_rule\"", 3},  {"\"execve_rule\"", 4},    {"\"bind_rule\"", 5},
      {"\"syscall_rule\"", 6},    {"\"fakelogin_rule\"", 7}, {"\"bind_rule", 5},
      {"(bind_rule)", 5},         {"62696E645F72756C65", 5}, {"62696e645f72756c6500ff", 5},
      {"62696E645F72756C650", 5}, {"\"bind_rule\"x", 5}};
  for (const auto& [key, id] : keys) {
    open(7, key);
    EXPECT_EQ(end(7).ruletype, id) << key;
  }
}

TEST_F(AuditMsg, UnknownKeyIsToldDecoded) {
  const std::string long_key(300, 'k');
  const std::pair<std::string, std::string> keys[] = {
      {"(null)", "null"},
      {"\"Execve_rule\"", "Execve_rule"},
      {"\"execve_rule2\"", "execve_rule2"},
      {"\"execve_rul\"", "execve_rul"},
      {"\"\"", ""},
      {"execve_rule", ""},
      {"6C73", "ls"},
      {"\"%s%n\"", "%s%n"},
      {"\"" + long_key + "\"", long_key},
      {"\"execve_rule" + std::string(64, '\x01') + "\"", "execve_rule" + std::string(64, '\x01')}};
  for (const auto& [value, key] : keys) {
    EXPECT_EQ(feed(AUDIT_SYSCALL, syscall_text(7, value)), -1);
    EXPECT_TRUE(logged_only(QEL_LOG_ERROR, "get_audit_type failed: " + key + "\n")) << value;
    EXPECT_TRUE(has_no_context(7));
  }
}

TEST_F(AuditMsg, KeyInTheProgramsPathDoesNotCount) {
  const std::string text =
      replaced(syscall_text(7, "\"bind_rule\""), "/bin/ls", "/tmp/key=\"execve_rule\"");
  EXPECT_EQ(feed(AUDIT_SYSCALL, text), 0);
  EXPECT_EQ(end(7).ruletype, 5);
}

TEST_F(AuditMsg, CommandNameIsDecoded) {
  for (const auto& [value, comm] : {std::pair("6C73", "ls"), std::pair("\"l", "l"),
                                    std::pair("612062", "a b"), std::pair("", "")}) {
    EXPECT_EQ(feed(AUDIT_SYSCALL, syscall_text(7, "\"bind_rule\"", value)), 0);
    EXPECT_EQ(end(7).comm, comm);
  }
}

TEST_F(AuditMsg, SecondSyscallRecordStartsTheContextAnew) {
  open(7);
  feed(AUDIT_SOCKADDR, header(7) + "saddr=0200005016000000AABBCCDDEEFF0011");
  feed(AUDIT_PATH, header(7) + "name=\"/x\"");
  feed(AUDIT_EXECVE, header(7) + "argc=3 a0=\"x\" a1_len=9 a1[0]=\"ab\"");
  offline::advance_clock(std::chrono::seconds(3));
  open(7, "\"bind_rule\"");
  EXPECT_TRUE(logged_nothing());
  test::Context expected = end(7);
  EXPECT_TRUE(has_no_context(7)) << "one serial, one context";
  open(7, "\"bind_rule\"");  // what a context holds that had no earlier records
  EXPECT_EQ(test::describe(end(7)), test::describe(expected));
  EXPECT_EQ(expected.deadline, kNow_s + 3 + kLifetime_s);
}

TEST_F(AuditMsg, RefusedSyscallRecordLeavesTheOpenContextAlone) {
  open(7);
  feed(AUDIT_EXECVE, header(7) + "argc=1 a0=\"x\"");
  EXPECT_EQ(feed(AUDIT_SYSCALL, syscall_text(7, "(null)")), -1);
  EXPECT_EQ(feed(AUDIT_SYSCALL, header(7)), -1);
  EXPECT_EQ(end(7).argc, 1);
}

// ---- Expiry ------------------------------------------------------------------------------------

TEST_F(AuditMsg, ContextExpiresBehindItsDeadline) {
  open(7);
  scan_audit_ctx(kNow_s + kLifetime_s);
  EXPECT_TRUE(logged_nothing());
  scan_audit_ctx(kNow_s + kLifetime_s + 1);
  EXPECT_TRUE(logged_only(QEL_LOG_DEBUG, "audit ctx timeout: 0\n"));
  EXPECT_TRUE(has_no_context(7));
  scan_audit_ctx(kNow_s + kLifetime_s + 1);
  EXPECT_TRUE(logged_nothing());
}

TEST_F(AuditMsg, ScanTellsHowManyContextsAreLeft) {
  for (const unsigned serial : {1U, 2U, 3U, 4U, 5U}) {
    open(serial);
    offline::advance_clock(std::chrono::seconds(1));
  }
  scan_audit_ctx(kNow_s + kLifetime_s + 3);
  EXPECT_EQ(test::log_lines().size(), 3U);
  for (const char* left : {"4", "3", "2"}) {
    EXPECT_EQ(test::logged(QEL_LOG_DEBUG, "audit_msg", "audit ctx timeout: "s + left + "\n"), 1U);
  }
  test::clear_log();
  EXPECT_TRUE(has_no_context(3));
  EXPECT_EQ(end(4).serial, 4U);
}

TEST_F(AuditMsg, DeadlinesPassBeyond2038) {
  constexpr std::time_t kLast_s = 0x7fffffff;
  offline::set_clock(kLast_s - 2);
  open(7);
  scan_audit_ctx(kLast_s - 2);  // the deadline has a 32nd bit already
  scan_audit_ctx(kLast_s - 2 + kLifetime_s);
  EXPECT_TRUE(logged_nothing());
  scan_audit_ctx(kLast_s - 1 + kLifetime_s);
  EXPECT_TRUE(logged_only(QEL_LOG_DEBUG, "audit ctx timeout: 0\n"));
}

TEST_F(AuditMsg, StopFreesOpenContexts) {
  open(7);
  feed(AUDIT_EXECVE, header(7) + "argc=3 a0=\"x\" a2_len=9 a2[0]=\"ab\"");
  open(8);
  feed(AUDIT_PATH, header(8) + "name=\"/x\"");
  audit_msg_fini();
  audit_msg_init();
  EXPECT_TRUE(has_no_context(7));
  EXPECT_TRUE(has_no_context(8));
}

// ---- Dropped replies ---------------------------------------------------------------------------

TEST_F(AuditMsg, RecordWithoutSerialIsDropped) {
  open(7);
  for (const char* text : {"", "argc=1", "audit(1.0): ", "audit(1:7): ", "audit(1.0;7): "}) {
    EXPECT_EQ(feed(AUDIT_SYSCALL, text), -1);
    EXPECT_TRUE(logged_nothing()) << text;
    for (const int type : kTextTypes) {
      EXPECT_EQ(feed(type, text), -1);
      EXPECT_TRUE(logged_only(QEL_LOG_ERROR, "parse_serial failed\n")) << type << text;
    }
  }
  end(7);
}

TEST_F(AuditMsg, RecordWithoutContextIsDropped) {
  open(7);
  end(7);
  for (const unsigned serial : {7U, 8U}) {
    for (const int type : kTextTypes) {
      EXPECT_EQ(feed(type, header(serial) + "argc=1 a0=\"x\" name=\"/x\" saddr=00000000"), -1);
      EXPECT_TRUE(logged_only(QEL_LOG_DEBUG, "search audit context failed\n")) << type;
    }
  }
  EXPECT_TRUE(finished.empty());
}

TEST_F(AuditMsg, LoginRecordIsRefusedUnread) {
  open(7);
  for (const std::string& text : {header(7) + "pid=1 uid=0", "x"s}) {
    EXPECT_EQ(feed(AUDIT_LOGIN, text), -1);
    EXPECT_TRUE(logged_only(QEL_LOG_ERROR, "parse_login failed\n"));
  }
  end(7);
}

TEST_F(AuditMsg, OtherTypesAreDroppedSilently) {
  open(7);
  for (const int type : {-1, 0, 2, 3, 999, 1001, 1013, 1100, 1301, 1303, 1305, 1307, 1308, 1310,
                         1319, 1321, 1327, 1329, 65535}) {
    EXPECT_EQ(feed(type, header(7) + "argc=1 a0=\"x\""), -1) << type;
  }
  EXPECT_TRUE(logged_nothing());
  EXPECT_EQ(end(7).argc, 0);
}

TEST_F(AuditMsg, ReplyWithoutPayloadOrWithALyingLengthIsDropped) {
  open(7);
  const std::string text = header(7);
  for (const int type :
       {AUDIT_GET, AUDIT_SYSCALL, AUDIT_PATH, AUDIT_SOCKADDR, AUDIT_EXECVE, AUDIT_EOE, AUDIT_CWD}) {
    const auto reply = std::make_unique<audit_reply>();
    reply->type = type;
    text.copy(reply->msg.data, text.size());
    reply->message = reply->msg.data;
    for (const int length : {-1, -0x7fffffff - 1, MAX_AUDIT_MESSAGE_LENGTH + 1, 0x7fffffff}) {
      reply->len = length;
      EXPECT_EQ(handle_audit_msg(reply.get()), -1) << type << " " << length;
    }
    reply->len = static_cast<int>(text.size());
    reply->message = nullptr;
    EXPECT_EQ(handle_audit_msg(reply.get()), -1) << type;
  }
  EXPECT_TRUE(logged_nothing());
  end(7);
}

TEST_F(AuditMsg, RecordMayFillThePayloadsStorage) {
  open(7);
  std::string text = header(7) + "argc=1 a0=\"";
  text.resize(MAX_AUDIT_MESSAGE_LENGTH, 'x');
  EXPECT_EQ(feed(AUDIT_EXECVE, text), 0);
  const test::Context context = end(7);
  ASSERT_EQ(context.argv.size(), 1U);
  EXPECT_EQ(context.argv[0], text.substr(text.find('"') + 1));
}

TEST_F(AuditMsg, StaleBytesBehindTheTextAreNotRead) {
  open(7);
  const auto feed_cut = [](int type, const std::string& text, std::size_t length) {
    const auto reply = std::make_unique<audit_reply>();
    reply->type = type;
    reply->len = static_cast<int>(length);
    text.copy(reply->msg.data, text.size());
    reply->message = reply->msg.data;
    return handle_audit_msg(reply.get());
  };
  const std::string execve = header(7) + "argc=2 a0=\"x\" a1=\"stale\"";
  EXPECT_EQ(feed_cut(AUDIT_EXECVE, execve, execve.find(" a1")), 0);
  const std::string address = header(7) + "saddr=00010203FFFF";
  EXPECT_EQ(feed_cut(AUDIT_SOCKADDR, address, address.find("FFFF")), 0);
  const std::string keyed = syscall_text(8);
  EXPECT_EQ(feed_cut(AUDIT_SYSCALL, keyed, keyed.find("key=")), -1);
  EXPECT_TRUE(logged_only(QEL_LOG_ERROR, "parse_syscall failed\n"));
  EXPECT_EQ(feed_cut(AUDIT_PATH, header(7), 0), -1);
  EXPECT_TRUE(logged_only(QEL_LOG_ERROR, "parse_serial failed\n"));
  // A serial cut short is another one: 7 in place of 77.
  EXPECT_EQ(feed_cut(AUDIT_EOE, header(77), header(77).find("7):")), 0);
  ASSERT_EQ(finished.size(), 1U);
  EXPECT_EQ(finished[0].serial, 7U);
  EXPECT_EQ(finished[0].arg_index, 1);
  EXPECT_EQ(finished[0].sockaddr[3], 3);
  EXPECT_EQ(finished[0].sockaddr[4], 0);
}

TEST_F(AuditMsg, TextEndsAtAZeroByte) {
  open(7);
  EXPECT_EQ(feed(AUDIT_EXECVE, header(7) + "argc=2 a0=\"x\"\0 a1=\"y\""s), 0);
  EXPECT_EQ(end(7).arg_index, 1);
}

// ---- Status ------------------------------------------------------------------------------------

TEST_F(AuditMsg, StatusReplyGivesOneLine) {
  const audit_status status = {.mask = 99,
                               .enabled = 1,
                               .failure = 2,
                               .pid = 300,
                               .rate_limit = 0x80000000,
                               .backlog_limit = 102400,
                               .lost = 0xffffffff,
                               .backlog = 0xfffffffe,
                               .version = 98,
                               .backlog_wait_time = 97,
                               .backlog_wait_time_actual = 96};
  std::string payload(sizeof(status), '\0');
  std::memcpy(payload.data(), &status, sizeof(status));
  EXPECT_EQ(feed(AUDIT_GET, payload), 0);
  EXPECT_TRUE(logged_only(QEL_LOG_NOTICE,
                          "AUDIT_STATUS: enabled=1 flag=2 pid=300 rate_limit=-2147483648 "
                          "backlog_limit=102400 lost=-1 backlog=4294967294\n"));
}

// ---- PATH --------------------------------------------------------------------------------------

TEST_F(AuditMsg, FirstPathOfAnExecutionIsTaken) {
  open(7);
  EXPECT_EQ(feed(AUDIT_PATH, header(7) + "item=0 name=2F612062 inode=1"), 0);
  EXPECT_EQ(feed(AUDIT_PATH, header(7) + "item=1 name=\"/second\""), -1);
  EXPECT_EQ(feed(AUDIT_PATH, header(7) + "item=2"), -1);
  EXPECT_TRUE(logged_nothing());
  EXPECT_EQ(end(7).path, "/a b");
}

TEST_F(AuditMsg, PathOfOtherRuleTypesIsNotTaken) {
  for (const char* key :
       {"\"passwd_rule\"", "\"wtmp_rule\"", "\"bind_rule\"", "\"syscall_rule\""}) {
    open(7, key);
    EXPECT_EQ(feed(AUDIT_PATH, header(7) + "name=\"/x\""), -1);
    EXPECT_EQ(end(7).path, std::nullopt);
  }
  EXPECT_TRUE(logged_nothing());
}

TEST_F(AuditMsg, PathBehindAnArgumentCountIsNotTaken) {
  for (const char* count : {"1", "-1"}) {
    open(7);
    feed(AUDIT_EXECVE, header(7) + "argc=" + count);
    test::clear_log();
    EXPECT_EQ(feed(AUDIT_PATH, header(7) + "name=\"/x\""), -1);
    EXPECT_TRUE(logged_nothing());
    EXPECT_EQ(end(7).path, std::nullopt);
  }
}

TEST_F(AuditMsg, PathWithoutNameIsReported) {
  open(7);
  EXPECT_EQ(feed(AUDIT_PATH, header(7) + "item=0 nam=\"/x\""), -1);
  EXPECT_TRUE(logged_only(QEL_LOG_ERROR, "parse_path failed\n"));
  EXPECT_EQ(feed(AUDIT_PATH, header(7) + "item=1 name=(null)"), 0) << "the next one may have one";
  EXPECT_EQ(end(7).path, "null");
}

// ---- SOCKADDR ----------------------------------------------------------------------------------

// An address of this family and length as digits: the family, then bytes 11.
std::string address_digits(unsigned family, std::size_t length) {
  char digits[16];
  std::snprintf(digits, sizeof(digits), "%02X%02X", family & 0xff, family >> 8);
  std::string text = digits;
  for (std::size_t i = 2; i < length; ++i) text += "11";
  return text.substr(0, 2 * length);
}

std::array<std::uint8_t, 128> address_bytes(unsigned family, std::size_t length) {
  std::array<std::uint8_t, 128> bytes = {};
  std::fill_n(bytes.begin(), length, std::uint8_t{0x11});
  bytes[0] = static_cast<std::uint8_t>(family & 0xff);
  bytes[1] = static_cast<std::uint8_t>(family >> 8);
  return bytes;
}

class Address : public AuditMsg {
 protected:
  static void expect_taken(unsigned family, std::size_t length) {
    open(7, "\"syscall_rule\"");
    EXPECT_EQ(feed(AUDIT_SOCKADDR, header(7) + "saddr=" + address_digits(family, length)), 0);
    EXPECT_TRUE(logged_nothing());
    EXPECT_EQ(end(7).sockaddr, address_bytes(family, length)) << family << " " << length;
  }

  static void expect_refused(unsigned family, std::size_t length) {
    open(7, "\"bind_rule\"");
    EXPECT_EQ(feed(AUDIT_SOCKADDR, header(7) + "saddr=" + address_digits(family, length)), -1);
    expect_refusal();
    EXPECT_EQ(end(7).sockaddr, (std::array<std::uint8_t, 128>())) << family << " " << length;
  }

  static void expect_refusal() {
    ASSERT_EQ(test::log_lines().size(), 2U);
    EXPECT_EQ(test::log_lines()[0].message, "check_sockaddr failed\n");
    EXPECT_EQ(test::log_lines()[1].message, "parse_sockaddr failed\n");
    EXPECT_EQ(test::logged(QEL_LOG_ERROR, "audit_msg", "check_sockaddr failed\n"), 1U);
    EXPECT_EQ(test::logged(QEL_LOG_ERROR, "audit_msg", "parse_sockaddr failed\n"), 1U);
    test::clear_log();
  }
};

TEST_F(Address, OfAKnownFamilyIsTakenInItsLength) {
  const std::pair<unsigned, std::size_t> lengths[] = {
      {AF_UNIX, 110}, {AF_INET, 16},    {AF_APPLETALK, 16}, {AF_X25, 18},
      {AF_INET6, 28}, {AF_NETLINK, 12}, {AF_PACKET, 20}};
  for (const auto& [family, length] : lengths) {
    expect_taken(family, length);
    expect_refused(family, length - 1);
    expect_refused(family, length + 1);
    expect_refused(family, 2);
    expect_refused(family, 128);
  }
}

TEST_F(Address, OfAnotherFamilyIsTakenFromFourBytes) {
  for (const unsigned family : {0U, 3U, 4U, 11U, 15U, 18U, 40U, 0x0200U, 0xffffU}) {
    for (const std::size_t length : {4U, 5U, 16U, 127U, 128U}) expect_taken(family, length);
    for (const std::size_t length : {0U, 1U, 2U, 3U}) expect_refused(family, length);
  }
}

TEST_F(Address, BeyondTheRoomCountsAsTheRoom) {
  open(7);
  EXPECT_EQ(feed(AUDIT_SOCKADDR, header(7) + "saddr=" + address_digits(40, 140)), 0);
  EXPECT_EQ(end(7).sockaddr, address_bytes(40, 128));
}

TEST_F(Address, OverwritesTheEarlierOneAsFarAsItGoes) {
  open(7);
  feed(AUDIT_SOCKADDR, header(7) + "saddr=" + address_digits(AF_UNIX, 110));
  EXPECT_EQ(feed(AUDIT_SOCKADDR, header(7) + "saddr=0200AABB000000000000000000000000"), 0);
  const auto bytes = end(7).sockaddr;
  EXPECT_EQ(bytes[0], AF_INET);
  EXPECT_EQ(bytes[2], 0xaa);
  EXPECT_EQ(bytes[15], 0);
  EXPECT_EQ(bytes[16], 0x11);
  EXPECT_EQ(bytes[109], 0x11);
}

TEST_F(Address, RefusedClearsTheEarlierOne) {
  for (const char* digits : {"02", "", "xx", "0200"}) {
    open(7);
    feed(AUDIT_SOCKADDR, header(7) + "saddr=" + address_digits(AF_UNIX, 110));
    EXPECT_EQ(feed(AUDIT_SOCKADDR, header(7) + "saddr=" + digits), -1);
    expect_refusal();
    EXPECT_EQ(end(7).sockaddr, (std::array<std::uint8_t, 128>())) << digits;
  }
}

TEST_F(Address, ThatIsNotThereIsReported) {
  open(7);
  feed(AUDIT_SOCKADDR, header(7) + "saddr=" + address_digits(AF_INET, 16));
  EXPECT_EQ(feed(AUDIT_SOCKADDR, header(7) + "SADDR=0200"), -1);
  EXPECT_TRUE(logged_only(QEL_LOG_ERROR, "parse_sockaddr failed\n"));
  EXPECT_EQ(end(7).sockaddr, address_bytes(AF_INET, 16)) << "the earlier one stays";
}

// ---- EXECVE and groups -------------------------------------------------------------------------

TEST_F(AuditMsg, ArgumentsAreTakenWhateverTheRuleType) {
  for (const char* key : {"\"execve_rule\"", "\"bind_rule\"", "\"passwd_rule\""}) {
    open(7, key);
    EXPECT_EQ(feed(AUDIT_EXECVE, header(7) + "argc=1 a0=\"x\""), 0);
    EXPECT_EQ(end(7).argv, (std::vector<std::optional<std::string>>{"x"}));
  }
}

TEST_F(AuditMsg, RefusedArgumentsAreReported) {
  open(7);
  for (const char* fields : {"a0=\"x\"", "argc=0", "argc=1 a0_len=0", "argc=4294967295"}) {
    EXPECT_EQ(feed(AUDIT_SYSCALL, syscall_text(7)), 0);
    EXPECT_EQ(feed(AUDIT_EXECVE, header(7) + fields), -1);
    EXPECT_TRUE(logged_only(QEL_LOG_ERROR, "parse_execve failed\n")) << fields;
  }
}

TEST_F(AuditMsg, GroupsMayInterleave) {
  open(1);
  open(2, "\"bind_rule\"");
  open(0xffffffff);
  feed(AUDIT_EXECVE, header(1) + "argc=2 a0=\"one\"");
  feed(AUDIT_SOCKADDR, header(2) + "saddr=" + address_digits(AF_INET, 16));
  feed(AUDIT_EXECVE, header(0xffffffff) + "argc=1 a0=\"last\"");
  feed(AUDIT_EXECVE, header(1) + " a1=\"two\"");
  EXPECT_EQ(end(0xffffffff).argv, (std::vector<std::optional<std::string>>{"last"}));
  EXPECT_EQ(end(2).sockaddr, address_bytes(AF_INET, 16));
  EXPECT_EQ(end(1).argv, (std::vector<std::optional<std::string>>{"one", "two"}));
  EXPECT_TRUE(logged_nothing());
}

TEST_F(AuditMsg, NothingIsOpenWhileStopped) {
  audit_msg_fini();
  EXPECT_EQ(feed(AUDIT_SYSCALL, syscall_text(7)), -1);
  EXPECT_EQ(feed(AUDIT_EOE, header(7)), -1);
  scan_audit_ctx(kNow_s);
  audit_msg_fini();
  audit_msg_init();
}

// ---- Rule type ---------------------------------------------------------------------------------

TEST(RuleType, ComesFromTheWholeKey) {
  audit_ctx ctx = {};
  ctx.ruletype = 55;
  EXPECT_EQ(get_audit_type(&ctx), -1) << "no key";
  for (const char* key : {"", "bind", "bind_rule ", "Bind_rule", "null"}) {
    std::string copy = key;
    ctx.key = copy.data();
    EXPECT_EQ(get_audit_type(&ctx), -1) << key;
  }
  EXPECT_EQ(ctx.ruletype, 55);
  char known[] = "fakelogin_rule";
  ctx.key = known;
  EXPECT_EQ(get_audit_type(&ctx), 0);
  EXPECT_EQ(ctx.ruletype, 7);
}

}  // namespace
