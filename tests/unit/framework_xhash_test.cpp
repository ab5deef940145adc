// Hash tables, each test with every kind of key that makes a difference.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "qel_base.h"

#if defined(__SANITIZE_ADDRESS__)
#define UNDER_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define UNDER_ADDRESS_SANITIZER 1
#endif
#endif

namespace {

using Number = uint32_t;

enum class Keys { kPlain, kMultiplesOf4096, kEqualHashes, kBytes };

// A value knows its key; `live` counts what the release function has not yet freed.
struct Value {
  explicit Value(Number n) : number(n) { ++live; }
  ~Value() { --live; }
  Number number;
  static inline int live = 0;
};

void free_value(void* value) {
  delete static_cast<Value*>(value);
}

uint32_t hash_itself(const void* key, size_t) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(key));
}
uint32_t hash_to_7(const void*, size_t) {
  return 7;
}
int compare_words(const void* key1, size_t, const void* key2, size_t) {
  return key1 == key2 ? 0 : 1;
}

// A table from numbers to values.
class Table {
 public:
  explicit Table(Keys keys) : keys_(keys) {
    handle = keys == Keys::kBytes
                 ? xhash_create(free_value, 0)
                 : xhash_create2(free_value, keys == Keys::kEqualHashes ? hash_to_7 : hash_itself,
                                 compare_words, 1);
  }
  ~Table() { xhash_destroy(handle); }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  void insert(Number n) { xhash_insert(handle, key(n), length(), new Value(n)); }
  bool remove(Number n) { return xhash_delete(handle, key(n), length()) == 0; }
  Value* find(Number n) {
    void* value = nullptr;
    return xhash_search(handle, key(n), length(), &value) == 0 ? static_cast<Value*>(value)
                                                               : nullptr;
  }
  void fill(Number count) {
    for (Number n = 0; n < count; ++n) insert(n);
  }

  xhash_t* handle;

 private:
  // Byte keys come in a buffer that is used again and holds zero bytes.
  const void* key(Number n) {
    if (keys_ == Keys::kBytes) {
      buffer_ = n;
      return &buffer_;
    }
    return reinterpret_cast<const void*>(uintptr_t{n} *
                                         (keys_ == Keys::kMultiplesOf4096 ? 4096 : 1));
  }
  size_t length() const { return keys_ == Keys::kBytes ? sizeof(buffer_) : 0; }

  Keys keys_;
  Number buffer_ = 0;
};

// Walks and keeps how often each number was visited.
struct Walker {
  Table& table;
  std::map<Number, int> visits = {};
  // Asked at each visit; nonzero ends the walk.
  std::function<int(Number)> then = [](Number) { return 0; };

  static int visit(const void* key, size_t key_length, void* value, void* self) {
    auto& walker = *static_cast<Walker*>(self);
    void* found = nullptr;
    EXPECT_EQ(xhash_search(walker.table.handle, key, key_length, &found), 0);
    EXPECT_EQ(found, value);
    const Number number = static_cast<Value*>(value)->number;
    ++walker.visits[number];
    walker.key = key;
    walker.key_length = key_length;
    return walker.then(number);
  }
  // With the key that the walk has given.
  void delete_visited() { EXPECT_EQ(xhash_delete(table.handle, key, key_length), 0); }
  void walk() { xhash_walk(table.handle, this, visit); }
  void walk(xhash_cookie_t* cookie) { xhash_walk_partial(table.handle, cookie, this, visit); }

  const void* key = nullptr;
  size_t key_length = 0;
};

struct Cookie {
  explicit Cookie(float share) : handle(xhash_cookie_create(share)) {}
  ~Cookie() { xhash_cookie_destroy(handle); }
  Cookie(const Cookie&) = delete;
  Cookie& operator=(const Cookie&) = delete;
  xhash_cookie_t* handle;
};

