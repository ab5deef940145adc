#include "wtmp.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string_view>
#include <utility>

#include "base/log.h"
#include "base/memory.h"
#include "base/record_scope.h"

namespace {

constexpr char kLogSource[] = "wtmp";

constexpr char kWtmpPath[] = "/var/log/wtmp";

constexpr std::int64_t kNever = -1;

static_assert(sizeof(struct utmp) == 384 && offsetof(wtmp_entry, logout) == 400);

void free_entry(wtmp_entry* entry) {
  std::free(entry);
}

using Logins = qel::Snapshot<wtmp_entry, free_entry>;

struct {
  Logins current;  // newest record first
  Logins fresh;    // empty between two comparisons
} state;

bool is_running() {
  return state.current.table != nullptr && state.fresh.table != nullptr;
}

// A text member of a record. A text that fills its array is not terminated.
template <std::size_t Size>
std::string_view text_of(const char (&member)[Size]) {
  return {member, strnlen(member, Size)};
}

// ---- Keys ---------------------------------------------------------------------------------------

const wtmp_entry& entry_of(const void* key) {
  return *static_cast<const wtmp_entry*>(key);
}

// Process ids and times often rise together, and their common bits would cancel out in a plain XOR.
// So the process id is first spread over all bits by an odd multiplier.
std::uint32_t hash_login(const void* key, std::size_t) {
  constexpr std::uint32_t kSpread = 0x85EBCA6B;
  const struct utmp& ut = entry_of(key).ut;
  return (static_cast<std::uint32_t>(ut.ut_pid) * kSpread) ^
         static_cast<std::uint32_t>(ut.ut_tv.tv_sec);
}

int compare_logins(const void* a, std::size_t, const void* b, std::size_t) {
  const struct utmp& ut_a = entry_of(a).ut;
  const struct utmp& ut_b = entry_of(b).ut;
  return ut_a.ut_pid == ut_b.ut_pid && ut_a.ut_tv.tv_sec == ut_b.ut_tv.tv_sec ? 0 : 1;
}

// ---- Matching logins with their ends ------------------------------------------------------------

// The ends met on the way from the newest record to the oldest, until a login takes them. They are
// found by line; a line's most recently met end is taken first. The time of a start or end of the
// system replaces the times of all ends met before it. Only a count is kept for that, so that a log
// with many of both is read in one pass.
class PendingEnds {
 public:
  PendingEnds() : lines_(xhash_create2(free_line, hash_line, compare_lines, 1)) {}
  PendingEnds(const PendingEnds&) = delete;
  PendingEnds& operator=(const PendingEnds&) = delete;
  ~PendingEnds() { xhash_destroy(lines_); }

  void add(const struct utmp& ut, std::int64_t time) {
    Line* line = find(ut);
    if (line == nullptr) {
      line = QEL_CHECKED(qel::new_zeroed<Line>());
      std::memcpy(line->name, ut.ut_line, sizeof(line->name));
      xhash_insert(lines_, line->name, 0, line);
    }
    End* end = QEL_CHECKED(qel::new_zeroed<End>());
    *end = {line->last, time, boots_};
    line->last = end;
  }

  void boot(std::int64_t time) {
    ++boots_;
    boot_time_ = time;
  }

  // Takes the end of a login on this record's line. Returns whether there is one.
  bool take(const struct utmp& ut, std::int64_t& time) {
    Line* line = find(ut);
    if (line == nullptr || line->last == nullptr) return false;
    const qel::Owned<End> end(line->last);
    line->last = end->before;
    time = end->boots == boots_ ? end->time : boot_time_;
    return true;
  }

 private:
  struct End {
    End* before;
    std::int64_t time;
    std::uint64_t boots;  // value of boots_ when this end was met
  };
  struct Line {
    char name[sizeof(utmp::ut_line)];  // the key in the table
    End* last;
  };

  static std::string_view name_of(const void* key) {
    const auto* name = static_cast<const char*>(key);
    return {name, strnlen(name, sizeof(Line::name))};
  }

  static std::uint32_t hash_line(const void* key, std::size_t) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>()(name_of(key)));
  }

  static int compare_lines(const void* a, std::size_t, const void* b, std::size_t) {
    return name_of(a) == name_of(b) ? 0 : 1;
  }

  static void free_line(void* value) {
    auto* line = static_cast<Line*>(value);
    while (line->last != nullptr) std::free(std::exchange(line->last, line->last->before));
    std::free(line);
  }

  Line* find(const struct utmp& ut) const {
    void* found = nullptr;
    return xhash_search(lines_, ut.ut_line, 0, &found) == 0 ? static_cast<Line*>(found) : nullptr;
  }

  xhash_t* lines_;
  std::uint64_t boots_ = 0;
  std::int64_t boot_time_ = 0;
};

// Starts and ends of the system and of its run levels have this line.
bool is_system_record(const struct utmp& ut) {
  return text_of(ut.ut_line) == "~";
}

bool ends_sessions(const struct utmp& ut) {
  const std::string_view user = text_of(ut.ut_user);
  return user == "reboot" || user == "shutdown";
}

bool is_end(const struct utmp& ut) {
  return ut.ut_user[0] == '\0' || ut.ut_type == LOGIN_PROCESS || ut.ut_type == DEAD_PROCESS;
}

