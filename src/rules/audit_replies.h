// What the kernel answers on the audit socket: results of requests, and replies among the records.
//
// The socket can overrun: when its receive buffer is full the kernel drops what it has for us,
// answers too, and nothing more gets in until everything has been read. The next read then gives
// ENOBUFS, once. The rule and connection code asks here what a result means, and whether answers
// may be missing.
#pragma once

#include <libaudit.h>
#include <signal.h>

#include <cerrno>
#include <cstdint>

// One start or one stop, while it lives. All waits of this module during it together take ten
// seconds at most, so that a main loop is never held up for longer.
//
// Signals are blocked meanwhile, except for those that a fault of the thread itself raises:
// libaudit begins each of its waits anew after a signal, and waits for ever where they come often
// enough.
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

// To be called for a new connection: it has not overrun. Asks the kernel for room for some thousand
// records that come while nobody reads, which is what a new receiver gets from a busy machine; the
// usual room is for less than a hundred. A process without CAP_NET_ADMIN gets no more than
// net.core.rmem_max.
void prepare_socket();

// What a request's result says. ENOBUFS is about the socket: libaudit met it while it looked for
// the answer. The kernel has carried the request out or refused it by then, and which of the two is
// as little known as when a record stands before the answer, where libaudit says success.
int outcome_of(int result);

// To be called when a read of the socket gave ENOBUFS.
void note_overrun();

// Whether the socket has overrun since the connection was made or discard_waiting was called.
bool has_overrun();

// Makes a request that may be made again, once more where the first outcome is not known. Returns
// the result, and 1 when that is not known either.
template <typename Ask>
int ask_twice(Ask ask) {
  const int result = ask();
  if (result != -ENOBUFS) return result;
  note_overrun();
  return outcome_of(ask());
}

// Deletes a rule with flags as the kernel lists them, likewise: when it is not there the second
// time, it is gone. Returns libaudit's result.
int delete_listed_rule(audit_rule_data* rule, int flags, int action);

// Whether a message waits. While one does, libaudit says success for every request: it does not
// look behind the message for the answer.
bool has_unread();

// Reads what waits, for a second at most. It is lost.
void discard_waiting();

// Hands a reply to `take`, which returns true when it needs no more.
using TakeReply = bool (*)(const audit_reply& reply, void* argument);

// Reads until `take` has all of the replies to the request `sequence`. Records that arrive
// meanwhile are lost. Gives up after 40 reads in a row without a message (39 after a message), 100
// ms each. Also gives up, and notes an overrun, when for 4 seconds none of the messages that keep
// coming was a reply, or when the exchange has no time left.
void read_replies(std::uint32_t sequence, TakeReply take, void* argument);

// The kernel's enabled state: 0 off, 1 on, 2 locked until the next boot; negative when it cannot be
// had.
int ask_enabled();