std::map<Number, int> each_once(Number first, Number end) {
  std::map<Number, int> expected;
  for (Number n = first; n < end; ++n) expected[n] = 1;
  return expected;
}

class Xhash : public testing::TestWithParam<Keys> {
 protected:
  Xhash() { std::cout << "repeat with --gtest_random_seed=" << seed << "\n"; }
  ~Xhash() override { EXPECT_EQ(Value::live, 0); }

  bool one_in(int n) { return std::uniform_int_distribution<int>(1, n)(random) == 1; }
  Number below(Number end) { return std::uniform_int_distribution<Number>(0, end - 1)(random); }

  const int seed = GTEST_FLAG_GET(random_seed) != 0
                       ? GTEST_FLAG_GET(random_seed)
                       : static_cast<int>(std::random_device()() % 99999) + 1;
  std::mt19937 random{static_cast<uint32_t>(seed)};
};

std::string name_of(const testing::TestParamInfo<Keys>& keys) {
  constexpr std::array kNames = {"Plain", "MultiplesOf4096", "EqualHashes", "Bytes"};
  return kNames[static_cast<size_t>(keys.param)];
}

INSTANTIATE_TEST_SUITE_P(Keys, Xhash,
                         testing::Values(Keys::kPlain, Keys::kMultiplesOf4096, Keys::kEqualHashes,
                                         Keys::kBytes),
                         name_of);

TEST_P(Xhash, BehavesLikeAMap) {
  Table table(GetParam());
  std::unordered_map<Number, Value*> model;
  for (int step = 0; step < 30000; ++step) {
    const Number n = below(300);
    if (one_in(2)) {  // replaces half of the time: the old value must be released
      table.insert(n);
      model[n] = table.find(n);
    } else if (one_in(2)) {
      ASSERT_EQ(table.remove(n), model.erase(n) == 1);
    } else if (one_in(5000)) {
      xhash_clear(table.handle);
      model.clear();
    }
    const Number other = below(300);
    ASSERT_EQ(table.find(other), model.contains(other) ? model[other] : nullptr);
    ASSERT_EQ(xhash_count(table.handle), model.size());
    ASSERT_EQ(static_cast<size_t>(Value::live), model.size());
    if (!one_in(1000)) continue;
    Walker walker{table};
    walker.walk();
    ASSERT_EQ(walker.visits.size(), model.size());
    for (const auto& [number, visits] : walker.visits) {
      ASSERT_TRUE(model.contains(number) && visits == 1) << number;
    }
  }
}

TEST_P(Xhash, VisitsMayDeleteTheVisitedEntry) {
  for (const bool partial : {false, true}) {
    for (const int share_kept : {1, 3, 1000}) {
      Table table(GetParam());
      table.fill(256);
      Cookie cookie(0.05F);
      Walker walker{table};
      walker.then = [&](Number n) {
        if (n % static_cast<Number>(share_kept) != 0 || share_kept == 1) walker.delete_visited();
        return 0;
      };
      partial ? walker.walk(cookie.handle) : walker.walk();
      EXPECT_EQ(walker.visits, each_once(0, 256));
      for (Number n = 0; n < 256; ++n) {
        const bool kept = share_kept != 1 && n % static_cast<Number>(share_kept) == 0;
        EXPECT_EQ(table.find(n) != nullptr, kept) << n;
      }
    }
  }
}

TEST_P(Xhash, WalksSurviveWhateverTheirVisitsDo) {
  for (const bool partial : {false, true}) {
    Table table(GetParam());
    table.fill(600);
    Cookie cookie(0.5F);
    Walker walker{table};
    walker.then = [&](Number n) {
      for (int i = 0; i < 3; ++i) table.remove(below(600));
      if (one_in(3)) table.insert(600 + n);
      if (walker.visits.size() == 100) xhash_clear(table.handle);
      return 0;
    };
    partial ? walker.walk(cookie.handle) : walker.walk();
    EXPECT_GE(walker.visits.size(), 100U);
    EXPECT_LE(xhash_count(table.handle), 1U);
  }
}

