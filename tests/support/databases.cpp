#include "databases.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <span>
#include <stdexcept>

namespace test {

Databases databases;
Walks walks;

namespace {

constexpr const char* kWatched[] = {"/etc/passwd", "/etc/shadow", "/var/log/wtmp"};

std::map<std::string, std::string> redirections;
std::map<std::string, int> stats;
bool utmpname_fails;
std::size_t next_passwd, next_shadow, next_group;

// The path to use in place of this one, or null for a watched file that the test has not given.
const char* real_path(const char* path) {
  const auto found = redirections.find(path);
  if (found != redirections.end()) return found->second.c_str();
  const bool watched = std::any_of(std::begin(kWatched), std::end(kWatched),
                                   [path](const char* w) { return std::strcmp(w, path) == 0; });
  return watched ? nullptr : path;
}

void write_records(const std::string& path, const std::vector<struct utmp>& records,
                   std::ios::openmode mode) {
  std::ofstream file(path, std::ios::binary | mode);
  const auto bytes = std::as_bytes(std::span(records));
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace

void redirect(const std::string& path, const std::string& to) {
  redirections[path] = to;
}

int stat_calls(const std::string& path) {
  return stats[path];
}

void fail_utmpname(bool fails) {
  utmpname_fails = fails;
}

void reset_databases() {
  databases = {};
  walks = {};
  redirections.clear();
  stats.clear();
  utmpname_fails = false;
}

ScratchFile::ScratchFile() {
  const char* directory = std::getenv("TMPDIR");
  path_ = std::string(directory != nullptr ? directory : "/tmp") + "/qelaudit-XXXXXX";
  const int fd = mkstemp(path_.data());
  if (fd < 0) throw std::runtime_error("cannot make " + path_);
  close(fd);
}

ScratchFile::~ScratchFile() {
  unlink(path_.c_str());
}

struct utmp utmp_record(short type, pid_t pid, const std::string& line, const std::string& user,
                        std::int32_t time_s, const std::string& address) {
  struct utmp record = {};
  record.ut_type = type;
  record.ut_pid = pid;
  line.copy(record.ut_line, sizeof(record.ut_line));
  user.copy(record.ut_user, sizeof(record.ut_user));
  record.ut_tv.tv_sec = time_s;
  if (!address.empty() && inet_pton(AF_INET, address.c_str(), record.ut_addr_v6) != 1) {
    throw std::invalid_argument(address);
  }
  return record;
}

struct utmp login_record(pid_t pid, const std::string& line, const std::string& user,
                         std::int32_t time_s, const std::string& address) {
  return utmp_record(USER_PROCESS, pid, line, user, time_s, address);
}

struct utmp logout_record(pid_t pid, const std::string& line, std::int32_t time_s) {
  return utmp_record(DEAD_PROCESS, pid, line, "", time_s);
}

struct utmp system_record(const std::string& user, std::int32_t time_s) {
  return utmp_record(user == "reboot" ? BOOT_TIME : RUN_LVL, 0, "~", user, time_s);
}

void write_wtmp(const std::string& path, const std::vector<struct utmp>& records) {
  write_records(path, records, std::ios::trunc);
}

void append_wtmp(const std::string& path, const std::vector<struct utmp>& records) {
  write_records(path, records, std::ios::app);
}

}  // namespace test

using test::databases;
using test::walks;

namespace {

char no_text[] = "";

char* text(std::string& s) {
  return s.data();
}

}  // namespace

extern "C" {

void setpwent() {
  ++walks.passwd_started;
  test::next_passwd = 0;
}
void endpwent() {
  ++walks.passwd_ended;
}
struct passwd* getpwent() {
  static struct passwd entry;
  if (test::next_passwd >= databases.passwd.size()) return nullptr;
  test::Account& account = databases.passwd[test::next_passwd++];
  entry = {.pw_name = text(account.name),
           .pw_passwd = text(account.passwd),
           .pw_uid = account.uid,
           .pw_gid = account.gid,
           .pw_gecos = text(account.gecos),
           .pw_dir = text(account.dir),
           .pw_shell = text(account.shell)};
  return &entry;
}

void setspent() {
  ++walks.shadow_started;
  test::next_shadow = 0;
}
void endspent() {
  ++walks.shadow_ended;
}
struct spwd* getspent() {
  static struct spwd entry;
  if (test::next_shadow >= databases.shadow.size()) return nullptr;
  test::Shadow& shadow = databases.shadow[test::next_shadow++];
  entry = {};
  entry.sp_namp = text(shadow.name);
  entry.sp_pwdp = text(shadow.hash);
  return &entry;
}

void setgrent() {
  ++walks.group_started;
  test::next_group = 0;
}
void endgrent() {
  ++walks.group_ended;
}
struct group* getgrent() {
  static struct group entry;
  if (test::next_group >= databases.group.size()) return nullptr;
  test::Group& group = databases.group[test::next_group++];
  entry = {
      .gr_name = text(group.name), .gr_passwd = no_text, .gr_gid = group.gid, .gr_mem = nullptr};
  return &entry;
}

int stat(const char* path, struct stat* status) {
  ++test::stats[path];
  const char* real = test::real_path(path);
  if (real == nullptr) {
    errno = ENOENT;
    return -1;
  }
  return fstatat(AT_FDCWD, real, status, 0);
}

int utmpname(const char* path) {
  const char* real = test::real_path(path);
  if (test::utmpname_fails) return -1;
  static auto* const libc_utmpname =
      reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "utmpname"));
  return libc_utmpname(real != nullptr ? real : "/nonexistent/wtmp");
}
}
