#include "stage.h"

#include <arpa/inet.h>
#include <qel_frame.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace test {
namespace {

constexpr std::size_t kShortestRun = 16;
constexpr std::time_t kTimeOfATest_s = 1000;

struct {
  std::string heard;
  int level;
  qel_poller_fn poller;
  void* poller_argument;
  bool poller_refused;
  // The library's next expiry outlives a stop, so no test may begin before another one ended.
  std::time_t start_s = 1'700'000'000;
} stage;

// A stream that lets what is flushed be heard: who reads standard output gets no more than that.
std::FILE* open_ear() {
  const auto hear = [](void*, const char* text, std::size_t size) {
    stage.heard.append(text, size);
    return static_cast<ssize_t>(size);
  };
  return fopencookie(nullptr, "w",
                     {.read = nullptr, .write = hear, .seek = nullptr, .close = nullptr});
}

// ---- Texts -------------------------------------------------------------------------------------

std::string hex(std::string_view bytes) {
  return offline::to_hex(bytes, "0123456789abcdef");
}

std::string format_byte(char byte) {
  const bool plain = byte > ' ' && byte <= '~' && byte != '\\' && byte != '{';
  return plain ? std::string{byte} : "\\x" + hex({&byte, 1});
}

// ---- Events ------------------------------------------------------------------------------------

// What the bytes of an address mean; the others follow, up to the last that is not zero.
std::string text_of(const sockaddr_storage& address) {
  const auto* const bytes = reinterpret_cast<const char*>(&address);
  const auto& inet6 = reinterpret_cast<const sockaddr_in6&>(address);
  char ip[INET6_ADDRSTRLEN] = "";
  std::string text = "family=" + std::to_string(address.ss_family);
  std::size_t told = sizeof(sa_family_t);
  if (address.ss_family == AF_INET) {
    text = inet_ntop(AF_INET, bytes + offsetof(sockaddr_in, sin_addr), ip, sizeof(ip));
    told = offsetof(sockaddr_in, sin_zero);
  } else if (address.ss_family == AF_INET6 && inet6.sin6_flowinfo == 0) {
    inet_ntop(AF_INET6, &inet6.sin6_addr, ip, sizeof(ip));
    text = "[" + std::string(ip) + "]";
    told = offsetof(sockaddr_in6, sin6_scope_id);
  } else if (address.ss_family == AF_UNIX) {
    const std::string_view path(bytes + told, strnlen(bytes + told, sizeof(address) - told));
    text = "unix " + quoted(path);
    told += path.size();
  }
  if (ip[0] != '\0') text += ":" + std::to_string(ntohs(inet6.sin6_port));
  std::string rest(bytes + told, sizeof(address) - told);
  rest.resize(rest.find_last_not_of('\0') + 1);
  return text + (rest.empty() ? "" : " " + hex(rest));
}

template <typename Info>
std::string outcome(const Info& info) {
  return "result=" + std::to_string(info.result) + " user=" + quoted(info.user) +
         " process=" + quoted(info.process) + " pid=" + std::to_string(info.pid) +
         " ppid=" + std::to_string(info.ppid);
}

std::string text_of(const qel_login_info& info) {
  char address[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &info.ipaddr, address, sizeof(address));
  const bool plain =
      info.status == 1 && std::count(info.reserved, std::end(info.reserved), 0) == 16;
  return std::string(info.event == QEL_LOGIN_LOGIN ? "login " : "logout ") + quoted(info.username) +
         " line=" + quoted(info.logintype) + " pid=" + std::to_string(info.pid) +
         " from=" + address + " user=" + info.user + " process=" + info.process +
         " time=" + std::to_string(info.time) + (plain ? "" : " with odd status or reserved bytes");
}

std::string text_of(const qel_user_info& info) {
  static const std::map<std::uint32_t, std::string> kChanges = {{QEL_USER_ADDED, "added"},
                                                                {QEL_USER_DELETED, "deleted"},
                                                                {QEL_USER_PASSWORD, "password"},
                                                                {QEL_USER_GROUP, "group"}};
  return kChanges.at(info.event) + " " + quoted(info.username) + " group=" + quoted(info.groupname);
}

std::string text_of(const qel_syscall_info& info) {
  char arguments[80];
  std::snprintf(arguments, sizeof(arguments), " args=%lx,%lx,%lx,%lx", info.arg1, info.arg2,
                info.arg3, info.arg4);
  return std::string("syscall ") + info.syscall + " success=" + std::to_string(info.success) + " " +
         outcome(info) + arguments;
}

std::string text_of(const qel_execve_info& info) {
  std::string text = "execve " + outcome(info) + " argc=" + std::to_string(info.argc);
  if ((info.argv != nullptr) != (info.argc > 0)) return text + " with an odd argv";
  for (int i = 0; i < info.argc; ++i) text += " " + quoted(info.argv[i]);
  return text;
}

std::string text_of(const qel_bind_info& info) {
  return "bind " + outcome(info) + " " + text_of(info.addr);
}

void hear_line(const std::string& text) {
  stage.heard += text.ends_with('\n') ? text : text + "\n";
}

}  // namespace

