// The audit kernel in memory: does it do what a kernel and libaudit do, where the difference
// decides what the code under test gets to see? Linked with offline_clock.
#include "offline_kernel.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "clock.h"

namespace {

using offline::AckOrder;
using offline::Call;
using offline::Rule;

constexpr int kExit = AUDIT_FILTER_EXIT;
constexpr int kExitFirst = AUDIT_FILTER_EXIT | AUDIT_FILTER_PREPEND;

Rule make_rule(std::string text,
               const std::vector<std::pair<std::uint32_t, std::uint32_t>>& fields) {
  Rule rule(static_cast<audit_rule_data*>(std::calloc(1, sizeof(audit_rule_data) + text.size())));
  for (const auto& [field, value] : fields) {
    rule->fields[rule->field_count] = field;
    rule->values[rule->field_count] = value;
    rule->fieldflags[rule->field_count++] = AUDIT_EQUAL;
  }
  rule->buflen = static_cast<std::uint32_t>(text.size());
  std::memcpy(rule->buf, text.data(), text.size());
  return rule;
}

Rule syscall_rule(unsigned number, const std::string& key) {
  Rule rule = make_rule(key, {{AUDIT_FILTERKEY, static_cast<std::uint32_t>(key.size())}});
  rule->mask[AUDIT_WORD(number)] = AUDIT_BIT(number);
  return rule;
}

// Built by libaudit, so its idea of a rule is tested as well.
Rule watch_rule(const std::string& path, int type = AUDIT_WATCH) {
  audit_rule_data* rule = static_cast<audit_rule_data*>(std::calloc(1, sizeof *rule));
  EXPECT_EQ(audit_add_watch_dir(type, &rule, path.c_str()), 0);
  EXPECT_EQ(audit_update_watch_perms(rule, AUDIT_PERM_WRITE | AUDIT_PERM_ATTR), 0);
  char pair[] = "key=passwd_rule";
  EXPECT_EQ(audit_rule_fieldpair_data(&rule, pair, kExit), 0);
  return Rule(rule);
}

std::string key_of(const audit_rule_data& rule) {
  return {rule.buf + rule.buflen - rule.values[rule.field_count - 1],
          rule.values[rule.field_count - 1]};
}

std::vector<std::string> listed_keys() {
  std::vector<std::string> keys;
  for (const Rule& rule : offline::rules()) keys.push_back(key_of(*rule));
  return keys;
}

class OfflineKernel : public testing::Test {
 protected:
  OfflineKernel() {
    offline::switch_on();
    fd_ = audit_open();
  }
  ~OfflineKernel() override { offline::switch_off(); }

  int read(int peek = 0) { return audit_get_reply(fd_, &reply_, GET_REPLY_NONBLOCKING, peek); }
  std::string text() const { return {reply_.message, static_cast<std::size_t>(reply_.len)}; }

  // Reads everything and returns the types.
  std::vector<int> drain() {
    std::vector<int> types;
    while (read() > 0) types.push_back(reply_.type);
    return types;
  }

  int add(const Rule& rule, int flags = kExitFirst) {
    return audit_add_rule_data(fd_, rule.get(), flags, AUDIT_ALWAYS);
  }
  int remove(const Rule& rule, int flags = kExit) {
    return audit_delete_rule_data(fd_, rule.get(), flags, AUDIT_ALWAYS);
  }

  static bool is_readable(int fd) {
    pollfd ready = {.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&ready, 1, 0) == 1 && ready.revents == POLLIN;
  }

  // As a receiver on a kernel that audits from the boot on.
  void become_receiver() {
    offline::set_auditing(true);
    ASSERT_EQ(audit_set_pid(fd_, static_cast<std::uint32_t>(getpid()), WAIT_NO), 1);
    drain();
  }