// Entries come and go in the visits and between the walks; those that stay must all be visited.
TEST_P(Xhash, PartialWalksReachEveryEntryOfAChangingTable) {
  constexpr Number kStaying = 600;
  Table table(GetParam());
  table.fill(2 * kStaying);
  Number next = 2 * kStaying;
  Cookie cookie(0.2F);
  Walker walker{table};
  walker.then = [&](Number n) {
    if (n >= kStaying && one_in(2)) walker.delete_visited();
    if (one_in(4)) table.insert(next++);
    return 0;
  };
  for (int trial = 0; trial < 10; ++trial) {
    walker.visits.clear();
    for (int call = 0; call < 2 * 5 + 1; ++call) {  // the round in progress and a whole one
      walker.walk(cookie.handle);
      for (Number n = below(100); n > 0; --n) table.remove(kStaying + below(next - kStaying));
    }
    for (Number n = 0; n < kStaying; ++n) ASSERT_TRUE(walker.visits.contains(n)) << n;
    walker.walk(cookie.handle);
  }
}

TEST(XhashWalk, PartialWalksCoverTheirShareAndGoRound) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const struct {
    float share;
    Number count;
    size_t visited;  // by each call
  } cases[] = {{0.05F, 0, 0},      {0.05F, 1, 1},     {0.05F, 256, 256}, {0.05F, 257, 256},
               {0.05F, 4000, 256}, {0.5F, 1001, 501}, {1, 3000, 3000},   {7, 3000, 3000},
               {0, 3000, 256},     {-1, 3000, 256},   {nan, 3000, 256}};
  for (const auto& [share, count, visited] : cases) {
    SCOPED_TRACE(testing::Message() << "share " << share << " of " << count);
    Table table(Keys::kPlain);
    table.fill(count);
    Cookie cookie(share);
    std::map<Number, int> total;
    const size_t calls = visited == 0 ? 1 : 2 * ((count + visited - 1) / visited);
    for (size_t call = 0; call < calls; ++call) {
      Walker walker{table};
      walker.walk(cookie.handle);
      EXPECT_EQ(walker.visits.size(), visited);
      for (const auto& [number, visits] : walker.visits) {
        EXPECT_EQ(visits, 1) << number;
        ++total[number];
      }
    }
    EXPECT_EQ(total.size(), count);
    for (const auto& [number, visits] : total) EXPECT_GE(visits, 2) << number;
  }
}

TEST(XhashWalk, NonzeroVisitEndsTheWalkAndTheNextGoesOnBehindIt) {
  Table table(Keys::kPlain);
  table.fill(100);
  Cookie cookie(0.05F);
  Walker walker{table};
  walker.then = [&](Number) { return walker.visits.size() % 30 == 0 ? 1 : 0; };
  for (const size_t visited : {30U, 60U, 90U}) {
    walker.walk(cookie.handle);
    ASSERT_EQ(walker.visits.size(), visited);
  }
  EXPECT_TRUE(std::ranges::all_of(walker.visits, [](auto& v) { return v.second == 1; }));
  walker.visits.clear();
  walker.walk();
  EXPECT_EQ(walker.visits.size(), 30U);

  walker.then = [](Number) { return 0; };
  walker.visits.clear();
  walker.walk(cookie.handle);
  EXPECT_EQ(walker.visits, each_once(0, 100));
}

// The cookie stands in the middle of a round of the large table that it was.
TEST(XhashWalk, ShrunkTableIsVisitedWholeWhileVisitsDelete) {
  Table table(Keys::kPlain);
  table.fill(400);
  Cookie cookie(0.05F);
  Walker{table}.walk(cookie.handle);
  for (Number n = 200; n < 400; ++n) table.remove(n);
  Walker walker{table};
  walker.then = [&](Number n) {
    if (n % 3 == 0) walker.delete_visited();
    return 0;
  };
  walker.walk(cookie.handle);
  EXPECT_EQ(walker.visits, each_once(0, 200));
}