std::string quoted(std::string_view bytes) {
  std::string text = bytes.empty() ? "\"\"" : "";
  while (!bytes.empty()) {
    const std::size_t run = std::min(bytes.find_first_not_of(bytes[0]), bytes.size());
    const std::string byte = format_byte(bytes[0]);
    const bool is_long = run >= kShortestRun;
    text += is_long ? "{" + byte + "*" + std::to_string(run) + "}" : byte;
    bytes.remove_prefix(is_long ? run : 1);
  }
  return text;
}

// ---- The stage ---------------------------------------------------------------------------------

Stage::Stage() {
  reset_kernel();
  stage.start_s += kTimeOfATest_s;
  offline::set_clock(stage.start_s);
  reset_databases();
  databases = {{{"root", 0, 0}}, {{"root", "*"}}, {{"root", 0}}};
  std::string directory = std::filesystem::temp_directory_path() / "qelaudit-XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) throw std::runtime_error("cannot make " + directory);
  directory_ = directory;
  for (const char* path : {"/etc/passwd", "/etc/shadow", "/var/log/wtmp"}) {
    redirect(path, file(path));
    std::ofstream(file(path)).flush();
  }
  set_level(QEL_LOG_ERROR);
  refuse_poller(false);
  stage.poller = nullptr;
  heard();
}

Stage::~Stage() {
  offline::switch_off();
  offline::release_clock();
  reset_databases();
  std::filesystem::remove_all(directory_);
}

void Stage::TearDown() {
  EXPECT_EQ(heard(), "") << "came and was not asked for";
  stop();
  EXPECT_EQ(heard().find("error "), std::string::npos) << "came from the stop";
  EXPECT_FALSE(offline::is_open());
  const auto& [passwd, shadow, group] = walks;
  EXPECT_EQ(passwd.ended, passwd.started);
  EXPECT_EQ(shadow.ended, shadow.started);
  EXPECT_EQ(group.ended, group.started);
}

void Stage::reset_kernel() {
  offline::switch_on();
  offline::set_config_records(false);
  offline::set_path_check([](const std::string&) { return true; });
}

Stage::Client* Stage::client(const std::string& name, const Action& then) {
  Client& found = clients_.try_emplace(name, Client{name, {}}).first->second;
  if (then) found.then = then;
  return &found;
}

template <typename Info>
int Stage::tell(const Info* event, void* client) {
  const auto& [name, then] = *static_cast<const Client*>(client);
  hear_line((name.empty() ? "" : name + ": ") + text_of(*event));
  if (then) then();
  return -1;
}

int Stage::on_login(const std::string& name, const char* user, int mask, const Action& then) {
  return listen([&] { return qel_login_reg_callback(user, mask, tell, client(name, then)); });
}

