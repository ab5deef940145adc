#include "passwd.h"

#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/log.h"
#include "base/memory.h"
#include "base/record_scope.h"
#include "base/table_keys.h"

namespace {

constexpr char kLogSource[] = "passwd";

constexpr char kPasswdPath[] = "/etc/passwd";

// Stands for the hash of an account without a shadow entry, and for every hash when shadow cannot
// be read.
constexpr char kNoPassword[] = "*nopasswd*";

// Distinguishes one state of /etc/passwd from another. Times are in whole seconds, so a rewrite
// within the same second that keeps inode and size goes unnoticed.
struct Stamp {
  ino_t inode;
  off_t size;
  time_t mtime_s;
  bool operator==(const Stamp&) const = default;
};

void free_entry(passwd_entry* entry) {
  for (char* text : {entry->name, entry->passwd, entry->gecos, entry->dir, entry->shell,
                     entry->hash, entry->group}) {
    std::free(text);
  }
  std::free(entry);
}

using Accounts = qel::Snapshot<passwd_entry, free_entry>;

struct {
  Accounts current;
  Accounts fresh;    // empty between two comparisons
  xhash_t* groups;   // group name by gid while a snapshot is taken; owns the names
  xhash_t* shadows;  // password hash by user name, likewise; keys include the terminator
  xhash_t* names;    // user name by uid; owns the names
  bool has_stamp;    // `names` was filled ...
  Stamp stamp;       // ... from this state of /etc/passwd
} state;

using Decimal = char[32];

Decimal decimal;  // the text for a uid without a name

bool is_running() {
  return state.current.table != nullptr && state.fresh.table != nullptr;
}

// ---- Keys ---------------------------------------------------------------------------------------

const char* name_of(const void* entry) {
  return static_cast<const passwd_entry*>(entry)->name;
}

std::uint32_t hash_name(const void* entry, std::size_t) {
  return qel::hash_text(name_of(entry));
}

int compare_names(const void* a, std::size_t, const void* b, std::size_t) {
  return std::strcmp(name_of(a), name_of(b));
}

// ---- Snapshot -----------------------------------------------------------------------------------

// Name services other than files may leave texts of an entry null.
const char* text_or_empty(const char* text) {
  return text != nullptr ? text : "";
}

char* copy_of(const char* text) {
  return QEL_CHECKED(qel::copy_of(text_or_empty(text)));
}

const char* print(std::uint32_t number, Decimal& text) {
  *std::to_chars(text, text + sizeof(text) - 1, number).ptr = '\0';
  return text;
}

char* copy_of_id(std::uint32_t id) {
  Decimal text;
  return copy_of(print(id, text));
}

// The value stored under the key, or null.
const char* find_text(xhash_t* table, const void* key, std::size_t key_length) {
  void* text = nullptr;
  return xhash_search(table, key, key_length, &text) == 0 ? static_cast<const char*>(text)
                                                          : nullptr;
}

std::size_t name_key_length(const char* name) {
  return std::strlen(name) + 1;
}

void read_passwd(Accounts& accounts) {
  setpwent();
  while (const passwd* found = getpwent()) {
    passwd_entry* entry = QEL_CHECKED(qel::new_zeroed<passwd_entry>());
    entry->name = copy_of(found->pw_name);
    entry->passwd = copy_of(found->pw_passwd);
    entry->uid = found->pw_uid;
    entry->gid = found->pw_gid;
    entry->gecos = copy_of(found->pw_gecos);
    entry->dir = copy_of(found->pw_dir);
    entry->shell = copy_of(found->pw_shell);
    accounts.list.append(entry);
  }
  endpwent();
}

void read_shadow() {
  setspent();
  while (const spwd* found = getspent()) {
    const char* name = text_or_empty(found->sp_namp);
    xhash_insert(state.shadows, name, name_key_length(name), copy_of(found->sp_pwdp));
  }
  endspent();
}

void read_groups() {
  setgrent();
  while (const group* found = getgrent()) {
    xhash_insert(state.groups, qel::number_key(found->gr_gid), 0, copy_of(found->gr_name));
  }
  endgrent();
}

void fill_hash_and_group(passwd_entry& entry) {
  const char* hash = find_text(state.shadows, entry.name, name_key_length(entry.name));
  const char* group = find_text(state.groups, qel::number_key(entry.gid), 0);
  entry.hash = copy_of(hash != nullptr ? hash : kNoPassword);
  entry.group = group != nullptr ? copy_of(group) : copy_of_id(entry.gid);
}

// Reads the three databases. One that cannot be read has no entries.
void take_snapshot(Accounts& accounts) {
  read_passwd(accounts);
  read_shadow();
  read_groups();
  for (passwd_entry* entry = accounts.list.first(); entry != nullptr;
       entry = accounts.list.after(entry)) {
    fill_hash_and_group(*entry);
  }
  xhash_clear(state.shadows);
  xhash_clear(state.groups);
  accounts.index();
}

// ---- Comparison ---------------------------------------------------------------------------------

void mark_deleted() {
  state.current.walk([](passwd_entry& entry) {
    if (state.fresh.find(entry) != nullptr) return;
    entry.flags |= QEL_USER_DELETED;
    QEL_DEBUG("--> user %10s deleted\n", entry.name);
  });
}

// A first password, where there was no shadow entry before, is not reported as a change.
bool has_new_password(const passwd_entry& old, const passwd_entry& entry) {
  return std::strcmp(old.hash, kNoPassword) != 0 && std::strcmp(old.hash, entry.hash) != 0;
}

void mark_changed(const passwd_entry& old, passwd_entry& entry) {
  if (old.gid != entry.gid) {
    entry.flags |= QEL_USER_GROUP;
    QEL_DEBUG("--> user %10s group changed %u->%u\n", entry.name, old.gid, entry.gid);
  }
  if (has_new_password(old, entry)) {
    entry.flags |= QEL_USER_PASSWORD;
    QEL_DEBUG("--> user %10s password changed %s->%s\n", entry.name, old.hash, entry.hash);
  }
}

void mark_added_and_changed() {
  state.fresh.walk([](passwd_entry& entry) {
    const passwd_entry* old = state.current.find(entry);
    if (old != nullptr) {
      mark_changed(*old, entry);
      return;
    }
    entry.flags |= QEL_USER_ADDED;
    QEL_DEBUG("--> user %10s added\n", entry.name);
  });
}

// Passes the marked records to the emitter in list order and clears their marks. Returns false when
// the emitter wants no more. Records that are still marked then are offered by the next comparison
// if they are still known.
bool emit_marked(Accounts& accounts, passwd_emitter emitter, audit_ctx* ctx) {
  const qel::HostScope scope;
  for (passwd_entry* entry = accounts.list.first(); entry != nullptr;
       entry = accounts.list.after(entry)) {
    if (entry->flags == 0) continue;
    const bool go_on = emitter == nullptr || emitter(entry, ctx) == 0;
    entry->flags = 0;
    if (!go_on) return false;
  }
  return true;
}

// ---- Names by uid -------------------------------------------------------------------------------

// Fills the table from the passwd database. Returns the name of `uid`, or null.
const char* rebuild_names(std::uint32_t uid) {
  const char* answer = nullptr;
  xhash_clear(state.names);
  setpwent();
  while (const passwd* entry = getpwent()) {
    char* name = copy_of(entry->pw_name);
    xhash_insert(state.names, qel::number_key(entry->pw_uid), 0, name);
    if (entry->pw_uid == uid) answer = name;
  }
  endpwent();
  return answer;
}

}  // namespace

