// The operations of the five event classes: filters, keys and their tables, the runners with their
// log lines, and the texts of socket addresses.
#include "audit_ops.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "captured_log.h"

namespace {

constexpr std::uint32_t kAny = 0xffffffff;

// A port key among bytes that must not be read.
key_slot port_key(std::uint16_t port, unsigned char rest = 0) {
  key_slot key;
  std::memset(&key, rest, sizeof(key));
  key.port = htons(port);
  return key;
}

key_slot text_key(const char* text) {
  return {.text = text};
}

std::uint32_t hash_of(int event_class, const key_slot& key) {
  return audit_hash_func[event_class].hash(&key, 0);
}

int compare(int event_class, const key_slot& a, const key_slot& b) {
  return audit_hash_func[event_class].compare(&a, 0, &b, 8);
}

bool passes(int event_class, std::uint32_t registered, std::uint32_t value) {
  return audit_ops[event_class]->filter_match(&registered, &value) == 0;
}

bool is_same_filter(int event_class, std::uint32_t a, std::uint32_t b) {
  return audit_ops[event_class]->filter_compare(&a, &b) == 0;
}

std::string filter_text(int event_class, std::uint32_t filter) {
  return audit_ops[event_class]->filter_to_string(&filter);
}

bool is_global(int event_class, const key_slot& key) {
  return audit_ops[event_class]->key_is_global(&key) != 0;
}

// ---- Tables ------------------------------------------------------------------------------------

struct TableCase {
  const char* name;
  void (*set_filter)(const void*, std::uint32_t*);
  void (*set_key)(const void*, key_slot*);
  void (*run)(const void*, const callback_pair*);
};

TEST(Operations, StandInTwelveSlotsInTheOrderOfTheClasses) {
  constexpr TableCase kTables[] = {
      {"login", set_login_filter_func, set_login_key_func, run_login_callback},
      {"user", set_user_filter_func, set_user_key_func, run_user_callback},
      {"syscall", set_syscall_filter_func, set_syscall_key_func, run_syscall_callback},
      {"execve", set_execve_filter_func, set_execve_key_func, run_execve_callback},
      {"bind", set_bind_filter_func, set_bind_key_func, run_bind_callback},
  };
  for (int event_class = 0; event_class < QEL_CLASS_COUNT; ++event_class) {
    const TableCase& expected = kTables[event_class];
    void* slots[12];
    std::memcpy(slots, audit_ops[event_class], sizeof(slots));
    EXPECT_STREQ(static_cast<const char*>(slots[0]), expected.name);
    EXPECT_EQ(slots[2], reinterpret_cast<void*>(expected.set_filter)) << expected.name;
    EXPECT_EQ(slots[8], reinterpret_cast<void*>(expected.set_key)) << expected.name;
    EXPECT_EQ(slots[9], reinterpret_cast<void*>(expected.run)) << expected.name;
    EXPECT_EQ(slots[10], nullptr);
    EXPECT_EQ(slots[11], nullptr);
    EXPECT_EQ(audit_hash_func[event_class].release, std::free) << expected.name;
  }
}

// ---- Filters -----------------------------------------------------------------------------------

struct FilterCase {
  int event_class;
  std::uint32_t registered;
  std::uint32_t value;
  bool passes;
};

TEST(Filters, LetTheEventsPassThatWereAskedFor) {
  constexpr FilterCase kCases[] = {
      {QEL_CLASS_LOGIN, 2, 1, false},     {QEL_CLASS_LOGIN, 3, 1, true},
      {QEL_CLASS_LOGIN, 3, 2, true},      {QEL_CLASS_USER, 1, 2, false},
      {QEL_CLASS_USER, 12, 8, true},      {QEL_CLASS_USER, kAny, 4, true},
      {QEL_CLASS_SYSCALL, 0, 0, true},    {QEL_CLASS_SYSCALL, 0, 1, false},
      {QEL_CLASS_SYSCALL, 1, 1, true},    {QEL_CLASS_SYSCALL, 1, 0, false},
      {QEL_CLASS_SYSCALL, kAny, 0, true}, {QEL_CLASS_SYSCALL, kAny, 1, true},
      {QEL_CLASS_EXECVE, 0, 1, true},     {QEL_CLASS_BIND, 5, 0, true},
  };
  for (const auto& [event_class, registered, value, expected] : kCases) {
    EXPECT_EQ(passes(event_class, registered, value), expected)
        << audit_ops[event_class]->name << " " << registered << " " << value;
  }
}

TEST(Filters, AreComparedByValueWhereTheClassHasOne) {
  for (const int event_class : {QEL_CLASS_LOGIN, QEL_CLASS_USER, QEL_CLASS_SYSCALL}) {
    EXPECT_TRUE(is_same_filter(event_class, 3, 3));
    EXPECT_FALSE(is_same_filter(event_class, 3, 1)) << "overlapping masks differ";
  }
  for (const int event_class : {QEL_CLASS_EXECVE, QEL_CLASS_BIND}) {
    EXPECT_TRUE(is_same_filter(event_class, 3, 1));
  }
}

TEST(Filters, HaveTextsInBuffersOfTheirOwn) {
  const std::uint32_t mask = 3, any = kAny;
  const char* login = audit_ops[QEL_CLASS_LOGIN]->filter_to_string(&mask);
  const char* user = audit_ops[QEL_CLASS_USER]->filter_to_string(&any);
  const char* syscall = audit_ops[QEL_CLASS_SYSCALL]->filter_to_string(&any);
  EXPECT_STREQ(login, "event=3");
  EXPECT_STREQ(user, "event=4294967295");
  EXPECT_STREQ(syscall, "success=4294967295");
  EXPECT_EQ(filter_text(QEL_CLASS_EXECVE, 3), "none");
  EXPECT_EQ(filter_text(QEL_CLASS_BIND, 3), "none");
}

// ---- Keys --------------------------------------------------------------------------------------

TEST(Keys, TextsHashWithTheirTerminator) {
  std::string bytes = "a\xff";
  for (const int event_class :
       {QEL_CLASS_LOGIN, QEL_CLASS_USER, QEL_CLASS_SYSCALL, QEL_CLASS_EXECVE}) {
    EXPECT_EQ(hash_of(event_class, text_key("")), 175494U);
    EXPECT_EQ(hash_of(event_class, text_key("a")), 5794503U);
    EXPECT_EQ(hash_of(event_class, text_key(bytes.c_str())), ((175494U + 97) * 33 + 255) * 33)
        << "bytes are unsigned";
    EXPECT_EQ(compare(event_class, text_key(bytes.c_str()), text_key("a\xff")), 0);
    EXPECT_NE(compare(event_class, text_key("a"), text_key("A")), 0);
  }
}

TEST(Keys, OfTextsWrapAroundWhenHashed) {
  std::uint32_t expected = 5318;
  const std::string text(100, 'z');
  for (const char c : text) expected = expected * 33 + static_cast<unsigned char>(c);
  EXPECT_EQ(hash_text(text.c_str()), expected * 33);
}

TEST(Keys, OfPortsAreTheFirstTwoBytesOfTheirSlot) {
  const key_slot port = port_key(80), same = port_key(80, 0xaa), other = port_key(81);
  EXPECT_EQ(hash_of(QEL_CLASS_BIND, port), htons(80));
  EXPECT_EQ(hash_of(QEL_CLASS_BIND, same), htons(80));
  EXPECT_EQ(compare(QEL_CLASS_BIND, port, same), 0);
  EXPECT_NE(compare(QEL_CLASS_BIND, port, other), 0);
  EXPECT_EQ(audit_ops[QEL_CLASS_BIND]->key_compare(&port, &same), 0);
  EXPECT_NE(audit_ops[QEL_CLASS_BIND]->key_compare(&port, &other), 0);
  EXPECT_STREQ(audit_ops[QEL_CLASS_BIND]->key_to_string(&same), "80");
}

TEST(Keys, OneOfEachClassStandsForEveryEvent) {
  for (const int event_class : {QEL_CLASS_LOGIN, QEL_CLASS_USER, QEL_CLASS_EXECVE}) {
    EXPECT_TRUE(is_global(event_class, text_key("")));
    EXPECT_FALSE(is_global(event_class, text_key("all")));
  }
  EXPECT_TRUE(is_global(QEL_CLASS_SYSCALL, text_key("all")));
  EXPECT_FALSE(is_global(QEL_CLASS_SYSCALL, text_key("")));
  EXPECT_FALSE(is_global(QEL_CLASS_SYSCALL, text_key("allx")));
  EXPECT_TRUE(is_global(QEL_CLASS_BIND, port_key(0, 0xaa)));
  EXPECT_FALSE(is_global(QEL_CLASS_BIND, port_key(256)));
}

// ---- Events ------------------------------------------------------------------------------------

void set_address(bind_event& event, const void* address, std::size_t size) {
  std::memcpy(&event.info.addr, address, size);
}

sockaddr_in inet_address(const char* text, std::uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, text, &address.sin_addr);
  return address;
}

