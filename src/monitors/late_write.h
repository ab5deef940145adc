// Late writes. A watch fires when a file is opened for writing, and its end-of-event record is
// often handled before the program has written anything; no further event follows. So after each
// comparison for a watch context, and after each refused call, the file is checked for a while.
// When it has changed, it is compared once more.
//
// Event assembly remembers contexts, and the poller does the checks. Start calls the first function
// and stop the last.
#pragma once

#include <sys/types.h>
#include <time.h>

#include "records/audit_ctx.h"

namespace qel {

// Distinguishes one state of a file from another; all zero for a missing file.
struct FileIdentity {
  dev_t device;
  ino_t inode;
  off_t size;
  timespec modified;
};

// Notes the present states of the watched files. Call this before the first snapshots are taken.
void note_watched_files();

// The present state of the file whose watch produced the context.
FileIdentity watched_file(const audit_ctx& ctx);

// Has the context's file checked for 10 seconds from now. `before` is the state of the file just
// before the comparison read it. A later opener of the same file replaces this one, and a
// comparison that a check causes begins the 10 seconds anew.
void remember_opener(const audit_ctx& ctx, const FileIdentity& before);

// The same for a call that was refused. Such a call has written nothing. So it never replaces an
// opener or extends an opener's time, and a change that a check finds is not attributed to it.
void remember_refused(const audit_ctx& ctx);

// Checks the remembered files, at most ten times a second. Passes the context of each file that has
// changed since just before its last comparison to `handle`, which may remember the context again.
// When no file is remembered, this costs nothing, not even a system call.
void look_at_watches(int (*handle)(audit_ctx* ctx));

void forget_watches();

}  // namespace qel
