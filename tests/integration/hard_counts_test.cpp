// What a record and an event may cost, in things that can be counted: calls to the heap by anything
// in the process, and system calls as the kernel sees them. Times belong in benchmarks.
#include <audit_msg.h>
#include <client.h>
#include <gtest/gtest.h>
#include <kernel_socket.h>
#include <libaudit.h>
#include <qel_audit.h>
#include <qel_base.h>
#include <stand_ins.h>
#include <streams.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace {

// ---- Heap --------------------------------------------------------------------------------------

class HeapCalls : public testing::Test {
 protected:
  void SetUp() override {
    bench::start_client();
    error_output_set_level(QEL_LOG_FATAL);
    const bench::Stream first = bench::make_mixed_stream(50);  // tables and caches take their room
    bench::deliver(first, 0, first.records.size());
  }
  void TearDown() override { qel_audit_fini(); }
};

// Heap calls while one record is handled.
std::uint64_t cost_of(const bench::Record& record) {
  const bench::Stream stream = {{record}, 0};
  const std::uint64_t before = bench::allocations();
  bench::deliver(stream, 0, 1);
  return bench::allocations() - before;
}

struct Group {
  std::uint64_t heap_calls = 0;
  std::size_t arguments = 0;
  std::string text;
};

// Hands over a stream of whole groups; each must have made one event.
std::vector<Group> deliver_groups(const bench::Stream& stream) {
  std::vector<Group> groups;
  Group group;
  for (const bench::Record& record : stream.records) {
    const std::uint64_t events = bench::delivered_events();
    group.heap_calls += cost_of(record);
    group.text.append(record.text, 0, 150).append("\n");
    const std::size_t argc = record.text.find("): argc=");
    if (argc != record.text.npos) group.arguments = std::stoul(record.text.substr(argc + 8));
    if (record.type != AUDIT_EOE) continue;
    EXPECT_EQ(bench::delivered_events(), events + 1) << group.text;
    EXPECT_GT(group.heap_calls, 0U) << "not counted: " << group.text;
    groups.push_back(group);
    group = {};
  }
  return groups;
}

// The command name and the key. Context and argument array are those of earlier groups.
constexpr std::uint64_t kTexts = 2;

TEST_F(HeapCalls, BindAndSystemCallTakeTheTexts) {
  for (const Group& group : deliver_groups(bench::make_bind_stream(300)))
    EXPECT_LE(group.heap_calls, kTexts) << group.text;
  for (const Group& group : deliver_groups(bench::make_openat_stream(300)))
    EXPECT_LE(group.heap_calls, kTexts) << group.text;
}

// Returns the groups, each of which may also take an array when its list is the longest so far.
std::vector<Group> expect_one_call_per_argument(const bench::Stream& stream) {
  std::vector<Group> groups = deliver_groups(stream);
  std::size_t longest = 0;
  for (const Group& group : groups) {
    EXPECT_GE(group.arguments, 1U);
    const std::uint64_t array = group.arguments > longest ? 1 : 0;
    longest = std::max(longest, group.arguments);
    EXPECT_LE(group.heap_calls, kTexts + array + group.arguments) << group.text.substr(0, 1000);
  }
  return groups;
}

TEST_F(HeapCalls, ExecutionTakesOneMorePerArgument) {
  const std::vector<Group> groups = expect_one_call_per_argument(bench::make_execve_stream(1000));
  const bool has_split = std::any_of(groups.begin(), groups.end(), [](const Group& group) {
    return group.text.find("_len=") != group.text.npos;
  });
  EXPECT_TRUE(has_split);
  expect_one_call_per_argument(bench::make_many_arguments_stream(12));
}

