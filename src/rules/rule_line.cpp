#include "rules/rule_line.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string_view>

namespace {

constexpr std::uint32_t kOperatorMask = 0xF8000000;  // the other bits of a word are the field
constexpr int kMaxSyscalls = AUDIT_BITMASK_SIZE * 32;

struct PermissionLetter {
  std::uint32_t bit;
  char letter;
};
constexpr PermissionLetter kPermissionLetters[] = {{AUDIT_PERM_READ, 'r'},
                                                   {AUDIT_PERM_WRITE, 'w'},
                                                   {AUDIT_PERM_EXEC, 'x'},
                                                   {AUDIT_PERM_ATTR, 'a'}};

// libaudit's name for a number, or the number itself when libaudit has none.
class NameOrNumber {
 public:
  NameOrNumber(const char* name, std::uint32_t number) : name_(name) {
    std::snprintf(number_, sizeof(number_), "%d", static_cast<int>(number));
  }
  const char* text() const { return name_ != nullptr ? name_ : number_; }

 private:
  const char* name_;
  char number_[12];
};

// What the fields printed so far determine for the rest of the line.
struct Line {
  std::string_view strings;   // the rule's remaining string values, in field order
  std::uint32_t arch = 0;     // value of an arch field
  bool show_syscalls = true;  // a permission field stands for the system calls it covers
};

// Takes the next string value. A value that runs past the end of the rule is cut there.
std::string_view take_string(Line& line, std::uint32_t length) {
  const std::string_view text = line.strings.substr(0, length);
  line.strings.remove_prefix(text.size());
  return text;
}

void print_text(std::string_view text) {
  std::printf("%.*s", static_cast<int>(text.size()), text.data());
}

void print_keys(std::string_view keys) {
  while (!keys.empty()) {
    const std::string_view key = keys.substr(0, keys.find(AUDIT_KEY_SEPARATOR));
    keys.remove_prefix(std::min(key.size() + 1, keys.size()));
    if (key.empty()) continue;
    std::printf(" key=");
    print_text(key);
  }
}

void print_permissions(std::uint32_t bits) {
  std::printf(" perm=");
  for (const auto& [bit, letter] : kPermissionLetters) {
    if ((bits & bit) != 0) std::putchar(letter);
  }
}

// Whether the field is an SELinux label of subject or object. The values of labels are strings.
bool is_label(std::uint32_t field) {
  return field >= AUDIT_SUBJ_USER && field <= AUDIT_OBJ_LEV_HIGH && field != AUDIT_PPID;
}

void print_named_field(const char* name, const char* symbol, std::uint32_t field,
                       std::uint32_t value, Line& line) {
  const std::string_view known(name);
  std::printf(" %s%s", name, symbol);
  if (known == "arch") {
    line.arch = value;
    std::printf("%u", value);
  } else if (known == "msgtype") {
    const char* type = audit_msg_type_to_name(static_cast<int>(value));
    std::printf("%s", NameOrNumber(type, value).text());
  } else if (is_label(field)) {
    print_text(take_string(line, value));
  } else if (field == AUDIT_INODE) {
    std::printf("%u", value);
  } else {
    std::printf("%d", static_cast<int>(value));
  }
}

// Whether a field's numeric value is not worth showing. For fields with strings it is a length.
bool hides_number(std::uint32_t field) {
  return (field >= AUDIT_SUBJ_USER && field <= AUDIT_SUBJ_CLR) || field == AUDIT_WATCH ||
         field == AUDIT_PERM || field == AUDIT_FILTERKEY;
}

void print_field(const audit_rule_data& rule, std::uint32_t index, Line& line) {
  const std::uint32_t field = rule.fields[index] & ~kOperatorMask;
  const std::uint32_t op = rule.fieldflags[index] & kOperatorMask;
  const std::uint32_t value = rule.values[index];
  const char* name = audit_field_to_name(static_cast<int>(field));
  const NameOrNumber symbol(audit_operator_to_symbol(static_cast<int>(op)), op);

  if (name == nullptr) {
    std::printf(" f%d%s%d", static_cast<int>(rule.fields[index]), symbol.text(),
                static_cast<int>(value));
  } else if (field == AUDIT_WATCH || field == AUDIT_DIR) {
    std::printf(field == AUDIT_WATCH ? " watch=" : " dir=");
    print_text(take_string(line, value));
  } else if (field == AUDIT_FILTERKEY) {
    print_keys(take_string(line, value));
  } else if (field == AUDIT_PERM) {
    print_permissions(value);
    line.show_syscalls = false;
  } else {
    print_named_field(name, symbol.text(), field, value, line);
  }
  if (value != 0 && !hides_number(field)) std::printf(" (0x%x)", value);
}

bool covers_all_syscalls(const audit_rule_data& rule) {
  // The kernel lists "all" with the last word partly zero.
  return std::all_of(std::begin(rule.mask), std::end(rule.mask) - 1,
                     [](std::uint32_t word) { return word == 0xFFFFFFFF; });
}

void print_syscalls(const audit_rule_data& rule, std::uint32_t arch) {
  std::printf(" syscall=");
  if (covers_all_syscalls(rule)) {
    std::printf("all");
    return;
  }
  const int machine = arch != 0 ? audit_elf_to_machine(arch) : audit_detect_machine();
  const char* separator = "";
  for (int number = 0; number < kMaxSyscalls; ++number) {
    if ((rule.mask[number / 32] >> (number % 32) & 1) == 0) continue;
    const char* name = machine < 0 ? nullptr : audit_syscall_to_name(number, machine);
    std::printf("%s%s", separator, NameOrNumber(name, static_cast<std::uint32_t>(number)).text());
    separator = ",";
  }
}

// The user, task and exclude lists have no system calls.
bool has_syscalls(std::uint32_t filter_list) {
  return filter_list != AUDIT_FILTER_USER && filter_list != AUDIT_FILTER_TASK &&
         filter_list != AUDIT_FILTER_EXCLUDE;
}

}  // namespace

void print_rule_line(const audit_rule_data& rule) {
  const char* type = audit_msg_type_to_name(AUDIT_LIST_RULES);
  const char* list = audit_flag_to_name(static_cast<int>(rule.flags));
  const char* action = audit_action_to_name(static_cast<int>(rule.action));
  std::printf("%s: %s,%s", type != nullptr ? type : "LIST_RULES",
              NameOrNumber(list, rule.flags).text(), NameOrNumber(action, rule.action).text());

  Line line{.strings = {rule.buf, rule.buflen}};
  const auto field_count = std::min<std::uint32_t>(rule.field_count, AUDIT_MAX_FIELDS);
  for (std::uint32_t i = 0; i < field_count; ++i) print_field(rule, i, line);
  if (line.show_syscalls && has_syscalls(rule.flags & AUDIT_FILTER_MASK)) {
    print_syscalls(rule, line.arch);
  }
  std::putchar('\n');
}
