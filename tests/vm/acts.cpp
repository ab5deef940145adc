/*
 * acts - makes single system calls inside a test guest: the odd ones that no ordinary program
 * makes, and the audit requests for which no tool is installed there. The scripts of the guest
 * tests call it. It refuses to run anywhere else, because some of its commands change the audit
 * configuration or wtmp.
 *
 * A command prints its result on standard output and ends with status 0; a failed call is one line
 * on standard error and status 1. The commands that exec become the other program.
 */
#include <arpa/inet.h>
#include <fcntl.h>
#include <libaudit.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utmpx.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Arguments = std::span<char* const>;

constexpr int kReplyTimeout_ms = 5000;
constexpr const char* kWtmpPath = "/var/log/wtmp";
constexpr const char* kLoopDirectory = "/tmp/acts-loop";

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "acts: %s\n", what.c_str());
  std::exit(1);
}

[[noreturn]] void die_of_errno(const std::string& what, int error = errno) {
  die(what + ": " + std::strerror(error) + " (" + std::to_string(error) + ")");
}

template <typename Number>
Number parse(std::string_view text) {
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size())
    die("\"" + std::string(text) + "\" is not a number in range");
  return value;
}

std::string parse_hex(std::string_view text) {
  if (text.size() % 2 != 0) die("\"" + std::string(text) + "\" has an odd number of digits");
  std::string bytes;
  for (size_t at = 0; at < text.size(); at += 2) {
    unsigned char byte = 0;
    const char* digits = text.data() + at;
    const auto [end, error] = std::from_chars(digits, digits + 2, byte, 16);
    if (error != std::errc{} || end != digits + 2)
      die("\"" + std::string(text) + "\" is not hexadecimal");
    bytes.push_back(static_cast<char>(byte));
  }
  return bytes;
}

void sleep_ms(unsigned duration_ms) {
  const timespec duration{.tv_sec = duration_ms / 1000,
                          .tv_nsec = static_cast<long>(duration_ms % 1000) * 1000000};
  nanosleep(&duration, nullptr);
}

// What a test waits for must not stay in a buffer.
void say(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

/* Programs */

[[noreturn]] void exec_with(const char* path, std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  execv(path, argv.data());
  die_of_errno(std::string("execve ") + path);
}

void exec_plain(Arguments words) {
  std::vector<std::string> arguments(words.begin(), words.end());
  exec_with(words[0], arguments);
}

void exec_without_argv(Arguments words) {
  std::vector<std::string> arguments;
  exec_with(words[0], arguments);
}

void exec_hex(Arguments words) {
  std::vector<std::string> arguments{words[0]};
  for (const char* word : words.subspan(1)) {
    arguments.push_back(parse_hex(word));
    if (arguments.back().find('\0') != std::string::npos)
      die("an argument cannot hold a zero byte");
  }
  exec_with(words[0], arguments);
}

void exec_many(Arguments words) {
  std::vector<std::string> arguments{words[0]};
  const auto count = parse<unsigned>(words[1]);
  for (unsigned number = 1; number <= count; number++) arguments.push_back(std::to_string(number));
  exec_with(words[0], arguments);
}

// The letters a to z over and over, so that a missing piece shows.
void exec_long(Arguments words) {
  std::string argument(parse<size_t>(words[1]), ' ');
  for (size_t at = 0; at < argument.size(); at++) argument[at] = static_cast<char>('a' + at % 26);
  std::vector<std::string> arguments{words[0], argument};
  exec_with(words[0], arguments);
}

/* Sockets */

int open_socket(int family) {
  const int type = family == AF_NETLINK || family == AF_PACKET ? SOCK_RAW : SOCK_STREAM;
  const int protocol = family == AF_PACKET ? htons(ETH_P_ALL) : 0;
  const int fd = socket(family, type | SOCK_CLOEXEC, protocol);
  if (fd < 0) die_of_errno("socket of family " + std::to_string(family));
  return fd;
}

void bind_address(int family, const void* address, size_t length) {
  const int fd = open_socket(family);
  if (bind(fd, static_cast<const sockaddr*>(address), static_cast<socklen_t>(length)) != 0)
    die_of_errno("bind");
  close(fd);
  say("bind 0");
}

template <typename Ip>
void parse_ip(int family, const char* text, Ip& address) {
  if (inet_pton(family, text, &address) != 1) die(std::string(text) + " is not an address");
}

// With the length that programs usually give, not the size of the structure.
void bind_unix(std::string_view path) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  if (path.size() >= sizeof(address.sun_path)) die("the path is too long");
  path.copy(address.sun_path, path.size());
  bind_address(AF_UNIX, &address, offsetof(sockaddr_un, sun_path) + path.size() + 1);
}

