// Record intake, seen from both its ends: the records that go in, and the events and lines that
// come of them. How the text of a record is read is compared with a second parser in another test.
#include <algorithm>
#include <cstring>

#include "audit_msg.h"
#include "guarded_text.h"
#include "stage.h"

namespace {

using namespace test;
using Texts = std::vector<std::string>;

const std::string kCat = "execve result=0 user=root process=cat pid=11 ppid=10 argc=";

// The text of a SYSCALL record with `from` changed to `to`.
std::string changed(const std::string& from, const std::string& to) {
  std::string text = header(7) + syscall_record().body;
  return text.replace(text.find(from), from.size(), to);
}

int handle(int type, const char* message, int length) {
  audit_reply reply;
  reply.type = type;
  reply.len = length;
  reply.message = const_cast<char*>(message);
  return handle_audit_msg(&reply);
}

// Hands over a record whose text ends where readable memory ends. Returns the result.
int handle(int type, const std::string& text) {
  return handle(type, guarded(text).data(), static_cast<int>(text.size()));
}

int begin(unsigned serial = 7) {
  return handle(AUDIT_SYSCALL, header(serial) + syscall_record().body);
}

class Intake : public Stage {
 protected:
  Intake() {
    EXPECT_EQ(on_execve("") + on_bind(""), 0);
    poll_all();
  }
};

// ---- Contexts ----------------------------------------------------------------------------------

TEST_F(Intake, NothingIsKnownOfASerialBehindAStop) {
  begin();
  handle(AUDIT_EXECVE, header(7) + "argc=3 a0=\"x\" a2_len=9 a2[0]=\"ab\"");
  stop();
  heard();
  EXPECT_EQ(handle(AUDIT_EOE, header(7)) + begin(), -2);
  scan_audit_ctx(0);
  audit_msg_fini();
  EXPECT_EQ(start() + handle(AUDIT_EOE, header(7)), -1);
}

// ---- Refused records ---------------------------------------------------------------------------

TEST_F(Intake, ARefusedRecordGivesItsLineAndLeavesAnOpenContextAsItIs) {
  const std::string error = "error audit_msg: ", type_failed = error + "get_audit_type failed: ";
  const std::string address = error + "parse_sockaddr failed\n", long_key(300, 'k');
  const struct {
    int type;
    std::string text, lines;
  } rows[] = {
      {AUDIT_SYSCALL, changed(":7)", ":x)"), ""},
      {AUDIT_SYSCALL, changed("a3=", "b3="), error + "parse_syscall failed\n"},
      {AUDIT_SYSCALL, changed("execve_rule", "%s%n"), type_failed + "%s%n\n"},
      {AUDIT_SYSCALL, changed("execve_rule", long_key), type_failed + long_key + "\n"},
      {AUDIT_SYSCALL, changed("\"execve_rule\"", "(null)"), type_failed + "null\n"},
      {AUDIT_SYSCALL, changed("execve_rule", "Execve_rule"), type_failed + "Execve_rule\n"},
      {AUDIT_LOGIN, header(7) + "pid=1 uid=0", error + "parse_login failed\n"},
      {AUDIT_EXECVE, header(7) + "a0=\"x\"", error + "parse_execve failed\n"},
      {AUDIT_PATH, "audit(1.0): name=\"/x\"", error + "parse_serial failed\n"},
      {AUDIT_PATH, header(7) + "item=0", error + "parse_path failed\n"},
      {AUDIT_SOCKADDR, header(7) + "addr=0200", address},
      {AUDIT_SOCKADDR, header(7) + "saddr=0200", error + "check_sockaddr failed\n" + address},
      {AUDIT_SOCKADDR, header(7) + "saddr=280011", error + "check_sockaddr failed\n" + address},
      {AUDIT_EOE, "7", error + "parse_serial failed\n"},
      {AUDIT_EOE, header(8), "debug audit_msg: search audit context failed\n"},
      {AUDIT_CONFIG_CHANGE, header(7) + "op=add_rule", ""},
      {-1, header(7), ""},
  };
  begin();
  set_level(QEL_LOG_DEBUG);
  for (const auto& [type, text, lines] : rows) {
    EXPECT_EQ(handle(type, text), -1);
    EXPECT_EQ(heard(), lines) << text;
  }
  set_level(QEL_LOG_ERROR);
  EXPECT_EQ(handle(AUDIT_EOE, header(7)), 0);
  EXPECT_EQ(heard(), kCat + "0\n");
}

TEST_F(Intake, AReplyWithoutPayloadOrWithALyingLengthIsDropped) {
  const std::string text = header(7);
  begin();
  for (const int type : {AUDIT_GET, AUDIT_EOE}) {
    EXPECT_EQ(handle(type, nullptr, 30), -1);
    EXPECT_EQ(handle(type, text.data(), -1), -1);
    EXPECT_EQ(handle(type, text.data(), MAX_AUDIT_MESSAGE_LENGTH + 1), -1);
  }
  EXPECT_EQ(heard(), "");
  EXPECT_EQ(handle(AUDIT_EOE, text), 0);
  EXPECT_EQ(heard(), kCat + "0\n");
}

TEST_F(Intake, ATextIsTerminatedAtItsLengthInsideTheReply) {
  audit_reply reply = {};
  reply.type = AUDIT_CWD;
  reply.len = 100;
  std::memset(reply.msg.data, 'x', sizeof(reply.msg.data));
  reply.message = reply.msg.data;
  EXPECT_EQ(handle_audit_msg(&reply), -1);
  EXPECT_EQ(std::string(reply.message, 102), std::string(100, 'x') + '\0' + 'x');
  reply.len = MAX_AUDIT_MESSAGE_LENGTH;
  EXPECT_EQ(handle_audit_msg(&reply), -1) << "no room";
  EXPECT_EQ(handle(AUDIT_CWD, std::string(100, 'x')), -1) << "nowhere else";
}

TEST_F(Intake, AStatusReplyGivesOneLine) {
  // mask, enabled, failure, pid, rate_limit, backlog_limit, lost, backlog and newer ones
  const std::uint32_t status[] = {99,         1,          2,  300, 0x80000000, 102400,
                                  0xffffffff, 0xfffffffe, 98, 97,  96};
  static_assert(sizeof(status) == sizeof(audit_status));
  set_level(QEL_LOG_NOTICE);
  EXPECT_EQ(handle(AUDIT_GET, {reinterpret_cast<const char*>(status), sizeof(status)}), 0);
  EXPECT_EQ(heard(),
            "notice audit_msg: AUDIT_STATUS: enabled=1 flag=2 pid=300 rate_limit=-2147483648 "
            "backlog_limit=102400 lost=-1 backlog=4294967294\n");
}

// ---- Keys --------------------------------------------------------------------------------------

TEST_F(Intake, TheKeyChoosesTheClassAndIsNotThatOfAProgramsPath) {
  const std::pair<const char*, std::string> rows[] = {
      {"exe=\"/x\" key=\"bind_rule\"", "error audit_event: sockaddr family unspecified\n"},
      {"exe=\"/key=bind_rule/x\" key=\"execve_rule\"", kCat + "0\n"},
      {"exe=key=\"bind_rule\" subj=x key=6578656376655F72756C65", kCat + "0\n"},
      {"exe=\"/x\" key=(fakelogin_rule)", ""},
      {"exe=\"/key=\"execve_rule\"", "error audit_msg: parse_syscall failed\n"},
  };
  for (const auto& [exe_and_key, events] : rows) {
    feed(AUDIT_SYSCALL, changed("exe=\"/bin/cat\" key=\"execve_rule\"", exe_and_key));
    end();
    poll_all();
    EXPECT_EQ(heard(), events) << exe_and_key;
  }
  audit_ctx ctx = {};
  EXPECT_EQ(get_audit_type(&ctx), -1) << "no key";
  for (std::string key : {"bind", "bind_rule ", "bind_rule"}) {
    ctx.key = key.data();
    EXPECT_EQ(get_audit_type(&ctx), key == "bind_rule" ? 0 : -1);
  }
  EXPECT_EQ(ctx.ruletype, 5);
}

// ---- Arguments ---------------------------------------------------------------------------------

class Arguments : public Intake {
 protected:
  // What is heard of an execution with EXECVE records of these bodies, without what is always so.
  static std::string list_of(const Texts& bodies) {
    std::vector<Record> records;
    for (const std::string& body : bodies) records.push_back({AUDIT_EXECVE, body});
    std::string text = heard_of({}, records);
    return text.replace(text.find(kCat), kCat.size(), "");
  }
};

TEST_F(Arguments, AreReassembled) {
  const std::string refused = "error audit_msg: parse_execve failed\n";
  const std::pair<Texts, std::string> rows[] = {
      {{"argc=3 a0=\"a1=x\" a1=612062 a2="}, "3 a1=x a\\x20b \"\""},
      {{"a0=\"no\" argc=3 a0=\"x\"", " a1=\"y\" a2=\"z\""}, "3 x y z"},
      // A count or a length that is not positive is refused, and what came before stays.
      {{"argc=0", "argc=1 a0=\"y\""}, refused + "1 y"},
      {{"argc=4294967295", "argc=1 a0=\"y\""}, refused + "-1"},
      {{"argc=2 a0=\"x\" a1_len=0 a1[0]=y", "a1=\"y\""}, refused + "2 x y"},
      // Missing slots, and fields that are no argument's.
      {{"argc=5 a0=\"x\" a3=\"y\"", "a4=\"z\""}, "5 x \"\" \"\" y z"},
      {{"argc=3 a2=\"z\" a0=\"x\" a1=\"y\""}, "3 x y \"\""},
      {{"argc=2 b0=x a=1 ax=2 a0 a0] =a0 a0=\"x\" a-=1  a1=\"y\""}, "2 x y"},
      // A word counts as an argument's with any number that scanf's "%d" takes.
      {{"argc=2 a00=\"x\" b", "a0=\"y\""}, "2 \"\" \"\""},
      {{"argc=2 a \r-5=\"x\" a1=\"y\""}, "2 \"\" y"},
      // Split arguments.
      {{"argc=1 a0_len=10 a0[0]=\"abcde\" a0[1]=\"fghij\""}, "1 abcdefghij"},
      {{"argc=1 a0_len=6 a0[0]=\"ab\" a0[2]=\"ef\" a0[1]=\"cd\"", "a0[2]=\"ef\""}, "1 abcdef"},
      {{"argc=2 a0_len=3 a0[0]=\"abcdefgh\" a0[1]=\"no\" a1=\"y\""}, "2 abc y"},
      {{"argc=1 a0_len=2 a0[0]=\" a0[1]=\"ab", "a0[2]=\"cd\""}, "1 \\xac"},
      // Another argument's field, or the end, comes before the last piece.
      {{"argc=2 a0_len=9 a0[0]=\"ab\" a1_len=2 a1[0]=\"cd\""}, "2 \"ab\" cd"},
      {{"argc=2 a0_len=9 a0_len=2 a0[0]=\"ab\" a1=\"y\""}, "2 \"\" \"\""},
      {{"argc=4 a0=\"x\" a1_len=9 a1[0]=\"ab\""}, "4 x \"\" \"\" \"\""},
  };
  for (const auto& [records, list] : rows) EXPECT_EQ(list_of(records), list + "\n");
}

TEST_F(Arguments, AreFortyThousandOfThirtyTwoThousandCharactersAtMost) {
  for (const int count : {39999, 40000, 40001, 2147483647}) {
    std::string list = std::to_string(std::min(count, 40000));
    for (int i = 0; i < 39998; ++i) list += " \"\"";
    EXPECT_EQ(list_of({"argc=" + std::to_string(count) + " a39998=\"x\" a39999=\"y\""}),
              list + (count < 40000 ? " x\n" : " x y\n"));
  }
  for (const std::size_t length : {32767U, 32768U, 32769U, 98304U}) {
    Texts quoted = {"argc=2 a0_len=" + std::to_string(length)}, digits = quoted;
    for (std::size_t at = 0; at < length; at += 8192) {
      const std::string name = "a0[" + std::to_string(at / 8192) + "]=";
      const std::string piece(std::min<std::size_t>(8192, length - at), '6');
      quoted.push_back(name + '"' + piece + '"');
      digits.push_back(name + piece);
    }
    for (Texts* records : {&quoted, &digits}) records->push_back("a1=\"next\"");
    const std::size_t kept = std::min<std::size_t>(length, 32768);
    EXPECT_EQ(list_of(quoted), "2 {6*" + std::to_string(kept) + "} next\n");
    EXPECT_EQ(list_of(digits), "2 {f*" + std::to_string(kept / 2) + "} next\n");
  }
}

}  // namespace
