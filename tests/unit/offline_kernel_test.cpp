// The audit kernel in memory: does it do what a kernel and libaudit do, where the difference
// decides what the code under test gets to see? The library's tests show the rest.
#include "offline_kernel.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using offline::Rule;
using Results = std::vector<int>;

constexpr int kExit = AUDIT_FILTER_EXIT;
constexpr int kExitFirst = AUDIT_FILTER_EXIT | AUDIT_FILTER_PREPEND;

Rule make_rule(const std::string& key, std::uint32_t field = AUDIT_FILTERKEY) {
  Rule rule(static_cast<audit_rule_data*>(std::calloc(1, sizeof(audit_rule_data) + key.size())));
  std::fill_n(rule->mask, AUDIT_BITMASK_SIZE, 0xffffffff);
  rule->field_count = 1;
  rule->fields[0] = field;
  rule->fieldflags[0] = AUDIT_EQUAL;
  rule->values[0] = rule->buflen = static_cast<std::uint32_t>(key.size());
  key.copy(rule->buf, key.size());
  return rule;
}

struct OfflineKernel : testing::Test {
  OfflineKernel() {
    offline::switch_on();
    fd_ = audit_open();
  }
  ~OfflineKernel() override { offline::switch_off(); }

  // The type of the message, or the negative result.
  int read(int peek = 0) {
    const int result = audit_get_reply(fd_, &reply_, GET_REPLY_NONBLOCKING, peek);
    return result > 0 ? reply_.type : result;
  }

  void drain() {
    while (read() > 0) continue;
  }

  // 1 for any sequence number.
  int add(const Rule& rule, int flags = kExitFirst) {
    return std::min(audit_add_rule_data(fd_, rule.get(), flags, AUDIT_ALWAYS), 1);
  }
  int remove(const Rule& rule, int flags = kExit, int action = AUDIT_ALWAYS) {
    return std::min(audit_delete_rule_data(fd_, rule.get(), flags, action), 1);
  }

  int readable() const {  // 1 or 0
    pollfd ready = {fd_, POLLIN, 0};
    return poll(&ready, 1, 0);
  }

  int fd_;
  audit_reply reply_;
};

TEST_F(OfflineKernel, IsReadableExactlyWhileMessagesWait) {
  const int second = audit_open();
  offline::feed(1300, "audit(1.000:1): first");
  offline::feed(1301, "audit(1.000:1): second");
  EXPECT_EQ((Results{read(MSG_PEEK), read()}), (Results{1300, 1300}));
  audit_close(fd_);
  EXPECT_EQ(read(), -EBADF);
  fd_ = second;
  EXPECT_EQ((Results{readable(), read(), read(), readable()}), (Results{1, 1301, -EAGAIN, 0}));
  audit_close(fd_);
  offline::feed(1400, "audit(1.000:1): before the socket");
  fd_ = audit_open();
  EXPECT_EQ(readable(), 1);
}

TEST_F(OfflineKernel, HandsMessagesOverInTheShapeOfLibaudit) {
  const struct {
    int type;
    std::size_t payload;
    int length;       // in the reply
    bool accessible;  // the reply points at the payload
  } shapes[] = {{NLMSG_ERROR, 20, 36, true},
                {NLMSG_DONE, 0, 16, false},
                {AUDIT_LIST_RULES, 1051, 1067, true},
                {1200, 100, 100, false},
                {1900, 100, 100, false},
                {1300, 16, 16, true},
                {1300, MAX_AUDIT_MESSAGE_LENGTH, 8970, true}};
  for (const auto& [type, payload, length, accessible] : shapes) {
    SCOPED_TRACE(testing::Message() << type << " of " << payload);
    offline::feed(type, std::string(payload, 'p'), 7);
    ASSERT_EQ(read(), type);
    EXPECT_EQ(reply_.len, length);
    EXPECT_EQ(reply_.nlh->nlmsg_seq, 7U);
    EXPECT_EQ(reply_.message, accessible ? reply_.msg.data : nullptr);
  }
  offline::feed(1320, "audit(1.000:1): ");
  ASSERT_EQ(read(), 1320);
  EXPECT_EQ(std::string(reply_.message, 17), "audit(1.000:1): p") << "stale bytes stay";
  EXPECT_THROW(offline::feed(1300, std::string(MAX_AUDIT_MESSAGE_LENGTH + 1, 'x')),
               std::length_error);
  offline::feed(1300, "shorter than 16");
  EXPECT_EQ(read(), -EBADE);
  EXPECT_EQ(offline::waiting(), 0U);
}

