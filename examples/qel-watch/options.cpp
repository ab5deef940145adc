#include "options.h"

#include <libaudit.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <span>
#include <string_view>

#include "escape.h"

namespace {

constexpr char kDescription[] =
    "Prints logins, account changes, system calls, program executions and socket binds, live or\n"
    "from recorded audit records. An option for a class may be given several times; without a\n"
    "value it means every event of the class. Without such an option, all classes are replayed,\n"
    "and all but system calls are watched live.\n";

constexpr char kTakeOverNotice[] =
    "qel-watch: watching live takes over auditing on this machine:\n"
    "  - this process becomes the kernel's audit receiver, in place of auditd\n"
    "  - ALL audit rules that are loaded are deleted, when it starts and when it stops\n"
    "  - auditing is switched on, and stays on\n"
    "Say --take-over if that is what you want; --replay FILE takes nothing over.\n";

constexpr int kAllLogins = QEL_LOGIN_LOGIN | QEL_LOGIN_LOGOUT;
constexpr int kAllChanges = QEL_USER_ADDED | QEL_USER_DELETED | QEL_USER_PASSWORD | QEL_USER_GROUP;

// The decimal number that makes up the whole of `text`; 0 when there is none or it does not fit.
template <typename Number>
Number parse_number(std::string_view text) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

// Why a value is refused.
struct Refusal {
  std::string reason;
};

// ---- Keys -------------------------------------------------------------------------------------

constexpr std::size_t kMaxCommandLength = 15;  // the kernel cuts command names (TASK_COMM_LEN)
constexpr std::size_t kMaxLoginLength = 15;    // the longest name in a login event
constexpr std::size_t kMaxAccountLength = QEL_NAME_SIZE - 1;

template <std::size_t kMaxLength>
void set_name(Request& request, const std::string& name) {
  if (name.size() > kMaxLength)
    throw Refusal{"longer than the " + std::to_string(kMaxLength) + " bytes that events have"};
  request.key = name;
}

void set_syscall(Request& request, const std::string& name) {
  if (name == "execve" || name == "bind") throw Refusal{"this call has an option of its own"};
  if (name != "all" && audit_name_to_syscall(name.c_str(), audit_detect_machine()) < 0)
    throw Refusal{"this machine has no such system call"};
  request.key = name;
}

void set_port(Request& request, const std::string& port) {
  request.port = parse_number<std::uint16_t>(port);
  if (request.port == 0) throw Refusal{"a port is a number from 1 to 65535"};
}

// ---- Filters ----------------------------------------------------------------------------------

struct Word {
  std::string_view name;
  int value;
};
constexpr Word kLoginWords[] = {{"login", QEL_LOGIN_LOGIN}, {"logout", QEL_LOGIN_LOGOUT}};
constexpr Word kUserWords[] = {{"added", QEL_USER_ADDED},
                               {"deleted", QEL_USER_DELETED},
                               {"password", QEL_USER_PASSWORD},
                               {"group", QEL_USER_GROUP}};
constexpr Word kSyscallWords[] = {
    {"ok", QEL_SYSCALL_SUCCEEDED}, {"failed", QEL_SYSCALL_FAILED}, {"any", QEL_SYSCALL_ANY}};

int value_of(std::span<const Word> words, std::string_view name) {
  const auto word = std::find_if(words.begin(), words.end(),
                                 [name](const Word& known) { return known.name == name; });
  if (word != words.end()) return word->value;
  std::string names;
  for (const Word& known : words) names.append(names.empty() ? "" : ", ").append(known.name);
  throw Refusal{"the words behind the colon are " + names};
}

// Parses words separated by commas, each of which stands for a bit.
template <const auto& kWords>
int parse_mask(std::string_view text) {
  int mask = 0;
  for (std::size_t comma = 0; comma != text.npos; text.remove_prefix(comma + 1)) {
    comma = text.find(',');
    mask |= value_of(kWords, text.substr(0, comma));
    if (comma == text.npos) break;
  }
  return mask;
}

int parse_outcome(std::string_view text) {
  return value_of(kSyscallWords, text);
}

// ---- Classes ----------------------------------------------------------------------------------

struct ClassOption {
  const char* flag;
  const char* value;
  const char* help;
  Request everything;  // the request of the option without a value
  void (*set_key)(Request& request, const std::string& key);
  int (*parse_filter)(std::string_view text);  // null when the class has no filter
};
const ClassOption kClassOptions[QEL_CLASS_COUNT] = {
    {"--login",
     "[USER][:EVENT,...]",
     "logins and logouts; EVENT: login, logout",
     {.event_class = QEL_CLASS_LOGIN, .filter = kAllLogins},
     set_name<kMaxLoginLength>,
     parse_mask<kLoginWords>},
    {"--user",
     "[NAME][:EVENT,...]",
     "account changes; EVENT: added, deleted, password, group",
     {.event_class = QEL_CLASS_USER, .filter = kAllChanges},
     set_name<kMaxAccountLength>,
     parse_mask<kUserWords>},
    {"--syscall",
     "[NAME][:OUTCOME]",
     "system calls; OUTCOME: ok, failed, any",
     {.event_class = QEL_CLASS_SYSCALL, .key = "all", .filter = QEL_SYSCALL_ANY},
     set_syscall,
     parse_outcome},
    {"--execve",
     "[COMMAND]",
     "program executions",
     {.event_class = QEL_CLASS_EXECVE},
     set_name<kMaxCommandLength>,
     nullptr},
    {"--bind", "[PORT]", "socket binds", {.event_class = QEL_CLASS_BIND}, set_port, nullptr},
};

Request parse_request(const ClassOption& option, const std::string& value) try {
  Request request = option.everything;
  const std::size_t colon = option.parse_filter == nullptr ? value.npos : value.find(':');
  if (const std::string key = value.substr(0, colon); !key.empty()) option.set_key(request, key);
  if (colon != value.npos) request.filter = option.parse_filter(value.substr(colon + 1));
  return request;
} catch (const Refusal& refusal) {
  throw CLI::ValidationError(option.flag, value + ": " + refusal.reason);
}

// The library refuses duplicate registrations.
void add_request(std::vector<Request>& requests, const Request& request) {
  if (std::find(requests.begin(), requests.end(), request) == requests.end())
    requests.push_back(request);
}

std::vector<Request> default_requests(bool live) {
  std::vector<Request> requests;
  for (const ClassOption& option : kClassOptions) {
    // Every system call of every process would swamp a live machine.
    if (live && option.everything.event_class == QEL_CLASS_SYSCALL) continue;
    requests.push_back(option.everything);
  }
  return requests;
}

// ---- Command line -----------------------------------------------------------------------------

using ClassValues = std::array<std::vector<std::string>, QEL_CLASS_COUNT>;

// CLI11's own check would mention the range of floating-point numbers in its message.
std::string check_count(const std::string& text) {
  return parse_number<std::uint64_t>(text) ? "" : text + " is no number from 1 up";
}

void declare_options(CLI::App& app, ClassValues& values, Options& options) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    const ClassOption& option = kClassOptions[i];
    app.add_option(option.flag, values[i], option.help)
        ->type_name(option.value)
        ->expected(0, 1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false);
  }
  app.add_option("--replay", options.replayed,
                 "recording or auditd log, plain or gzip; - is standard input")
      ->type_name("FILE")
      ->allow_extra_args(false);
  app.add_flag("--take-over", options.take_over, "watch live (as root)");
  app.add_flag("--json", options.watch.json, "one JSON object a line");
  app.add_option("--count", options.watch.limit, "stop after N events")
      ->type_name("N")
      ->check(check_count);
  app.set_version_flag("--version", "qel-watch " QEL_WATCH_VERSION);
}

