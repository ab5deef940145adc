#include "output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <string_view>

#include "stop.h"

namespace {

struct {
  int fd = -1;
  bool failed = false;
} state;

bool report_failure() {
  std::perror("qel-watch: standard output");
  return false;
}

// Returns whether all was written.
bool write_all(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(state.fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR && !stop_requested()) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

bool open_output(const char* path) {
  state.fd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (state.fd < 0) return report_failure();
  const int other = path == nullptr ? dup(STDERR_FILENO) : open(path, O_WRONLY | O_CLOEXEC);
  if (other < 0 || dup2(other, STDOUT_FILENO) < 0) return report_failure();
  close(other);
  return true;
}

void write_line(std::string line) {
  if (state.failed) return;
  line += '\n';
  if (write_all(line) || errno == EINTR) return;
  report_failure();
  state.failed = true;
  request_stop();
}

bool output_failed() {
  return state.failed;
}
