// Late writes: a watch fires when a file is opened for writing, and its end-of-event record is
// often handled before the program has written anything; no further event follows. So after each
// comparison for a watch context the file is looked at again for a while, and compared once more
// when it has changed.
//
// Event assembly remembers contexts; the poller looks when it finds nothing to read.
#pragma once

#include <sys/types.h>
#include <time.h>

#include "audit_msg.h"

namespace qel {

// What tells one state of a file from another; all zero for a file that is not there.
struct FileIdentity {
  dev_t device;
  ino_t inode;
  off_t size;
  timespec modified;
};

// Of the file whose watch gave the context, as it is now.
FileIdentity watched_file(const audit_ctx& ctx);

// Has the context's file looked at for the next 10 seconds. `before` is what it was just before the
// comparison read it. A later context of the same file takes this one's place.
void remember_watch(const audit_ctx& ctx, const FileIdentity& before);

// Looks at the remembered files, ten times a second at most, and hands the context of each changed
// one to `handle`, which may remember it anew. Costs nothing, not even a system call, when there
// are none.
void look_at_watches(int (*handle)(audit_ctx* ctx));

void forget_watches();

}  // namespace qel
