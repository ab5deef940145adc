#include "databases.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <stdexcept>

namespace offline {

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

// The next entry of a walk, or null at the end.
template <typename Entry>
Entry* next_of(std::vector<Entry>& entries, Walk& walk) {
  return walk.next < entries.size() ? &entries[walk.next++] : nullptr;
}

struct passwd entry_of(Account& row) {
  return {row.name.data(),  row.passwd.data(), row.uid,         row.gid,
          row.gecos.data(), row.dir.data(),    row.shell.data()};
}
struct spwd entry_of(Shadow& row) {
  struct spwd entry = {};
  if (row.has_null_texts) return entry;
  entry.sp_namp = row.name.data();
  entry.sp_pwdp = row.hash.data();
  return entry;
}
struct group entry_of(Group& row) {
  return {row.name.data(), nullptr, row.gid, nullptr};
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

}  // namespace offline

using offline::databases;
using offline::walks;

// The functions that start, continue and end a walk through one database.
#define QEL_TAKE_OVER(suffix, entry, rows, walk)    \
  void set##suffix() {                              \
    walk = {walk.started + 1, walk.ended, 0};       \
  }                                                 \
  void end##suffix() {                              \
    ++walk.ended;                                   \
  }                                                 \
  struct entry* get##suffix() {                     \
    static struct entry next;                       \
    auto* const row = offline::next_of(rows, walk); \
    if (row == nullptr) return nullptr;             \
    next = offline::entry_of(*row);                 \
    return &next;                                   \
  }

extern "C" {

QEL_TAKE_OVER(pwent, passwd, databases.passwd, walks.passwd)
QEL_TAKE_OVER(spent, spwd, databases.shadow, walks.shadow)
QEL_TAKE_OVER(grent, group, databases.group, walks.group)

int stat(const char* path, struct stat* status) {
  if (offline::redirections.contains(path)) ++offline::stat_calls;
  return fstatat(AT_FDCWD, offline::real_path(path), status, 0);
}

int utmpname(const char* path) {
  static auto* const libc_utmpname =
      reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "utmpname"));
  return offline::utmpname_fails ? -1 : libc_utmpname(offline::real_path(path));
}
}
