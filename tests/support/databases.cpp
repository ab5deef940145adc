#include "databases.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

namespace test {

Databases databases;
Walks walks;
int stat_calls;

namespace {

using Paths = std::map<std::string, std::string>;

const Paths kNoWatchedFiles = {{"/etc/passwd", "/nonexistent/passwd"},
                               {"/etc/shadow", "/nonexistent/shadow"},
                               {"/var/log/wtmp", "/nonexistent/wtmp"}};

Paths redirections = kNoWatchedFiles;
bool utmpname_fails;

const char* real_path(const char* path) {
  const auto found = redirections.find(path);
  return found != redirections.end() ? found->second.c_str() : path;
}

// The entry that a walk comes to next, or null at the end.
template <typename Entry>
Entry* next_of(std::vector<Entry>& entries, Walk& walk) {
  return walk.next < entries.size() ? &entries[walk.next++] : nullptr;
}

}  // namespace

void redirect(const std::string& path, const std::string& to) {
  redirections[path] = to;
}

void fail_utmpname(bool fails) {
  utmpname_fails = fails;
}

void reset_databases() {
  databases = {};
  walks = {};
  redirections = kNoWatchedFiles;
  stat_calls = 0;
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

void ScratchFile::append(const std::string& text) const {
  std::ofstream(path_, std::ios::app) << text;
}

void ScratchFile::set_time(timespec modified) const {
  const timespec times[] = {modified, modified};
  if (utimensat(AT_FDCWD, path_.c_str(), times, 0) != 0) throw std::runtime_error(path_);
}

void ScratchFile::replace() const {
  const ScratchFile other;
  std::filesystem::resize_file(other.path(), std::filesystem::file_size(path_));
  std::filesystem::rename(other.path(), path_);
}

struct utmp utmp_record(short type, pid_t pid, const std::string& line, const std::string& user,
                        std::int32_t time_s, const std::string& address) {
  struct utmp record = {};
  record.ut_type = type;
  record.ut_pid = pid;
  line.copy(record.ut_line, sizeof(record.ut_line));
  user.copy(record.ut_user, sizeof(record.ut_user));
  record.ut_tv.tv_sec = time_s;
  record.ut_addr_v6[0] = static_cast<std::int32_t>(inet_addr(address.c_str()));
  return record;
}

void write_wtmp(const std::string& path, const std::vector<struct utmp>& records,
                std::ios::openmode mode) {
  std::ofstream file(path, std::ios::binary | mode);
  file.write(reinterpret_cast<const char*>(records.data()),
             static_cast<std::streamsize>(records.size() * sizeof(struct utmp)));
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace test

using test::databases;
using test::walks;

extern "C" {

void setpwent() {
  walks.passwd = {walks.passwd.started + 1, walks.passwd.ended, 0};
}
void endpwent() {
  ++walks.passwd.ended;
}
struct passwd* getpwent() {
  static struct passwd entry;
  test::Account* account = test::next_of(databases.passwd, walks.passwd);
  if (account == nullptr) return nullptr;
  auto& [name, uid, gid, password, gecos, dir, shell] = *account;
  entry = {name.data(), password.data(), uid, gid, gecos.data(), dir.data(), shell.data()};
  return &entry;
}

void setspent() {
  walks.shadow = {walks.shadow.started + 1, walks.shadow.ended, 0};
}
void endspent() {
  ++walks.shadow.ended;
}
struct spwd* getspent() {
  static struct spwd entry;
  test::Shadow* shadow = test::next_of(databases.shadow, walks.shadow);
  if (shadow == nullptr) return nullptr;
  entry = {};
  if (shadow->has_null_texts) return &entry;
  entry.sp_namp = shadow->name.data();
  entry.sp_pwdp = shadow->hash.data();
  return &entry;
}

void setgrent() {
  walks.group = {walks.group.started + 1, walks.group.ended, 0};
}
void endgrent() {
  ++walks.group.ended;
}
struct group* getgrent() {
  static struct group entry;
  test::Group* group = test::next_of(databases.group, walks.group);
  if (group == nullptr) return nullptr;
  entry = {group->name.data(), nullptr, group->gid, nullptr};
  return &entry;
}

int stat(const char* path, struct stat* status) {
  if (test::redirections.contains(path)) ++test::stat_calls;
  return fstatat(AT_FDCWD, test::real_path(path), status, 0);
}

int utmpname(const char* path) {
  static auto* const libc_utmpname =
      reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "utmpname"));
  return test::utmpname_fails ? -1 : libc_utmpname(test::real_path(path));
}
}
