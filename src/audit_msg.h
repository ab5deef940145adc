// Record intake: gathers the records of one audited system call by their serial in an audit
// context, and passes the context to event assembly when its end-of-event record arrives.
//
// The poller calls handle_audit_msg for each reply and scan_audit_ctx at intervals. Start and stop
// call audit_msg_init and audit_msg_fini.
#pragma once

#include <libaudit.h>
#include <qel_audit.h>

#include <cstdint>

#include "records/audit_ctx.h"

extern "C" {

// Creates the empty context table. Returns 0.
QEL_API int audit_msg_init();

// Frees the table and every open context. Does nothing while a record is being handled.
QEL_API void audit_msg_fini();

// Deletes expired contexts in a part of the table; `now` is in seconds since the epoch. Costs
// nothing when no context is open. Does nothing while a record is being handled.
QEL_API void scan_audit_ctx(std::int64_t now);

// Takes one reply as audit_get_reply filled it, and terminates its text in the reply's own storage.
// Returns 0 when the reply was used. Returns -1 when it was dropped: an unknown type, a malformed
// record, no context to add to, or a call from inside a callback. May run client callbacks.
QEL_API int handle_audit_msg(struct audit_reply* reply);

// Sets the context's rule type by its key. Returns 0, or -1 when the key belongs to no rule type.
QEL_API int get_audit_type(struct audit_ctx* ctx);
}

// Frees the texts that the context owns and sets their pointers to null.
void clear_audit_ctx(audit_ctx* ctx);
