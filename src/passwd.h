// The account monitor. It takes a snapshot of all accounts at start and compares it with the
// databases after a watch has fired. It also caches user names by uid.
#pragma once

#include <qel_audit.h>

#include <cstdint>

#include "monitors/snapshot.h"

struct audit_ctx;

// An account of a snapshot. It owns its texts.
struct passwd_entry {
  list_links links;
  char* name;
  char* passwd;  // field of the passwd entry; the encrypted password is in `hash`
  std::uint32_t uid;
  std::uint32_t gid;
  char* gecos;
  char* dir;
  char* shell;
  char* hash;           // from the shadow entry, or "*nopasswd*" without one
  char* group;          // name of the group `gid`, or the gid in decimal
  std::uint32_t flags;  // QEL_USER_ bits of changes to report
};

extern "C" {

// Receives each account that a comparison found changed: a deleted one as it was, any other as it
// is now. Returns 0 to go on; anything else ends the comparison's reports.
typedef int (*passwd_emitter)(struct passwd_entry* entry, struct audit_ctx* ctx);

// Takes the first snapshot. Returns 0, even if there is a snapshot already.
QEL_API int passwd_init();

// Frees the snapshot and the cached names, including those that get_uname_by_uid returned. Does
// nothing while a record is being handled or accounts are being compared.
QEL_API void passwd_fini();

// Compares the databases with the snapshot and keeps the new state as the snapshot. Passes each
// changed account and `ctx`, which is not read here, to `emitter`, which may be null. Returns 0, or
// -1 when the monitor is stopped or when called inside a callback or an emitter. May run client
// callbacks.
QEL_API int check_passwd_event(passwd_emitter emitter, struct audit_ctx* ctx);

// The name of a user, or the uid in decimal when the user has no name or the monitor is stopped.
// Never null; valid until the next call.
QEL_API const char* get_uname_by_uid(std::uint32_t uid);
}
