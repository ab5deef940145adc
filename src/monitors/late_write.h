// Late writes: a watch fires when a file is opened for writing, and its end-of-event record is
// often handled before the program has written anything; no further event follows. So after each
// comparison for a watch context the file is looked at again for a while, and compared once more
// when it has changed.
//
// Event assembly remembers contexts; the poller looks; start and stop call the first and the last
// function.
#pragma once

#include <sys/types.h>
#include <time.h>

#include "records/audit_ctx.h"

namespace qel {

// What tells one state of a file from another; all zero for a file that is not there.
struct FileIdentity {
  dev_t device;
  ino_t inode;
  off_t size;
  timespec modified;
};

// To be called before the first snapshots are taken: notes what the watched files are.
void note_watched_files();

// Of the file whose watch gave the context, as it is now.
FileIdentity watched_file(const audit_ctx& ctx);

// Has the context's file looked at for 10 seconds from now. `before` is what the file was just
// before the comparison read it. A later opener of the same file takes this one's place, and a
// comparison that a look brings begins the 10 seconds anew.
void remember_opener(const audit_ctx& ctx, const FileIdentity& before);

// The same for a call that was refused. It has written nothing, so it never takes an opener's place
// or adds to its time, and what a look finds is not put down to it.
void remember_refused(const audit_ctx& ctx);

// Looks at the remembered files, ten times a second at most, and hands the context of each one that
// is not what it was before its last comparison to `handle`, which may remember it anew. Costs
// nothing, not even a system call, when there are none.
void look_at_watches(int (*handle)(audit_ctx* ctx));

void forget_watches();

}  // namespace qel
