// The rule types. audit_rule uses their names as the keys of kernel rules, and audit_msg recognises
// them in records.
#pragma once

#include <qel_audit.h>

#include <cstddef>
#include <cstdint>

// A rule type; its name is the key of every kernel rule of that type.
struct audit_rule_type {
  std::int32_t id;
  char name[64];
};
static_assert(offsetof(audit_rule_type, name) == 4 && sizeof(audit_rule_type) == 68);

// The ids of audit_rule_types. No rule that this library loads has the key of kLastloginRule or
// kFakeloginRule.
enum RuleType : std::int32_t {
  kPasswdRule,
  kShadowRule,
  kWtmpRule,
  kLastloginRule,
  kExecveRule,
  kBindRule,
  kSyscallRule,
  kFakeloginRule,
  kRuleTypeCount
};

extern "C" QEL_API const audit_rule_type audit_rule_types[kRuleTypeCount];
