#include "rule_list.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>

namespace offline {
namespace {

// Rule fields whose value is the length of a text in `buf`.
constexpr std::array<std::uint32_t, 14> kTextFields = {
    AUDIT_SUBJ_USER, AUDIT_SUBJ_ROLE, AUDIT_SUBJ_TYPE, AUDIT_SUBJ_SEN,    AUDIT_SUBJ_CLR,
    AUDIT_OBJ_USER,  AUDIT_OBJ_ROLE,  AUDIT_OBJ_TYPE,  AUDIT_OBJ_LEV_LOW, AUDIT_OBJ_LEV_HIGH,
    AUDIT_WATCH,     AUDIT_DIR,       AUDIT_FILTERKEY, AUDIT_EXE,
};

// Filter lists that accept rules. AUDIT_FILTER_ENTRY has been refused since Linux 3.16.
constexpr std::array<std::uint32_t, 5> kFilterLists = {
    AUDIT_FILTER_USER, AUDIT_FILTER_TASK, AUDIT_FILTER_EXIT, AUDIT_FILTER_EXCLUDE, AUDIT_FILTER_FS};

// The upper half of the last mask word stands for classes of system calls. The kernel resolves and
// clears these bits when it accepts a rule.
constexpr std::uint32_t kLastMaskWordBits = 0x0000ffff;

template <typename Table>
bool contains(const Table& table, std::uint32_t value) {
  return std::find(table.begin(), table.end(), value) != table.end();
}

std::size_t text_length(const audit_rule_data& rule) {
  std::size_t length = 0;
  for (std::uint32_t i = 0; i < rule.field_count; ++i)
    if (contains(kTextFields, rule.fields[i])) length += rule.values[i];
  return length;
}

// The text of the first field of this kind. The texts lie one after another in `buf`.
std::optional<std::string> text_of(const audit_rule_data& rule, std::uint32_t field) {
  const char* text = rule.buf;
  for (std::uint32_t i = 0; i < rule.field_count; ++i) {
    if (rule.fields[i] == field) return std::string(text, rule.values[i]);
    if (contains(kTextFields, rule.fields[i])) text += rule.values[i];
  }
  return std::nullopt;
}

bool is_watchable(const audit_rule_data& rule) {
  const std::optional<std::string> file = text_of(rule, AUDIT_WATCH);
  const std::optional<std::string> directory = text_of(rule, AUDIT_DIR);
  if (!file && !directory) return true;
  if ((file && directory) || list_of(rule) != AUDIT_FILTER_EXIT) return false;
  const std::string& path = file ? *file : *directory;
  return path.starts_with('/') && !(file && path.ends_with('/'));
}

template <std::size_t kSize>
bool same_words(const std::uint32_t (&a)[kSize], const std::uint32_t (&b)[kSize],
                std::size_t count) {
  return std::equal(a, a + count, b);
}

bool same_rule(const audit_rule_data& a, const audit_rule_data& b) {
  return a.flags == b.flags && a.action == b.action && a.field_count == b.field_count &&
         a.buflen == b.buflen && same_words(a.fields, b.fields, a.field_count) &&
         same_words(a.values, b.values, a.field_count) &&
         same_words(a.fieldflags, b.fieldflags, a.field_count) &&
         same_words(a.mask, b.mask, AUDIT_BITMASK_SIZE) && std::memcmp(a.buf, b.buf, a.buflen) == 0;
}

// All flags are compared, and no listed rule has the prepend bit, so a rule with that bit is never
// found.
auto find_rule(const std::vector<Rule>& rules, const audit_rule_data& rule) {
  return std::find_if(rules.begin(), rules.end(),
                      [&](const Rule& listed) { return same_rule(*listed, rule); });
}

bool is_watch_missing(const audit_rule_data& rule, const PathExists& exists) {
  if (const auto directory = text_of(rule, AUDIT_DIR)) return !exists(*directory);
  const auto file = text_of(rule, AUDIT_WATCH);
  if (!file) return false;
  const std::size_t last_slash = file->rfind('/');
  return !exists(last_slash == 0 ? "/" : file->substr(0, last_slash));
}

// A copy as the kernel compares and lists it.
Rule take_in(const audit_rule_data& sent) {
  Rule rule = copy_rule(sent);
  rule->mask[AUDIT_BITMASK_SIZE - 1] &= kLastMaskWordBits;
  return rule;
}

}  // namespace

void FreeRule::operator()(audit_rule_data* rule) const {
  std::free(rule);
}

std::size_t size_of(const audit_rule_data& rule) {
  return sizeof rule + rule.buflen;
}

Rule copy_rule(const audit_rule_data& rule) {
  void* copy = std::malloc(size_of(rule));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, &rule, size_of(rule));
  return Rule(static_cast<audit_rule_data*>(copy));
}

std::uint32_t list_of(const audit_rule_data& rule) {
  return rule.flags & ~std::uint32_t{AUDIT_FILTER_PREPEND};
}

bool is_valid(const audit_rule_data& rule) {
  if (!contains(kFilterLists, list_of(rule))) return false;
  if (rule.action != AUDIT_NEVER && rule.action != AUDIT_ALWAYS) return false;
  if (rule.field_count > AUDIT_MAX_FIELDS || text_length(rule) > rule.buflen) return false;
  const std::optional<std::string> key = text_of(rule, AUDIT_FILTERKEY);
  return (!key || key->size() <= AUDIT_MAX_KEY_LEN) && is_watchable(rule);
}

void insert_rule(std::vector<Rule>& rules, Rule rule) {
  const bool prepend = (rule->flags & AUDIT_FILTER_PREPEND) != 0;
  rule->flags = list_of(*rule);
  const auto place = std::find_if(rules.begin(), rules.end(), [&](const Rule& listed) {
    return prepend ? listed->flags >= rule->flags : listed->flags > rule->flags;
  });
  rules.insert(place, std::move(rule));
}

int add_rule(std::vector<Rule>& rules, const audit_rule_data& sent, const PathExists& exists) {
  Rule rule = take_in(sent);
  if (find_rule(rules, *rule) != rules.end()) return -EEXIST;
  if (is_watch_missing(*rule, exists)) return -ENOENT;
  insert_rule(rules, std::move(rule));
  return 0;
}

int delete_rule(std::vector<Rule>& rules, const audit_rule_data& sent) {
  const auto found = find_rule(rules, *take_in(sent));
  if (found == rules.end()) return -ENOENT;
  rules.erase(found);
  return 0;
}

std::string key_text(const audit_rule_data& rule) {
  const std::optional<std::string> key = text_of(rule, AUDIT_FILTERKEY);
  if (!key) return "key=(null)";
  const std::unique_ptr<char, decltype(&std::free)> encoded(
      audit_encode_nv_string("key", key->c_str(), static_cast<unsigned>(key->size())), std::free);
  if (!encoded) throw std::bad_alloc();
  return encoded.get();
}

}  // namespace offline
