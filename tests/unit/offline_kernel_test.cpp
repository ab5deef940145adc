// The audit kernel in memory: does it do what a kernel and libaudit do, where the difference
// decides what the code under test gets to see? The library's tests show the rest.
#include "offline_kernel.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using offline::AckOrder;
using offline::Rule;
using Types = std::vector<int>;

constexpr int kExit = AUDIT_FILTER_EXIT;
constexpr int kExitFirst = AUDIT_FILTER_EXIT | AUDIT_FILTER_PREPEND;

Rule make_rule(const std::string& key) {
  Rule rule(static_cast<audit_rule_data*>(std::calloc(1, sizeof(audit_rule_data) + key.size())));
  std::memset(rule->mask, 0xff, sizeof rule->mask);
  rule->field_count = 1;
  rule->fields[0] = AUDIT_FILTERKEY;
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

  int read(int peek = 0) { return audit_get_reply(fd_, &reply_, GET_REPLY_NONBLOCKING, peek); }
  std::string text() const { return {reply_.message, static_cast<std::size_t>(reply_.len)}; }

  // Reads everything and returns the types.
  Types drain() {
    Types types;
    while (read() > 0) types.push_back(reply_.type);
    return types;
  }

  int add(const Rule& rule, int flags = kExitFirst) {
    return audit_add_rule_data(fd_, rule.get(), flags, AUDIT_ALWAYS);
  }
  int remove(const Rule& rule, int flags = kExit) {
    return audit_delete_rule_data(fd_, rule.get(), flags, AUDIT_ALWAYS);
  }

  bool is_readable() const {
    pollfd ready = {.fd = fd_, .events = POLLIN, .revents = 0};
    return poll(&ready, 1, 0) == 1;
  }

  int fd_;
  audit_reply reply_;
};

TEST_F(OfflineKernel, IsReadableExactlyWhileMessagesWait) {
  EXPECT_FALSE(is_readable());
  const int second = audit_open();
  offline::feed(1300, "audit(1.000:1): first");
  offline::feed(1300, "audit(1.000:1): second");
  ASSERT_GT(read(MSG_PEEK), 0);
  EXPECT_EQ(offline::waiting(), 2U);
  ASSERT_GT(read(), 0);
  EXPECT_EQ(text(), "audit(1.000:1): first");
  audit_close(fd_);
  EXPECT_EQ(read(), -EBADF);
  fd_ = second;
  EXPECT_TRUE(is_readable());
  EXPECT_EQ(drain(), (Types{1300}));
  EXPECT_FALSE(is_readable());
  EXPECT_EQ(read(), -EAGAIN);
  audit_close(fd_);
  offline::feed(1400, "audit(1.000:1): before the socket");
  fd_ = audit_open();
  EXPECT_TRUE(is_readable());
}

TEST_F(OfflineKernel, HandsMessagesOverInTheShapeOfLibaudit) {
  const struct {
    int type;
    std::size_t payload;
    int length;       // in the reply
    bool accessible;  // the reply points at the payload
  } shapes[] = {{NLMSG_ERROR, 20, 36, true}, {NLMSG_DONE, 0, 16, false},
                {AUDIT_GET, 44, 60, true},   {AUDIT_LIST_RULES, 1051, 1067, true},
                {AUDIT_LOGIN, 99, 99, true}, {1200, 100, 100, false},
                {1300, 16, 16, true},        {1300, MAX_AUDIT_MESSAGE_LENGTH, 8970, true},
                {1900, 100, 100, false},     {AUDIT_REPLACE, 4, 20, true}};
  for (const auto& [type, payload, length, accessible] : shapes) {
    SCOPED_TRACE(testing::Message() << type << " of " << payload);
    offline::feed(type, std::string(payload, 'p'), 7);
    ASSERT_GT(read(), 0);
    EXPECT_EQ(reply_.type, type);
    EXPECT_EQ(reply_.len, length);
    EXPECT_EQ(reply_.nlh->nlmsg_seq, 7U);
    EXPECT_EQ(reply_.message, accessible ? reply_.msg.data : nullptr);
  }
  offline::feed(1320, "audit(1.000:1): ");
  ASSERT_GT(read(), 0);
  EXPECT_EQ(text() + reply_.message[reply_.len], "audit(1.000:1): p") << "stale bytes stay";
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
  EXPECT_GT(add(make_rule("first")), 0);
  EXPECT_GT(add(make_rule("second")), 0);
  EXPECT_GT(add(make_rule("appended"), kExit), 0);
  EXPECT_GT(add(make_rule("excluded"), AUDIT_FILTER_EXCLUDE), 0);
  EXPECT_GT(add(make_rule("task"), AUDIT_FILTER_TASK), 0);
  const std::uint32_t request = static_cast<std::uint32_t>(audit_request_rules_list_data(fd_));
  for (const char* key : {"task", "second", "first", "theirs", "appended", "excluded"}) {
    ASSERT_GT(read(), 0);
    ASSERT_EQ(reply_.type, AUDIT_LIST_RULES);
    EXPECT_EQ(reply_.nlh->nlmsg_seq, request);
    EXPECT_EQ(std::string(reply_.ruledata->buf, reply_.ruledata->buflen), key);
    EXPECT_EQ(reply_.ruledata->flags & AUDIT_FILTER_PREPEND, 0U);
    EXPECT_EQ(reply_.ruledata->mask[63], key == std::string_view("theirs") ? ~0U : 0xffffU);
  }
  EXPECT_EQ(drain(), (Types{NLMSG_DONE}));
}

