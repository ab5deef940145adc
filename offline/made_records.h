// Made-up records, written as the kernel writes them: for tests and benchmarks.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace offline {

// ---- Texts -------------------------------------------------------------------------------------

std::string to_hex(std::string_view bytes, std::string_view digits = "0123456789ABCDEF");

// Whether the kernel writes a text from user space in hexadecimal (audit_string_contains_control).
bool needs_hex(std::string_view text);

// The value of a field for a text from user space: quoted or in hexadecimal
// (audit_log_untrustedstring).
std::string untrusted(std::string_view text);

// "audit(1700000000.000:SERIAL): "
std::string header(unsigned serial);

// ---- Records -----------------------------------------------------------------------------------

// A record without its header.
struct MadeRecord {
  int type;
  std::string body;
  unsigned serial = 7;
};

// The fields of a SYSCALL record, to be overridden by name.
struct Syscall {
  unsigned serial = 7;
  std::string key = "execve_rule";
  std::string comm = "cat";
  int number = 257;  // openat
  bool success = true;
  std::string exit = "0";
  std::string args = "a0=1 a1=2 a2=3 a3=4";
  std::string arch = "c000003e";
  unsigned ppid = 10, pid = 11, uid = 0;
};

MadeRecord syscall_record(const Syscall& fields = {});
MadeRecord execve_record(const std::vector<std::string>& arguments);
MadeRecord path_record(const std::string& name);

}  // namespace offline
