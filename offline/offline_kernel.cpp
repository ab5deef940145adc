// The audit kernel in memory: its settings, the queue of messages for the receiver, and the calls
// of libaudit that reach it.
#include "offline_kernel.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <optional>
#include <stdexcept>

namespace offline {
namespace {

constexpr std::uint32_t kAuditOff = 0;
constexpr std::uint32_t kAuditOn = 1;
constexpr std::uint32_t kAuditLocked = 2;
constexpr std::uint32_t kFirstOwnSerial = 4000000001;
constexpr std::uint32_t kBootBacklogLimit = 64;
constexpr std::uint32_t kBacklogWaitTime = 15000;  // 60 s in ticks of a 250 Hz kernel

// The types for which libaudit 3.0.9 sets the payload pointer; for all others it is null.
struct TypeRange {
  int first;
  int last;
};
constexpr TypeRange kPointedTypes[] = {
    {NLMSG_ERROR, NLMSG_ERROR},
    {AUDIT_GET, AUDIT_GET},
    {AUDIT_USER, AUDIT_LOGIN},
    {AUDIT_SIGNAL_INFO, AUDIT_SIGNAL_INFO},
    {AUDIT_LIST_RULES, AUDIT_LIST_RULES},
    {AUDIT_GET_FEATURE, AUDIT_GET_FEATURE},
    {AUDIT_FIRST_USER_MSG, AUDIT_LAST_USER_MSG},
    {AUDIT_FIRST_EVENT, AUDIT_INTEGRITY_LAST_MSG},
    {AUDIT_KERNEL, AUDIT_KERNEL},
    {AUDIT_FIRST_USER_MSG2, AUDIT_LAST_USER_MSG2},
};

struct ScriptedFailure {
  int result = 0;
  unsigned times = 0;
};

audit_status boot_status() {
  audit_status status{};
  status.failure = AUDIT_FAIL_PRINTK;
  status.backlog_limit = kBootBacklogLimit;
  status.feature_bitmap = AUDIT_FEATURE_BITMAP_ALL;
  status.backlog_wait_time = kBacklogWaitTime;
  return status;
}

bool exists_here(const std::string& path) {
  struct stat found;
  return stat(path.c_str(), &found) == 0;
}

struct Kernel {
  bool on = false;

  // All descriptors share one event counter, so that each is readable exactly while messages wait.
  std::vector<int> sockets;
  bool shown_readable = false;
  std::deque<std::string> queue;  // datagrams

  audit_status status = boot_status();
  int receiver_socket = -1;
  std::vector<Rule> rules;
  std::vector<RuleRequest> requests;
  std::uint32_t sequence = 0;
  std::uint32_t serial = kFirstOwnSerial;

  AckOrder ack_order = AckOrder::kAckFirst;
  bool silent = false;
  bool flood = false;
  bool config_records = true;
  bool other_receiver = false;
  uid_t loginuid = AUDIT_UID_UNSET;
  PathExists path_exists = exists_here;

