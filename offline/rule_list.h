// The kernel's list of audit rules, as far as programs can see it: which rules it takes, when two
// are the same, and where a new one stands. For the offline kernel.
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

// In bytes, with the texts.
std::size_t size_of(const audit_rule_data& rule);
Rule copy_rule(const audit_rule_data& rule);

// The filter list of a rule: its flags without the prepend bit.
std::uint32_t list_of(const audit_rule_data& rule);

// Whether the kernel refuses the rule before it looks at its list.
bool is_valid(const audit_rule_data& rule);

// Puts a rule behind those of its list, or in front of them with AUDIT_FILTER_PREPEND, which is
// dropped.
void insert_rule(std::vector<Rule>& rules, Rule rule);

// What the kernel does with a valid rule that was sent. Both return 0 or a negative error number.
int add_rule(std::vector<Rule>& rules, const audit_rule_data& sent, const PathExists& exists);
int delete_rule(std::vector<Rule>& rules, const audit_rule_data& sent);

// The rule's key as records have it: "key=...".
std::string key_text(const audit_rule_data& rule);

}  // namespace offline
