/*
 * loop - makes many system calls in a row, in a test guest.
 *   loop ROUNDS PAUSE_ms CALL...    each CALL in each round: bind, mkdir, openat or refused
 * Prints nothing; status 1 when a call did not do what it should.
 */
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

namespace {

bool close_opened(int fd) {
  return fd >= 0 && close(fd) == 0;
}

// The process number is in the address (127.PID.PID.1), so that processes side by side do not take
// each other's ports and their events can be told apart.
bool bind_port(unsigned round) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(20000 + round % 40000));
  address.sin_addr.s_addr =
      htonl(INADDR_LOOPBACK | (static_cast<uint32_t>(getpid()) & 0xffff) << 8);
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  return close_opened(fd) && bound;
}

bool make_directory(unsigned round) {
  const std::string path = "/tmp/loop-" + std::to_string(getpid()) + "-" + std::to_string(round);
  return mkdir(path.c_str(), 0755) == 0 && rmdir(path.c_str()) == 0;
}

bool open_for_reading(unsigned) {
  return close_opened(openat(AT_FDCWD, "/dev/null", O_RDONLY | O_CLOEXEC));
}

// Of a watched file for writing, by somebody who may not.
bool be_refused(unsigned round) {
  constexpr const char* kWatched[] = {"/etc/passwd", "/etc/shadow", "/var/log/wtmp"};
  return open(kWatched[round % std::size(kWatched)], O_WRONLY | O_CLOEXEC) < 0;
}

struct Call {
  std::string_view name;
  bool (*make)(unsigned round);
};

constexpr Call kCalls[] = {
    {"bind", bind_port},
    {"mkdir", make_directory},
    {"openat", open_for_reading},
    {"refused", be_refused},
};

bool make(std::string_view name, unsigned round) {
  for (const Call& call : kCalls)
    if (call.name == name) return call.make(round);
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  const unsigned long rounds = std::strtoul(argv[1], nullptr, 10);
  const auto pause_us = static_cast<useconds_t>(1000 * std::strtoul(argv[2], nullptr, 10));
  for (unsigned round = 0; round < rounds; ++round) {
    for (int i = 3; i < argc; ++i)
      if (!make(argv[i], round)) return std::perror(argv[i]), 1;
    if (pause_us > 0) usleep(pause_us);
  }
}
