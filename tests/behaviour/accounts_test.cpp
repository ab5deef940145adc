// Accounts, from the records of a watch to user events, while the databases change; and the names
// of users by uid.
#include "passwd.h"

#include "stage.h"

namespace {

using namespace test;

enum { kRoot, kAlice, kBob, kCarol };  // where they stand in the databases

const Databases kAtFirst = {{{"root", 0, 0},
                             {"alice", 1000, 100, "p", "g", "d", "s"},
                             {"bob", 1001, 100},
                             {"carol", 1002, 100}},
                            {{"root", "*"}, {"alice", "$6$a"}, {"bob", "$6$b"}},
                            {{"root", 0}, {"users", 100}, {"staff", 50}}};

class Accounts : public Stage {
 protected:
  Accounts() {
    databases = kAtFirst;
    EXPECT_EQ(on_user(""), 0);
    poll_all();
  }

  // Has the accounts compared for a call of this program. Returns the events.
  static std::string compare(const Syscall& fields = {
                                 .key = "passwd_rule", .comm = "vipw", .number = 82}) {
    return heard_of(fields);
  }
};

void add(const char* name, gid_t gid) {
  databases.passwd.push_back({name, 2001, gid});
}

// ---- Changes -----------------------------------------------------------------------------------

TEST_F(Accounts, AChangeIsToldOnce) {
  const std::pair<std::function<void()>, const char*> rows[] = {
      {[] { add("dana", 50); }, "added dana group=staff\n"},
      {[] { databases.passwd[kBob].name = "rob"; },
       "deleted bob group=users\nadded rob group=users\n"},
      // A deleted account is told with the group it had.
      {[] { databases.passwd.pop_back(), databases.group.resize(1); },
       "deleted carol group=users\n"},
      {[] { databases.passwd[kAlice].gid = 4294967295; }, "group alice group=4294967295\n"},
      {[] { databases.shadow[kAlice].hash = ""; }, "password alice group=users\n"},
      {[] { databases.shadow.pop_back(); }, "password bob group=users\n"},
      // Nothing that counts.
      {[] {
         databases.shadow.resize(4, {"", "", true});
         databases.passwd[kAlice] = {"alice", 4000, 100, "$6$x", "Alice A", "/srv", "/bin/zsh"};
         databases.group[1].name = "people";
         std::swap(databases.passwd[kRoot], databases.passwd[kBob]);
       },
       ""},
  };
  for (const auto& [change, events] : rows) {
    databases = kAtFirst;
    compare();
    change();
    EXPECT_EQ(compare(), events);
    EXPECT_EQ(compare(), "");
  }
}

TEST_F(Accounts, ChangesAreTraced) {
  databases.passwd = {{"a-name-beyond-ten-%s", 7, 7}, {"bob", 1001, 4294967295}};
  databases.shadow[kBob].hash = "!";
  set_level(QEL_LOG_DEBUG);
  check_passwd_event(nullptr, nullptr);
  EXPECT_EQ(heard(),
            "debug passwd: --> user      carol deleted\n"
            "debug passwd: --> user      alice deleted\n"
            "debug passwd: --> user       root deleted\n"
            "debug passwd: --> user        bob group changed 100->4294967295\n"
            "debug passwd: --> user        bob password changed $6$b->!\n"
            "debug passwd: --> user a-name-beyond-ten-%s added\n");
}

TEST_F(Accounts, ADatabaseThatCannotBeReadHasNoEntries) {
  databases = {{}, kAtFirst.shadow, kAtFirst.group};
  EXPECT_EQ(compare(),
            "deleted root group=root\ndeleted alice group=users\n"
            "deleted bob group=users\ndeleted carol group=users\n");
  databases = {{{"alice", 1000, 100}}, {}, {}};
  EXPECT_EQ(compare(), "added alice group=100\n");
  databases = {{{"alice", 1000, 100}}, kAtFirst.shadow, kAtFirst.group};
  EXPECT_EQ(compare(), "") << "a first password is no change, nor is another name of a group";
}

TEST_F(Accounts, OfTwoEntriesWithOneNameTheLaterCounts) {
  databases.shadow.push_back({"alice", "$6$late"});
  databases.group.push_back({"late", 100});
  add("bob", 50);
  EXPECT_EQ(compare(), "password alice group=late\ngroup bob group=staff\n");
  databases.passwd[kAlice].gid = 0;
  databases.passwd[kBob].gid = 0;
  EXPECT_EQ(compare(), "group alice group=root\n");
}

TEST_F(Accounts, AreToldToThoseWhoAskedForThem) {
  EXPECT_EQ(on_user("passwords", nullptr, QEL_USER_PASSWORD), 0);
  EXPECT_GE(on_user("dana", "dana", QEL_USER_ADDED | QEL_USER_GROUP), 0);
  add("dana", 50);
  databases.shadow.push_back({"dana", "!"});
  EXPECT_EQ(compare(), "dana: added dana group=staff\nadded dana group=staff\n");
  databases.passwd.back().gid = 0;
  databases.shadow.back().hash = "$y$d";
  EXPECT_EQ(compare(),
            "password dana group=root\npasswords: password dana group=root\n"
            "dana: group dana group=root\ngroup dana group=root\n");
}

TEST_F(Accounts, TheToolsOwnStepsAreSkipped) {
  constexpr int kOpen = 2, kRename = 82, kOpenat = 257;
  const struct {
    const char *comm, *key;
    int number;
    bool passes;
  } rows[] = {
      {"useradd", "passwd_rule", kOpen, false},   {"useradd", "passwd_rule", kOpenat, true},
      {"useradd", "shadow_rule", kRename, false}, {"userdel", "shadow_rule", kOpenat, false},
      {"usermod", "shadow_rule", kOpen, false},   {"usermod", "shadow_rule", kRename, true},
      {"useradd2", "shadow_rule", kOpen, true},   {"user", "passwd_rule", kOpen, true}};
  for (const auto& [comm, key, number, passes] : rows) {
    const int before = walks.passwd.started;
    EXPECT_EQ(compare({.key = key, .comm = comm, .number = number}), "");
    EXPECT_EQ(walks.passwd.started - before, passes ? 1 : 0) << comm << " " << number;
  }
}

// ---- The monitor's own functions ---------------------------------------------------------------

// An emitter that wants no more than one account.
int refuse(passwd_entry* entry, audit_ctx* ctx) {
  auto& offered = *reinterpret_cast<std::string*>(ctx);
  for (const char* text : {entry->name, entry->passwd, entry->gecos, entry->dir, entry->shell,
                           entry->hash, entry->group}) {
    offered += std::string(text) + ":";
  }
  for (const std::uint32_t number : {entry->uid, entry->gid, entry->flags}) {
    offered += std::to_string(number) + " ";
  }
  return 1;
}

TEST_F(Accounts, WhatAnEmitterDidNotWantIsToldByTheNextComparison) {
  std::string offered;
  auto* const to = reinterpret_cast<audit_ctx*>(&offered);
  databases.passwd = {{"root", 0, 50}};
  check_passwd_event(refuse, to);
  EXPECT_EQ(offered, "alice:p:g:d:s:$6$a:users:1000 100 2 ") << "the other deletions are lost";
  EXPECT_EQ(compare(), "group root group=staff\n");

  databases = kAtFirst;
  compare();
  for (Account& account : databases.passwd) account.gid = 50;
  add("dana", 50);
  EXPECT_EQ(check_passwd_event(refuse, to), 0);
  databases.passwd.resize(kCarol);
  databases.shadow[kBob].hash = "!";
  // Carol has gone since, and dana was there only for a moment.
  EXPECT_EQ(compare(),
            "group alice group=staff\ngroup bob group=staff\ndeleted carol group=staff\n"
            "added dana group=staff\npassword bob group=staff\n");
  EXPECT_EQ(compare(), "");
}

TEST_F(Accounts, TheMonitorSaysWhenItIsStartedOrStoppedTwice) {
  databases.passwd[kAlice].gid = 50;
  EXPECT_EQ(passwd_init(), 0);
  EXPECT_EQ(compare(), "error passwd: passwd_init already called\ngroup alice group=staff\n");
  passwd_fini();
  passwd_fini();
  EXPECT_EQ(check_passwd_event(nullptr, nullptr), -1);
  EXPECT_EQ(heard(), "error passwd: passwd not inited\nerror passwd: passwd not inited\n");
  passwd_init();
}

// ---- Names by uid ------------------------------------------------------------------------------

class UserNames : public Accounts {
 protected:
  UserNames() {
    EXPECT_STREQ(get_uname_by_uid(1000), "alice");
    reads();
  }