TEST(XhashKeys, ByteKeysAreCopiedAndComparedByLengthAndContent) {
  int values[4];
  xhash_t* table = xhash_create(nullptr, 0);
  char buffer[] = "wheel";
  xhash_insert(table, buffer, 5, &values[0]);
  xhash_insert(table, buffer, 3, &values[1]);
  xhash_insert(table, "whe\0el", 6, &values[2]);
  xhash_insert(table, nullptr, 0, &values[3]);
  std::fill_n(buffer, 5, 'x');

  const std::pair<std::string_view, int*> expected[] = {
      {"wheel", &values[0]}, {"whe", &values[1]}, {{"whe\0el", 6}, &values[2]}, {"", &values[3]}};
  for (const auto& [key, value] : expected) {
    void* found = nullptr;
    EXPECT_EQ(xhash_search(table, key.data(), key.size(), &found), 0) << key;
    EXPECT_EQ(found, value) << key;
  }
  void* untouched = &values[0];
  EXPECT_NE(xhash_search(table, "whee", 4, &untouched), 0);
  EXPECT_NE(xhash_delete(table, "xxxxx", 5), 0);
  EXPECT_EQ(untouched, &values[0]);
  xhash_destroy(table);
  xhash_destroy(nullptr);
}

TEST(XhashKeys, OpaqueKeyInsideAReplacedValueIsReplacedToo) {
  const auto hash = [](const void* key, size_t) { return *static_cast<const Number*>(key); };
  const auto compare = [](const void* key1, size_t, const void* key2, size_t) {
    return *static_cast<const Number*>(key1) == *static_cast<const Number*>(key2) ? 0 : 1;
  };
  xhash_t* table = xhash_create2(free_value, hash, compare, 1);
  auto* first = new Value(5);
  auto* second = new Value(5);
  xhash_insert(table, &first->number, 4, first);
  xhash_insert(table, &second->number, 8, second);
  EXPECT_EQ(Value::live, 1);
  xhash_insert(table, &second->number, 8, second);  // the same value again must stay
  EXPECT_EQ(Value::live, 1);
  const auto visit = [](const void* key, size_t key_length, void*, void* expected) {
    EXPECT_EQ(key, expected);
    EXPECT_EQ(key_length, 8U);
    return 0;
  };
  xhash_walk(table, &second->number, visit);
  xhash_destroy(table);
  EXPECT_EQ(Value::live, 0);
}

void limit_memory() {
  const struct rlimit limit = {128 << 20, 128 << 20};
  setrlimit(RLIMIT_AS, &limit);
}

TEST(XhashDeathTest, ExhaustedMemoryEndsTheProcess) {
#ifdef UNDER_ADDRESS_SANITIZER
  GTEST_SKIP() << "the sanitizer needs the memory that this test takes away";
#endif
  const auto fatal = testing::ContainsRegex(" fatal xhash:[0-9]+: Out of memory\n$");
  const auto use_up = [](xhash_t* table, size_t key_length) {
    limit_memory();
    std::string key(key_length, 'k');
    for (uintptr_t n = 0;; ++n) {
      if (key_length > 0) key.replace(0, sizeof(n), reinterpret_cast<const char*>(&n), sizeof(n));
      const void* given = key_length > 0 ? key.data() : reinterpret_cast<const void*>(n);
      xhash_insert(table, given, key_length, nullptr);
    }
  };
  EXPECT_EXIT(use_up(xhash_create2(nullptr, hash_itself, compare_words, 1), 0),
              testing::ExitedWithCode(0), fatal);
  EXPECT_EXIT(use_up(xhash_create(nullptr, 0), 2000), testing::ExitedWithCode(0), fatal);
}

}  // namespace