int passwd_init() {
  if (state.current.table != nullptr || state.fresh.table != nullptr) {
    QEL_ERROR("passwd_init already called\n");
    return 0;
  }
  state.current.create_table(hash_name, compare_names);
  state.fresh.create_table(hash_name, compare_names);
  state.groups = xhash_create2(std::free, qel::hash_number, qel::compare_numbers, 1);
  state.shadows = xhash_create(std::free, 0);
  state.names = xhash_create2(std::free, qel::hash_number, qel::compare_numbers, 1);
  take_snapshot(state.current);
  return 0;
}

void passwd_fini() {
  if (qel::handling_record()) return;
  if (!is_running()) {
    QEL_ERROR("passwd not inited\n");
    return;
  }
  state.current.destroy();
  state.fresh.destroy();
  xhash_destroy(std::exchange(state.groups, nullptr));
  xhash_destroy(std::exchange(state.shadows, nullptr));
  xhash_destroy(std::exchange(state.names, nullptr));
  state.has_stamp = false;
}

int check_passwd_event(passwd_emitter emitter, audit_ctx* ctx) {
  if (qel::in_host_function()) return -1;
  const qel::RecordScope scope;
  if (!is_running()) {
    QEL_ERROR("passwd not inited\n");
    return -1;
  }
  take_snapshot(state.fresh);
  mark_deleted();
  mark_added_and_changed();
  if (emit_marked(state.current, emitter, ctx)) emit_marked(state.fresh, emitter, ctx);
  state.current.swap(state.fresh);
  state.fresh.clear();
  return 0;
}

const char* get_uname_by_uid(std::uint32_t uid) {
  struct stat status;
  if (state.names == nullptr || stat(kPasswdPath, &status) != 0) return print(uid, decimal);
  const Stamp now = {status.st_ino, status.st_size, status.st_mtim.tv_sec};
  const char* name;
  if (state.has_stamp && state.stamp == now) {
    name = find_text(state.names, qel::number_key(uid), 0);
  } else {
    state.has_stamp = true;
    state.stamp = now;
    name = rebuild_names(uid);
  }
  return name != nullptr ? name : print(uid, decimal);
}
