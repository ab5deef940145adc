#include "rules/rule_purge.h"

#include <libaudit.h>
#include <qel_audit.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/log.h"
#include "base/memory.h"
#include "rules/audit_replies.h"
#include "rules/rule_line.h"

namespace {

constexpr char kLogSource[] = "audit_rule";

constexpr int kMaxPurges = 10;  // when the socket overruns each time

using Rule = qel::Owned<audit_rule_data>;

// The rules that the kernel listed, in its order.
class ListedRules {
 public:
  ListedRules() = default;
  ListedRules(const ListedRules&) = delete;
  ListedRules& operator=(const ListedRules&) = delete;
  ~ListedRules() {
    while (pop() != nullptr) continue;
  }

  void append(Rule rule) {
    Entry* entry = QEL_CHECKED(qel::new_zeroed<Entry>());
    entry->rule = rule.release();
    *tail_ = entry;
    tail_ = &entry->next;
  }

  // Takes the first rule out of the list. Returns null when the list is empty.
  Rule pop() {
    if (head_ == nullptr) return nullptr;
    const qel::Owned<Entry> entry(head_);
    head_ = entry->next;
    if (head_ == nullptr) tail_ = &head_;
    return Rule(entry->rule);
  }

 private:
  struct Entry {
    Entry* next;
    audit_rule_data* rule;
  };
  Entry* head_ = nullptr;
  Entry** tail_ = &head_;
};

// A copy of a listed rule, or null when its string length exceeds what a reply can hold.
Rule copy_rule(const audit_rule_data& listed) {
  constexpr std::size_t kMaxStrings = MAX_AUDIT_MESSAGE_LENGTH - sizeof(audit_rule_data);
  if (listed.buflen > kMaxStrings) return nullptr;
  const std::size_t size = sizeof(audit_rule_data) + listed.buflen;
  Rule copy(static_cast<audit_rule_data*>(QEL_CHECKED(std::malloc(size))));
  std::memcpy(copy.get(), &listed, size);
  return copy;
}

struct Collection {
  ListedRules rules;
  bool refused = false;
};

bool take_listed(const audit_reply& reply, void* argument) {
  auto& collection = *static_cast<Collection*>(argument);
  switch (reply.type) {
    case NLMSG_DONE:
      return true;
    case NLMSG_ERROR:
      if (reply.error->error == 0) return false;  // the acknowledgement of the request
      QEL_ERROR("receiving rules list failed: %s\n", strerror(-reply.error->error));
      collection.refused = true;
      return true;
    case AUDIT_LIST_RULES:
      if (Rule rule = copy_rule(*reply.ruledata)) collection.rules.append(std::move(rule));
      return false;
    default:
      return false;
  }
}

bool delete_rules(ListedRules& rules) {
  while (const Rule rule = rules.pop()) {
    const int result = delete_listed_rule(rule.get(), static_cast<int>(rule->flags),
                                          static_cast<int>(rule->action));
    if (result < 0) {
      QEL_ERROR("deleting rule failed: %s\n", strerror(-result));
      return false;
    }
    print_rule_line(*rule);
  }
  return true;
}

// Returns the sequence number of the request. An overrun that this call reports would hide it, so
// the request is repeated. The repeated request cannot report another one: an overrun is reported
// only once until the socket has been read empty.
int request_list() {
  const int sequence = audit_request_rules_list_data(audit_fd);
  if (sequence != -ENOBUFS) return sequence;
  note_overrun();
  return audit_request_rules_list_data(audit_fd);
}

bool delete_listed_rules() {
  const int sequence = request_list();
  if (sequence <= 0) {
    QEL_ERROR("audit_request_rules_list_data failed\n");
    return false;
  }
  Collection collection;
  read_replies(static_cast<std::uint32_t>(sequence), take_listed, &collection);
  if (collection.refused) return false;
  QEL_DEBUG("begin deleting old rules\n");
  const bool deleted = delete_rules(collection.rules);
  std::fflush(stdout);  // the deletions must be known even if the process crashes
  return deleted;
}

}  // namespace

// After an overrun, part of the list may have been dropped, so the list is requested again.
bool delete_all_audit_rules() {
  for (int purge = 0; purge < kMaxPurges; ++purge) {
    if (has_overrun()) discard_waiting();
    if (!delete_listed_rules()) return false;
    if (!has_overrun()) return true;
    if (is_time_up()) return false;
  }
  return false;
}
