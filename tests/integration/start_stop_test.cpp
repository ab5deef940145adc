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

#include "callbacks.h"
#include "captured_log.h"
#include "clock.h"
#include "databases.h"
#include "offline_kernel.h"

extern "C" int audit_fd;

// Of the leak sanitizer, where there is one.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace {

using offline::Call;

std::size_t open_descriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

// Whether memory has been lost so far.
bool has_leaks() {
  return __lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0;
}

void switch_kernel_on(offline::AckOrder order) {
  offline::switch_on();
  offline::set_auditing(true);
  offline::set_ack_order(order);
  offline::set_path_check([](const std::string&) { return true; });
  test::clear_log();
}

// The results of a start and of one registration in each class.
std::vector<int> start_and_register(test::Received& received) {
  return {qel_audit_init(),
          qel_login_reg_callback("eve", QEL_LOGIN_LOGIN, test::keep, &received),
          qel_user_reg_callback(nullptr, QEL_USER_ADDED | QEL_USER_PASSWORD, test::keep, &received),
          qel_syscall_reg_callback("openat", QEL_SYSCALL_ANY, test::keep, &received),
          qel_execve_reg_callback("cat", test::keep, &received),
          qel_bind_reg_callback(80, test::keep, &received)};
}

const std::vector<int> kAllSucceed = {0, 0, 0, 0, 0, 0};

class StartStop : public testing::TestWithParam<offline::AckOrder> {
 protected:
  StartStop() {
    test::reset_databases();
    test::databases.passwd = {{"root", 0, 0}, {"eve", 1000, 100}};
    test::databases.shadow = {{"root", "r"}, {"eve", "e"}};
    test::databases.group = {{"root", 0}};
    for (const char* path : {"/etc/passwd", "/etc/shadow", "/var/log/wtmp"}) {
      test::redirect(path, "/dev/null");
    }
    offline::set_clock(1'700'000'000);
    switch_kernel_on(GetParam());
  }
  ~StartStop() override {
    offline::switch_off();
    offline::release_clock();
    test::reset_databases();
  }

  std::vector<int> run() {
    const std::vector<int> results = start_and_register(received_);
    testing::internal::CaptureStdout();
    qel_audit_fini();
    printed_ = testing::internal::GetCapturedStdout();
    return results;
  }

  test::Received received_;
  std::string printed_;
};

TEST_P(StartStop, LoadsARuleForEachClassAndLeavesNothing) {
  const std::size_t descriptors = open_descriptors();
  EXPECT_EQ(start_and_register(received_), kAllSucceed);
  EXPECT_EQ(offline::rules().size(), 6U);
  EXPECT_EQ(test::log_text(QEL_LOG_ERROR), "");
  testing::internal::CaptureStdout();
  qel_audit_fini();
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 6);
  EXPECT_TRUE(offline::rules().empty());
  EXPECT_EQ(offline::receiver_pid(), 0U);
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_FALSE(has_leaks());
}

TEST_P(StartStop, LeavesNothingWhateverCallFails) {
  ASSERT_EQ(run(), kAllSucceed);
  const unsigned calls = offline::calls(Call::kCount);
  ASSERT_GT(calls, 25U);
  int stayed_receiver = 0;
  for (unsigned n = 1; n <= calls; ++n) {
    SCOPED_TRACE("call number " + std::to_string(n));
    switch_kernel_on(GetParam());
    const std::size_t descriptors = open_descriptors();
    offline::fail_call_number(n, -EPERM);
    const std::vector<int> results = run();
    EXPECT_GE(std::count(results.begin(), results.end(), 0), 5) << "one failure fails one call";
    const std::string errors = test::log_text(QEL_LOG_ERROR);
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
    EXPECT_EQ(test::log_text(QEL_LOG_ERROR), "");
  }
  EXPECT_LE(stayed_receiver, 1) << "only when giving the role up fails";
  EXPECT_EQ(received_.count(), 0U);
}

INSTANTIATE_TEST_SUITE_P(BothOrders, StartStop,
                         testing::Values(offline::AckOrder::kAckFirst,
                                         offline::AckOrder::kRecordFirst));

int stop_main_loop(const qel_execve_info* event, void* received) {
  qel_mainloop_stop();
  return test::keep(event, received);
}

// With the main loop that is linked, not one of the test's own.
TEST(MainLoop, DrivesTheLibraryAlsoAfterARestart) {
  switch_kernel_on(offline::AckOrder::kAckFirst);
  test::reset_databases();
  test::Received received;
  testing::internal::CaptureStdout();
  for (std::size_t run = 1; run <= 2; ++run) {
    ASSERT_EQ(qel_execve_reg_callback(nullptr, stop_main_loop, &received), 0);
    const std::string header = "audit(1700000000.000:7): ";
    offline::feed(AUDIT_SYSCALL,
                  header +
                      "arch=c000003e syscall=59 success=yes exit=0 a0=1 a1=2 a2=3 a3=4 "
                      "items=2 ppid=10 pid=11 auid=0 uid=0 gid=0 euid=0 comm=\"cat\" "
                      "exe=\"/bin/cat\" key=\"execve_rule\"");
    offline::feed(AUDIT_EXECVE, header + "argc=1 a0=\"cat\"");
    offline::feed(AUDIT_EOE, header);
    qel_mainloop_run();
    EXPECT_EQ(received.executions.size(), run);
    EXPECT_EQ(offline::waiting(), 0U);
    qel_audit_fini();
  }
  testing::internal::GetCapturedStdout();
  offline::switch_off();
}

}  // namespace