  std::array<unsigned, static_cast<std::size_t>(Call::kCount)> calls{};
  std::array<ScriptedFailure, static_cast<std::size_t>(Call::kCount)> failures{};
  unsigned calls_to_failure = 0;  // 0: none is planned
  int planned_result = 0;
  std::size_t received = 0;
};

Kernel kernel;

// ---- Calls ------------------------------------------------------------------------------------

template <typename Function, typename... Args>
auto forward(const char* name, Args... args) {
  auto* function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
  if (function == nullptr) {
    std::fprintf(stderr, "offline kernel: no %s to forward to: link libaudit\n", name);
    std::abort();
  }
  return function(args...);
}

int refuse(int error) {
  errno = -error;
  return error;
}

std::optional<int> take_failure(Call call) {
  if (kernel.calls_to_failure != 0 && --kernel.calls_to_failure == 0) return kernel.planned_result;
  ScriptedFailure& failure = kernel.failures[static_cast<std::size_t>(call)];
  if (failure.times == 0) return std::nullopt;
  --failure.times;
  return failure.result;
}

// Counts the call. Returns a value when the call is to fail.
std::optional<int> begin_call(Call call) {
  ++kernel.calls[static_cast<std::size_t>(call)];
  const std::optional<int> result = take_failure(call);
  if (result && *result < 0) errno = -*result;
  return result;
}

bool is_socket(int fd) {
  return std::find(kernel.sockets.begin(), kernel.sockets.end(), fd) != kernel.sockets.end();
}

// Like begin_call, for a request, which also needs an open descriptor.
std::optional<int> begin_request(Call call, int fd) {
  const std::optional<int> result = begin_call(call);
  if (result) return result;
  if (!is_socket(fd)) return refuse(-EBADF);
  return std::nullopt;
}

// ---- Queue ------------------------------------------------------------------------------------

template <typename Object>
std::string_view bytes_of(const Object& object) {
  return {reinterpret_cast<const char*>(&object), sizeof object};
}

void show_readiness() {
  const bool readable = !kernel.queue.empty();
  if (kernel.sockets.empty() || readable == kernel.shown_readable) return;
  eventfd_t count;
  if (readable) {
    eventfd_write(kernel.sockets.front(), 1);
  } else {
    eventfd_read(kernel.sockets.front(), &count);
  }
  kernel.shown_readable = readable;
}

void queue_datagram(nlmsghdr header, std::string_view payload, std::size_t padding) {
  std::string datagram;
  datagram.reserve(sizeof header + payload.size() + padding);
  datagram.append(bytes_of(header)).append(payload).append(padding, '\0');
  kernel.queue.push_back(std::move(datagram));
  show_readiness();
}

// A reply's length includes the header; the datagram is padded to netlink's message alignment.
void queue_reply(int type, std::string_view payload, std::uint32_t sequence) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_HDRLEN + payload.size());
  header.nlmsg_type = static_cast<std::uint16_t>(type);
  header.nlmsg_seq = sequence;
  queue_datagram(header, payload, NLMSG_ALIGN(payload.size()) - payload.size());
}

// The kernel leaves the header out of the length of a record (audit_log_end).
void queue_record(int type, std::string_view text, std::uint32_t sequence) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(text.size());
  header.nlmsg_type = static_cast<std::uint16_t>(type);
  header.nlmsg_seq = sequence;
  queue_datagram(header, text, 0);
}

bool is_record(int type) {
  if (type == AUDIT_REPLACE) return false;
  return type == AUDIT_USER || type == AUDIT_LOGIN || type >= AUDIT_FIRST_USER_MSG;
}

void keep_flooding() {
  constexpr char kRecord[] = "audit(1700000000.000:1): cwd=\"/\"";
  if (kernel.flood && kernel.queue.empty()) queue_record(AUDIT_CWD, kRecord, 0);
}

void drop_first() {
  kernel.queue.pop_front();
  keep_flooding();
  show_readiness();
}

bool points_at_payload(int type) {
  return std::any_of(std::begin(kPointedTypes), std::end(kPointedTypes),
                     [type](TypeRange range) { return range.first <= type && type <= range.last; });
}

// Receives the first datagram as recvfrom and libaudit do: the bytes of `reply` after it keep their
// content.
int receive(audit_reply& reply, bool peek) {
  if (kernel.queue.empty()) return refuse(-EAGAIN);
  const std::string& datagram = kernel.queue.front();
  const std::size_t size = std::min(datagram.size(), sizeof reply.msg);
  std::memcpy(static_cast<void*>(&reply.msg), datagram.data(), size);
  if (!peek) drop_first();

  reply.type = reply.msg.nlh.nlmsg_type;
  reply.len = static_cast<int>(reply.msg.nlh.nlmsg_len);
  reply.nlh = &reply.msg.nlh;
  reply.message = nullptr;
  const std::uint32_t announced = reply.msg.nlh.nlmsg_len;
  if (announced < sizeof(nlmsghdr) || announced > size)
    return refuse(size == sizeof reply.msg ? -EFBIG : -EBADE);
  if (points_at_payload(reply.type)) reply.message = reply.msg.data;
  return static_cast<int>(size);
}

