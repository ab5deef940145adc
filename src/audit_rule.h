// The kernel's audit configuration: the one audit connection, the purge of loaded rules, and the
// rules that registrations need.
#pragma once

#include <qel_audit.h>

#include "rules/rule_types.h"

extern "C" {

// Opens the connection, becomes the audit receiver, switches auditing on and deletes all loaded
// rules. Returns 0, or -1 with the connection closed.
QEL_API int audit_subsys_init();

// Deletes all loaded rules, gives up the receiver role and closes the connection. Returns 0.
QEL_API int audit_subsys_fini();

// Each add function returns 1 when it loaded its rule, 0 when this library had already loaded it,
// and -1 when it failed. Each delete function deletes the rule that its add function loaded.

// `name` is a system call of this machine; null or empty means all.
QEL_API int audit_add_syscall_rule(const char* name);
// `name` as above, but an empty one is refused.
QEL_API void audit_del_syscall_rule(const char* name);
QEL_API int audit_add_execve_rule();
QEL_API void audit_del_execve_rule();
QEL_API int audit_add_bind_rule();
QEL_API void audit_del_bind_rule();
QEL_API int audit_add_passwd_rule();
QEL_API void audit_del_passwd_rule();
QEL_API int audit_add_shadow_rule();
QEL_API void audit_del_shadow_rule();
QEL_API int audit_add_wtmp_rule();
QEL_API void audit_del_wtmp_rule();
}

// Whether a rule is to be added or deleted.
enum class Request { kAdd, kDelete };

// Builds and sends a rule that watches a file, or a directory when `path` names one, for the
// accesses in `permissions` (1 to 4 of the letters r, w, x, a, in either case). Returns whether the
// kernel accepted it.
bool send_watch_rule(Request request, const char* path, const char* permissions, RuleType type);
