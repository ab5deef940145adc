// An audit kernel in memory, behind the calls by which libaudit talks to the real one.
//
// Linked into an executable, this library defines audit_open, audit_close, audit_set_pid,
// audit_is_enabled, audit_set_enabled, audit_set_rate_limit, audit_set_backlog_limit,
// audit_request_status, audit_request_rules_list_data, audit_get_reply, audit_add_rule_data,
// audit_delete_rule_data and audit_getloginuid, which replace libaudit's. The real libaudit still
// builds rules and looks names up. Tests, replay, benchmarks and fuzzing use this library, from one
// thread.
//
// While the kernel is switched off, as it is at first, every call is forwarded to the real
// libaudit. While it is on, messages wait in one queue until audit_get_reply takes them. A request
// ends as it does with libaudit 3.0.9, which looks for an acknowledgement only in the FIRST waiting
// message. If that message is one, it is taken and its result is returned. If it is not, the
// sequence number of the request is returned whatever the outcome, and the acknowledgement stays
// for the reader.
#pragma once

#include <libaudit.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "rule_list.h"

namespace offline {

// The calls of libaudit that are counted and can be made to fail.
enum class Call {
  kOpen,
  kClose,
  kSetPid,
  kIsEnabled,
  kSetEnabled,
  kSetRateLimit,
  kSetBacklogLimit,
  kRequestStatus,
  kRequestRules,
  kGetReply,
  kAddRule,
  kDeleteRule,
  kGetLoginUid,
  kCount
};

// A request as the kernel would receive it; `rule` is an exact copy.
struct RuleRequest {
  bool add;
  std::uint32_t flags;
  std::uint32_t action;
  Rule rule;
};

// The place of a request's acknowledgement in the queue.
enum class AckOrder {
  kAckFirst,     // before the request's own CONFIG_CHANGE record, as on two processors
  kRecordFirst,  // after it, as on one processor; libaudit misses it and reports success
};

// Switches the offline kernel on with nothing loaded, queued, counted or scripted. Auditing is off
// and unlocked, there is no receiver, the order is AckOrder::kAckFirst, CONFIG_CHANGE records are
// on, and the login uid is unset. Closes descriptors that are still open.
void switch_on();
// Forgets everything and forwards to the real libaudit again. Closes open descriptors.
void switch_off();

// ---- Scripting --------------------------------------------------------------------------------
void set_ack_order(AckOrder order);
// Auditing as it is after the boot; on corresponds to `audit=1`. A locked kernel audits as well,
// and refuses requests that change it with -EPERM. Unlocking leaves auditing on.
void set_auditing(bool on);
void set_locked(bool locked);
// Status and list requests are acknowledged but get no answer.
void set_silent(bool silent);
// Records arrive as fast as they are read: one is always waiting.
void set_flood(bool flood);
// Whether requests cause CONFIG_CHANGE records. A kernel writes them while auditing is on, for
// failed requests too; they reach only the receiver. Their serials start at 4000000001, so that
// they do not collide with those of fed records. Without these records the socket stays empty and
// every request returns its true outcome.
void set_config_records(bool wanted);
// Another process is the receiver: audit_set_pid fails with -EEXIST.
void set_other_receiver(bool present);
void set_loginuid(uid_t uid);
// Decides what the kernel finds when a watch is added: the directory of a watched file, or a
// watched directory itself. By default the file system of this machine decides.
void set_path_check(PathExists exists);

// A failing call returns `result` and does nothing else; a negative result is also stored in errno.
// A failing audit_open returns -1 whatever the result. audit_close cannot fail and is always
// carried out.
//
// The n-th call from now, of any kind (counted from 1), fails.
void fail_call_number(unsigned n, int result);
// The next `times` calls of this kind fail.
void fail(Call call, int result, unsigned times = 1);

// Adds a rule that somebody else loaded earlier, as the kernel lists it: after the other rules of
// its list.
void preload_rule(const audit_rule_data& rule);
// Queues a record or reply for audit_get_reply, even before the socket is opened. `payload` is the
// text of a record or the binary payload of a reply. As with a real kernel, the length of a record
// is that of its text alone, nothing terminates the text, and stale bytes follow it. The length of
// a reply includes the header. libaudit refuses a record of fewer than 16 bytes with -EBADE. Throws
// std::length_error if libaudit's buffer (MAX_AUDIT_MESSAGE_LENGTH) cannot hold the payload.
void feed(int type, std::string_view payload, std::uint32_t sequence = 0);

// ---- Looking ----------------------------------------------------------------------------------
// Calls of this kind since the kernel was switched on; Call::kCount stands for all kinds.
unsigned calls(Call call);
// Messages that audit_get_reply has returned since the kernel was last switched on or off,
// including the real kernel's while this one is off.
std::size_t received();
// The rules as listed: by filter list, and in each list the newest first if it was added with
// AUDIT_FILTER_PREPEND, which is removed from the flags.
const std::vector<Rule>& rules();
// Every add and delete on an open descriptor, including refused ones and those made to fail.
const std::vector<RuleRequest>& requests();
// Messages that audit_get_reply has not yet returned.
std::size_t waiting();
bool is_open();
// 0 without a receiver. A receiver that closed its socket without giving up the role is still
// reported.
std::uint32_t receiver_pid();
std::uint32_t enabled();
std::uint32_t rate_limit();
std::uint32_t backlog_limit();

}  // namespace offline