void bind_abstract(std::string_view name) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  if (name.size() >= sizeof(address.sun_path)) die("the name is too long");
  name.copy(address.sun_path + 1, name.size());
  bind_address(AF_UNIX, &address, offsetof(sockaddr_un, sun_path) + 1 + name.size());
}

void bind_inet(const char* ip, const char* port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(parse<uint16_t>(port));
  parse_ip(AF_INET, ip, address.sin_addr);
  bind_address(AF_INET, &address, sizeof(address));
}

void bind_inet6(const char* ip, const char* port) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(parse<uint16_t>(port));
  parse_ip(AF_INET6, ip, address.sin6_addr);
  bind_address(AF_INET6, &address, sizeof(address));
}

void bind_netlink(const char* port_id) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = parse<uint32_t>(port_id);
  bind_address(AF_NETLINK, &address, sizeof(address));
}

void bind_packet(const char* interface_index) {
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_ALL);
  address.sll_ifindex = parse<int>(interface_index);
  bind_address(AF_PACKET, &address, sizeof(address));
}

void bind_named(Arguments words) {
  const std::string_view kind = words[0];
  const bool has_port = words.size() == 3;
  if (kind == "inet" && has_port) return bind_inet(words[1], words[2]);
  if (kind == "inet6" && has_port) return bind_inet6(words[1], words[2]);
  if (has_port) die("bind " + std::string(kind) + " takes one word");
  if (kind == "unix") return bind_unix(words[1]);
  if (kind == "abstract") return bind_abstract(words[1]);
  if (kind == "netlink") return bind_netlink(words[1]);
  if (kind == "packet") return bind_packet(words[1]);
  die("bind knows no " + std::string(kind) + " with these words");
}

// Any bytes of any length. The first two choose the socket, when they name a family that has one.
void bind_raw(Arguments words) {
  const std::string bytes = parse_hex(words[0]);
  sa_family_t family = AF_INET;
  if (bytes.size() >= sizeof(family)) std::memcpy(&family, bytes.data(), sizeof(family));
  const int probe = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool has_socket = probe >= 0 || family == AF_NETLINK || family == AF_PACKET;
  if (probe >= 0) close(probe);
  bind_address(has_socket ? family : AF_INET, bytes.data(), bytes.size());
}

/* Login records */

struct RecordType {
  std::string_view name;
  short type;
};

constexpr RecordType kRecordTypes[] = {
    {"login", USER_PROCESS},
    {"logout", DEAD_PROCESS},
    {"boot", BOOT_TIME},
};

template <size_t Size>
void fill(char (&field)[Size], std::string_view text) {
  if (text == "-") return;
  text.copy(field, Size);  // no terminator is needed in a full field: utmp(5)
}

utmpx make_record(Arguments words) {
  utmpx record{};
  for (const RecordType& known : kRecordTypes)
    if (known.name == words[0]) record.ut_type = known.type;
  if (record.ut_type == 0) die("utmp knows login, logout and boot");
  const std::string_view line = words[2];
  const char* address = words[4];
  record.ut_pid = parse<int>(words[1]);
  fill(record.ut_line, line);
  fill(record.ut_id, line.size() > 4 ? line.substr(line.size() - 4) : line);
  fill(record.ut_user, words[3]);
  fill(record.ut_host, address);
  if (inet_pton(AF_INET, address, record.ut_addr_v6) != 1)
    inet_pton(AF_INET6, address, record.ut_addr_v6);
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  record.ut_tv.tv_sec = static_cast<int32_t>(now.tv_sec);
  record.ut_tv.tv_usec = static_cast<int32_t>(now.tv_nsec / 1000);
  return record;
}

// The kernel reports the open; the pause shows a reader that looks at the file too early.
void append_login_record(Arguments words) {
  const unsigned pause_ms = words.size() > 5 ? parse<unsigned>(words[5]) : 0;
  const utmpx record = make_record(words);
  const int fd = open(kWtmpPath, O_WRONLY | O_APPEND | O_CLOEXEC);
  if (fd < 0) die_of_errno(std::string("open ") + kWtmpPath);
  say("pid " + std::to_string(getpid()));
  sleep_ms(pause_ms);
  if (write(fd, &record, sizeof(record)) != sizeof(record)) die_of_errno("write");
  close(fd);
}

