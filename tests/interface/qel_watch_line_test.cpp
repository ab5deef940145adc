// The lines that qel-watch makes of events, where a replay does not get to: logins, accounts, and
// addresses and texts at their limits.
#include <arpa/inet.h>
#include <event_line.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

// What the line says behind the name of the class.
std::string text_of(const auto& event) {
  return text_line("class", describe(event)).substr(8);
}
std::string json_of(const auto& event) {
  return json_line("class", describe(event)).substr(std::strlen(R"({"class":"class")"));
}

TEST(Line, OfALoginTellsLocalTimeWithItsOffset) {
  setenv("TZ", "XST-5:30", 1);  // 5:30 h ahead of UTC
  tzset();
  qel_login_info event = {};
  event.event = QEL_LOGIN_LOGOUT;
  std::strcpy(event.username, "alice");
  std::strcpy(event.logintype, "pts/0");
  EXPECT_EQ(
      text_of(event),
      " event=logout username=alice    logintype=pts/0  time=1970-01-01T05:30:00+05:30 pid=0");
  event.event = QEL_LOGIN_LOGIN;
  event.status = 1;
  event.pid = 4100;
  std::strcpy(event.user, "root");
  std::strcpy(event.process, "sshd");
  inet_pton(AF_INET, "192.0.2.10", &event.ipaddr);
  event.time = 1714557600;
  EXPECT_TRUE(text_of(event).ends_with(" ipaddr=192.0.2.10 pid=4100    user=root process=sshd"));
  EXPECT_EQ(json_of(event),
            R"(,"event":"login","username":"alice","logintype":"pts/0",)"
            R"("time":"2024-05-01T15:30:00+05:30","epoch":1714557600,"ipaddr":"192.0.2.10",)"
            R"("pid":4100,"user":"root","process":"sshd","status":1})");
  event.time = INT64_MAX;  // beyond the calendar
  EXPECT_NE(json_of(event).find(R"("time":"","epoch":9223372036854775807)"), std::string::npos);
}

TEST(Line, OfAnAccountNamesTheChangeAndReadsNoFurtherThanItsFields) {
  qel_user_info event = {};
  event.event = QEL_USER_PASSWORD;
  std::memset(event.username, 'x', sizeof(event.username));
  std::strcpy(event.groupname, "staff ers");
  const std::string name(QEL_NAME_SIZE, 'x');
  EXPECT_EQ(text_of(event), " event=password username=" + name + R"( groupname="staff ers")");
  event.event = 64;
  EXPECT_EQ(json_of(event),
            R"(,"event":"64","username":")" + name + R"(","groupname":"staff ers"})");
}

TEST(Line, NamesAnErrorOnlyOfACallThatFailed) {
  qel_syscall_info event = {};
  event.result = -EPERM;  // the low half of an address
  event.success = 1;
  EXPECT_NE(text_of(event).find("success=yes result=-1   arg1=0x0"), std::string::npos);
  event.success = 0;
  event.arg4 = UINT64_MAX;
  EXPECT_NE(text_of(event).find("success=no  result=-1   error=EPERM arg1"), std::string::npos);
  EXPECT_TRUE(json_of(event).ends_with(R"("arg4":"0xffffffffffffffff"})"));
  event.result = -512;  // the kernel's own way to say that the call will be restarted
  EXPECT_NE(json_of(event).find(R"("result":-512,"error":"")"), std::string::npos);
  qel_execve_info refused = {};
  refused.argc = -3;
  EXPECT_TRUE(json_of(refused).ends_with(R"("argc":-3,"argv":[]})"));
}

// What a line says from the family on.
std::string address_of(const auto& address) {
  qel_bind_info event = {};
  std::memcpy(&event.addr, &address, sizeof(address));
  const std::string line = json_of(event);
  return line.substr(line.find(R"("family":)") + std::strlen(R"("family":)"));
}

TEST(Line, OfABindShowsWhatTheFamilyHas) {
  sockaddr_in6 inet6 = {AF_INET6, htons(65535), htonl(7), in6addr_loopback, 3};
  EXPECT_EQ(address_of(inet6), R"("inet6","address":"::1","port":65535,"scope":3,"flow":7})");
  const sockaddr_nl netlink = {AF_NETLINK, 0, 4294967295, 0x80000001};
  EXPECT_EQ(address_of(netlink), R"("netlink","port_id":4294967295,"groups":"0x80000001"})");
  const sockaddr_ll packet = {AF_PACKET, htons(0x0806), 2, 0, 0, 0, {}};
  EXPECT_EQ(address_of(packet), R"("packet","interface":2,"protocol":"0x806"})");
  const std::uint16_t vsock[] = {AF_VSOCK, 0, htons(0xab)};
  EXPECT_EQ(address_of(vsock), R"("40","bytes":"000000ab"})");
  sockaddr_un local = {AF_UNIX, ""};
  EXPECT_EQ(address_of(local), R"("unix","abstract":""})");
  std::memcpy(local.sun_path, "\0a\0b", 4);
  EXPECT_EQ(address_of(local), R"("unix","abstract":"a\\x00b"})");
  std::memset(local.sun_path, '@', sizeof(local.sun_path));
  const std::string longest(sizeof(local.sun_path), '@');
  EXPECT_EQ(address_of(local), R"("unix","path":")" + longest + R"("})");
}

}  // namespace
