// The login log monitor. It takes a snapshot of the logins in /var/log/wtmp at start and compares
// it with the file after a watch has fired.
#pragma once

#include <qel_audit.h>
#include <utmp.h>

#include <cstdint>

#include "monitors/snapshot.h"

struct audit_ctx;

// A login of a snapshot.
struct wtmp_entry {
  list_links links;
  struct utmp ut;       // the record as read; its texts may be unterminated
  std::int64_t logout;  // when the login ended, in seconds since the epoch; 0 when it has not
  std::uint32_t flags;  // QEL_LOGIN_ bits to report
};

extern "C" {

// Receives each login that a comparison found to have begun or ended. Returns 0 to go on; anything
// else ends the comparison's reports.
typedef int (*wtmp_emitter)(struct wtmp_entry* entry, struct audit_ctx* ctx);

// Takes the first snapshot of the file; a null path means /var/log/wtmp. Returns 0, even if there
// is a snapshot already, or -1 when the path was refused. A file that cannot be read counts as
// empty.
QEL_API int login_log_init(const char* path);

// Frees the snapshot. Does nothing while a record is being handled or logins are being compared.
QEL_API void login_log_fini();

// Compares the file (a null path means /var/log/wtmp) with the snapshot and keeps the new state as
// the snapshot. Passes each login that began or ended and `ctx`, which is not read here, to
// `emitter`, which may be null. Reports nothing when most known logins are gone, because the file
// was replaced then. Returns 0, or -1 when the monitor is stopped, when the path was refused, or
// when called inside a callback or an emitter. May run client callbacks.
QEL_API int check_login_event(const char* path, wtmp_emitter emitter, struct audit_ctx* ctx);
}

// The time of a login, in seconds since the epoch.
std::int64_t login_time(const wtmp_entry& entry);
