// What the kernel answers on the audit socket: results of requests, and replies among the records.
//
// The socket can overrun. When its receive buffer is full, the kernel drops messages for this
// process, answers included, and nothing more gets in until everything has been read. The next read
// then fails once with ENOBUFS. The rule and connection code asks this module what a result means
// and whether answers may be missing.
#pragma once

#include <libaudit.h>
#include <signal.h>

#include <cerrno>
#include <cstdint>

// An object of this class lives for the duration of one start or one stop. In that time all waits
// of this module together take at most ten seconds, so that a main loop is never held up for
// longer.
//
// Signals are blocked meanwhile, except those that a fault of the thread itself raises. libaudit
// restarts each of its waits after a signal, and would wait forever if signals came often enough.
class KernelExchange {
 public:
  KernelExchange();
  ~KernelExchange();
  KernelExchange(const KernelExchange&) = delete;
  KernelExchange& operator=(const KernelExchange&) = delete;

 private:
  sigset_t blocked_before_;
};

// Whether the ten seconds are over.
bool is_time_up();

// Call this for a new connection; it clears the note of an overrun. Asks the kernel for a receive
// buffer that holds some thousands of records. A new receiver on a busy machine gets that many
// while nobody reads, and the usual buffer holds fewer than a hundred. A process without
// CAP_NET_ADMIN gets at most net.core.rmem_max.
void prepare_socket();

// What a request's result means. ENOBUFS concerns the socket: libaudit met it while looking for the
// answer. By then the kernel has either carried out or refused the request, and which of the two is
// unknown. The same holds when a record precedes the answer, where libaudit reports success. So
// this notes an overrun and returns 1 for ENOBUFS, and returns any other result unchanged.
int outcome_of(int result);

// Call this when a read of the socket failed with ENOBUFS.
void note_overrun();

// Whether the socket has overrun since prepare_socket or discard_waiting was last called.
bool has_overrun();

// Makes a repeatable request, and makes it once more when the first outcome is unknown. Returns the
// result, or 1 when the second outcome is unknown too.
template <typename Ask>
int ask_twice(Ask ask) {
  const int result = ask();
  if (result != -ENOBUFS) return result;
  note_overrun();
  return outcome_of(ask());
}

// Deletes a rule with flags as the kernel lists them, and tries once more when the first outcome is
// unknown. A rule that the second try does not find was deleted by the first. Returns libaudit's
// result.
int delete_listed_rule(audit_rule_data* rule, int flags, int action);

// Whether a message is waiting. As long as one is, libaudit reports success for every request,
// because it does not look for the answer after that message.
bool has_unread();

// Reads and drops all waiting messages, for a second at most.
void discard_waiting();

// Receives a reply; returns true when it needs no more.
using TakeReply = bool (*)(const audit_reply& reply, void* argument);

// Reads replies to the request `sequence` until `take` needs no more. Records that arrive meanwhile
// are lost. Gives up after 40 reads in a row without a message (39 after a message), each of which
// waits 100 ms. Also gives up, and notes an overrun, when messages keep coming but none has been a
// reply for 4 seconds, or when the exchange has no time left.
void read_replies(std::uint32_t sequence, TakeReply take, void* argument);

// The kernel's enabled state: 0 off, 1 on, 2 locked until the next boot; negative when it cannot be
// determined.
int ask_enabled();
