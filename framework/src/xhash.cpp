// Keyed hash tables.
//
// The entries lie without gaps in one array; buckets and chains refer to them by their index, which
// has 32 bits. An insertion appends, and a deletion moves the last entry into the hole. So the cost
// of an operation does not depend on the table's size, and memory is allocated only when the arrays
// double. They keep their size until the table is cleared.
//
// Walks go down the array. The entries that a round through the table has yet to visit are
// therefore those below its position. A deletion cannot move one of them above it: the entry that
// fills a hole comes from the end of the array, which lies below the position only when nothing
// else is left. So every entry that is stored when a round starts is visited in it, whatever is
// deleted and inserted meanwhile. A walk never keeps a reference into the array across a visit.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <limits>
#include <new>
#include <string_view>
#include <vector>

#include "qel_base.h"

namespace {

constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();
constexpr size_t kMinBuckets = 16;
constexpr size_t kMaxBuckets = size_t{1} << 31;  // every index must fit below kNone
constexpr uint32_t kMinPartialWalk = 256;

struct Entry {
  const void* key;
  size_t key_length;
  void* value;
  uint32_t hash;  // mixed
  uint32_t next;  // index of the next entry in the chain, or kNone
};

}  // namespace

struct xhash {
  xhash_release_fn release;
  xhash_hash_fn hash;
  xhash_compare_fn compare;
  bool copies_keys;                    // into arrays of char, which the entries own
  std::vector<Entry> entries = {};     // its capacity is at least the number of buckets
  std::vector<uint32_t> buckets = {};  // none, or a power of two not below the number of entries
  int bucket_shift = 0;                // shift that turns a mixed hash into a bucket number
};

struct xhash_cookie {
  double share;              // 0 to 1
  uint32_t unvisited = 0;    // entries below this index are unvisited in this round
  bool interrupted = false;  // a visit ended the last walk
};

namespace {

// Runs an allocating step, so that no exception leaves this module.
template <typename Step>
auto allocate(Step step, int line = __builtin_LINE()) noexcept {
  try {
    return step();
  } catch (const std::exception&) {
    error_output(QEL_LOG_FATAL, "xhash", line, "Out of memory\n");
    std::exit(0);
  }
}

std::string_view bytes_of(const void* key, size_t key_length) {
  return {static_cast<const char*>(key), key_length};
}

uint32_t hash_bytes(const void* key, size_t key_length) {
  const uint64_t hash = std::hash<std::string_view>{}(bytes_of(key, key_length));
  return static_cast<uint32_t>(hash ^ (hash >> 32));
}

int compare_bytes(const void* key1, size_t length1, const void* key2, size_t length2) {
  return bytes_of(key1, length1) == bytes_of(key2, length2) ? 0 : 1;
}

const void* copy_bytes(const void* key, size_t key_length) {
  char* copy = allocate([&] { return new char[key_length]; });
  bytes_of(key, key_length).copy(copy, key_length);
  return copy;
}

// Hashes are often plain numbers in sequence or with a common factor. Multiplying by 2^32 divided
// by the golden ratio spreads such numbers over the upper bits, which choose the bucket.
uint32_t mixed_hash(const xhash& table, const void* key, size_t key_length) {
  return table.hash(key, key_length) * 2654435769U;
}

uint32_t& bucket_of(xhash& table, uint32_t hash) {
  return table.buckets[hash >> table.bucket_shift];
}

uint32_t count_of(const xhash& table) {
  return static_cast<uint32_t>(table.entries.size());
}

void put_in_chain(xhash& table, uint32_t index) {
  Entry& entry = table.entries[index];
  uint32_t& bucket = bucket_of(table, entry.hash);
  entry.next = bucket;
  bucket = index;
}

void double_room(xhash& table) {
  const size_t size = std::max(kMinBuckets, 2 * table.buckets.size());
  if (size > kMaxBuckets) throw std::bad_alloc();
  table.entries.reserve(size);
  table.buckets = std::vector<uint32_t>(size, kNone);
  table.bucket_shift = 32 - std::countr_zero(size);
  for (uint32_t index = 0; index < count_of(table); ++index) put_in_chain(table, index);
}

// The bucket or `next` that refers to the entry with this key; null when there is no such entry.
uint32_t* find_link(xhash& table, uint32_t hash, const void* key, size_t key_length) {
  if (table.entries.empty()) return nullptr;
  for (uint32_t* link = &bucket_of(table, hash); *link != kNone;) {
    Entry& entry = table.entries[*link];
    if (entry.hash == hash && table.compare(entry.key, entry.key_length, key, key_length) == 0) {
      return link;
    }
    link = &entry.next;
  }
  return nullptr;
}

uint32_t* find_link_to(xhash& table, uint32_t index) {
  uint32_t* link = &bucket_of(table, table.entries[index].hash);
  while (*link != index) link = &table.entries[*link].next;
  return link;
}

Entry take_out(xhash& table, uint32_t* link) {
  const uint32_t hole = *link;
  const Entry entry = table.entries[hole];
  *link = entry.next;
  const uint32_t last = count_of(table) - 1;
  if (hole != last) {
    *find_link_to(table, last) = hole;
    table.entries[hole] = table.entries[last];
  }
  table.entries.pop_back();
  return entry;
}

void release_value(const xhash& table, void* value) {
  if (table.release != nullptr) table.release(value);
}

void release_entry(const xhash& table, const Entry& entry) {
  release_value(table, entry.value);
  if (table.copies_keys) delete[] static_cast<const char*>(entry.key);
}

// The old key of an opaque table may lie inside the old value, so it must be replaced too. A copied
// key is equal byte for byte and stays.
void replace(const xhash& table, Entry& entry, const void* key, size_t key_length, void* value) {
  void* const old_value = entry.value;
  entry.value = value;
  if (!table.copies_keys) {
    entry.key = key;
    entry.key_length = key_length;
  }
  if (old_value != value) release_value(table, old_value);
}

struct Visitor {
  xhash_visit_fn visit;
  void* argument;
};

// Visits up to `quota` entries below `position` and sets `position` to where it stopped. Returns
// false when a visit ended the walk.
bool walk_down(const xhash& table, uint32_t& position, uint32_t quota, const Visitor& visitor) {
  for (; quota > 0; --quota) {
    position = std::min(position, count_of(table));
    if (position == 0) return true;
    --position;
    const Entry& entry = table.entries[position];
    if (visitor.visit(entry.key, entry.key_length, entry.value, visitor.argument) != 0) {
      return false;
    }
  }
  return true;
}

uint32_t partial_quota(double share, uint32_t count) {
  const auto part = static_cast<uint32_t>(std::ceil(share * count));
  return std::min(std::max(part, kMinPartialWalk), count);
}

}  // namespace

