// The records of one audited system call, gathered under their serial. audit_msg and its parsers
// fill the context; audit_event and late_write read it.
#pragma once

#include <cstddef>
#include <cstdint>

// One open group of records. Owns `path`, `key`, `comm`, `argv` and the texts in `argv`, all of
// them malloc(3) storage. Other modules only read it, except that event assembly may move texts
// out.
struct audit_ctx {
  std::int64_t deadline;  // expires when this time, in seconds since the epoch, has passed
  std::uint32_t msgtype;  // type of the record that opened it: AUDIT_SYSCALL
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
  alignas(8) std::uint8_t sockaddr[128];  // zero until a valid AUDIT_SOCKADDR record has arrived
  char* path;  // from the first AUDIT_PATH record of an execution without arguments, or null
  char* key;
  char* comm;
  // The program arguments. Slots below arg_index are filled. While arg_left is above 0, slot
  // arg_index is a buffer in which a split argument is assembled from its pieces.
  std::int32_t arg_index;
  std::int32_t arg_left;    // characters of the split argument that are still to come
  std::int32_t arg_offset;  // where its next piece goes
  std::int32_t arg_parts;   // pieces that have arrived
  std::int32_t argc;        // slots of argv; 0 until the count arrives, negative when refused
  char** argv;
};
static_assert(offsetof(audit_ctx, ruletype) == 12 && offsetof(audit_ctx, arch) == 20 &&
              offsetof(audit_ctx, exit) == 32 && offsetof(audit_ctx, args) == 40 &&
              offsetof(audit_ctx, uid) == 80 && offsetof(audit_ctx, sockaddr) == 88 &&
              offsetof(audit_ctx, path) == 216 && offsetof(audit_ctx, arg_index) == 240 &&
              offsetof(audit_ctx, argv) == 264 && sizeof(audit_ctx) == 272);