template <typename Event>
key_slot key_of(int event_class, const Event& event) {
  key_slot key = {};
  audit_ops[event_class]->set_key(&event, &key);
  return key;
}

template <typename Event>
std::uint32_t filter_of(int event_class, const Event& event) {
  std::uint32_t filter = 99;
  audit_ops[event_class]->set_filter(&event, &filter);
  return filter;
}

TEST(Events, GiveTheirKeysAndFilters) {
  login_event login = {};
  login.info.event = QEL_LOGIN_LOGOUT;
  std::strcpy(login.info.username, "eve");
  EXPECT_EQ(key_of(QEL_CLASS_LOGIN, login).text, login.info.username);
  EXPECT_EQ(filter_of(QEL_CLASS_LOGIN, login), 2U);

  user_event user = {};
  user.info.event = QEL_USER_GROUP;
  EXPECT_EQ(key_of(QEL_CLASS_USER, user).text, user.info.username);
  EXPECT_EQ(filter_of(QEL_CLASS_USER, user), 8U);

  syscall_event syscall = {};
  syscall.info.success = 1;
  EXPECT_EQ(key_of(QEL_CLASS_SYSCALL, syscall).text, syscall.info.syscall);
  EXPECT_EQ(filter_of(QEL_CLASS_SYSCALL, syscall), 1U);

  execve_event execve = {};
  execve.info.result = 7;
  EXPECT_EQ(key_of(QEL_CLASS_EXECVE, execve).text, execve.info.process);
  EXPECT_EQ(filter_of(QEL_CLASS_EXECVE, execve), 0U);

  bind_event bind = {};
  const sockaddr_in address = inet_address("0.0.0.0", 8080);
  set_address(bind, &address, sizeof(address));
  EXPECT_EQ(key_of(QEL_CLASS_BIND, bind).port, htons(8080));
  EXPECT_EQ(filter_of(QEL_CLASS_BIND, bind), 0U);
}

