#include "rules/audit_replies.h"

#include <poll.h>
#include <qel_audit.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <limits>

namespace {

constexpr int kReceiveBuffer_bytes = 8 * 1024 * 1024;

constexpr int kReplyWait_ms = 100;
constexpr int kMaxEmptyReads = 40;
constexpr std::int64_t kReplyTimeout_ms = 4000;
constexpr std::int64_t kDiscardTime_ms = 1000;
constexpr std::int64_t kExchangeTime_ms = 10'000;
constexpr std::int64_t kNever_ms = std::numeric_limits<std::int64_t>::max();

// libaudit waits up to four seconds for a status. A failure that comes sooner means that an answer
// arrived.
constexpr std::int64_t kAnswered_ms = 1000;

struct {
  bool overrun;
  std::int64_t end_ms = kNever_ms;  // of the exchange; CLOCK_MONOTONIC, like all times here
} state;

std::int64_t now_ms() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * std::int64_t{1000} + now.tv_nsec / 1'000'000;
}

// Waits for something to read; a signal does not prolong the wait. Returns whether a read is worth
// trying. It is also worth trying after a timeout, but not after a failed wait.
bool wait_for_message() {
  pollfd audit = {.fd = audit_fd, .events = POLLIN, .revents = 0};
  const std::int64_t end_ms = now_ms() + kReplyWait_ms;
  std::int64_t left_ms = kReplyWait_ms;
  int ready;
  do {
    ready = poll(&audit, 1, static_cast<int>(left_ms));
    left_ms = end_ms - now_ms();
  } while (ready < 0 && errno == EINTR && left_ms > 0);
  return ready >= 0 && (audit.revents & POLLNVAL) == 0;
}

// Reads one message without waiting. Returns audit_get_reply's result.
int read_message(audit_reply& reply) {
  const int result = audit_get_reply(audit_fd, &reply, GET_REPLY_NONBLOCKING, 0);
  if (result == -ENOBUFS) note_overrun();
  return result;
}

bool take_enabled(const audit_reply& reply, void* enabled) {
  if (reply.type != AUDIT_GET) return false;
  *static_cast<int*>(enabled) = static_cast<int>(reply.status->enabled);
  return true;
}

}  // namespace

KernelExchange::KernelExchange() {
  state.end_ms = now_ms() + kExchangeTime_ms;
  sigset_t blocked;
  sigfillset(&blocked);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
    sigdelset(&blocked, fault);
  }
  pthread_sigmask(SIG_BLOCK, &blocked, &blocked_before_);
}

KernelExchange::~KernelExchange() {
  pthread_sigmask(SIG_SETMASK, &blocked_before_, nullptr);
  state.end_ms = kNever_ms;
}

bool is_time_up() {
  return now_ms() >= state.end_ms;
}

void prepare_socket() {
  state.overrun = false;
  constexpr int kSize = kReceiveBuffer_bytes;
  if (setsockopt(audit_fd, SOL_SOCKET, SO_RCVBUFFORCE, &kSize, sizeof(kSize)) == 0) return;
  setsockopt(audit_fd, SOL_SOCKET, SO_RCVBUF, &kSize, sizeof(kSize));
}

int outcome_of(int result) {
  if (result != -ENOBUFS) return result;
  note_overrun();
  return 1;
}

void note_overrun() {
  state.overrun = true;
}

bool has_overrun() {
  return state.overrun;
}

int delete_listed_rule(audit_rule_data* rule, int flags, int action) {
  int result = audit_delete_rule_data(audit_fd, rule, flags, action);
  if (result != -ENOBUFS) return result;
  note_overrun();
  result = audit_delete_rule_data(audit_fd, rule, flags, action);
  return result == -ENOENT ? 1 : outcome_of(result);
}

bool has_unread() {
  pollfd audit = {.fd = audit_fd, .events = POLLIN, .revents = 0};
  return poll(&audit, 1, 0) > 0 && (audit.revents & POLLIN) != 0;
}

// When records arrive as fast as they are read, the socket never becomes empty, but it has room
// most of the time.
void discard_waiting() {
  audit_reply reply;
  const std::int64_t deadline_ms = std::min(now_ms() + kDiscardTime_ms, state.end_ms);
  while (now_ms() < deadline_ms) {
    const int result = read_message(reply);
    if (result <= 0 && result != -ENOBUFS) break;
  }
  state.overrun = false;
}

void read_replies(std::uint32_t sequence, TakeReply take, void* argument) {
  audit_reply reply;
  std::int64_t deadline_ms = now_ms() + kReplyTimeout_ms;
  for (int empty_reads = 0; empty_reads < kMaxEmptyReads;) {
    if (is_time_up()) {
      note_overrun();
      return;
    }
    if (!wait_for_message() || read_message(reply) <= 0) {
      ++empty_reads;
      continue;
    }
    empty_reads = 1;
    if (reply.nlh->nlmsg_seq == sequence) {
      if (take(reply, argument)) return;
      deadline_ms = now_ms() + kReplyTimeout_ms;
    } else if (now_ms() > deadline_ms) {
      note_overrun();  // the reply was dropped, which the kernel does only when the socket is full
      return;
    }
  }
}

// audit_is_enabled looks at no more than forty messages. It also gives up on an acknowledgement
// that is left over from audit_set_pid, but has read it by then, hence the second try. The records
// that the kernel kept while there was no receiver can be more than forty.
int ask_enabled() {
  const std::int64_t asked_ms = now_ms();
  int enabled = audit_is_enabled(audit_fd);
  if (enabled < 0 && now_ms() - asked_ms < kAnswered_ms) enabled = audit_is_enabled(audit_fd);
  if (enabled >= 0 || !has_unread()) return enabled;
  discard_waiting();
  const int sequence = audit_request_status(audit_fd);
  if (sequence > 0) read_replies(static_cast<std::uint32_t>(sequence), take_enabled, &enabled);
  return enabled;
}
