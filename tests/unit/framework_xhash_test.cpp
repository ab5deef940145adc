// Hash tables, with every kind of key that makes a difference.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>

#include <array>
#include <bit>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <random>

#include "qel_base.h"

// Null without the address sanitizer.
extern "C" __attribute__((weak)) void __asan_init();

namespace {

using Number = uint32_t;
using Values = std::map<Number, Number*>;
using Visits = std::multimap<Number, Number*>;

enum Then { kGoOn, kEnd, kDelete };

std::mt19937 engine;
Number below(Number end) {
  return static_cast<Number>(engine() % end);
}

// Values are numbers, each its own key; those that the release function has not yet freed:
size_t live;

void free_value(void* value) {
  delete static_cast<Number*>(value);
  --live;
}

Number number_at(const void* key) {
  return *static_cast<const Number*>(key);
}

// A table of numbers, with a cookie for partial walks.
struct Table {
  explicit Table(bool opaque, Number count = 0, float share = 0)
      : opaque_keys(opaque), cookie(xhash_cookie_create(share)) {
    // Opaque keys point at numbers. Few hashes make long chains.
    const auto hash = [](const void* key, size_t) { return number_at(key) % 8; };
    const auto compare = [](const void* key1, size_t, const void* key2, size_t) {
      return number_at(key1) == number_at(key2) ? 0 : 1;
    };
    handle = opaque ? xhash_create2(free_value, hash, compare, 1) : xhash_create(free_value, 0);
    for (Number n = 0; n < count; ++n) insert(n);
  }
  ~Table() {
    xhash_destroy(handle);
    xhash_cookie_destroy(cookie);
    EXPECT_EQ(live, 0U);
  }

  // An opaque key lies in the value, so it is replaced together with it; byte keys come in a buffer
  // that is used again, and are parts of each other. The same value once more must stay.
  void insert(Number n) {
    auto* value = new Number(n);
    ++live;
    for (int i = 0; i < 2; ++i)
      xhash_insert(handle, opaque_keys ? value : key(n), length(n), value);
  }
  bool remove(Number n) { return xhash_delete(handle, key(n), length(n)) == 0; }
  Number* find(Number n) {
    void* value = nullptr;
    const bool found = xhash_search(handle, key(n), length(n), &value) == 0;
    EXPECT_EQ(found, value != nullptr);
    return static_cast<Number*>(value);
  }
  const void* key(Number n) { return &(buffer = n); }
  static size_t length(Number n) { return static_cast<size_t>(std::bit_width(n) + 7) / 8; }

  Visits walk(bool partial = true) {
    visits.clear();
    partial ? xhash_walk_partial(handle, cookie, this, visit) : xhash_walk(handle, this, visit);
    return visits;
  }
  static int visit(const void* key, size_t key_length, void* value, void* self) {
    auto& table = *static_cast<Table*>(self);
    const Number number = number_at(value);
    EXPECT_EQ(table.find(number), value);
    table.visits.emplace(number, static_cast<Number*>(value));
    const Then then = table.then(number);
    if (then == kDelete) xhash_delete(table.handle, key, key_length);
    return then == kEnd ? 1 : 0;
  }

