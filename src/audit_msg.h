// Record intake: gathers the records of one audited system call by their serial in an audit
// context, and hands the context to event assembly when its end-of-event record arrives.
//
// The poller calls handle_audit_msg for each reply and scan_audit_ctx now and then; start and stop
// call audit_msg_init and audit_msg_fini.
#pragma once

#include <libaudit.h>
#include <qel_audit.h>

#include <cstddef>
#include <cstdint>

// One open group of records. Owns `path`, `key`, `comm`, `argv` and the texts in `argv`, all of
// them malloc(3) storage. Other modules read it; event assembly may move texts out.
struct audit_ctx {
  std::int64_t deadline;  // expires when this time, in seconds since the epoch, has passed
  std::uint32_t msgtype;  // of the record that opened it: AUDIT_SYSCALL
  std::int32_t ruletype;  // id in audit_rule_types
  std::uint32_t serial;
  std::uint32_t arch;  // AUDIT_ARCH_ value of linux/audit.h
  std::uint32_t syscall;
  std::int32_t success;  // 0 or 1
  std::int32_t exit;
  std::uint64_t args[4];
  std::uint32_t ppid;
  std::uint32_t pid;
  std::uint32_t uid;
  std::uint32_t gid;
  alignas(8) std::uint8_t sockaddr[128];  // zero until a valid AUDIT_SOCKADDR record has come
  char* path;  // of the first AUDIT_PATH record of an execution without arguments, or null
  char* key;
  char* comm;
  // The program arguments. Slots below arg_index are filled. While arg_left is above 0, slot
  // arg_index is a buffer in which a split argument is put together from pieces.
  std::int32_t arg_index;
  std::int32_t arg_left;    // characters of the split argument that are still to come
  std::int32_t arg_offset;  // where its next piece goes
  std::int32_t arg_parts;   // pieces that have come
  std::int32_t argc;  // slots of argv; 0 until the count has come, negative when it was refused
  char** argv;
};
static_assert(offsetof(audit_ctx, ruletype) == 12 && offsetof(audit_ctx, arch) == 20 &&
              offsetof(audit_ctx, exit) == 32 && offsetof(audit_ctx, args) == 40 &&
              offsetof(audit_ctx, uid) == 80 && offsetof(audit_ctx, sockaddr) == 88 &&
              offsetof(audit_ctx, path) == 216 && offsetof(audit_ctx, arg_index) == 240 &&
              offsetof(audit_ctx, argv) == 264 && sizeof(audit_ctx) == 272);

extern "C" {

// Makes the empty context table. Returns 0.
QEL_API int audit_msg_init();

// Frees the table and every open context. Does nothing while a record is being handled.
QEL_API void audit_msg_fini();

// Deletes expired contexts in a part of the table; `now` in seconds since the epoch. Costs nothing
// when no context is open. Does nothing while a record is being handled.
QEL_API void scan_audit_ctx(std::int64_t now);

// Takes one reply as audit_get_reply filled it, and terminates its text in the reply's own storage.
// Returns 0 when it was taken and -1 when it was dropped: an unknown type, a malformed record, no
// context to add to, a call from inside a callback. May run client callbacks.
QEL_API int handle_audit_msg(struct audit_reply* reply);

// Sets the context's rule type by its key. Returns 0, or -1 when the key is no rule type's.
QEL_API int get_audit_type(struct audit_ctx* ctx);
}

// Frees the texts that the context owns and leaves null pointers.
void clear_audit_ctx(audit_ctx* ctx);
