// Record intake through its one entry: contexts that expire and end, replies that are dropped, and
// addresses. What a record's text means is compared with the reference parser in another test.
#include <audit_event.h>
#include <gtest/gtest.h>
#include <libaudit.h>
#include <qel_base.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "captured_log.h"
#include "clock.h"
#include "reference_parser.h"

// A context and its argument texts.
struct Ended {
  audit_ctx ctx;
  std::string text;
  std::vector<std::string> arguments;
};

static std::vector<Ended> finished;

// Takes the place of the library's event assembly. Its result does not count.
int handle_audit_event(audit_ctx* ctx) {
  finished.push_back({*ctx, test::describe(*ctx), {}});
  finished.back().arguments.assign(ctx->argv, ctx->argv + (ctx->argv ? ctx->argc : 0));
  return -1;
}

namespace {

using namespace std::string_literals;
using test::feed_library;

constexpr std::time_t kNow_s = 0x7fffffff - 12;  // 2038 is over before all contexts have expired
constexpr std::int64_t kLifetime_s = 10;

std::string header(unsigned serial) {
  return "audit(1714557610.448:" + std::to_string(serial) + "): ";
}

std::string syscall_text(unsigned serial, const std::string& key = "\"execve_rule\"") {
  return header(serial) +
         "arch=c000003e syscall=59 success=yes exit=0 a0=1 a1=2 a2=3 a3=4 items=2 ppid=90 pid=200 "
         "auid=7 uid=1000 gid=1001 comm=\"ls\" exe=\"/bin/ls\" key=" +
         key;
}

std::string line(const std::string& message) {
  return "audit_msg: " + message + "\n";
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

  static void open(unsigned serial) {
    EXPECT_EQ(feed_library(AUDIT_SYSCALL, syscall_text(serial)), 0);
  }

  // Closes the context and returns what it held.
  static Ended end(unsigned serial) {
    EXPECT_EQ(feed_library(AUDIT_EOE, header(serial)), 0) << "no context " << serial;
    const Ended last = finished.empty() ? Ended() : finished.back();
    finished.clear();
    return last;
  }

  // The errors, or other lines, since the last call.
  static std::string log(int level = QEL_LOG_ERROR) {
    const std::string text = test::log_text(level);
    test::clear_log();
    return text;
  }
};

TEST_F(AuditMsg, ContextsExpireBehindTheirDeadlineAlsoBeyond2038) {
  for (unsigned serial = 1; serial <= 5; ++serial) {
    open(serial);
    offline::advance_clock(std::chrono::seconds(1));
  }
  scan_audit_ctx(kNow_s + kLifetime_s);
  EXPECT_EQ(log(QEL_LOG_DEBUG), "");
  scan_audit_ctx(kNow_s + kLifetime_s + 3);
  EXPECT_EQ(log(QEL_LOG_DEBUG), line("audit ctx timeout: 4") + line("audit ctx timeout: 3") +
                                    line("audit ctx timeout: 2"));
  EXPECT_EQ(feed_library(AUDIT_EOE, header(3)), -1);
  EXPECT_EQ(end(4).ctx.serial, 4U);
}

TEST_F(AuditMsg, StopFreesOpenContexts) {
  open(7);
  feed_library(AUDIT_EXECVE, header(7) + "argc=3 a0=\"x\" a2_len=9 a2[0]=\"ab\"");
  audit_msg_fini();
  EXPECT_EQ(feed_library(AUDIT_SYSCALL, syscall_text(7)), -1) << "nothing opens while stopped";
  EXPECT_EQ(feed_library(AUDIT_EOE, header(7)), -1);
  scan_audit_ctx(kNow_s);
  audit_msg_fini();
  audit_msg_init();
  EXPECT_EQ(feed_library(AUDIT_EOE, header(7)), -1);
}

TEST_F(AuditMsg, DroppedRecordsLeaveAnOpenContextAsItIs) {
  const std::string long_key = "\"execve_rule" + std::string(300, '\x01');
  const struct {
    int type;
    std::string text, log;
  } rows[] = {
      {AUDIT_SYSCALL, syscall_text(7, "\"%s%n\""), line("get_audit_type failed: %s%n")},
      {AUDIT_SYSCALL, syscall_text(7, long_key),
       line("get_audit_type failed: " + long_key.substr(1))},
      {AUDIT_LOGIN, header(7) + "pid=1 uid=0", line("parse_login failed")},
      {AUDIT_USER, header(7) + "argc=1 a0=\"x\"", ""},
      {AUDIT_CWD, header(7) + "name=\"/x\"", ""},
      {-1, header(7) + "saddr=00000000", ""},
  };
  open(7);
  const std::string untouched = end(7).text;
  open(7);
  for (const auto& [type, text, lines] : rows) {
    EXPECT_EQ(feed_library(type, text), -1);
    EXPECT_EQ(log(), lines);
  }
  EXPECT_EQ(end(7).text, untouched);
}

TEST_F(AuditMsg, ReplyWithoutPayloadOrWithALyingLengthIsDropped) {
  open(7);
  const auto reply = std::make_unique<audit_reply>();
  header(7).copy(reply->msg.data, MAX_AUDIT_MESSAGE_LENGTH);
  for (const int type : {AUDIT_GET, AUDIT_EOE}) {
    reply->type = type;
    for (const int length : {-1, MAX_AUDIT_MESSAGE_LENGTH + 1, 30}) {
      reply->message = length == 30 ? nullptr : reply->msg.data;
      reply->len = length;
      EXPECT_EQ(handle_audit_msg(reply.get()), -1) << type << " " << length;
    }
  }
  EXPECT_EQ(log(), "");
  end(7);
}

TEST_F(AuditMsg, TextIsTerminatedAtItsLengthWhateverItsType) {
  for (const int type : {AUDIT_SYSCALL, AUDIT_CWD, 9999}) {
    audit_reply reply = {};
    std::memset(reply.msg.data, 'x', sizeof(reply.msg.data));
    reply.type = type;
    reply.message = reply.msg.data;
    reply.len = 100;
    EXPECT_EQ(handle_audit_msg(&reply), -1);
    EXPECT_EQ(std::string(reply.message), std::string(100, 'x'));
    EXPECT_EQ(reply.msg.data[101], 'x');
  }
}

TEST_F(AuditMsg, TextMayFillTheStorage) {
  open(7);
  std::string text = header(7) + "argc=1 a0=\"";
  const std::size_t room = MAX_AUDIT_MESSAGE_LENGTH - text.size();
  text.resize(MAX_AUDIT_MESSAGE_LENGTH, 'x');
  EXPECT_EQ(feed_library(AUDIT_EXECVE, text), 0);
  EXPECT_EQ(end(7).arguments, std::vector<std::string>{std::string(room, 'x')});
}

TEST_F(AuditMsg, StatusReplyGivesOneLine) {
  // mask, enabled, failure, pid, rate_limit, backlog_limit, lost, backlog and newer ones
  const std::uint32_t status[] = {99,         1,          2,  300, 0x80000000, 102400,
                                  0xffffffff, 0xfffffffe, 98, 97,  96};
  static_assert(sizeof(status) == sizeof(audit_status));
  const std::string payload(reinterpret_cast<const char*>(status), sizeof(status));
  EXPECT_EQ(feed_library(AUDIT_GET, payload), 0);
  EXPECT_EQ(log(QEL_LOG_NOTICE),
            "audit_msg: AUDIT_STATUS: enabled=1 flag=2 pid=300 rate_limit=-2147483648 "
            "backlog_limit=102400 lost=-1 backlog=4294967294\n");
}

// Those of which the reference parser gets none.
TEST_F(AuditMsg, AddressOfAnAppletalkSocketOrAShortOneOfAnotherFamilyIsTaken) {
  for (const std::string& digits : {"0500" + std::string(28, '1'), "2800"s + "1111"}) {
    open(7);
    EXPECT_EQ(feed_library(AUDIT_SOCKADDR, header(7) + "saddr=" + digits), 0);
    EXPECT_EQ(end(7).ctx.sockaddr[2], 0x11);
  }
}

TEST(RuleType, ComesFromTheWholeKey) {
  audit_ctx ctx = {};
  EXPECT_EQ(get_audit_type(&ctx), -1) << "no key";
  for (std::string key : {"bind", "bind_rule ", "bind_rule"}) {
    ctx.key = key.data();
    EXPECT_EQ(get_audit_type(&ctx), key == "bind_rule" ? 0 : -1);
  }
  EXPECT_EQ(ctx.ruletype, 5);
}

}  // namespace