void read_requests(const ClassValues& values, Options& options) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    for (const std::string& value : values[i])
      add_request(options.requests, parse_request(kClassOptions[i], value));
  }
  if (options.requests.empty()) options.requests = default_requests(options.replayed.empty());
  // A call that matches several rules is reported under the rule that was loaded last. So the rules
  // of the system call class, which may match any call, are loaded first.
  std::stable_partition(
      options.requests.begin(), options.requests.end(),
      [](const Request& request) { return request.event_class == QEL_CLASS_SYSCALL; });
}

[[noreturn]] void end_with(const CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) {
    app.exit(error);
    if (std::cout.flush()) std::exit(kDone);
    std::perror("qel-watch: standard output");
    std::exit(kFailed);
  }
  std::fprintf(stderr, "qel-watch: %s (see qel-watch --help)\n",
               escape_bytes(error.what()).c_str());
  std::exit(kRefused);
}

}  // namespace

Options parse_options(int argc, char** argv) {
  Options options;
  ClassValues values;
  CLI::App app(kDescription, "qel-watch");
  declare_options(app, values, options);
  try {
    app.parse(argc, argv);
    read_requests(values, options);
    if (options.take_over && !options.replayed.empty())
      throw CLI::ValidationError("--take-over", "does not go together with --replay");
  } catch (const CLI::ParseError& error) {
    end_with(app, error);
  }
  if (options.replayed.empty() && !options.take_over) {
    std::fputs(kTakeOverNotice, stderr);
    std::exit(kRefused);
  }
  return options;
}
