// Event assembly: turns a closed audit context into events, or has a monitor look for changes, and
// dispatches each event to the registered callbacks.
#pragma once

#include <qel_audit.h>

#include "records/audit_ctx.h"

extern "C" {

// Builds and dispatches the events of `ctx`. Takes the argument list out of the context. Returns 0,
// or -1 when the context was refused or when called inside a callback. Runs client callbacks.
QEL_API int handle_audit_event(struct audit_ctx* ctx);
}

// Runs the callbacks that are registered for the event record: those of its key, then the global
// ones. The caller keeps the record. Returns 0, or -1 for an unknown class.
int dispatch_event(const void* event);