// ---- Runners -----------------------------------------------------------------------------------

// What a callback was called with, and the log as it was by then.
struct Call {
  const void* info;
  void* arg;
  std::string log;
};
std::vector<Call> calls;

template <typename Info>
int keep_call(const Info* info, void* arg) {
  calls.push_back({info, arg, test::log_text(QEL_LOG_DEBUG)});
  return -1;
}

template <typename Info>
callback_pair pair_for(void* arg) {
  return {reinterpret_cast<void (*)()>(static_cast<int (*)(const Info*, void*)>(keep_call<Info>)),
          arg};
}

// Runs the event's callback once and returns the line that was logged before it was called.
template <typename Event>
std::string run(int event_class, const Event& event) {
  int arg = 0;
  const callback_pair pair = pair_for<std::remove_cvref_t<decltype(event.info)>>(&arg);
  test::clear_log();
  calls.clear();
  audit_ops[event_class]->run(&event, &pair);
  EXPECT_EQ(calls.size(), 1U);
  EXPECT_EQ(calls[0].info, &event.info) << "the address of the fields behind the type";
  EXPECT_EQ(calls[0].arg, &arg);
  EXPECT_EQ(test::log_lines().size(), 1U);
  return calls[0].log;
}

class Timezone {
 public:
  Timezone() {
    setenv("TZ", "UTC", 1);
    tzset();
  }
};

