/* The public header as a C11 client sees it: it stands alone, its records have the layouts that
 * clients were compiled against, and the library can be called. Nothing here starts it. */
#include <qel_audit.h>

#include <stddef.h>
#include <stdio.h>

#define HAS(type, field, offset, size)                                                     \
  _Static_assert(offsetof(struct type, field) == (offset), #type "." #field " has moved"); \
  _Static_assert(sizeof(((struct type*)0)->field) == (size), #type "." #field " has another size")
#define HAS_SIZE(type, size) \
  _Static_assert(sizeof(struct type) == (size), #type " has another size")

HAS(qel_login_info, event, 0, 4);
HAS(qel_login_info, status, 4, 4);
HAS(qel_login_info, pid, 8, 4);
HAS(qel_login_info, user, 12, 256);
HAS(qel_login_info, process, 268, 256);
HAS(qel_login_info, ipaddr, 524, 4);
HAS(qel_login_info, reserved, 528, 16);
HAS(qel_login_info, username, 544, 512);
HAS(qel_login_info, logintype, 1056, 16);
HAS(qel_login_info, time, 1072, 8);
HAS_SIZE(qel_login_info, 1080);

HAS(qel_user_info, event, 0, 4);
HAS(qel_user_info, username, 4, 256);
HAS(qel_user_info, groupname, 260, 256);
HAS_SIZE(qel_user_info, 516);

HAS(qel_syscall_info, success, 0, 4);
HAS(qel_syscall_info, result, 4, 4);
HAS(qel_syscall_info, ppid, 8, 4);
HAS(qel_syscall_info, pid, 12, 4);
HAS(qel_syscall_info, user, 16, 256);
HAS(qel_syscall_info, process, 272, 256);
HAS(qel_syscall_info, syscall, 528, 28);
HAS(qel_syscall_info, arg1, 560, 8);
HAS(qel_syscall_info, arg2, 568, 8);
HAS(qel_syscall_info, arg3, 576, 8);
HAS(qel_syscall_info, arg4, 584, 8);
HAS_SIZE(qel_syscall_info, 592);

HAS(qel_execve_info, result, 0, 4);
HAS(qel_execve_info, ppid, 4, 4);
HAS(qel_execve_info, pid, 8, 4);
HAS(qel_execve_info, user, 12, 256);
HAS(qel_execve_info, process, 268, 256);
HAS(qel_execve_info, argc, 524, 4);
HAS(qel_execve_info, argv, 528, 8);
HAS_SIZE(qel_execve_info, 536);

HAS(qel_bind_info, result, 0, 4);
HAS(qel_bind_info, ppid, 4, 4);
HAS(qel_bind_info, pid, 8, 4);
HAS(qel_bind_info, user, 12, 256);
HAS(qel_bind_info, process, 268, 256);
HAS(qel_bind_info, addr, 528, 128);
HAS_SIZE(qel_bind_info, 656);

/* The fields of every event start on an 8-byte boundary behind its class. */
HAS(login_event, type, 0, 4);
HAS(login_event, info, 8, 1080);
HAS(user_event, type, 0, 4);
HAS(user_event, info, 8, 516);
HAS(syscall_event, type, 0, 4);
HAS(syscall_event, info, 8, 592);
HAS(execve_event, type, 0, 4);
HAS(execve_event, info, 8, 536);
HAS(bind_event, type, 0, 4);
HAS(bind_event, info, 8, 656);

_Static_assert(QEL_CLASS_LOGIN == 0 && QEL_CLASS_USER == 1 && QEL_CLASS_SYSCALL == 2 &&
                   QEL_CLASS_EXECVE == 3 && QEL_CLASS_BIND == 4,
               "a class has another number");
_Static_assert(QEL_LOGIN_LOGIN == 1 && QEL_LOGIN_LOGOUT == 2, "a login event has another bit");
_Static_assert(QEL_USER_ADDED == 1 && QEL_USER_DELETED == 2 && QEL_USER_PASSWORD == 4 &&
                   QEL_USER_GROUP == 8,
               "an account event has another bit");

/* Defined in public_header_test.cpp. */
int check_from_cpp(void);

static int failures;

static void expect(int result, int expected, const char* call) {
  if (result == expected) return;
  fprintf(stderr, "%s returned %d, not %d\n", call, result, expected);
  ++failures;
}

static int on_execve(const struct qel_execve_info* event, void* arg) {
  (void)event;
  (void)arg;
  return 0;
}

int main(void) {
  expect(qel_login_unreg_callback("eve", QEL_LOGIN_LOGIN, NULL, NULL), 0, "login unregistration");
  expect(qel_user_unreg_callback("eve", QEL_USER_ADDED, NULL, NULL), 0, "user unregistration");
  expect(qel_syscall_unreg_callback("read", QEL_SYSCALL_ANY, NULL, NULL), 0,
         "syscall unregistration");
  expect(qel_execve_unreg_callback(NULL, on_execve, NULL), 0, "execve unregistration");
  expect(qel_bind_unreg_callback(80, NULL, NULL), 0, "bind unregistration");
  expect(qel_login_reg_callback("eve", 0, NULL, NULL), -1, "a login registration without events");
  expect(qel_user_reg_callback("eve", QEL_USER_ADDED, NULL, NULL), -1,
         "a user registration without a callback");
  expect(qel_syscall_reg_callback("read", 2, NULL, NULL), -1, "a syscall registration with 2");
  expect(qel_execve_reg_callback("cat", NULL, NULL), -1,
         "an execve registration without a callback");
  expect(qel_bind_reg_callback(80, NULL, NULL), -1, "a bind registration without a callback");
  expect(check_from_cpp(), 0, "C++");
  qel_audit_fini();
  return failures == 0 ? 0 : 1;
}
