// Account and login databases in memory and in a program's own files.
//
// Linked into an executable, this library defines the passwd, shadow and group enumerations,
// utmpname and stat, so that the databases of the machine are never read.
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

// The entries of the enumerations, in order. An empty one stands for a database that cannot be
// read.
struct Databases {
  std::vector<Account> passwd;
  std::vector<Shadow> shadow;
  std::vector<Group> group;
};
extern Databases databases;

// How often an enumeration was started and ended, and its position.
struct Walk {
  int started, ended;
  std::size_t next;
};
struct Walks {
  Walk passwd, shadow, group;
};
extern Walks walks;

// Makes stat and utmpname use the file `to` in place of `path`, such as a test's own file in place
// of "/var/log/wtmp". Without a redirection, the three watched files do not exist (ENOENT).
void redirect(const std::string& path, const std::string& to);

// How often stat was called for a watched or redirected path.
extern int stat_calls;

// Makes utmpname fail, or work again.
void fail_utmpname(bool fails);

// Empties the databases, removes the redirections and sets the counts to zero.
void reset_databases();

// A wtmp record. `user` and `line` are cut to their 32 bytes and are not terminated when they fill
// them.
struct utmp utmp_record(short type, pid_t pid, const std::string& line, const std::string& user,
                        std::int32_t time_s, const std::string& address = "0.0.0.0");

// Writes the records to a file; std::ios::app appends them.
void write_wtmp(const std::string& path, const std::vector<struct utmp>& records,
                std::ios::openmode mode = std::ios::trunc);

}  // namespace offline
