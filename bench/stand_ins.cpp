// The fortified headers would wrap what is defined here.
#undef _FORTIFY_SOURCE

#include "stand_ins.h"

#include <fcntl.h>
#include <qel_frame.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define QEL_SANITIZED_HEAP
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QEL_SANITIZED_HEAP
#endif
#endif

#ifdef QEL_SANITIZED_HEAP
// Of sanitizer/allocator_interface.h, which GCC does not install.
extern "C" int __sanitizer_install_malloc_and_free_hooks(
    void (*allocated)(const volatile void* memory, std::size_t size),
    void (*freed)(const volatile void* memory));
#endif

namespace {

struct {
  std::uint64_t allocations;
  std::uint64_t stats;
  bool stat_skipped;
  struct stat answer;  // the result of a skipped stat
  qel_poller_fn poller;
  void* poller_argument;
} state;

}  // namespace

namespace bench {

std::uint64_t allocations() {
  return state.allocations;
}

std::uint64_t stats() {
  return state.stats;
}

void skip_stat(const char* path) {
  state.stat_skipped = false;
  if (path == nullptr) return;
  stat(path, &state.answer);
  state.stat_skipped = true;
}

int run_poller() {
  return state.poller(state.poller_argument);
}

}  // namespace bench

extern "C" {

int qel_mainloop_reg_poller(qel_poller_fn poller, void* argument) {
  state.poller = poller;
  state.poller_argument = argument;
  return 0;
}

// The real call costs as much as libc's, because both only make this one system call.
int stat(const char* path, struct stat* status) noexcept {
  ++state.stats;
  if (state.stat_skipped) {
    *status = state.answer;
    return 0;
  }
  return static_cast<int>(syscall(SYS_newfstatat, AT_FDCWD, path, status, 0));
}

#ifdef QEL_SANITIZED_HEAP

// A sanitizer's heap cannot be replaced, but it has hooks for its calls.
[[gnu::constructor]] static void watch_heap() {
  __sanitizer_install_malloc_and_free_hooks(
      [](const volatile void*, std::size_t) { ++state.allocations; }, [](const volatile void*) {});
}

#else

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) noexcept {
  ++state.allocations;
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  ++state.allocations;
  return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) noexcept {
  ++state.allocations;
  return __libc_realloc(memory, size);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
  ++state.allocations;
  return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept {
  *memory = memalign(alignment, size);
  return *memory == nullptr ? ENOMEM : 0;
}

#endif
}
