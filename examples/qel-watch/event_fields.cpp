#include "event_fields.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <iterator>
#include <string_view>

const char* const kClassNames[QEL_CLASS_COUNT] = {"login", "user", "syscall", "execve", "bind"};

namespace {

constexpr unsigned kNameWidth = 8;
constexpr unsigned kCommandWidth = 15;  // the longest command name of the kernel
constexpr unsigned kPidWidth = 7;       // PID_MAX_LIMIT has seven digits
constexpr unsigned kResultWidth = 4;

template <std::size_t kSize>
std::string bytes_of(const char (&text)[kSize]) {
  return {text, strnlen(text, kSize)};
}

std::string hex_of(std::uint64_t number) {
  std::array<char, 16> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16).ptr;
  return "0x" + std::string(digits.data(), end);
}

struct Word {
  std::uint32_t value;
  const char* name;
};

// A value without a name is shown as its number.
std::string name_of(std::span<const Word> words, std::uint32_t value) {
  const auto word = std::find_if(words.begin(), words.end(),
                                 [value](const Word& known) { return known.value == value; });
  return word == words.end() ? std::to_string(value) : word->name;
}

Fields join(std::initializer_list<Fields> parts) {
  Fields all;
  for (const Fields& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

// ---- System call classes ----------------------------------------------------------------------

template <typename Info>
Fields describe_process(const Info& event) {
  return {{"user", bytes_of(event.user), kNameWidth},
          {"process", bytes_of(event.process), kCommandWidth},
          {"pid", event.pid, kPidWidth},
          {"ppid", event.ppid, kPidWidth}};
}

// Some results of the kernel are no errno value that programs know, such as those by which it
// restarts a call.
std::string error_name(std::int32_t result) {
  const char* name = strerrorname_np(-result);
  return name == nullptr ? "" : name;
}

Fields describe_result(std::int32_t result, bool failed) {
  return {{"result", result, kResultWidth},
          {"error", failed ? error_name(result) : "", 0, Shown::kIfNotEmpty}};
}

// ---- Logins -----------------------------------------------------------------------------------

constexpr Word kLoginEvents[] = {{QEL_LOGIN_LOGIN, "login"}, {QEL_LOGIN_LOGOUT, "logout"}};

// Local time as 2024-05-01T09:30:00+02:00; empty when the time has no calendar date.
std::string iso_time(std::time_t time) {
  std::tm local = {};
  if (localtime_r(&time, &local) == nullptr) return {};
  std::array<char, 64> buffer;
  std::string text(buffer.data(),
                   std::strftime(buffer.data(), buffer.size(), "%Y-%m-%dT%H:%M:%S%z", &local));
  if (text.size() >= 2) text.insert(text.size() - 2, ":");
  return text;
}

std::string dotted(in_addr address) {
  std::array<char, INET_ADDRSTRLEN> text;
  if (address.s_addr == 0) return {};
  return inet_ntop(AF_INET, &address, text.data(), text.size());
}

// ---- Accounts ---------------------------------------------------------------------------------

constexpr Word kUserEvents[] = {{QEL_USER_ADDED, "added"},
                                {QEL_USER_DELETED, "deleted"},
                                {QEL_USER_PASSWORD, "password"},
                                {QEL_USER_GROUP, "group"}};

// ---- Socket addresses -------------------------------------------------------------------------

// The address as the structure of its family.
template <typename Address>
Address read_as(const sockaddr_storage& address) {
  static_assert(sizeof(Address) <= sizeof(address));
  Address result;
  std::memcpy(&result, &address, sizeof(result));
  return result;
}

Fields describe_inet(const sockaddr_storage& storage) {
  const auto address = read_as<sockaddr_in>(storage);
  std::array<char, INET_ADDRSTRLEN> text;
  return {{"address", inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size())},
          {"port", ntohs(address.sin_port)}};
}

Fields describe_inet6(const sockaddr_storage& storage) {
  const auto address = read_as<sockaddr_in6>(storage);
  std::array<char, INET6_ADDRSTRLEN> text;
  return {{"address", inet_ntop(AF_INET6, &address.sin6_addr, text.data(), text.size())},
          {"port", ntohs(address.sin6_port)},
          {"scope", address.sin6_scope_id, 0, Shown::kInJson},
          {"flow", ntohl(address.sin6_flowinfo), 0, Shown::kInJson}};
}

// The bytes without trailing zeros. They are cut because an event does not tell the length of its
// address.
std::string without_zeros(std::string_view bytes) {
  return std::string(bytes.substr(0, bytes.find_last_not_of('\0') + 1));
}

// A path that fills the structure is not terminated. A name in the abstract namespace begins with a
// zero byte, which is not part of the name.
Fields describe_unix(const sockaddr_storage& storage) {
  const auto address = read_as<sockaddr_un>(storage);
  const std::string_view name(address.sun_path, sizeof(address.sun_path));
  if (name.front() == '\0') return {{"abstract", without_zeros(name.substr(1))}};
  return {{"path", bytes_of(address.sun_path)}};
}

Fields describe_netlink(const sockaddr_storage& storage) {
  const auto address = read_as<sockaddr_nl>(storage);
  return {{"port_id", address.nl_pid}, {"groups", hex_of(address.nl_groups)}};
}

Fields describe_packet(const sockaddr_storage& storage) {
  const auto address = read_as<sockaddr_ll>(storage);
  return {{"interface", address.sll_ifindex}, {"protocol", hex_of(ntohs(address.sll_protocol))}};
}

// The bytes after the family.
Fields describe_other(const sockaddr_storage& storage) {
  const std::string_view all(reinterpret_cast<const char*>(&storage), sizeof(storage));
  std::string hex;
  for (const char byte : without_zeros(all.substr(sizeof(storage.ss_family)))) {
    constexpr char kDigits[] = "0123456789abcdef";
    hex += kDigits[static_cast<unsigned char>(byte) >> 4];
    hex += kDigits[static_cast<unsigned char>(byte) & 0xf];
  }
  return {{"bytes", hex}};
}

struct Family {
  sa_family_t number;
  const char* name;
  Fields (*describe)(const sockaddr_storage& address);
};
constexpr Family kFamilies[] = {{AF_UNIX, "unix", describe_unix},
                                {AF_INET, "inet", describe_inet},
                                {AF_INET6, "inet6", describe_inet6},
                                {AF_NETLINK, "netlink", describe_netlink},
                                {AF_PACKET, "packet", describe_packet}};

// What is shown of an address depends on its family.
Fields describe_address(const sockaddr_storage& address) {
  const auto* family =
      std::find_if(std::begin(kFamilies), std::end(kFamilies),
                   [&address](const Family& known) { return known.number == address.ss_family; });
  if (family == std::end(kFamilies))
    return join({{{"family", std::to_string(address.ss_family)}}, describe_other(address)});
  return join({{{"family", family->name}}, family->describe(address)});
}

}  // namespace