int Stage::on_user(const std::string& name, const char* account, int mask, const Action& then) {
  return listen([&] { return qel_user_reg_callback(account, mask, tell, client(name, then)); });
}

int Stage::on_syscall(const std::string& name, const char* call, int success, const Action& then) {
  return listen([&] { return qel_syscall_reg_callback(call, success, tell, client(name, then)); });
}

int Stage::on_execve(const std::string& name, const char* command, const Action& then) {
  return listen([&] { return qel_execve_reg_callback(command, tell, client(name, then)); });
}

int Stage::on_bind(const std::string& name, int port, const Action& then) {
  return listen([&] { return qel_bind_reg_callback(port, tell, client(name, then)); });
}

int Stage::listen(const std::function<int()>& call) {
  static std::FILE* const ear = open_ear();
  std::FILE* const before = std::exchange(stdout, ear);
  const int result = call();
  stdout = before;
  return result;
}

int Stage::start() {
  const int result = listen(qel_audit_init);
  if (result == 0) poll_all();
  return result;
}

void Stage::stop() {
  listen([] { return qel_audit_fini(), 0; });
}

void Stage::refuse_poller(bool refused) {
  stage.poller_refused = refused;
}

std::string Stage::rules() {
  std::string keys;
  for (const offline::Rule& rule : offline::rules()) {
    const std::string key = offline::key_text(*rule);  // key="NAME"
    keys += (keys.empty() ? "" : " ") + key.substr(5, key.size() - 6);
  }
  return keys;
}

void Stage::feed(const Record& record) {
  offline::feed(record.type, header(record.serial) + record.body);
}

void Stage::feed_group(const Syscall& fields, const std::vector<Record>& others) {
  feed(syscall_record(fields));
  for (const auto& [type, body, serial] : others) feed({type, body, fields.serial});
  end(fields.serial);
}

std::string Stage::heard_of(const Syscall& fields, const std::vector<Record>& others) {
  feed_group(fields, others);
  poll_all();
  return heard();
}

int Stage::poll_once() {
  if (stage.poller == nullptr) throw std::logic_error("the library has not been started");
  return listen([] { return stage.poller(stage.poller_argument); });
}

void Stage::poll_all() {
  while (poll_once() == 1) continue;
}

void Stage::pass(std::chrono::nanoseconds time) {
  offline::advance_clock(time);
  poll_all();
}

void Stage::account(const std::string& name, uid_t uid, gid_t gid) {
  databases.passwd.push_back({name, uid, gid});
  touch("/etc/passwd");
}

void Stage::append_wtmp(const std::vector<struct utmp>& records) {
  write_wtmp(file("/var/log/wtmp"), records, std::ios::app);
}

std::filesystem::path Stage::file(const std::string& path) const {
  return directory_ / std::filesystem::path(path).filename();
}

void Stage::touch(const std::string& path) const {
  std::ofstream(file(path), std::ios::app) << 'x';
}

std::string Stage::heard() {
  return std::exchange(stage.heard, "");
}

void Stage::set_level(int level) {
  stage.level = level;
}

}  // namespace test

// These take the place of the framework's. A fatal line fails the test program: the library would
// end the process with status 0, as if all tests had passed.
extern "C" void error_output(int level, const char* source, int, const char* format, ...) {
  static constexpr const char* kLevels[] = {"fatal", "", "error", "notice", "debug"};
  if (level > test::stage.level) return;
  va_list arguments;
  va_start(arguments, format);
  char message[2 * MAX_AUDIT_MESSAGE_LENGTH];
  std::vsnprintf(message, sizeof(message), format, arguments);
  va_end(arguments);
  if (level == QEL_LOG_FATAL) {
    std::fputs(message, stderr);
    std::abort();
  }
  test::hear_line(std::string(kLevels[level]) + " " + source + ": " + message);
}

extern "C" int qel_mainloop_reg_poller(qel_poller_fn function, void* argument) {
  if (test::stage.poller_refused) return -1;
  test::stage.poller = function;
  test::stage.poller_argument = argument;
  return 0;
}
