/*
 * qel_audit.h - typed security events from the Linux audit stream.
 *
 * The library makes the calling process the kernel's audit receiver, loads the kernel rules that
 * the registered callbacks need, and calls each callback with one structure per event. It has no
 * configuration: what is registered is what is reported.
 *
 * Conventions
 *   Thread      Everything runs on the thread of the agent framework's main loop: call every
 *               function below from it, and expect every callback on it. There are no locks.
 *   Results     0 or more is success, -1 is failure. The reason for a failure is logged through
 *               the framework's error_output. A failed call leaves the registrations unchanged.
 *   Privileges  Starting needs CAP_AUDIT_CONTROL in the initial user and pid namespaces; reading
 *               /etc/shadow, for password changes, needs root or membership of its group.
 *   Texts       Texts are zero-terminated bytes in the host's encoding. Texts passed in are copied;
 *               texts in events are as the kernel reported them, cut to the size of their field.
 *   Callbacks   run inside the main loop's poller and hold up the reading of records: be quick, a
 *               few hundred microseconds at most. The event and everything it points to are gone
 *               when the callback returns. The callback's result is ignored. It must not throw.
 *               A callback may register further callbacks, which take effect at once. It may call
 *               qel_audit_fini, which takes effect when the record being handled is finished; until
 *               then qel_audit_init and all registrations fail.
 *   Memory      When memory is exhausted, the process logs a line and ends with exit(0).
 *
 * Starting DELETES every audit rule that is loaded in the kernel, including other programs' rules,
 * and so does stopping. Each deleted rule is printed on standard output.
 */
#ifndef QEL_AUDIT_H
#define QEL_AUDIT_H

#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>
#include <time.h>

#define QEL_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Event classes --------------------------------------------------------------------------- */

/* The class of an event; `type` of an event record. */
enum {
  QEL_CLASS_LOGIN = 0,
  QEL_CLASS_USER = 1,
  QEL_CLASS_SYSCALL = 2,
  QEL_CLASS_EXECVE = 3,
  QEL_CLASS_BIND = 4,
  QEL_CLASS_COUNT = 5
};

/* `event` of a login event, and the bits of a login registration's event mask. */
enum { QEL_LOGIN_LOGIN = 1, QEL_LOGIN_LOGOUT = 2 };

/* `event` of a user event, and the bits of a user registration's event mask. */
enum { QEL_USER_ADDED = 1, QEL_USER_DELETED = 2, QEL_USER_PASSWORD = 4, QEL_USER_GROUP = 8 };

/* The success argument of a system call registration. */
enum { QEL_SYSCALL_FAILED = 0, QEL_SYSCALL_SUCCEEDED = 1, QEL_SYSCALL_ANY = -1 };

/* Sizes of the texts in events, in bytes, including the terminating zero. */
enum {
  QEL_NAME_SIZE = 256,
  QEL_LOGIN_NAME_SIZE = 512,
  QEL_LOGIN_LINE_SIZE = 16,
  QEL_SYSCALL_NAME_SIZE = 28
};

/* ---- Events ---------------------------------------------------------------------------------- */

/* A login or a logout that was appended to /var/log/wtmp. */
struct qel_login_info {
  uint32_t event;                      /* QEL_LOGIN_LOGIN or QEL_LOGIN_LOGOUT */
  uint32_t status;                     /* always 1 */
  uint32_t pid;                        /* process id in the login record */
  char user[QEL_NAME_SIZE];            /* user name of the process that wrote the record, and ... */
  char process[QEL_NAME_SIZE];         /* ... its command name; both empty if its pid differs */
  struct in_addr ipaddr;               /* remote IPv4 address, network byte order, or 0 */
  uint8_t reserved[16];                /* zero */
  char username[QEL_LOGIN_NAME_SIZE];  /* who logged in, at most 15 characters; the class key */
  char logintype[QEL_LOGIN_LINE_SIZE]; /* terminal line, at most 15 characters */
  time_t time;                         /* of the login or logout, in seconds since the epoch */
};

/* A change of an account. */
struct qel_user_info {
  uint32_t event;                /* one of QEL_USER_ADDED, _DELETED, _PASSWORD, _GROUP */
  char username[QEL_NAME_SIZE];  /* account name; the class key */
  char groupname[QEL_NAME_SIZE]; /* name of its primary group, or the group id in decimal */
};

/* A system call that returned. */
struct qel_syscall_info {
  int32_t success;          /* 1 when it succeeded, else 0 */
  int32_t result;           /* low 32 bits of its return value; negative errno value on failure */
  uint32_t ppid;            /* parent process id */
  uint32_t pid;             /* process id */
  char user[QEL_NAME_SIZE]; /* name of the real user id, or the id in decimal */
  char process[QEL_NAME_SIZE];         /* command name, at most 15 bytes from the kernel */
  char syscall[QEL_SYSCALL_NAME_SIZE]; /* its name, or NUMBER_ARCH when unknown; the class key */
  uint64_t arg1;                       /* its first four arguments as the kernel saw them */
  uint64_t arg2;
  uint64_t arg3;
  uint64_t arg4;
};

/* A program execution, successful or not. */
struct qel_execve_info {
  int32_t result; /* 0, or a negative errno value */
  uint32_t ppid;  /* as in struct qel_syscall_info */
  uint32_t pid;
  char user[QEL_NAME_SIZE];
  char process[QEL_NAME_SIZE]; /* the new program's command name, or the caller's when it failed;
                                  the class key */
  int32_t argc;                /* number of texts in argv; 0 or less when nothing is known */
  char** argv;                 /* program arguments; for a failed execution, the caller's
                                  command name and the program's path */
};