/* Audit requests */

int open_audit() {
  const int fd = audit_open();
  if (fd < 0) die_of_errno("audit_open");
  return fd;
}

// Requests return their positive sequence number or a negative error, sometimes plain -1 with errno
// set.
void require(int result, const std::string& what) {
  if (result > 0) return;
  die_of_errno(what, result < -1 ? -result : EPERM);
}

// The next message of one of the two types; others are the acknowledgement of the request.
void wait_for_reply(int fd, audit_reply& reply, int type, int other_type) {
  pollfd socket{.fd = fd, .events = POLLIN, .revents = 0};
  while (poll(&socket, 1, kReplyTimeout_ms) > 0) {
    if (audit_get_reply(fd, &reply, GET_REPLY_NONBLOCKING, 0) <= 0) continue;
    if (reply.type == type || reply.type == other_type) return;
    if (reply.type == NLMSG_ERROR && reply.error->error != 0)
      die_of_errno("the kernel refused the request", -reply.error->error);
  }
  die("the kernel did not answer");
}

audit_status request_status() {
  const int fd = open_audit();
  require(audit_request_status(fd), "audit_request_status");
  audit_reply reply{};
  wait_for_reply(fd, reply, AUDIT_GET, AUDIT_GET);
  const audit_status status = *reply.status;
  audit_close(fd);
  return status;
}

void print_lost_count(Arguments) {
  std::printf("%u\n", request_status().lost);
}

void print_status(Arguments) {
  const audit_status status = request_status();
  std::printf(
      "enabled %u\nfailure %u\npid %u\nrate_limit %u\nbacklog_limit %u\nlost %u\nbacklog %u\n",
      status.enabled, status.failure, status.pid, status.rate_limit, status.backlog_limit,
      status.lost, status.backlog);
}

bool is_text_field(unsigned field) {
  return field == AUDIT_WATCH || field == AUDIT_DIR || field == AUDIT_FILTERKEY ||
         field == AUDIT_EXE || (field >= AUDIT_SUBJ_USER && field <= AUDIT_SUBJ_CLR) ||
         (field >= AUDIT_OBJ_USER && field <= AUDIT_OBJ_LEV_HIGH);
}

// The last word of the mask is not full when all calls are meant: the kernel has fewer than 2048.
std::string describe_syscalls(const audit_rule_data& rule) {
  bool all = true;
  std::string numbers;
  for (unsigned word = 0; word < AUDIT_BITMASK_SIZE; word++) {
    all = all && (word == AUDIT_BITMASK_SIZE - 1 || rule.mask[word] == UINT32_MAX);
    for (unsigned bit = 0; bit < 32; bit++)
      if (rule.mask[word] & (1U << bit))
        numbers += (numbers.empty() ? "" : ",") + std::to_string(word * 32 + bit);
  }
  if (all) return "all";
  return numbers.empty() ? "none" : numbers;
}

// The kernel's numbers as they are: "flags 4 action 2 syscalls all 105=/etc/passwd 106=10 210=key".
void print_rule(const audit_rule_data& rule) {
  std::printf("flags %u action %u syscalls %s", rule.flags, rule.action,
              describe_syscalls(rule).c_str());
  const char* text = rule.buf;
  for (unsigned at = 0; at < rule.field_count; at++) {
    const unsigned field = rule.fields[at];
    const unsigned value = rule.values[at];
    const unsigned operation = rule.fieldflags[at];
    std::printf(" %u", field);
    if (operation != AUDIT_EQUAL) std::printf("(%#x)", operation);
    if (!is_text_field(field)) {
      std::printf("=%u", value);
      continue;
    }
    std::printf("=%.*s", static_cast<int>(value), text);
    text += value;
  }
  std::printf("\n");
}

void print_rules(Arguments) {
  const int fd = open_audit();
  require(audit_request_rules_list_data(fd), "audit_request_rules_list_data");
  audit_reply reply{};
  for (;;) {
    wait_for_reply(fd, reply, AUDIT_LIST_RULES, NLMSG_DONE);
    if (reply.type == NLMSG_DONE) break;
    print_rule(*reply.ruledata);
  }
  audit_close(fd);
}

