// An audit kernel in memory, behind the calls by which libaudit talks to the real one.
//
// Linked into an executable, this library defines audit_open, audit_close, audit_set_pid,
// audit_is_enabled, audit_set_enabled, audit_set_rate_limit, audit_set_backlog_limit,
// audit_request_status, audit_request_rules_list_data, audit_get_reply, audit_add_rule_data,
// audit_delete_rule_data and audit_getloginuid, which take the place of libaudit's; rules are still
// built, and names still looked up, by the real libaudit. Used by tests, replay, benchmarks and
// fuzzing, from one thread.
//
// While the kernel is switched off (as it is at first) every call is forwarded to the real
// libaudit. While it is on, messages wait in one queue until audit_get_reply takes them, and a
// request ends as it does with libaudit 3.0.9: only the FIRST waiting message is looked at for an
// acknowledgement. If it is one, it is taken and its result returned; if it is not, the request's
// sequence number is returned whatever the outcome, and the acknowledgement stays for the reader.
#pragma once

#include <libaudit.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "rule_list.h"

namespace offline {

// The calls of libaudit that can be made to fail and that are counted.
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

// A request as the kernel would receive it; `rule` is a copy bit by bit.
struct RuleRequest {
  bool add;
  std::uint32_t flags;
  std::uint32_t action;
  Rule rule;
};

// Where the acknowledgement of a request stands.
enum class AckOrder {
  kAckFirst,     // as on two processors: before the request's own CONFIG_CHANGE record
  kRecordFirst,  // as on one: behind it, where libaudit does not look, so it says success
};

// Switches the offline kernel on with nothing loaded, queued, counted or scripted: auditing off and
// unlocked, no receiver, AckOrder::kAckFirst, CONFIG_CHANGE records on, login uid unset.
// Descriptors that are open from before are closed.
void switch_on();
// Forgets everything and forwards to the real libaudit again. Open descriptors are closed.
void switch_off();

// ---- Scripting --------------------------------------------------------------------------------
void set_ack_order(AckOrder order);
// Auditing as the boot left it: on is `audit=1`. A locked kernel audits too, and refuses requests
// that change it with -EPERM; unlocking leaves auditing on.
void set_auditing(bool on);
void set_locked(bool locked);
// Status and list requests are acknowledged but get no answer.
void set_silent(bool silent);
// Records come as fast as they are read: one always waits.
void set_flood(bool flood);
// Whether requests cause CONFIG_CHANGE records. A kernel writes them, for failed requests too,
// while auditing is on; they reach the receiver only. Their serials start at 4000000001, out of the
// way of fed records. Without them the socket stays empty and every request returns its true
// outcome.
void set_config_records(bool wanted);
// Another process is the receiver: audit_set_pid fails with -EEXIST.
void set_other_receiver(bool present);
void set_loginuid(uid_t uid);
// What the kernel finds when a watch is added: the directory of a watched file, or a watched
// directory itself. At first this machine's file system is asked.
void set_path_check(PathExists exists);

// A failing call returns `result` and does nothing else; a negative result goes to errno as well.
// audit_open returns -1 then, whatever the result; audit_close cannot fail and is carried out.
// The n-th call from now, of any kind (counted from 1), fails.
void fail_call_number(unsigned n, int result);
// The next `times` calls of this kind fail.
void fail(Call call, int result, unsigned times = 1);

// A rule that was loaded before by somebody else, as the kernel lists it: behind those of its list.
void preload_rule(const audit_rule_data& rule);
// Queues a record or reply for audit_get_reply, also before the socket is opened. `payload` is a
// record's text or a reply's binary payload. As from the kernel, a record's length in the reply is
// that of its text alone, nothing terminates it and stale bytes stay behind it; a reply's length
// counts the header. libaudit refuses a record of less than 16 bytes with -EBADE.
// Throws std::length_error if libaudit's buffer (MAX_AUDIT_MESSAGE_LENGTH) cannot hold the payload.
void feed(int type, std::string_view payload, std::uint32_t sequence = 0);

// ---- Looking ----------------------------------------------------------------------------------
// Calls of this kind since the kernel was switched on; of all kinds for Call::kCount.
unsigned calls(Call call);
// Messages that audit_get_reply has handed over since the last switch, those of the real kernel
// while it is off included.
std::size_t received();
// As listed: by filter list, in each the newest first if added with AUDIT_FILTER_PREPEND, which is
// dropped from the flags.
const std::vector<Rule>& rules();
// Every add and delete on an open descriptor, also refused ones and those told to fail.
const std::vector<RuleRequest>& requests();
// Messages that audit_get_reply has not yet handed over.
std::size_t waiting();
bool is_open();
// 0 without a receiver. A receiver that closed its socket without giving up the role is still
// named.
std::uint32_t receiver_pid();
std::uint32_t enabled();
std::uint32_t rate_limit();
std::uint32_t backlog_limit();

}  // namespace offline