TEST(Runners, OfLoginsShowTheTimeWithoutTheYear) {
  const Timezone utc;
  login_event event = {};
  event.info.event = QEL_LOGIN_LOGIN;
  event.info.pid = 4000000000;
  std::strcpy(event.info.user, "root");
  std::strcpy(event.info.process, "sshd");
  inet_pton(AF_INET, "192.0.2.7", &event.info.ipaddr);
  std::strcpy(event.info.username, "eve");
  std::strcpy(event.info.logintype, "pts/3");
  event.info.time = 1714557604;
  EXPECT_EQ(run(QEL_CLASS_LOGIN, event),
            "audit_ops: run_login_callback: event=1, pid=4000000000, user=root, process=sshd, "
            "ipaddr=192.0.2.7, username=eve, logintype=pts/3, time=Wed May  1 10:00:04\n");
}

TEST(Runners, OfLoginsStandATimeThatHasNoText) {
  login_event event = {};
  event.info.time = INT64_MAX;
  EXPECT_TRUE(
      run(QEL_CLASS_LOGIN, event).ends_with("logintype=, time=" + std::string(19, ' ') + "\n"));
}

TEST(Runners, OfUsersShowTheEventInHexadecimal) {
  user_event event = {};
  event.info.event = QEL_USER_GROUP;
  std::strcpy(event.info.username, "eve");
  std::strcpy(event.info.groupname, "100");
  EXPECT_EQ(run(QEL_CLASS_USER, event),
            "audit_ops: run_user_callback: event=8, username=eve, groupname=100\n");
}

TEST(Runners, OfSyscallsShowTheArgumentsInHexadecimal) {
  syscall_event event = {};
  event.info.success = 0;
  event.info.result = -13;
  event.info.ppid = 1;
  event.info.pid = 4000000000;
  std::strcpy(event.info.user, "eve");
  std::strcpy(event.info.process, "cat");
  std::strcpy(event.info.syscall, "openat");
  event.info.arg1 = 0xffffffffffffff9c;
  event.info.arg2 = 0x7ffd;
  event.info.arg4 = 10;
  EXPECT_EQ(run(QEL_CLASS_SYSCALL, event),
            "audit_ops: run_syscall_callback: success=0, result=-13, ppid=1, pid=4000000000, "
            "user=eve, process=cat, syscall=openat, arg1=ffffffffffffff9c, arg2=7ffd, arg3=0, "
            "arg4=a\n");
}

TEST(Runners, OfExecutionsShowTheFirstFourArguments) {
  execve_event event = {};
  event.info.ppid = 1;
  event.info.pid = 2;
  std::strcpy(event.info.user, "eve");
  std::strcpy(event.info.process, "ls");
  char texts[5][4] = {"ls", "-l", "/", "x", "y"};
  char* argv[] = {texts[0], texts[1], texts[2], texts[3], texts[4]};
  event.info.argv = argv;
  const std::string start =
      "audit_ops: run_execve_callback: result=0, ppid=1, pid=2, user=eve, process=ls, argc=";
  const char* const kShown[] = {"0, argv[0]=, argv[1]=, argv[2]=, argv[3]=\n",
                                "1, argv[0]=ls, argv[1]=, argv[2]=, argv[3]=\n",
                                "2, argv[0]=ls, argv[1]=-l, argv[2]=, argv[3]=\n",
                                "3, argv[0]=ls, argv[1]=-l, argv[2]=/, argv[3]=\n",
                                "4, argv[0]=ls, argv[1]=-l, argv[2]=/, argv[3]=x\n",
                                "5, argv[0]=ls, argv[1]=-l, argv[2]=/, argv[3]=x\n"};
  for (const char* shown : kShown) {
    EXPECT_EQ(run(QEL_CLASS_EXECVE, event), start + shown);
    ++event.info.argc;
  }
  event.info.argc = -5;
  event.info.argv = nullptr;
  EXPECT_EQ(run(QEL_CLASS_EXECVE, event), start + "-5, argv[0]=, argv[1]=, argv[2]=, argv[3]=\n");
}