class Rule {
 public:
  Rule() : rule_(audit_rule_create_data()) {
    if (rule_ == nullptr) die("out of memory");
  }
  ~Rule() { audit_rule_free_data(rule_); }
  Rule(const Rule&) = delete;
  Rule& operator=(const Rule&) = delete;

  void watch(const char* path) {
    struct stat status {};
    const bool is_directory = stat(path, &status) == 0 && S_ISDIR(status.st_mode);
    if (audit_add_watch_dir(is_directory ? AUDIT_DIR : AUDIT_WATCH, &rule_, path) != 0 ||
        audit_update_watch_perms(rule_, AUDIT_PERM_WRITE | AUDIT_PERM_ATTR) != 0)
      die(std::string("no watch can be set on ") + path);
  }

  void syscall(const char* name) {
    if (audit_rule_syscallbyname_data(rule_, name) != 0)
      die(std::string(name) + " is not a system call");
  }

  // libaudit writes into the pair, so it gets a copy.
  void add_field(std::string pair, int filter) {
    const std::string shown = pair;
    if (const int result = audit_rule_fieldpair_data(&rule_, pair.data(), filter); result != 0)
      die("field " + shown + " was refused: " + std::to_string(result));
  }

  void load(int filter) {
    const int fd = open_audit();
    require(audit_add_rule_data(fd, rule_, filter, AUDIT_ALWAYS), "audit_add_rule_data");
    audit_close(fd);
  }

 private:
  audit_rule_data* rule_;
};

// libaudit takes a key only after it has seen a permission in this process: one on a rule that is
// thrown away.
void make_keys_acceptable() {
  Rule scratch;
  scratch.watch("/etc/passwd");
}

void add_rule(Arguments words) {
  const std::string_view kind = words[0];
  Rule rule;
  if (kind == "exclude") {
    rule.add_field(std::string("msgtype=") + words[1], AUDIT_FILTER_EXCLUDE);
    return rule.load(AUDIT_FILTER_EXCLUDE);
  }
  if (words.size() < 3) die("addrule takes exclude TYPE, watch PATH KEY or syscall NAME KEY");
  if (kind == "watch") {
    rule.watch(words[1]);
  } else if (kind == "syscall") {
    make_keys_acceptable();
    rule.syscall(words[1]);
  } else {
    die("addrule knows exclude, watch and syscall");
  }
  rule.add_field(std::string("key=") + words[2], AUDIT_FILTER_EXIT);
  rule.load(AUDIT_FILTER_EXIT);
}

void set_enabled(Arguments words) {
  const int fd = open_audit();
  require(audit_set_enabled(fd, parse<uint32_t>(words[0])), "audit_set_enabled");
  audit_close(fd);
}

// Does not read what it is sent, so records wait. The socket stays open until the process ends.
void be_receiver(Arguments words) {
  const int fd = open_audit();
  require(audit_set_pid(fd, static_cast<uint32_t>(getpid()), WAIT_YES), "audit_set_pid");
  say("ready");
  if (words.empty()) {
    for (;;) pause();
  }
  sleep(parse<unsigned>(words[0]));
  audit_set_pid(fd, 0, WAIT_NO);
}

/* Calls by number, and many of them */

void call_32_bit(Arguments words) {
  const int number = parse<int>(words[0]);
  long result = number;
  asm volatile("int $0x80"
               : "+a"(result)
               : "b"(0), "c"(0), "d"(0), "S"(0), "D"(0)
               : "memory", "r8", "r9", "r10", "r11");
  std::printf("int80 %d = %d\n", number, static_cast<int>(result));
}

// Ports 20000 to 59999 in turn. The process number is in the address (127.PID.PID.1), so that
// processes side by side do not take each other's ports and their events can be told apart.
void loop_bind(unsigned round) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(20000 + round % 40000));
  address.sin_addr.s_addr =
      htonl(INADDR_LOOPBACK | (static_cast<uint32_t>(getpid()) & 0xffff) << 8);
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) die_of_errno("bind");
  close(fd);
}

void loop_openat(unsigned) {
  const int fd = openat(AT_FDCWD, "/dev/null", O_RDONLY | O_CLOEXEC);
  if (fd < 0) die_of_errno("openat /dev/null");
  close(fd);
}

