/*
 * client - an agent for the guest tests: registers callbacks as its arguments say, writes one line
 * for every run of one, and starts and stops the library on demand.
 *
 *   client CLASS,KEY,FILTER...   callbacks, numbered from 1 in this order; the class's key and
 *                                filter as the registration functions take them
 *
 * Descriptors: commands come on 0, answers go to 3, events to 4; 1 is left to the library, which
 * prints the rules it deletes there. Texts in events are hexadecimal, so that every byte is shown
 * as it came. The library is started before the first command is read.
 */
#include <dlfcn.h>
#include <libaudit.h>
#include <malloc.h>
#include <poll.h>
#include <qel_audit.h>
#include <qel_frame.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kAnswers = 3;
constexpr int kEvents = 4;
constexpr std::int64_t kMillisecond_ns = 1'000'000;

struct Callback {
  int number;  // from 1; the callback's argument is its Callback
  int event_class;
  std::string key;
  int filter;
};

struct {
  std::vector<Callback> callbacks;
  std::FILE* events;
  std::string input;             // commands, as far as they have come
  std::int64_t last_message_ns;  // when audit_get_reply last gave one
  std::int64_t settle_ns = 0;    // the silence that is waited for; 0 when none is
  std::uint64_t messages = 0;    // from audit_get_reply, answers included
  std::uint64_t failed_reads = 0;
  std::uint64_t runs = 0;  // of callbacks
} state;

[[noreturn]] void die(std::string_view what) {
  std::fprintf(stderr, "client: %.*s\n", static_cast<int>(what.size()), what.data());
  std::exit(2);
}

std::int64_t now_ns() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000 * kMillisecond_ns + now.tv_nsec;
}

template <typename Number>
Number parse(std::string_view text) {
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size())
    die("\"" + std::string(text) + "\" is not a number in range");
  return value;
}

void answer(std::string line) {
  line += '\n';
  if (write(kAnswers, line.data(), line.size()) < 0) die("nobody reads the answers");
}

/* Events */

std::string hex(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char byte : bytes) {
    text += kDigits[static_cast<unsigned char>(byte) >> 4];
    text += kDigits[static_cast<unsigned char>(byte) & 0xf];
  }
  return text;
}

template <typename Object>
std::string_view bytes_of(const Object& object) {
  return {reinterpret_cast<const char*>(&object), sizeof(object)};
}

// One JSON object a line, members in the order of the calls.
class Line {
 public:
  explicit Line(const void* callback) {
    number("callback", static_cast<const Callback*>(callback)->number);
  }

  ~Line() {
    std::fputs((text_ + "}\n").c_str(), state.events);
    ++state.runs;
  }

  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  template <typename Number>
  Line& number(const char* name, Number value) {
    return member(name, std::to_string(value));
  }
  Line& text(const char* name, std::string_view value) {
    return member(name, '"' + hex(value) + '"');
  }
  Line& texts(const char* name, char* const* values, int count) {
    std::string list;
    for (int i = 0; i < count; ++i) {
      list += i == 0 ? "" : ",";
      list += values[i] == nullptr ? "null" : '"' + hex(values[i]) + '"';
    }
    return member(name, '[' + list + ']');
  }
  template <typename Info>
  Line& process(const Info& event) {
    return number("result", event.result)
        .number("ppid", event.ppid)
        .number("pid", event.pid)
        .text("user", event.user)
        .text("process", event.process);
  }

 private:
  Line& member(const char* name, std::string_view value) {
    text_ += text_.empty() ? "{\"" : ",\"";
    text_.append(name).append("\":").append(value);
    return *this;
  }

  std::string text_;
};

int write_login(const qel_login_info* event, void* callback) {
  Line(callback)
      .number("event", event->event)
      .number("status", event->status)
      .number("pid", event->pid)
      .text("user", event->user)
      .text("process", event->process)
      .text("ipaddr", bytes_of(event->ipaddr))
      .text("username", event->username)
      .text("logintype", event->logintype)
      .number("time", event->time);
  return 0;
}

int write_user(const qel_user_info* event, void* callback) {
  Line(callback)
      .number("event", event->event)
      .text("username", event->username)
      .text("groupname", event->groupname);
  return 0;
}

int write_syscall(const qel_syscall_info* event, void* callback) {
  Line(callback)
      .process(*event)
      .number("success", event->success)
      .text("syscall", event->syscall)
      .number("arg1", event->arg1)
      .number("arg2", event->arg2)
      .number("arg3", event->arg3)
      .number("arg4", event->arg4);
  return 0;
}

int write_execve(const qel_execve_info* event, void* callback) {
  Line(callback)
      .process(*event)
      .number("argc", event->argc)
      .texts("argv", event->argv, event->argc);
  return 0;
}

int write_bind(const qel_bind_info* event, void* callback) {
  Line(callback).process(*event).text("addr", bytes_of(event->addr));
  return 0;
}

/* Registration */

struct EventClass {
  std::string_view name;
  int (*reg)(const char* key, int filter, Callback* callback);
};

