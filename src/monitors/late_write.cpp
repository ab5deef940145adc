#include "monitors/late_write.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "base/memory.h"
#include "rules/rule_types.h"

namespace qel {
namespace {

constexpr std::int64_t kSecond_ns = 1'000'000'000;
constexpr std::int64_t kLookFor_ns = 10 * kSecond_ns;
constexpr std::int64_t kLookPause_ns = kSecond_ns / 10;

constexpr std::uint32_t kNoProcess = UINT32_MAX;

// The parts of the opener's context that the comparison and its events need.
struct Opener {
  std::int32_t ruletype;
  std::uint32_t pid;
  std::uint32_t uid;
  char comm[QEL_NAME_SIZE];
};

struct Watched {
  FileIdentity before;  // the state of the file just before it was last read
  bool pending;         // the other members below are valid only when set
  Opener opener;
  std::int64_t next_look_ns;  // times of CLOCK_MONOTONIC
  std::int64_t last_look_ns;
};

enum File { kPasswd, kShadow, kWtmp, kFileCount };
constexpr const char* kPaths[kFileCount] = {"/etc/passwd", "/etc/shadow", "/var/log/wtmp"};

struct {
  Watched files[kFileCount];
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

// The context of a successful call, as far as it is remembered. `opener` still owns the command
// name.
audit_ctx context_of(Opener& opener) {
  audit_ctx ctx = {};
  ctx.ruletype = opener.ruletype;
  ctx.success = 1;
  ctx.pid = opener.pid;
  ctx.uid = opener.uid;
  ctx.comm = opener.comm;
  return ctx;
}

void begin_looking(Watched& file) {
  const std::int64_t now = now_ns();
  file.pending = true;
  file.next_look_ns = now + kLookPause_ns;
  file.last_look_ns = now + kLookFor_ns;
}

bool is_pending(const Watched& file) {
  return file.pending;
}

void look_at(File index, std::int64_t now, int (*handle)(audit_ctx* ctx)) {
  Watched& file = state.files[index];
  if (!file.pending || now < file.next_look_ns) return;
  const bool is_last = now >= file.last_look_ns;
  file.next_look_ns = std::min(now + kLookPause_ns, file.last_look_ns);
  const bool changed = !is_same(identity_of(index), file.before);
  if (changed || is_last) file.pending = false;
  if (!changed) return;
  Opener opener = file.opener;  // the comparison overwrites the remembered opener
  audit_ctx ctx = context_of(opener);
  handle(&ctx);
}

}  // namespace

void note_watched_files() {
  for (int file = 0; file < kFileCount; ++file)
    state.files[file].before = identity_of(static_cast<File>(file));
}

FileIdentity watched_file(const audit_ctx& ctx) {
  return identity_of(file_of(ctx.ruletype));
}

void remember_opener(const audit_ctx& ctx, const FileIdentity& before) {
  Watched& file = state.files[file_of(ctx.ruletype)];
  file.before = before;
  file.opener.ruletype = ctx.ruletype;
  file.opener.pid = ctx.pid;
  file.opener.uid = ctx.uid;
  copy_text(file.opener.comm, ctx.comm != nullptr ? ctx.comm : "");
  begin_looking(file);
}

void remember_refused(const audit_ctx& ctx) {
  Watched& file = state.files[file_of(ctx.ruletype)];
  if (file.pending) return;
  file.opener = {};
  file.opener.ruletype = ctx.ruletype;
  file.opener.pid = kNoProcess;
  begin_looking(file);
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