// The names hold the process and the round; the directories are removed again.
void loop_mkdir(unsigned round) {
  char path[64];
  std::snprintf(path, sizeof(path), "%s-%d-%u", kLoopDirectory, getpid(), round);
  if (mkdir(path, 0755) != 0) die_of_errno(std::string("mkdir ") + path);
  rmdir(path);
}

struct LoopCall {
  std::string_view name;
  void (*make)(unsigned round);
};

constexpr LoopCall kLoopCalls[] = {
    {"bind", loop_bind},
    {"openat", loop_openat},
    {"mkdir", loop_mkdir},
};

const LoopCall& find_loop_call(std::string_view name) {
  for (const LoopCall& call : kLoopCalls)
    if (call.name == name) return call;
  die("loop knows bind, openat and mkdir");
}

void loop(Arguments words) {
  const auto rounds = parse<unsigned>(words[0]);
  std::vector<LoopCall> calls;
  for (const char* name : words.subspan(1)) calls.push_back(find_loop_call(name));
  for (unsigned round = 0; round < rounds; round++)
    for (const LoopCall& call : calls) call.make(round);
  std::printf("calls %zu\n", rounds * calls.size());
}

/* The command line */

struct Command {
  const char* name;
  size_t min_words;
  size_t max_words;
  void (*run)(Arguments words);
  const char* words;
  const char* help;
};

constexpr size_t kAnyNumber = SIZE_MAX;

constexpr Command kCommands[] = {
    {"exec", 1, kAnyNumber, exec_plain, "PATH [ARGUMENT...]", "becomes the program"},
    {"exec0", 1, 1, exec_without_argv, "PATH", "the same with an empty argv"},
    {"exechex", 1, kAnyNumber, exec_hex, "PATH [HEX...]", "with arguments given as bytes"},
    {"execmany", 2, 2, exec_many, "PATH N", "with the arguments 1 to N"},
    {"execlong", 2, 2, exec_long, "PATH LENGTH", "with one argument: a to z over and over"},
    {"bind", 2, 3, bind_named, "KIND WORD...",
     "inet|inet6 IP PORT, unix PATH, abstract NAME, netlink PORTID, packet IFINDEX"},
    {"bindraw", 1, 1, bind_raw, "HEX", "binds any bytes, family first"},
    {"utmp", 5, 6, append_login_record, "TYPE PID LINE USER ADDR [SLEEP_MS]",
     "a login, logout or boot record; \"-\" is empty; sleeps with wtmp open"},
    {"status", 0, 0, print_status, "", "the kernel's audit status"},
    {"lostcount", 0, 0, print_lost_count, "", "its count of lost records"},
    {"setenabled", 1, 1, set_enabled, "N", "0 off, 1 on, 2 locked until the next boot"},
    {"rules", 0, 0, print_rules, "", "the loaded rules in the kernel's numbers"},
    {"addrule", 2, 3, add_rule, "KIND WORD...", "watch PATH KEY, syscall NAME KEY, exclude TYPE"},
    {"receiver", 0, 1, be_receiver, "[SECONDS]",
     "takes the audit stream, says ready, reads nothing"},
    {"int80", 1, 1, call_32_bit, "NR", "a 32-bit system call, all arguments 0"},
    {"loop", 2, kAnyNumber, loop, "N CALL...", "makes each of bind, openat, mkdir N times"},
};

const Command* find_command(std::string_view name, size_t words) {
  for (const Command& command : kCommands)
    if (name == command.name && words >= command.min_words && words <= command.max_words)
      return &command;
  return nullptr;
}

void print_usage() {
  std::fputs("Usage: acts COMMAND WORD...  (in a test guest only)\n", stderr);
  for (const Command& command : kCommands)
    std::fprintf(stderr, "  %-10s %-34s %s\n", command.name, command.words, command.help);
}

// The guest's first process sets the variable; the file is in the guest's initial RAM disk.
bool is_in_guest() {
  const char* word = std::getenv("QEL_GUEST");
  return word != nullptr && std::string_view(word) == "1" && access("/qel-guest", F_OK) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const Arguments words(argv, static_cast<size_t>(argc));
  const Command* command = words.size() < 2 ? nullptr : find_command(words[1], words.size() - 2);
  if (command == nullptr) {
    print_usage();
    return 2;
  }
  if (!is_in_guest()) die("this is not a test guest; nothing was done");
  command->run(words.subspan(2));
}
