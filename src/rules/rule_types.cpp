#include "rules/rule_types.h"

const audit_rule_type audit_rule_types[kRuleTypeCount] = {
    {kPasswdRule, "passwd_rule"},   {kShadowRule, "shadow_rule"},
    {kWtmpRule, "wtmp_rule"},       {kLastloginRule, "lastlogin_rule"},
    {kExecveRule, "execve_rule"},   {kBindRule, "bind_rule"},
    {kSyscallRule, "syscall_rule"}, {kFakeloginRule, "fakelogin_rule"},
};