xhash_t* xhash_create2(xhash_release_fn release, xhash_hash_fn hash, xhash_compare_fn compare,
                       int /*option*/) {
  return allocate([&] { return new xhash{release, hash, compare, false}; });
}

xhash_t* xhash_create(xhash_release_fn release, int /*option*/) {
  return allocate([&] { return new xhash{release, hash_bytes, compare_bytes, true}; });
}

int xhash_insert(xhash_t* table, const void* key, size_t key_length, void* value) {
  const uint32_t hash = mixed_hash(*table, key, key_length);
  if (const uint32_t* link = find_link(*table, hash, key, key_length)) {
    replace(*table, table->entries[*link], key, key_length, value);
    return 0;
  }
  if (table->entries.size() == table->buckets.size()) allocate([&] { double_room(*table); });
  const void* stored_key = table->copies_keys ? copy_bytes(key, key_length) : key;
  table->entries.push_back({stored_key, key_length, value, hash, kNone});
  put_in_chain(*table, count_of(*table) - 1);
  return 0;
}

int xhash_search(xhash_t* table, const void* key, size_t key_length, void** value) {
  const uint32_t* link = find_link(*table, mixed_hash(*table, key, key_length), key, key_length);
  if (link == nullptr) return -1;
  *value = table->entries[*link].value;
  return 0;
}

int xhash_delete(xhash_t* table, const void* key, size_t key_length) {
  uint32_t* link = find_link(*table, mixed_hash(*table, key, key_length), key, key_length);
  if (link == nullptr) return -1;
  release_entry(*table, take_out(*table, link));
  return 0;
}

void xhash_walk(xhash_t* table, void* argument, xhash_visit_fn visit) {
  uint32_t position = count_of(*table);
  walk_down(*table, position, position, {visit, argument});
}

xhash_cookie_t* xhash_cookie_create(float share) {
  const double bounded = share > 0 ? std::min(static_cast<double>(share), 1.0) : 0.0;
  return allocate([&] { return new xhash_cookie{bounded}; });
}

void xhash_cookie_destroy(xhash_cookie_t* cookie) {
  delete cookie;
}

// A table that one call covers is walked from its top, and the cookie is ignored, unless a visit
// ended the last walk. If such a walk began at the cookie's place, a deletion could move an entry
// from the unvisited part into the visited one.
void xhash_walk_partial(xhash_t* table, xhash_cookie_t* cookie, void* argument,
                        xhash_visit_fn visit) {
  const Visitor visitor = {visit, argument};
  const uint32_t count = count_of(*table);
  const uint32_t quota = partial_quota(cookie->share, count);
  const bool from_top = quota == count && !cookie->interrupted;
  const uint32_t start = from_top ? 0 : std::min(cookie->unvisited, count);
  const uint32_t first_lap = std::min(quota, start);

  uint32_t position = start;
  bool going_on = walk_down(*table, position, first_lap, visitor);
  if (going_on && first_lap < quota) {
    position = count_of(*table);
    going_on = walk_down(*table, position, quota - first_lap, visitor);
  }
  cookie->unvisited = position;
  cookie->interrupted = !going_on;
}

uint32_t xhash_count(xhash_t* table) {
  return count_of(*table);
}

// The entries leave the table first, so that a release function finds the table in a consistent
// state.
void xhash_clear(xhash_t* table) {
  std::vector<Entry> removed;
  removed.swap(table->entries);
  table->buckets = {};
  for (const Entry& entry : removed) release_entry(*table, entry);
}

void xhash_destroy(xhash_t* table) {
  if (table == nullptr) return;
  xhash_clear(table);
  delete table;
}
