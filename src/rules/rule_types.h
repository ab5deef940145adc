// The rule types. audit_rule puts their names into kernel rules as keys, and audit_msg finds them
// again in records.
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

// The ids of audit_rule_types. No rule of this library carries kLastloginRule's or kFakeloginRule's
// key.
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
