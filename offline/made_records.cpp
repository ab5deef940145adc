#include "made_records.h"

#include <libaudit.h>

#include <algorithm>

namespace offline {

std::string to_hex(std::string_view bytes, std::string_view digits) {
  std::string text;
  for (const char byte : bytes) {
    text += digits[static_cast<unsigned char>(byte) >> 4];
    text += digits[static_cast<unsigned char>(byte) & 15];
  }
  return text;
}

bool needs_hex(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](char c) { return c == '"' || c < 0x21 || c > 0x7e; });
}

std::string untrusted(std::string_view text) {
  return needs_hex(text) ? to_hex(text) : std::string("\"").append(text).append("\"");
}

std::string header(unsigned serial) {
  return "audit(1700000000.000:" + std::to_string(serial) + "): ";
}

MadeRecord syscall_record(const Syscall& fields) {
  const auto number = [](unsigned value) { return std::to_string(value); };
  return {AUDIT_SYSCALL,
          "arch=" + fields.arch + " syscall=" + std::to_string(fields.number) +
              " success=" + (fields.success ? "yes" : "no") + " exit=" + fields.exit + " " +
              fields.args + " items=2 ppid=" + number(fields.ppid) + " pid=" + number(fields.pid) +
              " auid=0 uid=" + number(fields.uid) + " gid=0 comm=" + untrusted(fields.comm) +
              " exe=\"/bin/cat\" key=" + untrusted(fields.key),
          fields.serial};
}

MadeRecord execve_record(const std::vector<std::string>& arguments) {
  std::string body = "argc=" + std::to_string(arguments.size());
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    body += " a" + std::to_string(i) + "=" + untrusted(arguments[i]);
  }
  return {AUDIT_EXECVE, body};
}

MadeRecord path_record(const std::string& name) {
  return {AUDIT_PATH, "item=0 name=" + untrusted(name) + " inode=9 nametype=NORMAL"};
}

}  // namespace offline
