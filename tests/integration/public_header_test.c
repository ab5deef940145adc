/* The public header as a C11 client sees it: it stands alone, its records have the layouts that
 * clients were compiled against, and the library can be called. Nothing here starts it. */
#include <qel_audit.h>

#include <stddef.h>
#include <stdio.h>

#define AT(type, field) offsetof(struct type, field)
#define SIZE(type) sizeof(struct type)

_Static_assert(AT(qel_login_info, status) == 4 && AT(qel_login_info, pid) == 8 &&
                   AT(qel_login_info, user) == 12 && AT(qel_login_info, process) == 268 &&
                   AT(qel_login_info, ipaddr) == 524 && AT(qel_login_info, reserved) == 528 &&
                   AT(qel_login_info, username) == 544 && AT(qel_login_info, logintype) == 1056 &&
                   AT(qel_login_info, time) == 1072 && SIZE(qel_login_info) == 1080,
               "logins");
_Static_assert(AT(qel_user_info, username) == 4 && AT(qel_user_info, groupname) == 260 &&
                   SIZE(qel_user_info) == 516,
               "users");
_Static_assert(AT(qel_syscall_info, result) == 4 && AT(qel_syscall_info, ppid) == 8 &&
                   AT(qel_syscall_info, pid) == 12 && AT(qel_syscall_info, user) == 16 &&
                   AT(qel_syscall_info, process) == 272 && AT(qel_syscall_info, syscall) == 528 &&
                   AT(qel_syscall_info, arg1) == 560 && AT(qel_syscall_info, arg4) == 584 &&
                   SIZE(qel_syscall_info) == 592,
               "system calls");
_Static_assert(AT(qel_execve_info, ppid) == 4 && AT(qel_execve_info, pid) == 8 &&
                   AT(qel_execve_info, user) == 12 && AT(qel_execve_info, process) == 268 &&
                   AT(qel_execve_info, argc) == 524 && AT(qel_execve_info, argv) == 528 &&
                   SIZE(qel_execve_info) == 536,
               "executions");
_Static_assert(AT(qel_bind_info, ppid) == 4 && AT(qel_bind_info, pid) == 8 &&
                   AT(qel_bind_info, user) == 12 && AT(qel_bind_info, process) == 268 &&
                   AT(qel_bind_info, addr) == 528 && SIZE(qel_bind_info) == 656,
               "binds");
_Static_assert(QEL_LOGIN_LOGIN == 1 && QEL_LOGIN_LOGOUT == 2 && QEL_USER_ADDED == 1 &&
                   QEL_USER_DELETED == 2 && QEL_USER_PASSWORD == 4 && QEL_USER_GROUP == 8,
               "a kind of event has another bit");

/* Defined in public_header_test.cpp. */
int check_from_cpp(void);

int main(void) {
  const int refused[] = {qel_login_reg_callback("eve", 0, NULL, NULL),
                         qel_user_reg_callback("eve", QEL_USER_ADDED, NULL, NULL),
                         qel_syscall_reg_callback("read", 2, NULL, NULL),
                         qel_execve_reg_callback("cat", NULL, NULL),
                         qel_bind_reg_callback(80, NULL, NULL)};
  const int ignored[] = {qel_login_unreg_callback("eve", QEL_LOGIN_LOGIN, NULL, NULL),
                         qel_user_unreg_callback("eve", QEL_USER_ADDED, NULL, NULL),
                         qel_syscall_unreg_callback("read", QEL_SYSCALL_ANY, NULL, NULL),
                         qel_bind_unreg_callback(80, NULL, NULL), check_from_cpp()};
  int failures = 0;
  for (int i = 0; i < 5; ++i) {
    if (refused[i] == -1 && ignored[i] == 0) continue;
    fprintf(stderr, "call %d: %d, not -1, or %d, not 0\n", i, refused[i], ignored[i]);
    ++failures;
  }
  qel_audit_fini();
  return failures == 0 ? 0 : 1;
}