  int fd_;
  audit_reply reply_;
};

TEST_F(OfflineKernel, ForwardsToLibauditWhileSwitchedOff) {
  offline::set_loginuid(4711);
  offline::switch_off();
  std::uint32_t loginuid = AUDIT_UID_UNSET;
  std::ifstream("/proc/self/loginuid") >> loginuid;
  EXPECT_EQ(audit_getloginuid(), loginuid);
  EXPECT_EQ(audit_is_enabled(-1), 0);
  EXPECT_EQ(audit_set_enabled(-1, 1), -EBADF);
  EXPECT_EQ(audit_get_reply(-1, &reply_, GET_REPLY_NONBLOCKING, 0), -EBADF);
  EXPECT_EQ(offline::calls(Call::kCount), 0U);
}

TEST_F(OfflineKernel, TakesTheCallsOfSharedLibraries) {
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "audit_open"), reinterpret_cast<void*>(&audit_open));
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "audit_getloginuid"), reinterpret_cast<void*>(&audit_getloginuid));
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "poll"), reinterpret_cast<void*>(&poll));
}

TEST_F(OfflineKernel, IsReadableExactlyWhileMessagesWait) {
  EXPECT_FALSE(is_readable(fd_));
  offline::feed(1300, "audit(1.000:1): first");
  offline::feed(1300, "audit(1.000:1): second");
  ASSERT_GT(read(MSG_PEEK), 0);
  EXPECT_EQ(offline::waiting(), 2U);
  ASSERT_GT(read(), 0);
  EXPECT_EQ(text(), "audit(1.000:1): first");
  EXPECT_TRUE(is_readable(fd_));
  ASSERT_GT(read(), 0);
  EXPECT_EQ(text(), "audit(1.000:1): second");
  EXPECT_FALSE(is_readable(fd_));
  EXPECT_EQ(read(), -EAGAIN);
  EXPECT_EQ(audit_get_reply(fd_, &reply_, GET_REPLY_BLOCKING, 0), -EAGAIN);
}

TEST_F(OfflineKernel, KeepsMessagesUntilTheLastSocketIsClosed) {
  const int second = audit_open();
  ASSERT_NE(second, fd_);
  offline::feed(1300, "audit(1.000:1): text");
  audit_close(fd_);
  EXPECT_TRUE(is_readable(second));
  EXPECT_EQ(read(), -EBADF);
  audit_close(second);
  EXPECT_FALSE(offline::is_open());
  EXPECT_EQ(offline::waiting(), 0U);

  offline::feed(1400, "audit(1.000:1): before the socket");
  fd_ = audit_open();
  EXPECT_TRUE(is_readable(fd_));
  EXPECT_EQ(drain(), (std::vector<int>{1400}));
}

TEST_F(OfflineKernel, LeavesStaleBytesBehindARecord) {
  std::memset(static_cast<void*>(&reply_), 'X', sizeof reply_);
  const std::string end_of_event = "audit(1714557604.016:6): ";
  offline::feed(1320, end_of_event);
  EXPECT_EQ(read(), static_cast<int>(NLMSG_HDRLEN + end_of_event.size()));
  EXPECT_EQ(reply_.type, 1320);
  EXPECT_EQ(reply_.nlh, &reply_.msg.nlh);
  EXPECT_EQ(text(), end_of_event);
  EXPECT_EQ(reply_.message[reply_.len], 'X');
}

struct Shape {
  int type;
  std::size_t payload;
  int length;       // in the reply
  bool accessible;  // the reply points at the payload
};

class MessageShape : public OfflineKernel, public testing::WithParamInterface<Shape> {};