TEST_F(OfflineKernel, FindsARuleOnlyWithTheListedFlags) {
  const Rule rule = make_rule("rule");
  EXPECT_GT(add(rule, kExitFirst), 0);
  EXPECT_GT(add(rule, kExitFirst), 0) << "never a duplicate";
  EXPECT_EQ(add(rule, kExit), -EEXIST);
  EXPECT_EQ(remove(rule, kExitFirst), -ENOENT);
  EXPECT_EQ(remove(make_rule("rulf")), -ENOENT);
  EXPECT_EQ(audit_delete_rule_data(fd_, rule.get(), kExit, AUDIT_NEVER), -ENOENT);
  EXPECT_EQ(offline::rules().size(), 2U);
  EXPECT_GT(remove(rule, kExit), 0);
  EXPECT_GT(remove(rule, kExit), 0);
  EXPECT_EQ(remove(rule, kExit), -ENOENT);
  EXPECT_EQ(offline::requests().size(), 9U);
}

TEST_F(OfflineKernel, RefusesWatchesInNoDirectoryAndChangesWhileLocked) {
  Rule watch = make_rule("/no-such-directory/file");
  watch->fields[0] = AUDIT_WATCH;
  EXPECT_EQ(add(watch), -ENOENT);
  offline::set_path_check([](const std::string& path) { return path == "/no-such-directory"; });
  EXPECT_GT(add(watch), 0);
  offline::set_locked(true);
  EXPECT_EQ(remove(watch), -EPERM);
  EXPECT_EQ(audit_set_rate_limit(fd_, 9), -EPERM);
  EXPECT_EQ(audit_is_enabled(fd_), 2);
}

TEST_F(OfflineKernel, SaysSuccessWhenAnotherMessageComesBeforeTheAcknowledgement) {
  // As a receiver on a kernel that audits from the boot on.
  offline::set_auditing(true);
  ASSERT_EQ(audit_set_pid(fd_, static_cast<std::uint32_t>(getpid()), WAIT_NO), 1);
  drain();
  EXPECT_EQ(remove(make_rule("unknown")), -ENOENT) << "its acknowledgement comes first";
  EXPECT_EQ(drain(), (Types{AUDIT_CONFIG_CHANGE}));
  offline::set_ack_order(AckOrder::kRecordFirst);
  EXPECT_GT(remove(make_rule("unknown")), 0);
  ASSERT_GT(read(), 0);
  EXPECT_EQ(reply_.type, AUDIT_CONFIG_CHANGE);
  EXPECT_EQ(offline::waiting(), 1U);
  offline::set_config_records(false);
  EXPECT_EQ(audit_set_rate_limit(fd_, 7), -ENOENT) << "takes what is left over for its own";
  EXPECT_EQ(offline::rate_limit(), 7U);
  EXPECT_EQ(audit_is_enabled(fd_), -1) << "and learns nothing from the next";
  drain();

  offline::feed(1300, "audit(1.000:1): unread");
  const int request = remove(make_rule("unknown"));
  EXPECT_GT(request, 0);
  ASSERT_GT(read(), 0);
  ASSERT_GT(read(), 1040) << "the acknowledgement of a failure carries the request";
  EXPECT_EQ(reply_.error->error, -ENOENT);
  EXPECT_EQ(reply_.error->msg.nlmsg_type, AUDIT_DEL_RULE);
  EXPECT_EQ(static_cast<int>(reply_.nlh->nlmsg_seq), request);

  offline::feed(1300, "audit(1.000:1): thrown away");
  EXPECT_EQ(audit_is_enabled(fd_), -1) << "its own acknowledgement is in the way";
  drain();
  offline::set_silent(true);
  EXPECT_GT(audit_request_status(fd_), 0);
  EXPECT_EQ(offline::waiting(), 0U);
}

}  // namespace
