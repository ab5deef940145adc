// Reads recordings of a kernel's audit stream and auditd log lines, plain or compressed with gzip.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace offline {

struct Record {
  int type;                  // netlink message type
  std::string_view payload;  // a record's text, or the binary payload of a reply
  bool logged;               // from an auditd log, to which auditd does not write AUDIT_EOE
};

// Calls `take` for each record of `path` ("-" is standard input), in order; the payload lasts as
// long as the call. A line is either
//   TYPE TAB TEXT                        a recorded record
//   TYPE TAB hex:DIGITS                  a recorded reply, its payload in hexadecimal
//   [node=NAME ]type=NAME msg=audit(...): ...   an auditd log line (NAME or UNKNOWN[number])
// Lines are bytes up to a line feed, which the last one may lack; nothing is trimmed. Of an
// enriched log the interpretations behind the record are left out. Empty lines are skipped. Returns
// an empty text, or the one line that says what is wrong, with the file's name and the line's
// number; records before that line have been taken.
std::string read_records(const std::string& path, const std::function<void(const Record&)>& take);

}  // namespace offline
