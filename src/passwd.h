// The account monitor: a snapshot of all accounts, taken at start, and its comparison with the
// databases after a watch has fired; and the cache of user names by uid.
#pragma once

#include <qel_audit.h>

#include <cstdint>

#include "monitors/snapshot.h"

struct audit_ctx;

// An account of a snapshot. It owns its texts.
struct passwd_entry {
  list_links links;
  char* name;
  char* passwd;  // of the passwd entry; the encrypted password is in `hash`
  std::uint32_t uid;
  std::uint32_t gid;
  char* gecos;
  char* dir;
  char* shell;
  char* hash;           // of the shadow entry, or "*nopasswd*" without one
  char* group;          // name of the group `gid`, or the number in decimal
  std::uint32_t flags;  // QEL_USER_ bits of changes to report
};

extern "C" {

// Receives each changed account of a comparison: deleted ones as they were, others as they are.
// Returns 0 to go on; anything else ends the comparison's reports.
typedef int (*passwd_emitter)(struct passwd_entry* entry, struct audit_ctx* ctx);

// Takes the first snapshot. Returns 0, also when there is one already.
QEL_API int passwd_init();

// Frees what is known. Names that get_uname_by_uid returned are gone with it. Does nothing while a
// record is being handled or accounts are being compared.
QEL_API void passwd_fini();

// Compares the databases with the snapshot, hands each changed account and `ctx`, which is not read
// here, to `emitter` (which may be null), and keeps the new state as the snapshot. Returns 0, or -1
// when the monitor is stopped, or inside a callback or an emitter. May run client callbacks.
QEL_API int check_passwd_event(passwd_emitter emitter, struct audit_ctx* ctx);

// The name of a user, or the uid in decimal when it has none or the monitor is stopped. Never null;
// valid until the next call.
QEL_API const char* get_uname_by_uid(std::uint32_t uid);
}
