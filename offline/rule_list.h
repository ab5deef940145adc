// The kernel's list of audit rules, as far as programs can see it: which rules the kernel accepts,
// when two are the same, and where a new one is inserted. For the offline kernel.
#pragma once

#include <libaudit.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace offline {

struct FreeRule {
  void operator()(audit_rule_data* rule) const;
};
using Rule = std::unique_ptr<audit_rule_data, FreeRule>;

using PathExists = std::function<bool(const std::string& path)>;

// The size in bytes, including the texts.
std::size_t size_of(const audit_rule_data& rule);
Rule copy_rule(const audit_rule_data& rule);

// The filter list of a rule: its flags without the prepend bit.
std::uint32_t list_of(const audit_rule_data& rule);

// Whether a rule passes the kernel's checks that do not depend on the list of rules.
bool is_valid(const audit_rule_data& rule);

// Inserts a rule after the others of its list, or before them with AUDIT_FILTER_PREPEND, which is
// removed from the flags.
void insert_rule(std::vector<Rule>& rules, Rule rule);

// What the kernel does with a valid rule. Both return 0 or a negative errno value.
int add_rule(std::vector<Rule>& rules, const audit_rule_data& sent, const PathExists& exists);
int delete_rule(std::vector<Rule>& rules, const audit_rule_data& sent);

// The rule's key in the form that records have: "key=...".
std::string key_text(const audit_rule_data& rule);

}  // namespace offline