constexpr EventClass kClasses[] = {
    {"login", [](const char* key, int filter,
                 Callback* cb) { return qel_login_reg_callback(key, filter, write_login, cb); }},
    {"user", [](const char* key, int filter,
                Callback* cb) { return qel_user_reg_callback(key, filter, write_user, cb); }},
    {"syscall",
     [](const char* key, int filter, Callback* cb) {
       return qel_syscall_reg_callback(key, filter, write_syscall, cb);
     }},
    {"execve", [](const char* key, int,
                  Callback* cb) { return qel_execve_reg_callback(key, write_execve, cb); }},
    {"bind", [](const char* key, int,
                Callback* cb) { return qel_bind_reg_callback(parse<int>(key), write_bind, cb); }},
};
static_assert(std::size(kClasses) == QEL_CLASS_COUNT);

// "CLASS,KEY,FILTER"; an empty filter is 0, an empty port too.
Callback parse_callback(std::string_view text, int number) {
  const std::size_t first = text.find(',');
  const std::size_t last = text.rfind(',');
  if (first == last) die("a callback is CLASS,KEY,FILTER");
  for (int i = 0; i < QEL_CLASS_COUNT; ++i) {
    if (kClasses[i].name != text.substr(0, first)) continue;
    std::string key(text.substr(first + 1, last - first - 1));
    if (i == QEL_CLASS_BIND && key.empty()) key = "0";
    const std::string_view filter = text.substr(last + 1);
    return {number, i, key, filter.empty() ? 0 : parse<int>(filter)};
  }
  die("the classes are login, user, syscall, execve and bind");
}

// Answers "started", or "refused N" with the number of the first callback that was refused.
void start() {
  for (Callback& callback : state.callbacks) {
    if (kClasses[callback.event_class].reg(callback.key.c_str(), callback.filter, &callback) >= 0)
      continue;
    return answer("refused " + std::to_string(callback.number));
  }
  answer("started");
}

/* Commands */

void stop() {
  qel_audit_fini();
  answer("stopped");
}

std::size_t count_descriptors() {
  using Directory = std::filesystem::directory_iterator;
  return static_cast<std::size_t>(std::distance(Directory("/proc/self/fd"), Directory()));
}

// Bytes of the heap are those in use, without what malloc keeps for later.
void report_counts() {
  std::fflush(state.events);
  answer("messages " + std::to_string(state.messages) + " failed_reads " +
         std::to_string(state.failed_reads) + " runs " + std::to_string(state.runs) +
         " descriptors " + std::to_string(count_descriptors()) + " heap " +
         std::to_string(mallinfo2().uordblks));
}

// Answers "settled" once no message has come for the given time.
void settle(std::string_view silence_ms) {
  state.settle_ns = parse<std::int64_t>(silence_ms) * kMillisecond_ns;
  state.last_message_ns = now_ns();
}

struct Command {
  std::string_view name;
  void (*run)(std::string_view word);
};

constexpr Command kCommands[] = {
    {"start", [](std::string_view) { start(); }},
    {"stop", [](std::string_view) { stop(); }},
    {"counts", [](std::string_view) { report_counts(); }},
    {"settle", settle},
    {"quit",
     [](std::string_view) {
       qel_audit_fini();
       qel_mainloop_stop();
     }},
};

void run_command(std::string_view line) {
  const std::size_t blank = line.find(' ');
  for (const Command& command : kCommands) {
    if (command.name != line.substr(0, blank)) continue;
    return command.run(blank == line.npos ? std::string_view() : line.substr(blank + 1));
  }
  die("unknown command");
}

void read_commands() {
  pollfd commands = {.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
  if (poll(&commands, 1, 0) <= 0) return;
  std::array<char, 256> bytes;
  const ssize_t length = read(STDIN_FILENO, bytes.data(), bytes.size());
  if (length <= 0) return qel_mainloop_stop();  // whoever gave the commands is gone
  state.input.append(bytes.data(), static_cast<std::size_t>(length));
  for (std::size_t end = 0; (end = state.input.find('\n')) != state.input.npos;) {
    const std::string line = state.input.substr(0, end);
    state.input.erase(0, end + 1);
    run_command(line);
  }
}

// Commands are looked at when there is no message to read, so that a burst is not slowed down.
int poll_commands(void*) {
  static std::uint64_t messages_before = 0;
  if (messages_before != state.messages) {
    messages_before = state.messages;
    return 0;
  }
  if (state.settle_ns != 0 && now_ns() - state.last_message_ns >= state.settle_ns) {
    state.settle_ns = 0;
    std::fflush(state.events);
    answer("settled");
  }
  read_commands();
  return 0;
}

}  // namespace

// In front of libaudit's, to count what the library reads.
extern "C" int audit_get_reply(int fd, audit_reply* reply, reply_t block, int peek) {
  static const auto real =
      reinterpret_cast<decltype(&audit_get_reply)>(dlsym(RTLD_NEXT, "audit_get_reply"));
  const int result = real(fd, reply, block, peek);
  if (result > 0) {
    ++state.messages;
    state.last_message_ns = now_ns();
  } else {
    ++state.failed_reads;
  }
  return result;
}

int main(int argc, char** argv) {
  state.events = fdopen(kEvents, "w");
  if (state.events == nullptr) die("there is no descriptor 4 for events");
  for (int i = 1; i < argc; ++i) state.callbacks.push_back(parse_callback(argv[i], i));
  start();
  qel_mainloop_reg_poller(poll_commands, nullptr);
  qel_mainloop_run();
}
