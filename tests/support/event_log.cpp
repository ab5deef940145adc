#include "event_log.h"

#include <arpa/inet.h>
#include <libaudit.h>
#include <qel_frame.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <span>
#include <stdexcept>

#include "offline_kernel.h"
#include "record_file.h"

namespace test {
namespace {

constexpr std::size_t kShortestRun = 16;

struct {
  qel_poller_fn function;
  void* argument;
} poller;

std::string format_byte(char byte) {
  const bool plain = byte > ' ' && byte <= '~' && byte != '\\' && byte != '{';
  if (plain) return {byte};
  char text[8];
  std::snprintf(text, sizeof(text), "\\x%02x",
                static_cast<unsigned>(static_cast<unsigned char>(byte)));
  return text;
}

std::string format_hex(std::string_view bytes) {
  std::string text;
  char digits[4];
  for (const char byte : bytes) {
    std::snprintf(digits, sizeof(digits), "%02x",
                  static_cast<unsigned>(static_cast<unsigned char>(byte)));
    text += digits;
  }
  return text;
}

template <typename Address>
const Address& as(const sockaddr_storage& address) {
  return reinterpret_cast<const Address&>(address);
}

std::string format_ip(int family, const void* ip, in_port_t port) {
  char text[INET6_ADDRSTRLEN];
  inet_ntop(family, ip, text, sizeof(text));
  const std::string name = family == AF_INET6 ? "[" + std::string(text) + "]" : text;
  return name + ":" + std::to_string(ntohs(port));
}

std::string format_address(const sockaddr_storage& address) {
  switch (address.ss_family) {
    case AF_INET: {
      const auto& inet = as<sockaddr_in>(address);
      return format_ip(AF_INET, &inet.sin_addr, inet.sin_port);
    }
    case AF_INET6: {
      const auto& inet6 = as<sockaddr_in6>(address);
      return format_ip(AF_INET6, &inet6.sin6_addr, inet6.sin6_port);
    }
    case AF_UNIX:
      return "unix " + quoted(reinterpret_cast<const char*>(&address) + sizeof(sa_family_t));
    default:
      return "family=" + std::to_string(address.ss_family);
  }
}

template <typename Info>
std::string outcome(const Info& info) {
  return "result=" + std::to_string(info.result) + " user=" + info.user +
         " process=" + quoted(info.process);
}

template <typename Info>
std::string ids(const Info& info) {
  return "ppid=" + std::to_string(info.ppid) + " pid=" + std::to_string(info.pid);
}

int add(void* lines, EventLine line) {
  static_cast<std::vector<EventLine>*>(lines)->push_back(std::move(line));
  return 0;
}

}  // namespace

std::string quoted(std::string_view bytes) {
  if (bytes.empty()) return "\"\"";
  std::string text;
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t end = std::min(bytes.find_first_not_of(bytes[at], at), bytes.size());
    const std::string byte = format_byte(bytes[at]);
    if (end - at >= kShortestRun) {
      text += "{" + byte + "*" + std::to_string(end - at) + "}";
    } else {
      for (std::size_t i = at; i < end; ++i) text += byte;
    }
    at = end;
  }
  return text;
}

int note_login(const qel_login_info* event, void* lines) {
  char address[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &event->ipaddr, address, sizeof(address));
  return add(lines, {std::string(event->event == QEL_LOGIN_LOGIN ? "login " : "logout ") +
                         quoted(event->username) + " line=" + quoted(event->logintype) + " pid=" +
                         std::to_string(event->pid) + " from=" + address + " user=" + event->user +
                         " process=" + event->process + " time=" + std::to_string(event->time),
                     "status=" + std::to_string(event->status)});
}

int note_user(const qel_user_info* event, void* lines) {
  static constexpr std::pair<std::uint32_t, const char*> kChanges[] = {
      {QEL_USER_ADDED, "added"},
      {QEL_USER_DELETED, "deleted"},
      {QEL_USER_PASSWORD, "password"},
      {QEL_USER_GROUP, "group"}};
  const auto* change = std::find_if(std::begin(kChanges), std::end(kChanges),
                                    [event](const auto& c) { return c.first == event->event; });
  const std::string name = change == std::end(kChanges) ? "?" : change->second;
  return add(lines,
             {name + " " + quoted(event->username) + " group=" + quoted(event->groupname), ""});
}

int note_syscall(const qel_syscall_info* event, void* lines) {
  EventLine line = {std::string("syscall ") + event->syscall +
                        " success=" + std::to_string(event->success) + " " + outcome(*event),
                    ids(*event)};
  char argument[32];
  for (const std::uint64_t value : {event->arg1, event->arg2, event->arg3, event->arg4}) {
    std::snprintf(argument, sizeof(argument), " %lx", value);
    line.details += argument;
  }
  return add(lines, std::move(line));
}

int note_execve(const qel_execve_info* event, void* lines) {
  EventLine line = {"execve " + outcome(*event) + " argc=" + std::to_string(event->argc),
                    ids(*event)};
  for (int i = 0; i < event->argc; ++i) line.text += " " + quoted(event->argv[i]);
  return add(lines, std::move(line));
}

int note_bind(const qel_bind_info* event, void* lines) {
  const std::string_view bytes(reinterpret_cast<const char*>(&event->addr), sizeof(event->addr));
  return add(lines, {"bind " + outcome(*event) + " " + format_address(event->addr),
                     ids(*event) + " " + format_hex(bytes)});
}

std::vector<std::string> texts_of(const std::vector<EventLine>& lines) {
  std::vector<std::string> texts;
  for (const EventLine& line : lines) texts.push_back(line.text);
  return texts;
}

int poll_once() {
  if (poller.function == nullptr) throw std::logic_error("the library has not been started");
  return poller.function(poller.argument);
}

void poll_all() {
  while (poll_once() == 1) continue;
}

std::vector<RecordedMessage> read_recording(const std::string& path) {
  std::vector<RecordedMessage> messages;
  const std::string error = offline::read_records(path, [&messages](const offline::Record& record) {
    messages.push_back({record.type, std::string(record.payload)});
  });
  if (!error.empty()) throw std::runtime_error(error);
  return messages;
}

unsigned serial_of(const RecordedMessage& message) {
  unsigned serial = 0;
  const int found = std::sscanf(message.payload.c_str(), "audit(%*u.%*u:%u", &serial);
  return found == 1 ? serial : 0;
}

void play(const std::vector<RecordedMessage>& recording,
          const std::function<void(int group)>& before_end) {
  std::set<unsigned> keyed;
  int group = 0;
  for (const RecordedMessage& message : recording) {
    const bool has_key =
        message.type == AUDIT_SYSCALL && message.payload.find(" key=\"") != std::string::npos;
    if (has_key) keyed.insert(serial_of(message));
    const bool ends = message.type == AUDIT_EOE && keyed.erase(serial_of(message)) != 0;
    if (ends && before_end) before_end(group++);
    offline::feed(message.type, message.payload);
    poll_all();
  }
}

}  // namespace test

// Takes the place of the main loop's.
extern "C" int qel_mainloop_reg_poller(qel_poller_fn function, void* argument) {
  test::poller = {function, argument};
  return 0;
}