// Leaves only the logins in the list, newest first. Each gets the time at which it was ended by the
// nearest later end on its line or, without one, by the nearest later system record.
void match_logins_with_ends(Logins& logins) {
  PendingEnds ends;
  std::int64_t last_boot = kNever;
  wtmp_entry* next = nullptr;
  for (wtmp_entry* entry = logins.list.first(); entry != nullptr; entry = next) {
    next = logins.list.after(entry);
    const struct utmp& ut = entry->ut;
    const std::int64_t time = login_time(*entry);
    if (is_system_record(ut)) {
      last_boot = time;
      if (ends_sessions(ut)) ends.boot(time);
    } else if (is_end(ut)) {
      ends.add(ut, time);
    } else {
      if (!ends.take(ut, entry->logout)) entry->logout = last_boot == kNever ? 0 : last_boot;
      continue;
    }
    free_entry(logins.list.take(entry));
  }
}

// ---- Snapshot -----------------------------------------------------------------------------------

void read_records(Logins& logins) {
  setutent();
  while (const struct utmp* record = getutent()) {
    wtmp_entry* entry = QEL_CHECKED(qel::new_zeroed<wtmp_entry>());
    entry->ut = *record;
    logins.list.prepend(entry);
  }
  endutent();
}

// Reads the file. Returns false when its path was refused.
bool take_snapshot(const char* path, Logins& logins) {
  if (path == nullptr) path = kWtmpPath;
  if (path[0] == '\0') return false;
  if (utmpname(path) != 0) {
    QEL_ERROR("utmpname %s failed\n", path);
    return false;
  }
  read_records(logins);
  match_logins_with_ends(logins);
  return true;
}

// ---- Comparison ---------------------------------------------------------------------------------

// Texts for log lines.
struct UserText {
  char text[sizeof(utmp::ut_user) + 1];
  explicit UserText(const wtmp_entry& entry) {
    text[text_of(entry.ut.ut_user).copy(text, sizeof(utmp::ut_user))] = '\0';
  }
};
struct TimeText {
  char text[32];  // ctime_r(3) needs 26
  explicit TimeText(std::time_t time) {
    if (ctime_r(&time, text) == nullptr) text[0] = '\0';
  }
};

// Whether more than half of the known logins are gone. Then the log was rotated or cut, and its
// present content is not news.
bool is_replaced() {
  unsigned long missing = 0;
  state.current.walk([&missing](const wtmp_entry& entry) {
    if (state.fresh.find(entry) == nullptr) ++missing;
  });
  const std::uint32_t known = xhash_count(state.current.table);
  if (missing <= known >> 1) return false;
  QEL_ERROR("wtmp may be replaced: %u(%lu)\n", known, missing);
  return true;
}

void mark_logout(wtmp_entry& entry) {
  entry.flags |= QEL_LOGIN_LOGOUT;
  QEL_DEBUG("--> user %10s logout at %19.19s(%19.19s)\n", UserText(entry).text,
            TimeText(entry.logout).text, TimeText(login_time(entry)).text);
}

void mark_login(wtmp_entry& entry) {
  entry.flags |= QEL_LOGIN_LOGIN;
  QEL_DEBUG("--> user %10s login  at %19.19s\n", UserText(entry).text,
            TimeText(login_time(entry)).text);
  if (entry.logout != 0) mark_logout(entry);
}

void mark_changed(const wtmp_entry& old, wtmp_entry& entry) {
  if (old.logout == 0) {
    if (entry.logout != 0) mark_logout(entry);
  } else if (old.logout != entry.logout) {
    QEL_DEBUG("--> user %10s logout time changed %19.19s->%19.19s\n", UserText(entry).text,
              TimeText(old.logout).text, TimeText(entry.logout).text);
  }
}

void mark_logins() {
  state.fresh.walk([](wtmp_entry& entry) {
    if (const wtmp_entry* old = state.current.find(entry)) {
      mark_changed(*old, entry);
    } else {
      mark_login(entry);
    }
  });
}

// Emits the marked logins, oldest first, as in the file.
void emit_marked(wtmp_emitter emitter, audit_ctx* ctx) {
  if (emitter == nullptr) return;
  const qel::HostScope scope;
  for (wtmp_entry* entry = state.fresh.list.last(); entry != nullptr;
       entry = state.fresh.list.before(entry)) {
    if (entry->flags != 0 && emitter(entry, ctx) != 0) return;
  }
}

}  // namespace

int login_log_init(const char* path) {
  if (state.current.table != nullptr || state.fresh.table != nullptr) {
    QEL_ERROR("login_log_init already called\n");
    return 0;
  }
  if (!take_snapshot(path, state.current)) {
    QEL_ERROR("parse_wtmp failed\n");
    return -1;
  }
  state.current.create_table(hash_login, compare_logins);
  state.fresh.create_table(hash_login, compare_logins);
  state.current.index();
  return 0;
}

void login_log_fini() {
  if (qel::handling_record()) return;
  if (!is_running()) {
    QEL_ERROR("login_log not inited\n");
    return;
  }
  state.current.destroy();
  state.fresh.destroy();
}

int check_login_event(const char* path, wtmp_emitter emitter, audit_ctx* ctx) {
  if (qel::in_host_function()) return -1;
  const qel::RecordScope scope;
  if (!is_running()) {
    QEL_ERROR("login_log not inited\n");
    return -1;
  }
  if (!take_snapshot(path, state.fresh)) {
    QEL_ERROR("parse_wtmp failed\n");
    return -1;
  }
  state.fresh.index();
  if (!is_replaced()) {
    mark_logins();
    emit_marked(emitter, ctx);
  }
  state.current.swap(state.fresh);
  state.fresh.clear();
  return 0;
}

std::int64_t login_time(const wtmp_entry& entry) {
  return entry.ut.ut_tv.tv_sec;
}
