// A snapshot of a database: its records in a list, in the order of the database, and a table that
// finds them by key. Each of the two monitors keeps one snapshot of the known state and takes a
// fresh one for each comparison.
#pragma once

#include <qel_base.h>

#include <utility>

#include "base/log.h"

// The links of a record in its list, which is circular and has a head of its own.
struct list_links {
  list_links* next;
  list_links* prev;
};

namespace qel {

// Owns records whose first member is `list_links links`, and frees them with `Free`.
template <typename Entry, void (*Free)(Entry*)>
class EntryList {
 public:
  EntryList() = default;
  EntryList(const EntryList&) = delete;
  EntryList& operator=(const EntryList&) = delete;
  ~EntryList() { clear(); }

  void append(Entry* entry) { insert(entry, head_.prev); }
  void prepend(Entry* entry) { insert(entry, &head_); }

  // Takes an entry out of the list. The caller then owns it.
  static Entry* take(Entry* entry) {
    entry->links.prev->next = entry->links.next;
    entry->links.next->prev = entry->links.prev;
    return entry;
  }

  // The first or last entry, and the neighbours of an entry; null where there is none.
  Entry* first() { return entry_at(head_.next); }
  Entry* last() { return entry_at(head_.prev); }
  Entry* after(Entry* entry) { return entry_at(entry->links.next); }
  Entry* before(Entry* entry) { return entry_at(entry->links.prev); }

  void clear() {
    for (list_links* at = head_.next; at != &head_;) {
      Free(reinterpret_cast<Entry*>(std::exchange(at, at->next)));
    }
    head_ = {&head_, &head_};
  }

  void swap(EntryList& other) {
    EntryList scratch;
    scratch.take_all(*this);
    take_all(other);
    other.take_all(scratch);
  }

 private:
  Entry* entry_at(list_links* links) {
    return links == &head_ ? nullptr : reinterpret_cast<Entry*>(links);
  }

  void insert(Entry* entry, list_links* behind) {
    entry->links = {behind->next, behind};
    behind->next->prev = &entry->links;
    behind->next = &entry->links;
  }

  // Takes over the entries of the other list. This list must be empty.
  void take_all(EntryList& other) {
    if (other.head_.next == &other.head_) return;
    head_ = other.head_;
    head_.next->prev = &head_;
    head_.prev->next = &head_;
    other.head_ = {&other.head_, &other.head_};
  }

  list_links head_ = {&head_, &head_};
};

// The table uses the record both as key and as value, and owns nothing. When records have equal
// keys, the table has the last one; the list has them all.
template <typename Entry, void (*Free)(Entry*)>
struct Snapshot {
  EntryList<Entry, Free> list;
  xhash_t* table = nullptr;  // null while the monitor is stopped

  void create_table(xhash_hash_fn hash, xhash_compare_fn compare) {
    table = xhash_create2(nullptr, hash, compare, 1);
  }

  void index() {
    for (Entry* entry = list.first(); entry != nullptr; entry = list.after(entry)) {
      xhash_insert(table, entry, 0, entry);
    }
  }

  // The record with the same key, or null.
  Entry* find(const Entry& like) const {
    void* found = nullptr;
    return xhash_search(table, &like, 0, &found) == 0 ? static_cast<Entry*>(found) : nullptr;
  }

  template <typename Visit>
  void walk(Visit visit) const {
    xhash_walk(table, &visit, [](const void*, std::size_t, void* entry, void* argument) {
      (*static_cast<Visit*>(argument))(*static_cast<Entry*>(entry));
      return 0;
    });
  }

  void clear() {
    xhash_clear(table);
    list.clear();
  }

  void destroy() {
    list.clear();
    xhash_destroy(std::exchange(table, nullptr));
  }

  void swap(Snapshot& other) {
    list.swap(other.list);
    std::swap(table, other.table);
  }
};

}  // namespace qel