// Returns `size`, which is the result of a call that reads.
int count_received(int size, int peek) {
  if (size > 0 && (peek & MSG_PEEK) == 0) ++kernel.received;
  return size;
}

// ---- Requests ---------------------------------------------------------------------------------

struct Request {
  std::uint16_t type;
  std::string_view payload;
  std::uint32_t sequence;
};

Request make_request(int type, std::string_view payload) {
  return {static_cast<std::uint16_t>(type), payload, ++kernel.sequence};
}

// The acknowledgement of a failed request carries the whole request.
void queue_ack(const Request& request, int error) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_SPACE(request.payload.size()));
  header.nlmsg_type = request.type;
  header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  header.nlmsg_seq = request.sequence;

  std::string payload(bytes_of(error));
  payload.append(bytes_of(header));
  if (error != 0) {
    payload.append(request.payload);
    payload.append(header.nlmsg_len - NLMSG_LENGTH(request.payload.size()), '\0');
  }
  queue_reply(NLMSG_ERROR, payload, request.sequence);
}

// What libaudit reads from the first waiting message after it has sent a request.
int read_outcome(const Request& request) {
  audit_reply reply;
  const int received = receive(reply, true);
  if (received < 0) return received;
  if (reply.type != NLMSG_ERROR) return static_cast<int>(request.sequence);
  drop_first();
  const int error = reply.error->error;
  return error == 0 ? static_cast<int>(request.sequence) : refuse(error);
}

void queue_config_change(const std::string& text) {
  if (text.empty() || !kernel.config_records || kernel.receiver_socket < 0) return;
  queue_record(AUDIT_CONFIG_CHANGE,
               "audit(" + std::to_string(std::time(nullptr)) +
                   ".000:" + std::to_string(kernel.serial++) + "): " + text,
               0);
}

int conclude(const Request& request, int error, const std::string& config_change) {
  if (kernel.ack_order == AckOrder::kRecordFirst) queue_config_change(config_change);
  queue_ack(request, error);
  if (kernel.ack_order == AckOrder::kAckFirst) queue_config_change(config_change);
  return read_outcome(request);
}

bool is_auditing() {
  return kernel.status.enabled != kAuditOff;
}
bool is_locked() {
  return kernel.status.enabled == kAuditLocked;
}

std::string subject_text() {
  return "auid=" + std::to_string(kernel.loginuid) + " ses=4294967295 subj=unconfined";
}

// ---- Settings ---------------------------------------------------------------------------------

struct Setting {
  const char* name;
  std::uint32_t mask;
  std::uint32_t audit_status::*value;
};
constexpr Setting kEnabled = {"audit_enabled", AUDIT_STATUS_ENABLED, &audit_status::enabled};
constexpr Setting kPid = {"audit_pid", AUDIT_STATUS_PID, &audit_status::pid};
constexpr Setting kRateLimit = {"audit_rate_limit", AUDIT_STATUS_RATE_LIMIT,
                                &audit_status::rate_limit};
constexpr Setting kBacklogLimit = {"audit_backlog_limit", AUDIT_STATUS_BACKLOG_LIMIT,
                                   &audit_status::backlog_limit};

// Makes the change unless `error` is set, and ends the request.
int conclude_setting(const Setting& setting, std::uint32_t value, int error) {
  audit_status wanted{};
  wanted.mask = setting.mask;
  wanted.*setting.value = value;

  // Whether the change is recorded is decided before it is made. So switching auditing on leaves no
  // record.
  std::string record;
  if (is_auditing()) {
    record = std::string("op=set ") + setting.name + "=" + std::to_string(value) +
             " old=" + std::to_string(kernel.status.*setting.value) + " " + subject_text() +
             " res=" + (error == 0 ? "1" : "0");
  }
  if (error == 0) kernel.status.*setting.value = value;
  return conclude(make_request(AUDIT_SET, bytes_of(wanted)), error, record);
}

