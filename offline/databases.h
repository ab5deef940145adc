// Account and login databases in memory and in files of a program's own.
//
// Linked into an executable, this library defines the passwd, shadow and group enumerations, utmpname
// and stat, so that the machine's databases are never read.
#pragma once

#include <sys/types.h>
#include <time.h>
#include <utmp.h>

#include <cstddef>
#include <cstdint>
#include <ios>
#include <string>
#include <vector>

namespace offline {

struct Account {
  std::string name;
  uid_t uid;
  gid_t gid;
  std::string passwd = "x", gecos = "", dir = "", shell = "";
};
struct Shadow {
  std::string name, hash;
  bool has_null_texts = false;
};
struct Group {
  std::string name;
  gid_t gid;
};

// What the enumerations yield, in this order. Empty ones stand for databases that cannot be read.
struct Databases {
  std::vector<Account> passwd;
  std::vector<Shadow> shadow;
  std::vector<Group> group;
};
extern Databases databases;

// How often an enumeration was started and ended, and where it stands.
struct Walk {
  int started, ended;
  std::size_t next;
};
struct Walks {
  Walk passwd, shadow, group;
};
extern Walks walks;

// The file that stands behind a path of the machine, for stat and utmpname: such as a test's own
// file for "/var/log/wtmp". Without one, the three watched files are not there (ENOENT).
void redirect(const std::string& path, const std::string& to);

// How often stat was called for a watched or redirected path.
extern int stat_calls;

// Has utmpname fail until further notice.
void fail_utmpname(bool fails);

// Empty databases, no redirections, counts at zero.
void reset_databases();

// A wtmp record. `user` and `line` are cut to their 32 bytes and not terminated when they fill
// them.
struct utmp utmp_record(short type, pid_t pid, const std::string& line, const std::string& user,
                        std::int32_t time_s, const std::string& address = "0.0.0.0");

// Writes the records to a file; std::ios::app appends them.
void write_wtmp(const std::string& path, const std::vector<struct utmp>& records,
                std::ios::openmode mode = std::ios::trunc);

}  // namespace offline
