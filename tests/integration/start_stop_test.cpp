// Start, registrations and stop through the shared library, with every call of libaudit failing
// once: nothing may stay behind, and the library has to start again.
#include <gtest/gtest.h>
#include <libaudit.h>
#include <qel_audit.h>
#include <qel_base.h>
#include <qel_frame.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "offline_test.h"

extern "C" int audit_fd;

// Of the leak sanitizer, where there is one.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace {

using offline::Call;

std::ptrdiff_t open_descriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return std::distance(begin(descriptors), end(descriptors));
}

// Whether memory has been lost so far.
bool has_leaks() {
  return __lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0;
}

const std::vector<int> kAllSucceed = {0, 0, 0, 0, 0, 0};

class StartStop : public test::OfflineTest, public testing::WithParamInterface<offline::AckOrder> {
 protected:
  StartStop() {
    test::databases.passwd = {{"root", 0, 0}, {"eve", 1000, 100}};
    test::databases.shadow = {{"root", "r"}, {"eve", "e"}};
    test::databases.group = {{"root", 0}};
    reset_kernel();
  }

  static void reset_kernel() {
    test::OfflineTest::reset_kernel();
    offline::set_config_records(true);
    offline::set_auditing(true);
    offline::set_ack_order(GetParam());
  }

  // The results of a start and of one registration in each class; stops again.
  std::vector<int> run() {
    std::vector<int> results;
    printed_ = test::printed_by([this, &results] {
      results = {
          qel_audit_init(),
          qel_login_reg_callback("eve", QEL_LOGIN_LOGIN, test::keep, &received_),
          qel_user_reg_callback("", QEL_USER_ADDED | QEL_USER_PASSWORD, test::keep, &received_),
          qel_syscall_reg_callback("openat", QEL_SYSCALL_ANY, test::keep, &received_),
          qel_execve_reg_callback("cat", test::keep, &received_),
          qel_bind_reg_callback(80, test::keep, &received_)};
      qel_audit_fini();
    });
    return results;
  }

  test::Received received_;
  std::string printed_;
};

TEST_P(StartStop, LeavesNothingWhateverCallFails) {
  ASSERT_EQ(run(), kAllSucceed);
  EXPECT_EQ(std::count(printed_.begin(), printed_.end(), '\n'), 6)
      << "one rule of each class and two of the accounts' are deleted";
  const unsigned calls = offline::calls(Call::kCount);
  ASSERT_GT(calls, 25U);
  int stayed_receiver = 0;
  for (unsigned n = 1; n <= calls; ++n) {
    SCOPED_TRACE("call number " + std::to_string(n));
    reset_kernel();
    const std::ptrdiff_t descriptors = open_descriptors();
    offline::fail_call_number(n, -EPERM);
    const std::vector<int> results = run();
    EXPECT_GE(std::count(results.begin(), results.end(), 0), 5) << "one failure fails one call";
    const std::string errors = test::errors();
    const bool purge_failed =
        errors.find("deleting rule failed: Operation not permitted") != std::string::npos ||
        errors.find("audit_request_rules_list_data failed") != std::string::npos;
    EXPECT_TRUE(offline::rules().empty() || purge_failed) << errors;
    EXPECT_EQ(audit_fd, -1);
    EXPECT_FALSE(offline::is_open());
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_FALSE(has_leaks());
    if (offline::receiver_pid() != 0) ++stayed_receiver;

    test::clear_log();
    EXPECT_EQ(run(), kAllSucceed) << "a second start works";
    EXPECT_TRUE(offline::rules().empty());
    EXPECT_EQ(offline::receiver_pid(), 0U);
    EXPECT_EQ(test::errors(), "");
  }
  EXPECT_LE(stayed_receiver, 1) << "only when giving the role up fails";
  EXPECT_EQ(received_.count(), 0U);
}

INSTANTIATE_TEST_SUITE_P(BothOrders, StartStop,
                         testing::Values(offline::AckOrder::kAckFirst,
                                         offline::AckOrder::kRecordFirst));

// With the main loop that is linked, not one of the test's own.
class MainLoop : public test::OfflineTest {};

TEST_F(MainLoop, DrivesTheLibraryAlsoAfterARestart) {
  test::Received received;
  const auto stop_main_loop = [](const qel_execve_info* event, void* into) {
    qel_mainloop_stop();
    return test::keep(event, into);
  };
  for (std::size_t run = 1; run <= 2; ++run) {
    ASSERT_EQ(qel_execve_reg_callback(nullptr, stop_main_loop, &received), 0);
    test::feed_execution();
    qel_mainloop_run();
    EXPECT_EQ(received.executions.size(), run);
    EXPECT_EQ(offline::waiting(), 0U);
    test::printed_by(qel_audit_fini);
  }
}

}  // namespace