  // How often the database was read since the last call.
  static int reads() { return std::exchange(walks, {}).passwd.started; }
};

TEST_F(UserNames, AreReadOnceAndAfterEachStart) {
  databases.passwd.push_back({"late", 1000, 100});
  EXPECT_STREQ(get_uname_by_uid(1000), "alice");
  EXPECT_STREQ(get_uname_by_uid(4294967295), "4294967295");
  passwd_fini();
  EXPECT_STREQ(get_uname_by_uid(0), "0");
  EXPECT_EQ(reads(), 0);
  passwd_init();
  reads();
  for (const char* where : {"in the database", "in the table"}) {
    EXPECT_STREQ(get_uname_by_uid(1000), "late") << where << " the later entry counts";
  }
  EXPECT_EQ(reads(), 1);
}

TEST_F(UserNames, AreReadAgainWhenAnyPartOfTheStampChanges) {
  const std::filesystem::path path = file("/etc/passwd"), other = path.string() + "+";
  auto time = std::chrono::floor<std::chrono::seconds>(last_write_time(path));
  const Action changes[] = {[&] { time -= 1s; }, [&] { resize_file(path, 1); },
                            [&] { copy_file(path, other), rename(other, path); }};
  std::string name = "alice";
  last_write_time(path, time);  // within the second
  databases.passwd.erase(databases.passwd.begin() + kBob);
  for (const Action& change : changes) {
    databases.passwd[kAlice].name += "x";
    EXPECT_EQ(get_uname_by_uid(1000), name);
    change();
    last_write_time(path, time);
    name += "x";
    EXPECT_EQ(get_uname_by_uid(1000), name);
    EXPECT_EQ(reads(), 1);
  }
  EXPECT_STREQ(get_uname_by_uid(1001), "1001") << "gone since the last reading";
  redirect("/etc/passwd", "/nonexistent/passwd");
  EXPECT_STREQ(get_uname_by_uid(1000), "1000");
  redirect("/etc/passwd", path);
  EXPECT_EQ(get_uname_by_uid(1000), name);
  EXPECT_EQ(reads(), 0);
}

}  // namespace