/* A bind(2) of a socket, successful or not. */
struct qel_bind_info {
  int32_t result; /* 0, or a negative errno value */
  uint32_t ppid;  /* as in struct qel_syscall_info */
  uint32_t pid;
  char user[QEL_NAME_SIZE];
  char process[QEL_NAME_SIZE];
  struct sockaddr_storage addr; /* the address that was given; its port is the class key */
};

/* The event records that the library passes around internally; `type` is the event's class. A
 * callback receives the address of `info`, which lies 8 bytes from the start of every record. */
struct login_event {
  uint32_t type;
  uint32_t padding;
  struct qel_login_info info;
};
struct user_event {
  uint32_t type;
  uint32_t padding;
  struct qel_user_info info;
};
struct syscall_event {
  uint32_t type;
  uint32_t padding;
  struct qel_syscall_info info;
};
struct execve_event {
  uint32_t type;
  uint32_t padding;
  struct qel_execve_info info;
};
struct bind_event {
  uint32_t type;
  uint32_t padding;
  struct qel_bind_info info;
};

/* ---- Start and stop -------------------------------------------------------------------------- */

/* Starts the library: opens the audit connection, becomes the kernel's audit receiver, switches
 * auditing on, deletes all loaded rules, takes the snapshots of accounts and logins, and registers
 * with the main loop. A client need not call this, because every registration starts the library
 * itself. May block for about four seconds when the kernel does not answer, and for at most ten
 * when answers get lost among records. Signals of the calling thread are blocked meanwhile. Returns
 * 0 when the library is running afterwards, even if it already was. Returns -1 when it could not be
 * started, with everything undone, or inside a callback that has called qel_audit_fini. */
QEL_API int qel_audit_init(void);

/* Stops the library: deletes all loaded rules, gives up the receiver role, closes the connection
 * and forgets every registration. Auditing stays switched on. Does nothing when the library is
 * stopped. Inside a callback the stop is put off until the record being handled is finished. May
 * block as long as qel_audit_init does. */
QEL_API void qel_audit_fini(void);

/* The audit netlink socket while the library is running, -1 otherwise. It is readable when a record
 * is waiting. Clients may only look at this variable and wait for the descriptor: the library owns
 * both. */
extern QEL_API int audit_fd;

/* ---- Registration ---------------------------------------------------------------------------- */

/* Every registration returns the index of the new callback (0 to 4095) when it is for one key, 0
 * when it is for all keys, and -1 when it failed: an argument was refused, the library could not be
 * started, the kernel rule could not be loaded, the same function and argument are already
 * registered for the same key and filter, the key already has 8 callbacks, or the class already has
 * 4096.
 *
 * Callbacks for an event's own key run before those for all keys, each group in order of
 * registration. Registrations last until qel_audit_fini. `arg` is passed to the callback and never
 * read. */

typedef int (*qel_login_callback)(const struct qel_login_info* event, void* arg);
typedef int (*qel_user_callback)(const struct qel_user_info* event, void* arg);
typedef int (*qel_syscall_callback)(const struct qel_syscall_info* event, void* arg);
typedef int (*qel_execve_callback)(const struct qel_execve_info* event, void* arg);
typedef int (*qel_bind_callback)(const struct qel_bind_info* event, void* arg);

/* Logins and logouts. `username`: the user to report; null or empty for all users. `event_mask`:
 * QEL_LOGIN_ bits, not 0. */
QEL_API int qel_login_reg_callback(const char* username, int event_mask,
                                   qel_login_callback callback, void* arg);

/* Account changes. `username`: the account to report; null or empty for all accounts. `event_mask`:
 * QEL_USER_ bits, not 0. /etc/shadow is watched only for a mask with QEL_USER_PASSWORD, and
 * /etc/passwd only for a mask with any other bit. */
QEL_API int qel_user_reg_callback(const char* username, int event_mask, qel_user_callback callback,
                                  void* arg);

/* System calls. `syscall`: the name that events carry (struct qel_syscall_info), or "all". "execve"
 * and "bind" are refused, because they have classes of their own. Names in another case are
 * refused, and so are the numbers of calls that have a name. `success`: one of the QEL_SYSCALL_
 * values. At most 256 names in all. */
QEL_API int qel_syscall_reg_callback(const char* syscall, int success,
                                     qel_syscall_callback callback, void* arg);

/* Program executions. `command`: the command name (struct qel_execve_info's `process`); null or
 * empty for all. */
QEL_API int qel_execve_reg_callback(const char* command, qel_execve_callback callback, void* arg);

/* Socket binds. `port`: 1 to 65535 in host byte order, or 0 for every bind, including those of
 * sockets without ports. Only the low 16 bits count. */
QEL_API int qel_bind_reg_callback(int port, qel_bind_callback callback, void* arg);

/* These do nothing and return 0: a callback stays registered until qel_audit_fini. */
QEL_API int qel_login_unreg_callback(const char* username, int event_mask,
                                     qel_login_callback callback, void* arg);
QEL_API int qel_user_unreg_callback(const char* username, int event_mask,
                                    qel_user_callback callback, void* arg);
QEL_API int qel_syscall_unreg_callback(const char* syscall, int success,
                                       qel_syscall_callback callback, void* arg);
QEL_API int qel_execve_unreg_callback(const char* command, qel_execve_callback callback, void* arg);
QEL_API int qel_bind_unreg_callback(int port, qel_bind_callback callback, void* arg);

#ifdef __cplusplus
}
#endif

#endif