int change_setting(const Setting& setting, std::uint32_t value) {
  return conclude_setting(setting, value, is_locked() ? -EPERM : 0);
}

int check_receiver(std::uint32_t pid) {
  const bool taken = kernel.other_receiver || kernel.receiver_socket >= 0;
  if (pid == 0) return kernel.other_receiver ? -EACCES : 0;
  if (pid != static_cast<std::uint32_t>(getpid())) return -EINVAL;
  return taken ? -EEXIST : 0;
}

int change_receiver(int fd, std::uint32_t pid) {
  const int error = check_receiver(pid);
  // The kernel checks that the receiver is still alive before it replaces it.
  if (kernel.receiver_socket >= 0) queue_reply(AUDIT_REPLACE, bytes_of(pid), 0);
  if (error == 0) kernel.receiver_socket = pid == 0 ? -1 : fd;
  return conclude_setting(kPid, pid, error);
}

int request_status() {
  const Request request = make_request(AUDIT_GET, {});
  queue_ack(request, 0);
  if (!kernel.silent) queue_reply(AUDIT_GET, bytes_of(kernel.status), request.sequence);
  return read_outcome(request);
}

// libaudit discards the records before the reply, and gives up at an acknowledgement or after forty
// messages.
int read_enabled() {
  constexpr int kMostMessages = 40;
  if (request_status() <= 0) return -1;
  audit_reply reply;
  for (int i = 0; i < kMostMessages && receive(reply, false) > 0; ++i) {
    if (reply.type == NLMSG_DONE || reply.type == NLMSG_ERROR) return -1;
    if (reply.type == AUDIT_GET) return static_cast<int>(reply.status->enabled);
  }
  return -1;
}

// ---- Rules ------------------------------------------------------------------------------------

std::string_view bytes_of_rule(const audit_rule_data& rule) {
  return {reinterpret_cast<const char*>(&rule), size_of(rule)};
}

std::string rule_change_text(const char* operation, const audit_rule_data& rule, int error) {
  return subject_text() + " op=" + operation + " " + key_text(rule) +
         " list=" + std::to_string(list_of(rule)) + " res=" + (error == 0 ? "1" : "0");
}

std::string locked_text(const char* operation) {
  return "pid=" + std::to_string(getpid()) + " uid=" + std::to_string(getuid()) + " " +
         subject_text() + " op=" + operation + " audit_enabled=2 res=0";
}

int change_rules(bool add, const audit_rule_data& sent) {
  const Request request = make_request(add ? AUDIT_ADD_RULE : AUDIT_DEL_RULE, bytes_of_rule(sent));
  const char* operation = add ? "add_rule" : "remove_rule";
  if (is_locked()) return conclude(request, -EPERM, locked_text(operation));
  if (!is_valid(sent)) return conclude(request, -EINVAL, {});

  const int error =
      add ? add_rule(kernel.rules, sent, kernel.path_exists) : delete_rule(kernel.rules, sent);
  return conclude(request, error,
                  is_auditing() ? rule_change_text(operation, sent, error) : std::string());
}

int send_rule(bool add, int fd, audit_rule_data* rule, int flags, int action) {
  rule->flags = static_cast<std::uint32_t>(flags);
  rule->action = static_cast<std::uint32_t>(action);
  const Call call = add ? Call::kAddRule : Call::kDeleteRule;
  const bool fits = NLMSG_SPACE(size_of(*rule)) <= MAX_AUDIT_MESSAGE_LENGTH;
  if (fits && is_socket(fd))
    kernel.requests.push_back({add, rule->flags, rule->action, copy_rule(*rule)});
  if (const auto result = begin_request(call, fd)) return *result;
  if (!fits) return refuse(-EINVAL);
  return change_rules(add, *rule);
}