TEST_F(OfflineKernel, ListsTheNewestPrependedRuleOfEachListFirst) {
  Rule preloaded = make_rule("theirs");
  preloaded->flags = kExit;
  offline::preload_rule(*preloaded);
  add(make_rule("first"));
  add(make_rule("second"));
  add(make_rule("appended"), kExit);
  add(make_rule("excluded"), AUDIT_FILTER_EXCLUDE);
  audit_request_rules_list_data(fd_);
  std::string keys;
  while (read() == AUDIT_LIST_RULES) {
    const audit_rule_data& rule = *reply_.ruledata;
    keys += std::string(rule.buf, rule.buflen) + (rule.mask[63] == 0xffff ? " " : " (all) ");
    EXPECT_EQ(rule.flags & AUDIT_FILTER_PREPEND, 0U);
  }
  EXPECT_EQ(keys, "second first theirs (all) appended excluded ");
  EXPECT_EQ(reply_.type, NLMSG_DONE);
}

TEST_F(OfflineKernel, RefusesWhatAKernelRefuses) {
  const Rule rule = make_rule("rule"), watch = make_rule("/no-such-directory/file", AUDIT_WATCH);
  EXPECT_EQ((Results{add(rule), add(rule), add(rule, kExit), add(watch)}),
            (Results{1, 1, -EEXIST, -ENOENT}));
  EXPECT_EQ((Results{remove(rule, kExitFirst), remove(make_rule("rulf")),
                     remove(rule, kExit, AUDIT_NEVER), remove(rule), remove(rule), remove(rule)}),
            (Results{-ENOENT, -ENOENT, -ENOENT, 1, 1, -ENOENT}));
  EXPECT_EQ(offline::requests().size(), 10U);
  offline::set_path_check([](const std::string& path) { return path == "/no-such-directory"; });
  EXPECT_EQ(add(watch), 1);
  offline::set_locked(true);
  EXPECT_EQ((Results{remove(watch), audit_set_rate_limit(fd_, 9), audit_is_enabled(fd_)}),
            (Results{-EPERM, -EPERM, 2}));
}

TEST_F(OfflineKernel, SaysSuccessWhenAnotherMessageComesBeforeTheAcknowledgement) {
  // As a receiver on a kernel that audits from the boot on.
  const Rule unknown = make_rule("unknown");
  offline::set_auditing(true);
  ASSERT_EQ(audit_set_pid(fd_, static_cast<std::uint32_t>(getpid()), WAIT_NO), 1);
  drain();
  EXPECT_EQ(remove(unknown), -ENOENT) << "its acknowledgement comes first";
  EXPECT_EQ((Results{read(), read()}), (Results{AUDIT_CONFIG_CHANGE, -EAGAIN}));
  offline::set_ack_order(offline::AckOrder::kRecordFirst);
  EXPECT_EQ((Results{remove(unknown), read()}), (Results{1, AUDIT_CONFIG_CHANGE}));
  offline::set_config_records(false);
  EXPECT_EQ(audit_set_rate_limit(fd_, 7), -ENOENT) << "takes what is left over for its own";
  EXPECT_EQ(offline::rate_limit(), 7U);
  EXPECT_EQ(audit_is_enabled(fd_), -1) << "and learns nothing from the next";
  drain();

  offline::feed(1300, "audit(1.000:1): unread");
  EXPECT_EQ((Results{remove(unknown), read(), read()}), (Results{1, 1300, NLMSG_ERROR}));
  EXPECT_EQ(reply_.error->error, -ENOENT);
  EXPECT_EQ(reply_.error->msg.nlmsg_type, AUDIT_DEL_RULE);
}

}  // namespace