TEST_P(MessageShape, IsThatOfTheKernelAndLibaudit) {
  const Shape shape = GetParam();
  offline::feed(shape.type, std::string(shape.payload, 'p'), 7);
  ASSERT_GT(read(), 0);
  EXPECT_EQ(reply_.type, shape.type);
  EXPECT_EQ(reply_.len, shape.length);
  EXPECT_EQ(reply_.nlh->nlmsg_seq, 7U);
  EXPECT_EQ(reply_.message, shape.accessible ? reply_.msg.data : nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Types, MessageShape,
    testing::Values(Shape{NLMSG_ERROR, 20, 36, true}, Shape{NLMSG_DONE, 0, 16, false},
                    Shape{AUDIT_GET, 44, 60, true}, Shape{AUDIT_LOGIN, 100, 100, true},
                    Shape{AUDIT_LIST_RULES, 1051, 1067, true}, Shape{1100, 100, 100, true},
                    Shape{1200, 100, 100, false}, Shape{1300, 16, 16, true},
                    Shape{1300, MAX_AUDIT_MESSAGE_LENGTH, MAX_AUDIT_MESSAGE_LENGTH, true},
                    Shape{AUDIT_REPLACE, 4, 20, true}, Shape{1900, 100, 100, false},
                    Shape{AUDIT_KERNEL, 100, 100, true}, Shape{2100, 100, 100, true}),
    [](const testing::TestParamInfo<Shape>& tested) {
      return std::to_string(tested.param.type) + "_" + std::to_string(tested.param.payload);
    });

TEST_F(OfflineKernel, RefusesWhatLibauditCannotReceive) {
  EXPECT_THROW(offline::feed(1300, std::string(MAX_AUDIT_MESSAGE_LENGTH + 1, 'x')),
               std::length_error);
  offline::feed(1300, "shorter than 16");
  EXPECT_EQ(read(), -EBADE);
  EXPECT_EQ(offline::waiting(), 0U);
}

TEST_F(OfflineKernel, KeepsSettingsAndReportsThem) {
  const int first = audit_set_rate_limit(fd_, 5);
  EXPECT_GT(first, 0);
  EXPECT_EQ(audit_set_backlog_limit(fd_, 102400), first + 1);
  EXPECT_EQ(audit_set_enabled(fd_, 1), first + 2);
  EXPECT_EQ(audit_set_pid(fd_, static_cast<std::uint32_t>(getpid()), WAIT_YES), 1);
  EXPECT_EQ(offline::receiver_pid(), static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(audit_is_enabled(fd_), 1);
  EXPECT_EQ(drain(), std::vector<int>());

  const int request = audit_request_status(fd_);
  ASSERT_EQ(read(), 60);
  EXPECT_EQ(static_cast<int>(reply_.nlh->nlmsg_seq), request);
  EXPECT_EQ(reply_.status->enabled, 1U);
  EXPECT_EQ(reply_.status->pid, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(reply_.status->rate_limit, 5U);
  EXPECT_EQ(reply_.status->backlog_limit, 102400U);
  EXPECT_EQ(audit_set_enabled(fd_, 3), -EINVAL);
  EXPECT_EQ(offline::enabled(), 1U);
}

TEST_F(OfflineKernel, ListsTheNewestPrependedRuleFirst) {
  EXPECT_GT(add(syscall_rule(59, "first")), 0);
  EXPECT_GT(add(syscall_rule(59, "second")), 0);
  EXPECT_GT(add(syscall_rule(59, "appended"), kExit), 0);
  EXPECT_GT(add(syscall_rule(59, "excluded"), AUDIT_FILTER_EXCLUDE), 0);
  EXPECT_GT(add(syscall_rule(59, "task"), AUDIT_FILTER_TASK), 0);
  EXPECT_GT(add(syscall_rule(59, "third")), 0);
  EXPECT_EQ(listed_keys(),
            (std::vector<std::string>{"task", "third", "second", "first", "appended", "excluded"}));
  EXPECT_EQ(offline::rules()[1]->flags, static_cast<std::uint32_t>(kExit));

  const int request = audit_request_rules_list_data(fd_);
  for (const Rule& rule : offline::rules()) {
    ASSERT_GT(read(), 0);
    ASSERT_EQ(reply_.type, AUDIT_LIST_RULES);
    EXPECT_EQ(static_cast<int>(reply_.nlh->nlmsg_seq), request);
    EXPECT_EQ(key_of(*reply_.ruledata), key_of(*rule));
  }
  ASSERT_GT(read(), 0);
  EXPECT_EQ(reply_.type, NLMSG_DONE);
  EXPECT_EQ(static_cast<int>(reply_.nlh->nlmsg_seq), request);
  EXPECT_EQ(offline::waiting(), 0U);
}

TEST_F(OfflineKernel, FindsARuleOnlyWithTheListedFlags) {
  const Rule rule = syscall_rule(49, "bind_rule");
  EXPECT_GT(add(rule, kExitFirst), 0);
  EXPECT_GT(add(rule, kExitFirst), 0) << "never a duplicate";
  EXPECT_EQ(add(rule, kExit), -EEXIST);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(remove(rule, kExitFirst), -ENOENT);
  EXPECT_EQ(offline::rules().size(), 2U);
  EXPECT_GT(remove(rule, kExit), 0);
  EXPECT_GT(remove(rule, kExit), 0);
  EXPECT_EQ(remove(rule, kExit), -ENOENT);
}

TEST_F(OfflineKernel, TellsRulesApart) {
  EXPECT_GT(add(syscall_rule(49, "key")), 0);
  EXPECT_EQ(remove(syscall_rule(49, "kez")), -ENOENT);
  EXPECT_EQ(remove(syscall_rule(50, "key")), -ENOENT);
  Rule other_operator = syscall_rule(49, "key");
  other_operator->fieldflags[0] = AUDIT_NOT_EQUAL;
  EXPECT_EQ(remove(other_operator), -ENOENT);
  EXPECT_EQ(audit_delete_rule_data(fd_, syscall_rule(49, "key").get(), kExit, AUDIT_NEVER),
            -ENOENT);
  EXPECT_GT(remove(syscall_rule(49, "key")), 0);
}

TEST_F(OfflineKernel, ListsAnAllRuleWithoutTheBitsOfSyscallClasses) {
  Rule rule = syscall_rule(0, "all");
  std::memset(rule->mask, 0xff, sizeof rule->mask);
  EXPECT_GT(add(rule), 0);
  EXPECT_EQ(offline::rules()[0]->mask[62], 0xffffffffU);
  EXPECT_EQ(offline::rules()[0]->mask[63], 0x0000ffffU);
  EXPECT_EQ(offline::requests()[0].rule->mask[63], 0xffffffffU);
  EXPECT_GT(remove(rule), 0);
}

TEST_F(OfflineKernel, RecordsEveryRequestAsItCame) {
  add(syscall_rule(59, "execve_rule"));
  remove(syscall_rule(59, "unknown"));
  ASSERT_EQ(offline::requests().size(), 2U);
  EXPECT_TRUE(offline::requests()[0].add);
  EXPECT_EQ(offline::requests()[0].flags, static_cast<std::uint32_t>(kExitFirst));
  EXPECT_EQ(offline::requests()[0].action, static_cast<std::uint32_t>(AUDIT_ALWAYS));
  EXPECT_FALSE(offline::requests()[1].add);
  EXPECT_EQ(key_of(*offline::requests()[1].rule), "unknown");
}

TEST_F(OfflineKernel, ListsPreloadedRulesInTheirOrder) {
  for (const char* key : {"theirs", "theirs too"}) {
    const Rule rule = syscall_rule(1, key);
    rule->flags = kExit;
    offline::preload_rule(*rule);
  }
  EXPECT_GT(add(syscall_rule(59, "ours")), 0);
  EXPECT_EQ(listed_keys(), (std::vector<std::string>{"ours", "theirs", "theirs too"}));
}

TEST_F(OfflineKernel, AcceptsAWatchOnlyInAnExistingDirectory) {
  EXPECT_GT(add(watch_rule("/etc/no-such-file")), 0);
  EXPECT_EQ(add(watch_rule("/no-such-directory/file")), -ENOENT);
  EXPECT_GT(add(watch_rule("/no-such-file")), 0);
  EXPECT_EQ(add(watch_rule("/no-such-directory", AUDIT_DIR)), -ENOENT);
  std::string asked;
  offline::set_path_check([&](const std::string& path) {
    asked = path;
    return true;
  });
  EXPECT_GT(add(watch_rule("/no-such-directory/sub/file")), 0);
  EXPECT_EQ(asked, "/no-such-directory/sub");
  EXPECT_EQ(offline::rules().size(), 3U);
}

TEST_F(OfflineKernel, RefusesMalformedRules) {
  EXPECT_EQ(add(syscall_rule(59, "key"), AUDIT_FILTER_ENTRY), -EINVAL);
  EXPECT_EQ(audit_add_rule_data(fd_, syscall_rule(59, "key").get(), kExit, AUDIT_POSSIBLE),
            -EINVAL);
  EXPECT_EQ(add(syscall_rule(59, std::string(AUDIT_MAX_KEY_LEN + 1, 'k'))), -EINVAL);
  EXPECT_EQ(add(make_rule("short", {{AUDIT_FILTERKEY, 6}})), -EINVAL);
  EXPECT_EQ(add(make_rule("relative", {{AUDIT_WATCH, 8}})), -EINVAL);
  EXPECT_EQ(add(make_rule("/etc/", {{AUDIT_WATCH, 5}})), -EINVAL);
  EXPECT_EQ(add(make_rule("/etc", {{AUDIT_WATCH, 4}}), AUDIT_FILTER_EXCLUDE), -EINVAL);
  EXPECT_EQ(add(make_rule(std::string(MAX_AUDIT_MESSAGE_LENGTH, 'x'), {})), -EINVAL);
  EXPECT_TRUE(offline::rules().empty());
}

TEST_F(OfflineKernel, TellsTheReceiverOfEveryChange) {
  become_receiver();
  EXPECT_GT(add(watch_rule("/etc/passwd")), 0);
  ASSERT_GT(read(), 0);
  EXPECT_EQ(reply_.type, AUDIT_CONFIG_CHANGE);
  EXPECT_TRUE(text().ends_with(" op=add_rule key=\"passwd_rule\" list=4 res=1")) << text();
  EXPECT_EQ(remove(syscall_rule(59, "two words")), -ENOENT);
  ASSERT_GT(read(), 0);
  EXPECT_TRUE(text().ends_with(" op=remove_rule key=74776F20776F726473 list=4 res=0")) << text();
  EXPECT_GT(audit_set_backlog_limit(fd_, 102400), 0);
  ASSERT_GT(read(), 0);
  EXPECT_TRUE(text().starts_with("audit(")) << text();
  EXPECT_NE(text().find(":4000000004): op=set audit_backlog_limit=102400 old=64 auid="),
            std::string::npos)
      << text();
  offline::set_config_records(false);
  EXPECT_GT(audit_set_rate_limit(fd_, 0), 0);
  EXPECT_EQ(offline::waiting(), 0U);
}

TEST_F(OfflineKernel, ReturnsTheOutcomeWhenTheAcknowledgementComesFirst) {
  become_receiver();
  EXPECT_EQ(remove(syscall_rule(59, "unknown")), -ENOENT);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(drain(), (std::vector<int>{AUDIT_CONFIG_CHANGE}));
}

TEST_F(OfflineKernel, SaysSuccessWhenItsRecordComesFirst) {
  become_receiver();
  offline::set_ack_order(AckOrder::kRecordFirst);
  EXPECT_GT(remove(syscall_rule(59, "unknown")), 0);
  ASSERT_GT(read(), 0);
  EXPECT_EQ(reply_.type, AUDIT_CONFIG_CHANGE);
  ASSERT_EQ(read(), 36 + 1040 + 8) << "the acknowledgement of a failure carries the request";
  ASSERT_EQ(reply_.type, NLMSG_ERROR);
  EXPECT_EQ(reply_.error->error, -ENOENT);
  EXPECT_EQ(reply_.error->msg.nlmsg_type, AUDIT_DEL_RULE);
  EXPECT_EQ(offline::waiting(), 0U);
}

TEST_F(OfflineKernel, SaysSuccessWhileARecordIsUnread) {
  offline::feed(1300, "audit(1.000:1): unread");
  const int request = add(watch_rule("/no-such-directory/file"));
  EXPECT_GT(request, 0);
  ASSERT_GT(read(), 0);
  ASSERT_GT(read(), 0);
  ASSERT_EQ(reply_.type, NLMSG_ERROR);
  EXPECT_EQ(reply_.error->error, -ENOENT);
  EXPECT_EQ(static_cast<int>(reply_.nlh->nlmsg_seq), request);
}

TEST_F(OfflineKernel, TakesALeftOverAcknowledgementForItsOwn) {
  offline::feed(1300, "audit(1.000:1): unread");
  EXPECT_GT(remove(syscall_rule(59, "unknown")), 0);
  ASSERT_GT(read(), 0);
  EXPECT_EQ(audit_set_rate_limit(fd_, 7), -ENOENT);
  EXPECT_EQ(offline::rate_limit(), 7U);
  EXPECT_EQ(drain(), (std::vector<int>{NLMSG_ERROR}));
}

TEST_F(OfflineKernel, DoesNotLearnTheStateFromALeftOverAcknowledgement) {
  offline::set_locked(true);
  offline::set_ack_order(AckOrder::kRecordFirst);
  EXPECT_EQ(audit_set_pid(fd_, static_cast<std::uint32_t>(getpid()), WAIT_YES), 1);
  EXPECT_EQ(audit_is_enabled(fd_), -1);
  EXPECT_EQ(audit_is_enabled(fd_), 2) << "reads the reply that the first left";
}

TEST_F(OfflineKernel, SkipsRecordsToLearnTheState) {
  become_receiver();
  offline::feed(1300, "audit(1.000:1): lost");
  offline::feed(AUDIT_GET, std::string(44, '\1'));
  EXPECT_EQ(audit_is_enabled(fd_), 0x01010101);
}

TEST_F(OfflineKernel, RefusesChangesWhileLocked) {
  EXPECT_GT(add(syscall_rule(59, "execve_rule")), 0);
  offline::set_locked(true);
  EXPECT_EQ(audit_is_enabled(fd_), 2);
  EXPECT_EQ(audit_set_enabled(fd_, 1), -EPERM);
  EXPECT_EQ(audit_set_rate_limit(fd_, 9), -EPERM);
  EXPECT_EQ(audit_set_backlog_limit(fd_, 9), -EPERM);
  EXPECT_EQ(add(syscall_rule(49, "bind_rule")), -EPERM);
  EXPECT_EQ(remove(syscall_rule(59, "execve_rule")), -EPERM);
  EXPECT_EQ(audit_set_pid(fd_, static_cast<std::uint32_t>(getpid()), WAIT_YES), 1);
  EXPECT_EQ(offline::rate_limit(), 0U);
  EXPECT_GT(audit_request_rules_list_data(fd_), 0);
  EXPECT_EQ(drain(), (std::vector<int>{AUDIT_LIST_RULES, NLMSG_DONE}));
}

TEST_F(OfflineKernel, HasOneReceiver) {
  const auto pid = static_cast<std::uint32_t>(getpid());
  EXPECT_EQ(audit_set_pid(fd_, pid + 1, WAIT_NO), -EINVAL);
  offline::set_other_receiver(true);
  EXPECT_EQ(audit_set_pid(fd_, pid, WAIT_YES), -EEXIST);
  EXPECT_EQ(offline::receiver_pid(), 0U);
  offline::set_other_receiver(false);
  EXPECT_EQ(audit_set_pid(fd_, pid, WAIT_YES), 1);

  audit_close(fd_);
  EXPECT_EQ(offline::receiver_pid(), pid) << "nobody gave up the role";
  fd_ = audit_open();
  EXPECT_EQ(audit_set_pid(fd_, pid, WAIT_YES), 1);
  EXPECT_EQ(audit_set_pid(fd_, 0, WAIT_NO), 1);
  EXPECT_EQ(offline::receiver_pid(), 0U);
  EXPECT_EQ(drain(), (std::vector<int>{AUDIT_REPLACE, NLMSG_ERROR}));
}

TEST_F(OfflineKernel, AcknowledgesButDoesNotAnswerWhileSilent) {
  offline::set_silent(true);
  EXPECT_GT(audit_request_status(fd_), 0);
  EXPECT_GT(audit_request_rules_list_data(fd_), 0);
  EXPECT_EQ(audit_is_enabled(fd_), -1);
  EXPECT_EQ(offline::waiting(), 0U);
}

TEST_F(OfflineKernel, FailsTheCallsThatAreToFail) {
  offline::fail(Call::kGetReply, -ENOBUFS, 2);
  offline::feed(1300, "audit(1.000:1): text");
  EXPECT_EQ(read(), -ENOBUFS);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_GT(audit_set_rate_limit(fd_, 0), 0) << "only calls of the kind fail";
  EXPECT_EQ(read(), -ENOBUFS);
  EXPECT_GT(read(), 0);

  offline::fail(Call::kAddRule, 0);
  EXPECT_EQ(add(syscall_rule(59, "execve_rule")), 0);
  EXPECT_TRUE(offline::rules().empty());
  EXPECT_EQ(offline::requests().size(), 1U);

  offline::fail(Call::kOpen, -EMFILE);
  errno = 0;
  EXPECT_EQ(audit_open(), -1);
  EXPECT_EQ(errno, EMFILE);
}

TEST_F(OfflineKernel, FailsTheNthCallOfAnyKind) {
  offline::fail_call_number(3, -EIO);
  EXPECT_GT(audit_set_rate_limit(fd_, 0), 0);
  EXPECT_EQ(read(), -EAGAIN);
  EXPECT_EQ(audit_request_status(fd_), -EIO);
  EXPECT_GT(audit_request_status(fd_), 0);
  EXPECT_EQ(offline::calls(Call::kRequestStatus), 2U);
  EXPECT_EQ(offline::calls(Call::kCount), 5U) << "with the one that opened the socket";
}

TEST_F(OfflineKernel, RefusesDescriptorsThatAreNotItsOwn) {
  EXPECT_EQ(audit_set_enabled(STDIN_FILENO, 1), -EBADF);
  EXPECT_EQ(audit_add_rule_data(-1, syscall_rule(1, "key").get(), kExit, AUDIT_ALWAYS), -EBADF);
  EXPECT_EQ(audit_is_enabled(-1), 0);
  EXPECT_EQ(audit_is_enabled(STDIN_FILENO), -1);
  EXPECT_TRUE(offline::requests().empty());
  EXPECT_EQ(offline::enabled(), 0U);
}

TEST_F(OfflineKernel, ForgetsEverythingWhenSwitchedOnAgain) {
  EXPECT_GT(add(syscall_rule(59, "execve_rule")), 0);
  offline::feed(1300, "audit(1.000:1): text");
  offline::fail(Call::kOpen, -1);
  const int old = fd_;
  offline::switch_on();
  EXPECT_FALSE(offline::is_open());
  EXPECT_EQ(fcntl(old, F_GETFD), -1) << "the descriptor is closed";
  fd_ = audit_open();
  EXPECT_GE(fd_, 0);
  EXPECT_FALSE(is_readable(fd_));
  EXPECT_TRUE(offline::rules().empty());
}

// ---- Clock ------------------------------------------------------------------------------------

class OfflineClock : public OfflineKernel {
 protected:
  ~OfflineClock() override { offline::release_clock(); }

  static std::time_t seconds(clockid_t id) {
    timespec now = {};
    EXPECT_EQ(clock_gettime(id, &now), 0);
    return now.tv_sec;
  }
  int wait(int timeout_ms) {
    pollfd ready = {.fd = fd_, .events = POLLIN, .revents = 0};
    return poll(&ready, 1, timeout_ms);
  }
};

TEST_F(OfflineClock, StandsStillUntilItIsMoved) {
  using std::chrono::steady_clock;
  offline::set_clock(1714557604);
  const auto start = steady_clock::now();
  EXPECT_EQ(std::time(nullptr), 1714557604);
  EXPECT_EQ(seconds(CLOCK_REALTIME), 1714557604);
  offline::advance_clock(std::chrono::milliseconds(3999));
  EXPECT_EQ(std::time(nullptr), 1714557607);
  EXPECT_EQ(steady_clock::now() - start, std::chrono::milliseconds(3999));
  offline::release_clock();
  EXPECT_GT(std::time(nullptr), 1714557607 + 3600);
  EXPECT_GT(seconds(CLOCK_MONOTONIC), 0);
}

TEST_F(OfflineClock, MovesInsteadOfWaiting) {
  offline::set_clock(1000);
  EXPECT_EQ(wait(0), 0);
  EXPECT_EQ(std::time(nullptr), 1000);
  EXPECT_EQ(wait(3'600'000), 0);
  EXPECT_EQ(std::time(nullptr), 4600);
  offline::feed(1300, "audit(1.000:1): text");
  EXPECT_EQ(wait(3'600'000), 1);
  EXPECT_EQ(std::time(nullptr), 4600);
  EXPECT_EQ(offline::poll_calls(), 3U);
}

TEST_F(OfflineClock, WaitsForRealWhenReleased) {
  const std::time_t before = std::time(nullptr);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(wait(30), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
  EXPECT_LT(std::time(nullptr) - before, 30);
}

TEST_F(OfflineClock, FailsPollsThatAreToFail) {
  offline::feed(1300, "audit(1.000:1): text");
  offline::fail_poll(EINTR, 2);
  EXPECT_EQ(wait(0), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(wait(0), -1);
  EXPECT_EQ(wait(0), 1);
}

}  // namespace
