// The cost of a comparison by the account monitor and by the login log monitor, relative to a bare
// walk of the same databases: the loops over getpwent, getspent and getgrent, or over getutent.
// Walk and comparison alternate, so that both run under the same conditions.
//
// The databases are files of this program's own. It replaces the enumerations of the accounts, and
// passes the path of its wtmp to the monitor.
#include <benchmark/benchmark.h>
#include <grp.h>
#include <malloc.h>
#include <pwd.h>
#include <shadow.h>
#include <time.h>
#include <utmp.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "passwd.h"
#include "wtmp.h"

namespace {

constexpr double kMostOverWalk = 3;
constexpr double kMostGrowth = 2.5;  // of the cost per entry, from the smallest size to the largest

// ---- Databases ---------------------------------------------------------------------------------

// A directory for the databases, removed at the end.
class Directory {
 public:
  Directory() {
    std::string path = std::filesystem::temp_directory_path() / "qelaudit-bench-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
      std::perror(path.c_str());
      std::exit(1);
    }
    path_ = path;
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  ~Directory() { std::filesystem::remove_all(path_); }
  std::string file(const char* name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

const Directory directory;

// An enumeration of a database in a file, as set...ent, get...ent and end...ent perform it.
class Walk {
 public:
  explicit Walk(const char* name) : path_(directory.file(name)) {}
  void start() {
    end();
    file_ = std::fopen(path_.c_str(), "re");
  }
  void end() {
    if (file_ != nullptr) std::fclose(file_);
    file_ = nullptr;
  }
  FILE* file() { return file_; }

 private:
  std::string path_;
  FILE* file_ = nullptr;
};

Walk passwd_walk("passwd"), shadow_walk("shadow"), group_walk("group");

// Every account has a group and a password of its own.
void write_accounts(std::int64_t count) {
  std::ofstream passwd(directory.file("passwd")), shadow(directory.file("shadow")),
      group(directory.file("group"));
  for (std::int64_t i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    const std::string name = "user" + number;
    passwd << name << ":x:" << number << ":" << number << ":User number " << number << ",,,:/home/"
           << name << ":/bin/bash\n";
    shadow << name << ":$y$j9T$" << std::string(22, 's') << "$" << std::string(35, 'h') << number
           << ":19000:0:99999:7:::\n";
    group << name << ":x:" << number << ":\n";
  }
}

struct utmp make_record(short type, pid_t pid, int line, const char* user, std::int64_t time) {
  struct utmp record = {};
  record.ut_type = type;
  record.ut_pid = pid;
  std::snprintf(record.ut_line, sizeof(record.ut_line), "pts/%d", line);
  std::strncpy(record.ut_user, user, sizeof(record.ut_user) - 1);
  record.ut_tv.tv_sec = static_cast<std::int32_t>(time);
  return record;
}

// How pids and times advance from one login to the next.
enum class Pace {
  kUneven,  // as on a machine in use
  kInStep   // a login and a new process each second
};

// Logins on 64 lines. One in twenty never ends; the others end when the next login on their line
// begins.
std::vector<struct utmp> make_log(std::size_t count, Pace pace) {
  constexpr std::size_t kLines = 64;
  constexpr std::int64_t kPidLimit = 4'194'304;
  std::mt19937 random(1);
  const auto step = [&](unsigned most) {
    return pace == Pace::kInStep ? 1 : static_cast<std::int64_t>(1 + random() % most);
  };
  pid_t running[kLines] = {};
  std::int64_t time = 1'700'000'000;
  std::int64_t pid = 1000;
  std::vector<struct utmp> log;
  for (std::size_t login = 0; log.size() < count; ++login) {
    const std::size_t slot = login % kLines;
    const int line = static_cast<int>(slot);
    time += step(60);
    pid = (pid + step(200)) % kPidLimit;
    if (running[slot] != 0) log.push_back(make_record(DEAD_PROCESS, running[slot], line, "", time));
    log.push_back(make_record(USER_PROCESS, static_cast<pid_t>(pid), line, "somebody", time));
    running[slot] = login % 20 == 7 ? 0 : static_cast<pid_t>(pid);
  }
  log.resize(count);
  return log;
}

void write_log(std::int64_t count, Pace pace) {
  const std::vector<struct utmp> log = make_log(static_cast<std::size_t>(count), pace);
  const auto bytes = std::as_bytes(std::span(log));
  std::ofstream(directory.file("wtmp"), std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

// ---- Walks -------------------------------------------------------------------------------------

void walk_accounts() {
  setpwent();
  while (getpwent() != nullptr) continue;
  endpwent();
  setspent();
  while (getspent() != nullptr) continue;
  endspent();
  setgrent();
  while (getgrent() != nullptr) continue;
  endgrent();
}

void walk_log() {
  utmpname(directory.file("wtmp").c_str());
  setutent();
  while (getutent() != nullptr) continue;
  endutent();
}

// ---- Measuring ---------------------------------------------------------------------------------

// The functions of a monitor that this program uses.
struct Monitor {
  void (*walk)();
  void (*start)();
  void (*compare)();
  void (*stop)();
};

constexpr Monitor kAccounts = {walk_accounts, [] { passwd_init(); },
                               [] { check_passwd_event(nullptr, nullptr); }, passwd_fini};
const Monitor kLogins = {
    walk_log, [] { login_log_init(directory.file("wtmp").c_str()); },
    [] { check_login_event(directory.file("wtmp").c_str(), nullptr, nullptr); }, login_log_fini};

struct Result {
  double over_walk;
  double per_entry_ns;
  double bytes_per_entry;
};

// The results by name and number of entries.
std::map<std::string, std::map<std::int64_t, Result>> results;

// Processor time, because other load on the machine must not count, and nothing here waits.
double now_s() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double seconds_of(void (*action)()) {
  const double start = now_s();
  action();
  return now_s() - start;
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double heap_bytes() {
  const struct mallinfo2 heap = mallinfo2();
  return static_cast<double>(heap.uordblks + heap.hblkhd);
}

void measure(benchmark::State& state, const std::string& name, const Monitor& monitor) {
  const auto entries = static_cast<double>(state.range(0));
  const double before = heap_bytes();
  monitor.start();
  const double bytes = heap_bytes() - before;
  monitor.walk();
  monitor.compare();
  std::vector<double> walks, comparisons;
  for (auto _ : state) {
    walks.push_back(seconds_of(monitor.walk));
    comparisons.push_back(seconds_of(monitor.compare));
    state.SetIterationTime(comparisons.back());
  }
  monitor.stop();

  const double comparison = median(comparisons);
  const Result result = {comparison / median(walks), comparison * 1e9 / entries, bytes / entries};
  results[name][state.range(0)] = result;
  state.counters["walk_ms"] = median(walks) * 1e3;
  state.counters["over_walk"] = result.over_walk;
  state.counters["ns_per_entry"] = result.per_entry_ns;
  state.counters["bytes_per_entry"] = result.bytes_per_entry;
}

void compare_accounts(benchmark::State& state) {
  write_accounts(state.range(0));
  measure(state, "accounts", kAccounts);
}

void compare_logins(benchmark::State& state) {
  write_log(state.range(0), Pace::kUneven);
  measure(state, "wtmp records", kLogins);
}

void compare_logins_in_step(benchmark::State& state) {
  write_log(state.range(0), Pace::kInStep);
  measure(state, "wtmp records, one login and one process each second", kLogins);
}

template <std::int64_t kLargest>
void with_sizes(benchmark::internal::Benchmark* comparison) {
  for (const std::int64_t size :
       {std::int64_t{1'000}, std::int64_t{10'000}, std::int64_t{100'000}, kLargest})
    comparison->Arg(size);
  comparison->UseManualTime()->MinTime(2)->Unit(benchmark::kMillisecond);
}
BENCHMARK(compare_accounts)->Apply(with_sizes<200'000>);
BENCHMARK(compare_logins)->Apply(with_sizes<500'000>);
BENCHMARK(compare_logins_in_step)->Apply(with_sizes<500'000>);

const char* verdict(double value, double most) {
  return value <= most ? "met" : "MISSED";
}

void print_summary() {
  for (const auto& [name, sizes] : results) {
    const Result& least = sizes.begin()->second;
    const auto& [top, most] = *sizes.rbegin();
    const double growth = most.per_entry_ns / least.per_entry_ns;
    std::printf(
        "\n%ld %s: a comparison takes %.2f times the bare walk (goal: at most %.1f, %s); its cost "
        "per entry is %.2f times that of %ld (goal: at most %.1f, %s); what is known takes %.0f "
        "bytes per entry.\n",
        top, name.c_str(), most.over_walk, kMostOverWalk, verdict(most.over_walk, kMostOverWalk),
        growth, sizes.begin()->first, kMostGrowth, verdict(growth, kMostGrowth),
        most.bytes_per_entry);
  }
}

}  // namespace

extern "C" {

void setpwent() {
  passwd_walk.start();
}
struct passwd* getpwent() {
  return fgetpwent(passwd_walk.file());
}
void endpwent() {
  passwd_walk.end();
}

void setspent() {
  shadow_walk.start();
}
struct spwd* getspent() {
  return fgetspent(shadow_walk.file());
}
void endspent() {
  shadow_walk.end();
}

void setgrent() {
  group_walk.start();
}
struct group* getgrent() {
  return fgetgrent(group_walk.file());
}
void endgrent() {
  group_walk.end();
}
}

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  print_summary();
}
