#include "late_write.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "audit_rule.h"
#include "memory.h"

namespace qel {
namespace {

constexpr std::int64_t kSecond_ns = 1'000'000'000;
constexpr std::int64_t kLookFor_ns = 10 * kSecond_ns;
constexpr std::int64_t kLookPause_ns = kSecond_ns / 10;

// What the comparison and its events need of a context.
struct Remembered {
  bool pending;
  std::int32_t ruletype;
  std::uint32_t syscall;
  std::uint32_t pid;
  std::uint32_t uid;
  char comm[QEL_NAME_SIZE];
  FileIdentity before;
  std::int64_t next_look_ns;  // times of CLOCK_MONOTONIC
  std::int64_t last_look_ns;
};

enum File { kPasswd, kShadow, kWtmp, kFileCount };
constexpr const char* kPaths[kFileCount] = {"/etc/passwd", "/etc/shadow", "/var/log/wtmp"};

struct {
  Remembered files[kFileCount];
} state;

File file_of(std::int32_t ruletype) {
  switch (ruletype) {
    case kPasswdRule:
      return kPasswd;
    case kShadowRule:
      return kShadow;
    default:
      return kWtmp;
  }
}

FileIdentity identity_of(File file) {
  struct stat status;
  if (stat(kPaths[file], &status) != 0) return {};
  return {status.st_dev, status.st_ino, status.st_size, status.st_mtim};
}

bool is_same(const FileIdentity& a, const FileIdentity& b) {
  return a.device == b.device && a.inode == b.inode && a.size == b.size &&
         a.modified.tv_sec == b.modified.tv_sec && a.modified.tv_nsec == b.modified.tv_nsec;
}

std::int64_t now_ns() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kSecond_ns + now.tv_nsec;
}

// The context as far as it is remembered. Its command name stays this module's.
audit_ctx context_of(Remembered& watch) {
  audit_ctx ctx = {};
  ctx.msgtype = AUDIT_SYSCALL;
  ctx.ruletype = watch.ruletype;
  ctx.syscall = watch.syscall;
  ctx.pid = watch.pid;
  ctx.uid = watch.uid;
  ctx.comm = watch.comm;
  return ctx;
}

bool is_pending(const Remembered& watch) {
  return watch.pending;
}

void look_at(File file, std::int64_t now, int (*handle)(audit_ctx* ctx)) {
  Remembered& watch = state.files[file];
  if (!watch.pending || now < watch.next_look_ns) return;
  const bool is_last = now >= watch.last_look_ns;
  watch.next_look_ns = std::min(now + kLookPause_ns, watch.last_look_ns);
  const bool changed = !is_same(identity_of(file), watch.before);
  if (changed || is_last) watch.pending = false;
  if (!changed) return;
  Remembered copy = watch;  // the comparison remembers anew in the same place
  audit_ctx ctx = context_of(copy);
  handle(&ctx);
}

}  // namespace

FileIdentity watched_file(const audit_ctx& ctx) {
  return identity_of(file_of(ctx.ruletype));
}

void remember_watch(const audit_ctx& ctx, const FileIdentity& before) {
  Remembered& watch = state.files[file_of(ctx.ruletype)];
  watch.pending = true;
  watch.ruletype = ctx.ruletype;
  watch.syscall = ctx.syscall;
  watch.pid = ctx.pid;
  watch.uid = ctx.uid;
  copy_text(watch.comm, ctx.comm != nullptr ? ctx.comm : "");
  watch.before = before;
  const std::int64_t now = now_ns();
  watch.next_look_ns = now + kLookPause_ns;
  watch.last_look_ns = now + kLookFor_ns;
}

void look_at_watches(int (*handle)(audit_ctx* ctx)) {
  if (std::none_of(std::begin(state.files), std::end(state.files), is_pending)) return;
  const std::int64_t now = now_ns();
  for (int file = 0; file < kFileCount; ++file) look_at(static_cast<File>(file), now, handle);
}

void forget_watches() {
  state = {};
}

}  // namespace qel