Fields describe(const qel_login_info& event) {
  return {{"event", name_of(kLoginEvents, event.event), 6},
          {"username", bytes_of(event.username), kNameWidth},
          {"logintype", bytes_of(event.logintype), 6},
          {"time", iso_time(event.time)},
          {"epoch", event.time, 0, Shown::kInJson},
          {"ipaddr", dotted(event.ipaddr), 0, Shown::kIfNotEmpty},
          {"pid", event.pid, kPidWidth},
          {"user", bytes_of(event.user), 0, Shown::kIfNotEmpty},
          {"process", bytes_of(event.process), 0, Shown::kIfNotEmpty},
          {"status", event.status, 0, Shown::kInJson}};
}

Fields describe(const qel_user_info& event) {
  return {{"event", name_of(kUserEvents, event.event), 8},
          {"username", bytes_of(event.username), kNameWidth},
          {"groupname", bytes_of(event.groupname)}};
}

Fields describe(const qel_syscall_info& event) {
  const bool success = event.success != 0;
  return join({describe_process(event),
               {{"syscall", bytes_of(event.syscall), 10}, {"success", success, 3}},
               describe_result(event.result, !success),
               {{"arg1", hex_of(event.arg1)},
                {"arg2", hex_of(event.arg2)},
                {"arg3", hex_of(event.arg3)},
                {"arg4", hex_of(event.arg4)}}});
}

Fields describe(const qel_execve_info& event) {
  const bool known = event.argv != nullptr && event.argc > 0;
  const Arguments arguments(event.argv, known ? static_cast<std::size_t>(event.argc) : 0);
  return join({describe_process(event),
               describe_result(event.result, event.result < 0),
               {{"argc", event.argc, 0, Shown::kInJson}, {"argv", arguments}}});
}

Fields describe(const qel_bind_info& event) {
  return join({describe_process(event), describe_result(event.result, event.result < 0),
               describe_address(event.addr)});
}
