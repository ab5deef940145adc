// What is shown of each event class: the one description behind both lines for people and JSON.
#pragma once

#include <qel_audit.h>

#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

// The names of the classes in lines, options and the summary, indexed by QEL_CLASS_ value.
extern const char* const kClassNames[QEL_CLASS_COUNT];

using Arguments = std::span<char* const>;
// A string holds raw bytes, which are not yet safe to print.
using Value = std::variant<bool, std::int64_t, std::string, Arguments>;

enum class Shown {
  kAlways,
  kIfNotEmpty,  // left out of lines for people when it is an empty text
  kInJson,      // only in JSON
};

struct Field {
  const char* name;
  Value value;
  unsigned width = 0;  // minimum number of characters of the value, for people
  Shown shown = Shown::kAlways;
};
using Fields = std::vector<Field>;

// The fields of an event in the order of printing. They refer to the event's argument list.
Fields describe(const qel_login_info& event);
Fields describe(const qel_user_info& event);
Fields describe(const qel_syscall_info& event);
Fields describe(const qel_execve_info& event);
Fields describe(const qel_bind_info& event);