  bool opaque_keys;
  xhash_t* handle;
  xhash_cookie_t* cookie;
  Number buffer = 0;
  Visits visits = {};
  std::function<Then(Number)> then = [](Number) { return kGoOn; };
};

struct Xhash : testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(, Xhash, testing::Bool());

TEST_P(Xhash, BehavesLikeAMap) {
  Table table(GetParam());
  Values model;
  for (int step = 0; step < 20000; ++step) {
    const Number n = below(300), other = below(300), choice = below(1000);
    if (choice == 0) {
      xhash_clear(table.handle);
      model.clear();
      ASSERT_EQ(table.walk(), Visits());
    } else if (choice < 300) {
      ASSERT_EQ(table.remove(n), model.erase(n) == 1);
    } else {  // replaces most of the time: the old value must be released
      table.insert(n);
      model[n] = table.find(n);
    }
    ASSERT_EQ(table.find(other), model.contains(other) ? model[other] : nullptr);
    ASSERT_EQ(xhash_count(table.handle), model.size());
    ASSERT_EQ(live, model.size());
    if (choice != 999) continue;
    ASSERT_EQ(table.walk(false), Visits(model.begin(), model.end()));
  }
}

TEST_P(Xhash, VisitsMayDeleteTheVisitedEntry) {
  for (const bool partial : {false, true}) {
    for (const Number kept_each : {2U, 3U, 1000U}) {
      Table table(GetParam(), 400);
      table.walk(partial);  // leaves the cookie in the middle of a round of the larger table
      for (Number n = 250; n < 400; ++n) table.remove(n);
      const Visits all = table.walk(false);
      table.then = [&](Number n) { return n % kept_each != 0 ? kDelete : kGoOn; };
      EXPECT_EQ(table.walk(partial), all);
      EXPECT_EQ(xhash_count(table.handle), (250 + kept_each - 1) / kept_each);
      EXPECT_EQ(table.find(1), nullptr);
    }
  }
}

// Entries come and go in the visits and between the walks; those that stay must all be visited.
TEST_P(Xhash, PartialWalksReachEveryEntryOfAChangingTable) {
  constexpr Number kStaying = 600;
  Table table(GetParam(), 2 * kStaying, 0.2F);
  Number next = 2 * kStaying;
  const auto remove_another = [&] { table.remove(kStaying + below(next - kStaying)); };
  table.then = [&](Number n) {
    if (below(4) == 0) table.insert(next++);
    if (n >= kStaying && below(2) == 0) return kDelete;
    if (below(9) == 0) remove_another();
    return kGoOn;
  };
  for (int trial = 0; trial < 10; ++trial) {
    Values reached;
    for (int call = 0; call < 2 * 5 + 1; ++call) {  // the round in progress and a whole one
      reached.merge(table.walk());
      for (Number n = below(100); n > 0; --n) remove_another();
    }
    EXPECT_EQ(std::distance(reached.begin(), reached.lower_bound(kStaying)), kStaying);
    table.walk();
  }
}

TEST_P(Xhash, LeavesNoMemoryBehind) {
  const size_t in_use = mallinfo2().uordblks;  // 0 in a sanitizer's heap, which knows itself
  for (int i = 0; i < 300; ++i) Table(GetParam(), 10).remove(7);
  EXPECT_LT(mallinfo2().uordblks, in_use + 5000);
}

TEST(XhashWalk, PartialWalksCoverTheirShareAndGoRound) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const struct {
    float share;
    Number count, visited;  // by each call
  } cases[] = {{0.05F, 256, 256}, {0.05F, 257, 256}, {0.5F, 1001, 501},
               {7, 3000, 3000},   {-1, 3000, 256},   {nan, 3000, 256}};
  for (const auto& [share, count, visited] : cases) {
    Table table(true, count, share);
    Values reached;
    for (Number seen = 0; seen < 2 * count; seen += visited) {
      EXPECT_EQ(table.walk().size(), visited) << "share " << share << " of " << count;
      if (seen < count) reached.merge(table.visits);
    }
    EXPECT_EQ(reached.size(), count) << "share " << share;
  }
}

TEST(XhashWalk, NonzeroVisitEndsTheWalkAndTheNextGoesOnBehindIt) {
  Table table(true, 100);
  table.then = [&](Number) { return table.visits.size() == 30 ? kEnd : kGoOn; };
  Values total;
  for (const size_t visited : {30U, 60U, 90U}) {
    total.merge(table.walk());
    EXPECT_EQ(total.size(), visited) << "an entry was visited again";
  }
  EXPECT_EQ(table.walk(false).size(), 30U);
  table.then = [](Number) { return kGoOn; };
  EXPECT_EQ(table.walk(), table.walk(false));
}

TEST(XhashDeathTest, ExhaustedMemoryEndsTheProcess) {
  if (__asan_init != nullptr) GTEST_SKIP() << "the sanitizer needs the memory";
  const auto use_up = [](size_t key_length) {
    const struct rlimit limit = {128 << 20, 128 << 20};
    setrlimit(RLIMIT_AS, &limit);
    xhash_t* table = xhash_create(nullptr, 0);
    for (std::array<uint64_t, 250> key = {};; ++key[0])
      xhash_insert(table, key.data(), key_length, nullptr);
  };
  for (const size_t key_length : {8U, 2000U})  // for the table's room and for the keys'
    EXPECT_EXIT(use_up(key_length), testing::ExitedWithCode(0),
                testing::ContainsRegex(" fatal xhash:[0-9]+: Out of memory\n$"));
}

}  // namespace
