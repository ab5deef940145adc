// The login log monitor: a snapshot of the logins in /var/log/wtmp, taken at start, and its
// comparison with the file after a watch has fired.
#pragma once

#include <qel_audit.h>
#include <utmp.h>

#include <cstdint>

#include "monitors/snapshot.h"

struct audit_ctx;

// A login of a snapshot.
struct wtmp_entry {
  list_links links;
  struct utmp ut;       // the record as read; its texts need not be terminated
  std::int64_t logout;  // when the login ended, in seconds since the epoch; 0 when it has not
  std::uint32_t flags;  // QEL_LOGIN_ bits of what is to be reported
};

extern "C" {

// Receives each login of a comparison that began or ended. Returns 0 to go on; anything else ends
// the comparison's reports.
typedef int (*wtmp_emitter)(struct wtmp_entry* entry, struct audit_ctx* ctx);

// Takes the first snapshot of the file; a null path is /var/log/wtmp. Returns 0, also when there is
// a snapshot already, or -1 when the path was refused. A file that cannot be read has no records.
QEL_API int login_log_init(const char* path);

// Frees what is known. Does nothing while a record is being handled or logins are being compared.
QEL_API void login_log_fini();

// Compares the file (a null path is /var/log/wtmp) with the snapshot, hands each login that began
// or ended and `ctx`, which is not read here, to `emitter` (which may be null), and keeps the new
// state as the snapshot. Reports nothing when most known logins are gone: the file is another one
// then. Returns 0, or -1 when the monitor is stopped or the path was refused, or inside a callback
// or an emitter. May run client callbacks.
QEL_API int check_login_event(const char* path, wtmp_emitter emitter, struct audit_ctx* ctx);
}

// The time of a login, in seconds since the epoch.
std::int64_t login_time(const wtmp_entry& entry);
