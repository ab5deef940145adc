// What a record and an event may cost, in things that can be counted: calls to the heap by anything
// in the process, searches of hash tables, and the calls behind which there is a system call. Times
// belong in benchmarks.

// The fortified headers define poll themselves.
#undef _FORTIFY_SOURCE

#include <client.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <kernel_socket.h>
#include <libaudit.h>
#include <made_records.h>
#include <poll.h>
#include <qel_audit.h>
#include <qel_base.h>
#include <stand_ins.h>
#include <streams.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

struct Counts {
  std::uint64_t heap, searches, polls, reads, stats;
};
static Counts counts;

template <typename Function>
static Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

extern "C" {
int poll(pollfd* descriptors, nfds_t count, int timeout_ms) {
  ++counts.polls;
  return next(poll, "poll")(descriptors, count, timeout_ms);
}
int audit_get_reply(int fd, audit_reply* reply, reply_t block, int peek) {
  ++counts.reads;
  return next(audit_get_reply, "audit_get_reply")(fd, reply, block, peek);
}
int xhash_search(xhash_t* table, const void* key, std::size_t key_length, void** value) {
  ++counts.searches;
  return next(xhash_search, "xhash_search")(table, key, key_length, value);
}
}

namespace {

using offline::header;

template <typename Work>
Counts cost_of(Work work) {
  counts = {};
  const Counts before = {bench::allocations(), 0, 0, 0, bench::stats()};
  work();
  counts.heap = bench::allocations() - before.heap;
  counts.stats = bench::stats() - before.stats;
  return counts;
}

using Records = std::vector<bench::Record>;

Counts cost_of(const Records& records) {
  const bench::Stream stream = {records, 0};
  return cost_of([&] { bench::deliver(stream, 0, records.size()); });
}

struct Costs : testing::Test {
  Costs() {
    bench::start_client();
    error_output_set_level(QEL_LOG_FATAL);
    cost_of(bench::make_mixed_stream(50).records);  // tables and caches take their room
  }
  ~Costs() override { qel_audit_fini(); }
};

std::string syscall_text(unsigned serial, const std::string& key) {
  return header(serial) + offline::syscall_record({.key = key, .comm = "true"}).body;
}

const std::string kPath = "item=0 name=\"/usr/bin/true\" inode=1 nametype=NORMAL";

// Each group makes one event, takes the command name and the key, one text for every argument, and
// an array when its list is the longest so far.
TEST_F(Costs, HeapIsCalledOnceForEachTextThatIsKept) {
  constexpr std::uint64_t kTexts = 2;
  for (const bench::Stream& stream :
       {bench::make_bind_stream(300), bench::make_openat_stream(300),
        bench::make_execve_stream(1000), bench::make_many_arguments_stream(12)}) {
    std::uint64_t longest = 0;
    Records group;
    for (const bench::Record& record : stream.records) {
      group.push_back(record);
      if (record.type != AUDIT_EOE) continue;
      const std::uint64_t events = bench::delivered_events(), old = bench::delivered_arguments();
      const std::uint64_t calls = cost_of(group).heap;
      const std::uint64_t arguments = bench::delivered_arguments() - old;
      EXPECT_GT(calls, 0U) << "not counted";
      EXPECT_LE(calls, kTexts + arguments + (arguments > longest)) << group[1].text;
      EXPECT_EQ(bench::delivered_events(), events + 1);
      longest = std::max(longest, arguments);
      group.clear();
    }
  }
}

TEST_F(Costs, RecordsThatAreNotKeptCallNoHeap) {
  const Records records = {{AUDIT_SYSCALL, syscall_text(4, "of another program")},
                           {AUDIT_SYSCALL, header(4) + "arch=c000003e syscall=59"},
                           {AUDIT_EXECVE, header(4) + "argc=2 a0=\"true\" a1=\"x\""},
                           {AUDIT_USER_LOGIN, header(4) + "pid=1 uid=0 msg='op=login res=success'"},
                           {AUDIT_EOE, header(4)}};
  for (const bench::Record& record : records)
    EXPECT_EQ(cost_of(Records{record}).heap, 0U) << record.text;
}

TEST_F(Costs, RecordsOfAGroupThatComeInARowAreFoundWithoutASearch) {
  cost_of({{AUDIT_SYSCALL, syscall_text(1, "bind_rule")}});
  EXPECT_EQ(cost_of({{AUDIT_SYSCALL, syscall_text(2, "execve_rule")}}).searches, 1U);
  const Records row = {{AUDIT_EXECVE, header(2) + "argc=1 a0=\"true\""},
                       {AUDIT_PATH, header(2) + kPath}};
  EXPECT_EQ(cost_of(row).searches, 0U);
  EXPECT_EQ(cost_of({{AUDIT_EOE, header(2)}}).searches, 1U) << "for the user's name";
  EXPECT_EQ(cost_of({{AUDIT_EOE, header(1)}}).searches, 2U);
}

TEST_F(Costs, RecordIsPolledForAndReceivedAndEventLooksAtPasswdOnce) {
  const bench::Stream stream = bench::make_mixed_stream(100);
  const std::size_t records = bench::end_of_batch(stream, 0);
  for (std::size_t i = 0; i < records; ++i) ASSERT_TRUE(bench::send_record(stream.records[i]));
  const std::uint64_t events = bench::delivered_events();
  const Counts busy = cost_of([&] {
    for (std::size_t i = 0; i < records; ++i) EXPECT_EQ(bench::run_poller(), 1);
  });
  EXPECT_EQ(busy.polls, records);
  EXPECT_EQ(busy.reads, records);
  EXPECT_GT(busy.stats, 10U);
  EXPECT_EQ(busy.stats, bench::delivered_events() - events);
  const Counts idle = cost_of([] { EXPECT_EQ(bench::run_poller(), 0); });
  EXPECT_EQ(idle.polls, 1U);
  EXPECT_EQ(idle.reads + idle.stats + idle.heap, 0U);
}

}  // namespace