int request_rules() {
  const Request request = make_request(AUDIT_LIST_RULES, {});
  queue_ack(request, 0);
  if (kernel.silent) return read_outcome(request);
  for (const Rule& rule : kernel.rules)
    queue_reply(AUDIT_LIST_RULES, bytes_of_rule(*rule), request.sequence);
  queue_reply(NLMSG_DONE, {}, request.sequence);
  return read_outcome(request);
}

// ---- Sockets ----------------------------------------------------------------------------------

int open_socket() {
  const int fd = kernel.sockets.empty() ? eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)
                                        : fcntl(kernel.sockets.front(), F_DUPFD_CLOEXEC, 0);
  if (fd < 0) return -1;
  kernel.sockets.push_back(fd);
  show_readiness();
  return fd;
}

// Closing the last socket discards the waiting messages.
void close_socket(int fd) {
  if (!is_socket(fd)) return;
  std::erase(kernel.sockets, fd);
  close(fd);
  if (fd == kernel.receiver_socket) kernel.receiver_socket = -1;
  if (!kernel.sockets.empty()) return;
  kernel.queue.clear();
  kernel.shown_readable = false;
}

void restart(bool on) {
  for (const int fd : kernel.sockets) close(fd);
  kernel = Kernel{};
  kernel.on = on;
}

}  // namespace

// ---- Interface --------------------------------------------------------------------------------

void switch_on() {
  restart(true);
}
void switch_off() {
  restart(false);
}

void set_ack_order(AckOrder order) {
  kernel.ack_order = order;
}
void set_auditing(bool on) {
  kernel.status.enabled = on ? kAuditOn : kAuditOff;
}
void set_locked(bool locked) {
  kernel.status.enabled = locked ? kAuditLocked : kAuditOn;
}
void set_silent(bool silent) {
  kernel.silent = silent;
}
void set_flood(bool flood) {
  kernel.flood = flood;
  keep_flooding();
}
void set_config_records(bool wanted) {
  kernel.config_records = wanted;
}
void set_other_receiver(bool present) {
  kernel.other_receiver = present;
}
void set_loginuid(uid_t uid) {
  kernel.loginuid = uid;
}
void set_path_check(PathExists exists) {
  kernel.path_exists = std::move(exists);
}

void fail_call_number(unsigned n, int result) {
  kernel.calls_to_failure = n;
  kernel.planned_result = result;
}

void fail(Call call, int result, unsigned times) {
  kernel.failures.at(static_cast<std::size_t>(call)) = {result, times};
}

void preload_rule(const audit_rule_data& rule) {
  insert_rule(kernel.rules, copy_rule(rule));
}

void feed(int type, std::string_view payload, std::uint32_t sequence) {
  if (payload.size() > MAX_AUDIT_MESSAGE_LENGTH)
    throw std::length_error("a message of " + std::to_string(payload.size()) +
                            " bytes does not fit into libaudit's buffer");
  if (is_record(type)) {
    queue_record(type, payload, sequence);
  } else {
    queue_reply(type, payload, sequence);
  }
}

unsigned calls(Call call) {
  if (call != Call::kCount) return kernel.calls[static_cast<std::size_t>(call)];
  unsigned all = 0;
  for (const unsigned count : kernel.calls) all += count;
  return all;
}

std::size_t received() {
  return kernel.received;
}

const std::vector<Rule>& rules() {
  return kernel.rules;
}
const std::vector<RuleRequest>& requests() {
  return kernel.requests;
}
std::size_t waiting() {
  return kernel.queue.size();
}
bool is_open() {
  return !kernel.sockets.empty();
}
std::uint32_t receiver_pid() {
  return kernel.status.pid;
}
std::uint32_t enabled() {
  return kernel.status.enabled;
}
std::uint32_t rate_limit() {
  return kernel.status.rate_limit;
}
std::uint32_t backlog_limit() {
  return kernel.status.backlog_limit;
}

}  // namespace offline

// ---- In place of libaudit ---------------------------------------------------------------------

using namespace offline;

