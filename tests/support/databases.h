// Account and login databases of a test's own: takes the place of the passwd, shadow and group
// enumerations, of utmpname and of stat in a test program, so that the machine's databases are
// never read.
#pragma once

#include <sys/types.h>
#include <utmp.h>

#include <cstdint>
#include <string>
#include <vector>

namespace test {

struct Account {
  std::string name;
  uid_t uid;
  gid_t gid;
  std::string passwd = "x";
  std::string gecos = "";
  std::string dir = "";
  std::string shell = "";
};
struct Shadow {
  std::string name;
  std::string hash;
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

// How often each enumeration was started and ended.
struct Walks {
  int passwd_started, passwd_ended;
  int shadow_started, shadow_ended;
  int group_started, group_ended;
};
extern Walks walks;

// The file that stands behind a path of the machine, for stat and utmpname: such as a test's own
// file for "/var/log/wtmp". Without one, the three watched files are not there (ENOENT).
void redirect(const std::string& path, const std::string& to);

// How often stat was called for this path.
int stat_calls(const std::string& path);

// Has utmpname fail until further notice.
void fail_utmpname(bool fails);

// Empty databases, no redirections, counts at zero.
void reset_databases();

// An empty file of a test's own, removed at the end.
class ScratchFile {
 public:
  ScratchFile();
  ~ScratchFile();
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A wtmp record. `user` and `line` are cut to their 32 bytes and not terminated when they fill
// them.
struct utmp utmp_record(short type, pid_t pid, const std::string& line, const std::string& user,
                        std::int32_t time_s, const std::string& address = "");
// The records of a login, of its end and of a start of the system.
struct utmp login_record(pid_t pid, const std::string& line, const std::string& user,
                         std::int32_t time_s, const std::string& address = "");
struct utmp logout_record(pid_t pid, const std::string& line, std::int32_t time_s);
struct utmp system_record(const std::string& user, std::int32_t time_s);

// Writes, or appends, the records to a file.
void write_wtmp(const std::string& path, const std::vector<struct utmp>& records);
void append_wtmp(const std::string& path, const std::vector<struct utmp>& records);

}  // namespace test
