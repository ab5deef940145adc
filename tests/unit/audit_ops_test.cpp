// The operations of the five event classes: hashes and texts of filters and keys, the runners with
// their log lines, and the texts of socket addresses. What filters let pass is seen with real events.
#include "audit_ops.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

#include "captured_log.h"

namespace {

constexpr std::uint32_t kAny = 0xffffffff;

// The tables are data of the binary interface.
static_assert(offsetof(event_class_ops, set_filter) == 16 &&
              offsetof(event_class_ops, set_key) == 64 && offsetof(event_class_ops, run) == 72);

TEST(Filters, HaveTextsInBuffersOfTheirOwn) {
  const std::uint32_t three = 3, any = kAny;
  const char* login = audit_ops[QEL_CLASS_LOGIN]->filter_to_string(&three);
  EXPECT_STREQ(audit_ops[QEL_CLASS_USER]->filter_to_string(&any), "event=4294967295");
  EXPECT_STREQ(login, "event=3");
}

TEST(Filters, OfASystemCallIsItsSuccessAndNotItsResult) {
  syscall_event event = {};
  event.info.success = 1;
  event.info.result = 7;
  std::uint32_t filter = 0;
  set_syscall_filter_func(&event, &filter);
  EXPECT_EQ(filter, 1U);
}

TEST(Keys, HashUnsignedBytesAndTheTerminatorAndPortsOnlyTheirTwoBytes) {
  const key_slot text = {.text = "a\xff"};
  key_slot port = {}, same;
  std::memset(&same, 0xaa, sizeof(same));
  port.port = same.port = htons(80);
  EXPECT_EQ(audit_hash_func[QEL_CLASS_SYSCALL].hash(&text, 0), ((175494U + 97) * 33 + 255) * 33);
  EXPECT_EQ(audit_hash_func[QEL_CLASS_BIND].hash(&same, 0), htons(80));
  EXPECT_EQ(audit_hash_func[QEL_CLASS_BIND].compare(&port, 0, &same, 8), 0);
  const key_slot more = {.text = "allx"};
  EXPECT_EQ(audit_ops[QEL_CLASS_SYSCALL]->key_is_global(&more), 0) << "only all stands for all";
}

std::string logged;  // by the time the callback was called

template <typename Info>
int keep_log(const Info*, void* info) {
  logged = test::log_text(QEL_LOG_DEBUG) + (info != nullptr ? "" : "without its argument");
  return -1;
}

// Runs a callback and returns the line that was logged before it was called.
template <typename Event>
std::string run(const Event& event) {
  int (*const callback)(const std::remove_cvref_t<decltype(event.info)>*, void*) = keep_log;
  const callback_pair pair = {reinterpret_cast<void (*)()>(callback), &logged};
  test::clear_log();
  audit_ops[event.type]->run(&event, &pair);
  return logged;
}

sockaddr_in inet_address(const char* text, std::uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, text, &address.sin_addr);
  return address;
}

TEST(Runners, LogTheEventAndCallTheCallback) {
  setenv("TZ", "UTC", 1);
  login_event login = {QEL_CLASS_LOGIN, 0, {}};
  login.info = {1,  1,     4000000000, "root",    "sshd", inet_address("192.0.2.7", 0).sin_addr,
                {}, "eve", "pts/3",    1714557604};
  EXPECT_EQ(run(login),
            "audit_ops: run_login_callback: event=1, pid=4000000000, user=root, process=sshd, "
            "ipaddr=192.0.2.7, username=eve, logintype=pts/3, time=Wed May  1 10:00:04\n");
  login.info.time = INT64_MAX;
  EXPECT_TRUE(run(login).ends_with("time=" + std::string(19, ' ') + "\n")) << "has no text";

  EXPECT_EQ(run(user_event{QEL_CLASS_USER, 0, {16, "eve", "100"}}),
            "audit_ops: run_user_callback: event=10, username=eve, groupname=100\n");

  EXPECT_EQ(run(syscall_event{QEL_CLASS_SYSCALL,
                              0,
                              {0, -13, 1, 4000000000, "eve", "cat", "openat", 0xffffffffffffff9c,
                               0x7ffd, 0x1f, 10}}),
            "audit_ops: run_syscall_callback: success=0, result=-13, ppid=1, pid=4000000000, "
            "user=eve, process=cat, syscall=openat, arg1=ffffffffffffff9c, arg2=7ffd, arg3=1f, "
            "arg4=a\n");

  char texts[5][4] = {"ls", "-l", "/", "x", "y"};
  char* argv[] = {texts[0], texts[1], texts[2], texts[3], texts[4]};
  execve_event execution = {QEL_CLASS_EXECVE, 0, {-2, 1, 2, "eve", "ls", 5, argv}};
  EXPECT_EQ(run(execution),
            "audit_ops: run_execve_callback: result=-2, ppid=1, pid=2, user=eve, process=ls, "
            "argc=5, argv[0]=ls, argv[1]=-l, argv[2]=/, argv[3]=x\n");
  execution.info.argc = 1;
  EXPECT_TRUE(run(execution).ends_with("argc=1, argv[0]=ls, argv[1]=, argv[2]=, argv[3]=\n"));

  bind_event bind = {QEL_CLASS_BIND, 0, {-98, 1, 2, "eve", "nc", {}}};
  const sockaddr_in address = inet_address("10.200.0.255", 8080);
  std::memcpy(&bind.info.addr, &address, sizeof(address));
  EXPECT_EQ(run(bind),
            "audit_ops: run_bind_callback: result=-98, ppid=1, pid=2, user=eve, process=nc, "
            "family=2, addr=10.200.0.255, port=8080\n");
}

template <typename Address>
std::string bytes_of(const Address& address, const std::string& rest = "") {
  return std::string(reinterpret_cast<const char*>(&address), sizeof(address)) + rest;
}

TEST(SocketAddresses, HaveTextsAndPortsByFamily) {
  sockaddr_in6 inet6 = {AF_INET6, htons(443), kAny, {}, 0};
  inet_pton(AF_INET6, "2001:db8::7", &inet6.sin6_addr);
  constexpr sa_family_t kUnix = AF_UNIX, kOther = AF_VSOCK;
  const struct {
    std::string bytes;  // as the kernel reports them
    const char* text;
    std::uint16_t port;
  } cases[] = {{bytes_of(kUnix, "/run/x.sock"), "/run/x.sock", 0},
               {bytes_of(kUnix, std::string("\0name", 5)), "", 0},
               {bytes_of(inet_address("192.0.2.7", 8080)), "192.0.2.7", 8080},
               {bytes_of(inet6), "2001:db8::7", 443},
               {bytes_of(sockaddr_nl{AF_NETLINK, 0, kAny, 0xdeadbeef}), "-1.deadbeef", 0},
               {bytes_of(sockaddr_ll{AF_PACKET, 0x0300, 2, 0, 0, 0, {}}), "2.300", 0},
               {bytes_of(kOther, "\x1f\x90xxxxxx"), "", 0}};
  for (const auto& [bytes, text, port] : cases) {
    sockaddr_storage storage = {};
    std::memcpy(&storage, bytes.data(), bytes.size());
    EXPECT_STREQ(get_socket_addr(&storage), text);
    EXPECT_EQ(ntohs(get_socket_port(&storage)), port) << text;
  }
}

}  // namespace