TEST(Runners, OfBindsShowAddressAndPort) {
  bind_event event = {};
  event.info.result = -98;
  event.info.ppid = 1;
  event.info.pid = 2;
  std::strcpy(event.info.user, "eve");
  std::strcpy(event.info.process, "nc");
  const sockaddr_in address = inet_address("0.0.0.0", 8080);
  set_address(event, &address, sizeof(address));
  EXPECT_EQ(run(QEL_CLASS_BIND, event),
            "audit_ops: run_bind_callback: result=-98, ppid=1, pid=2, user=eve, process=nc, "
            "family=2, addr=0.0.0.0, port=8080\n");
}

// ---- Socket addresses --------------------------------------------------------------------------

struct AddressCase {
  const char* name;
  std::string bytes;  // of the address, as the kernel reports them
  const char* text;
  std::uint16_t port;
};

template <typename Address>
std::string bytes_of(const Address& address) {
  return {reinterpret_cast<const char*>(&address), sizeof(address)};
}

std::string inet6_bytes(const char* text, std::uint16_t port) {
  sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  address.sin6_flowinfo = 0xffffffff;
  inet_pton(AF_INET6, text, &address.sin6_addr);
  return bytes_of(address);
}

std::string netlink_bytes(std::uint32_t pid, std::uint32_t groups) {
  sockaddr_nl address = {};
  address.nl_family = AF_NETLINK;
  address.nl_pid = pid;
  address.nl_groups = groups;
  return bytes_of(address);
}

std::string packet_bytes(int index, std::uint16_t protocol) {
  sockaddr_ll address = {};
  address.sll_family = AF_PACKET;
  address.sll_protocol = protocol;
  address.sll_ifindex = index;
  return bytes_of(address);
}

std::string family_bytes(std::uint16_t family, const std::string& rest) {
  return bytes_of(family) + rest;
}

TEST(SocketAddresses, HaveTextsAndPortsByFamily) {
  const AddressCase cases[] = {
      {"unix", family_bytes(AF_UNIX, "/run/x.sock"), "/run/x.sock", 0},
      {"abstract", family_bytes(AF_UNIX, std::string("\0name", 5)), "", 0},
      {"inet", bytes_of(inet_address("192.0.2.7", 8080)), "192.0.2.7", 8080},
      {"inet6", inet6_bytes("2001:db8::7", 443), "2001:db8::7", 443},
      {"longest inet6", inet6_bytes("::ffff:255.255.255.255", 1), "::ffff:255.255.255.255", 1},
      {"netlink", netlink_bytes(123, 0), "123.0", 0},
      {"large netlink", netlink_bytes(4294967295U, 0xdeadbeef), "-1.deadbeef", 0},
      {"packet", packet_bytes(2, 0x0300), "2.300", 0},
      {"unspecified", family_bytes(AF_UNSPEC, "\x1f\x90xxxxxx"), "", 0},
      {"another family", family_bytes(AF_APPLETALK, "\x1f\x90xxxxxx"), "", 0},
      {"a family above", family_bytes(AF_VSOCK, "\x1f\x90xxxxxx"), "", 0},
  };
  for (const AddressCase& address : cases) {
    sockaddr_storage storage = {};
    std::memcpy(&storage, address.bytes.data(), address.bytes.size());
    EXPECT_STREQ(get_socket_addr(&storage), address.text) << address.name;
    EXPECT_EQ(ntohs(get_socket_port(&storage)), address.port) << address.name;
  }
}

TEST(SocketAddresses, OfUnixSocketsAreReadInPlace) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  EXPECT_EQ(get_socket_addr(&address), address.sun_path);
}

}  // namespace