TEST_F(HeapCalls, RecordsThatAreNotKeptTakeNone) {
  const std::string header = "audit(1714557604.532:4000000): ";
  const std::string fields =
      "arch=c000003e syscall=59 success=yes exit=0 a0=1 a1=2 a2=3 a3=4 items=0 ppid=1 pid=2 "
      "auid=4294967295 uid=0 gid=0 euid=0 comm=\"true\" exe=\"/usr/bin/true\" subj=unconfined key=";
  const std::string path = "item=0 name=\"/usr/bin/true\" inode=1 nametype=NORMAL";
  const std::vector<bench::Record> without_group = {
      {AUDIT_SYSCALL, header + fields + "(null)"},
      {AUDIT_SYSCALL, header + fields + "\"of another program\""},
      {AUDIT_SYSCALL, header + "arch=c000003e syscall=59"},
      {AUDIT_EXECVE, header + "argc=2 a0=\"true\" a1=\"x\""},
      {AUDIT_SOCKADDR, header + "saddr=02001F90000000000000000000000000"},
      {AUDIT_PATH, header + path},
      {AUDIT_CONFIG_CHANGE, header + "op=set audit_enabled=1 old=1 res=1"},
      {AUDIT_USER_LOGIN, header + "pid=1 uid=0 msg='op=login res=success'"},
      {AUDIT_EOE, header},
  };
  for (const bench::Record& record : without_group) EXPECT_EQ(cost_of(record), 0U) << record.text;

  // Of a group with arguments, these add nothing.
  bench::deliver({{{AUDIT_SYSCALL, header + fields + "\"execve_rule\""},
                   {AUDIT_EXECVE, header + "argc=1 a0=\"true\""}},
                  1},
                 0, 2);
  const std::vector<bench::Record> in_group = {
      {AUDIT_CWD, header + "cwd=\"/root\""},
      {AUDIT_PATH, header + path},
      {AUDIT_PROCTITLE, header + "proctitle=\"true\""},
      {AUDIT_EOE, header},
  };
  const std::uint64_t events = bench::delivered_events();
  for (const bench::Record& record : in_group) EXPECT_EQ(cost_of(record), 0U) << record.text;
  EXPECT_EQ(bench::delivered_events(), events + 1);
}

// ---- System calls ------------------------------------------------------------------------------

using Calls = std::map<long, std::size_t>;  // how often, by number

constexpr int kNotTraceable = 77;

// Ends one section of a traced process and starts the next.
void mark() {
  syscall(SYS_getppid);
}

// System calls of a child process that runs `work`, by the sections that its marks separate. Empty
// when processes cannot be traced here.
template <typename Work>
std::vector<Calls> trace(Work work) {
  const pid_t child = fork();
  if (child == 0) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(kNotTraceable);
    raise(SIGSTOP);
    work();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status)) return {};
  ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  std::vector<Calls> sections(1);
  while (ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) == 0 &&
         waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
    __ptrace_syscall_info info = {};
    ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof(info), &info);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) continue;
    const auto number = static_cast<long>(info.entry.nr);
    if (number == SYS_getppid) {
      sections.emplace_back();
    } else {
      ++sections.back()[number];
    }
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  return sections;
}

std::size_t send_batch(const bench::Stream& stream) {
  const std::size_t count = bench::end_of_batch(stream, 0);
  for (std::size_t i = 0; i < count; ++i) {
    if (!bench::send_record(stream.records[i])) std::abort();
  }
  return count;
}

void read_batch(std::size_t count) {
  for (; count > 0; --count) {
    if (bench::run_poller() != 1) std::abort();
  }
}

TEST(SystemCalls, RecordIsPolledForAndReceivedAndEventLooksAtPasswdOnce) {
  constexpr std::size_t kIdleRounds = 100;
  const bench::Stream stream = bench::make_mixed_stream(100);
  const std::vector<Calls> sections = trace([&stream] {
    bench::start_client();
    read_batch(send_batch(stream));  // the first events fill the cache of user names
    const std::size_t count = send_batch(stream);
    mark();
    read_batch(count);
    mark();
    for (std::size_t i = 0; i < kIdleRounds; ++i) {
      if (bench::run_poller() != 0) std::abort();
    }
    mark();
  });
  if (sections.empty()) GTEST_SKIP() << "processes cannot be traced here";
  ASSERT_EQ(sections.size(), 4U);

  const std::size_t records = bench::end_of_batch(stream, 0);
  const auto events = static_cast<std::size_t>(std::count_if(
      stream.records.begin(), stream.records.begin() + static_cast<std::ptrdiff_t>(records),
      [](const bench::Record& record) { return record.type == AUDIT_EOE; }));
  EXPECT_EQ(sections[1],
            (Calls{{SYS_poll, records}, {SYS_recvfrom, records}, {SYS_newfstatat, events}}));
  EXPECT_EQ(sections[2], (Calls{{SYS_poll, kIdleRounds}}));
}

}  // namespace
