// Reads recordings of a kernel's audit stream and auditd log lines, plain or compressed with gzip.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace offline {

struct Record {
  int type;                  // netlink message type
  std::string_view payload;  // a record's text, or the binary payload of a reply
  bool logged;               // read from an auditd log; auditd does not log AUDIT_EOE
};

// Calls `take` for each record of `path` ("-" is standard input), in order. The payload is valid
// during the call. A line has one of these forms:
//   TYPE TAB TEXT                        a recorded record
//   TYPE TAB hex:DIGITS                  a recorded reply, its payload in hexadecimal
//   [node=NAME ]type=NAME msg=audit(...): ...   an auditd log line (NAME or UNKNOWN[number])
// A line ends at a line feed, which the last line may lack; nothing is trimmed. Interpretations in
// an enriched log are left out. Empty lines are skipped. Returns an empty text, or one line that
// says what is wrong, with the name of the file and the number of the line. The records before that
// line have then been taken.
std::string read_records(const std::string& path, const std::function<void(const Record&)>& take);

}  // namespace offline
