/* The public header as a C11 client sees it: it stands alone, its constants are those that clients
 * were compiled with, and the library can be called. Nothing here starts it. */
#include <qel_audit.h>

#include <stddef.h>

_Static_assert(offsetof(struct qel_login_info, process) == 268 &&
                   offsetof(struct qel_user_info, username) == 4 &&
                   offsetof(struct qel_syscall_info, pid) == 12 &&
                   offsetof(struct qel_execve_info, argc) == 524 &&
                   offsetof(struct qel_bind_info, addr) == 528,
               "a record is laid out otherwise than in C++");
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
  for (int i = 0; i < 5; ++i) failures += refused[i] != -1 || ignored[i] != 0;
  qel_audit_fini();
  return failures;
}