extern "C" {

int audit_open(void) {
  if (!kernel.on) return forward<decltype(audit_open)>("audit_open");
  if (begin_call(Call::kOpen)) return -1;
  return open_socket();
}

void audit_close(int fd) {
  if (!kernel.on) return forward<decltype(audit_close)>("audit_close", fd);
  begin_call(Call::kClose);
  close_socket(fd);
}

int audit_set_pid(int fd, uint32_t pid, rep_wait_t wait) {
  if (!kernel.on) return forward<decltype(audit_set_pid)>("audit_set_pid", fd, pid, wait);
  if (const auto result = begin_request(Call::kSetPid, fd)) return *result;
  const int result = change_receiver(fd, pid);
  if (result < 0) return result;
  // When asked to wait, libaudit reads one more message and ignores it.
  if (wait == WAIT_YES && !kernel.queue.empty()) drop_first();
  return 1;
}

int audit_is_enabled(int fd) {
  if (!kernel.on) return forward<decltype(audit_is_enabled)>("audit_is_enabled", fd);
  if (const auto result = begin_call(Call::kIsEnabled)) return *result;
  if (fd < 0) return 0;
  return is_socket(fd) ? read_enabled() : -1;
}

int audit_set_enabled(int fd, uint32_t enabled) {
  if (!kernel.on) return forward<decltype(audit_set_enabled)>("audit_set_enabled", fd, enabled);
  if (const auto result = begin_request(Call::kSetEnabled, fd)) return *result;
  if (enabled > kAuditLocked) return conclude_setting(kEnabled, enabled, -EINVAL);
  return change_setting(kEnabled, enabled);
}

int audit_set_rate_limit(int fd, uint32_t limit) {
  if (!kernel.on) return forward<decltype(audit_set_rate_limit)>("audit_set_rate_limit", fd, limit);
  if (const auto result = begin_request(Call::kSetRateLimit, fd)) return *result;
  return change_setting(kRateLimit, limit);
}

int audit_set_backlog_limit(int fd, uint32_t limit) {
  if (!kernel.on)
    return forward<decltype(audit_set_backlog_limit)>("audit_set_backlog_limit", fd, limit);
  if (const auto result = begin_request(Call::kSetBacklogLimit, fd)) return *result;
  return change_setting(kBacklogLimit, limit);
}

int audit_request_status(int fd) {
  if (!kernel.on) return forward<decltype(audit_request_status)>("audit_request_status", fd);
  if (const auto result = begin_request(Call::kRequestStatus, fd)) return *result;
  return request_status();
}

int audit_request_rules_list_data(int fd) {
  if (!kernel.on)
    return forward<decltype(audit_request_rules_list_data)>("audit_request_rules_list_data", fd);
  if (const auto result = begin_request(Call::kRequestRules, fd)) return *result;
  return request_rules();
}

// A blocking read of an empty queue would last forever here, so it fails with -EAGAIN as well.
int audit_get_reply(int fd, audit_reply* reply, reply_t block, int peek) {
  if (!kernel.on)
    return count_received(
        forward<decltype(audit_get_reply)>("audit_get_reply", fd, reply, block, peek), peek);
  if (const auto result = begin_request(Call::kGetReply, fd)) return *result;
  return count_received(receive(*reply, (peek & MSG_PEEK) != 0), peek);
}

int audit_add_rule_data(int fd, audit_rule_data* rule, int flags, int action) {
  if (!kernel.on)
    return forward<decltype(audit_add_rule_data)>("audit_add_rule_data", fd, rule, flags, action);
  return send_rule(true, fd, rule, flags, action);
}

int audit_delete_rule_data(int fd, audit_rule_data* rule, int flags, int action) {
  if (!kernel.on)
    return forward<decltype(audit_delete_rule_data)>("audit_delete_rule_data", fd, rule, flags,
                                                     action);
  return send_rule(false, fd, rule, flags, action);
}

uid_t audit_getloginuid(void) {
  if (!kernel.on) return forward<decltype(audit_getloginuid)>("audit_getloginuid");
  if (const auto result = begin_call(Call::kGetLoginUid)) return static_cast<uid_t>(*result);
  return kernel.loginuid;
}
}
