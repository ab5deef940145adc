// Account events from recorded records to callbacks, while the databases change as the account
// tools change them.
#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "event_log.h"
#include "offline_test.h"

namespace {

using namespace std::chrono_literals;
using test::databases;
using Texts = std::vector<std::string>;

constexpr int kEverything = QEL_USER_ADDED | QEL_USER_DELETED | QEL_USER_PASSWORD | QEL_USER_GROUP;

// What a tool has done to the databases before the end of the recording's group of this number.
using Steps = std::map<int, std::function<void()>>;

// Where accounts stand in the databases.
enum { kAlice = 1, kDana, kEvan };

template <typename Entry>
void remove(std::vector<Entry>& entries, const std::string& name) {
  std::erase_if(entries, [&name](const Entry& entry) { return entry.name == name; });
}

void add_account(const std::string& name, uid_t uid, gid_t gid) {
  databases.passwd.push_back({name, uid, gid});
}
void add_hash(const std::string& name) {
  databases.shadow.push_back({name, "!"});
}

void add_dana_and_evan() {
  auto& [passwd, shadow, group] = databases;
  passwd.insert(passwd.end(), {{"dana", 2001, 3000}, {"evan", 2002, 2002}});
  shadow.insert(shadow.end(), {{"dana", "!"}, {"evan", "!"}});
  group.insert(group.end(), {{"staffers", 3000}, {"evan", 2002}});
}

const Texts kBothAdded = {"added dana group=staffers", "added evan group=evan"};

class AccountEvents : public test::OfflineTest {
 protected:
  AccountEvents() {
    databases.passwd = {{"root", 0, 0}, {"alice", 1000, 1000}};
    databases.shadow = {{"root", "*"}, {"alice", "$y$a"}};
    databases.group = {{"root", 0}, {"alice", 1000}};
    test::redirect("/etc/passwd", passwd_.path());
  }

  void start() {
    ASSERT_EQ(qel_user_reg_callback(nullptr, kEverything, test::note_user, &lines_), 0);
    test::poll_all();
  }

  // Returns the events.
  Texts play(const std::string& recording, const Steps& steps) {
    start();
    test::play(test::read_recording(QEL_RECORDINGS_DIR "/" + recording + ".rec"),
               [&steps](int group) {
                 if (steps.contains(group)) steps.at(group)();
               });
    return test::texts_of(lines_);
  }

  // Any program's rename of a new file over /etc/passwd.
  static void end_passwd_rename(const std::string& result = "success=yes exit=0") {
    static int serial = 100'000;
    const std::string header = "audit(1714557600.000:" + std::to_string(++serial) + "): ";
    offline::feed(AUDIT_SYSCALL,
                  header + "arch=c000003e syscall=82 " + result +
                      " a0=1 a1=2 a2=0 a3=0 items=0 "
                      "ppid=1 pid=77 auid=0 uid=0 gid=0 comm=\"vipw\" key=\"passwd_rule\"");
    offline::feed(AUDIT_EOE, header);
    test::poll_all();
  }

  test::ScratchFile passwd_;
  std::vector<test::EventLine> lines_;
};

// The group file is the last that useradd writes: evan's own group has no name yet.
TEST_F(AccountEvents, TellOfAddedAccounts) {
  databases.group.push_back({"staffers", 3000});
  const Steps steps = {{2, [] { add_account("dana", 2001, 3000); }},
                       {3, [] { add_hash("dana"); }},
                       {6, [] { add_account("evan", 2002, 2002); }},
                       {7, [] { add_hash("evan"); }}};
  EXPECT_EQ(play("account-add", steps),
            (Texts{"added dana group=staffers", "added evan group=2002"}));
}

TEST_F(AccountEvents, TellOfChangedGroupsAndPasswords) {
  add_dana_and_evan();
  const Steps steps = {{4, [] { databases.passwd[kEvan].gid = 3000; }},
                       {5, [] { databases.shadow[kDana].hash = "$y$d1"; }},
                       {6, [] { databases.shadow[kDana].hash = "$y$d2"; }},
                       {9, [] { databases.passwd[kDana].gecos = "Dana"; }},
                       {11, [] { databases.passwd[kDana].shell = "/bin/sh"; }},
                       {15, [] { databases.shadow[kEvan].hash = "!!"; }}};
  EXPECT_EQ(play("account-change", steps),
            (Texts{"group evan group=staffers", "password dana group=staffers",
                   "password dana group=staffers", "password evan group=staffers"}));
}

TEST_F(AccountEvents, TellOfDeletedAccounts) {
  add_dana_and_evan();
  const Steps steps = {{2, [] { remove(databases.passwd, "dana"); }},
                       {3, [] { remove(databases.shadow, "dana"); }},
                       {6, [] { remove(databases.passwd, "evan"); }},
                       {7, [] { remove(databases.shadow, "evan"); }}};
  EXPECT_EQ(play("account-delete", steps),
            (Texts{"deleted dana group=staffers", "deleted evan group=evan"}));
}

TEST_F(AccountEvents, ARefusedCallReadsNoDatabase) {
  start();
  const int walks = test::walks.passwd.started;
  for (int i = 0; i < 1000; ++i) end_passwd_rename("success=no exit=-13");
  offline::advance_clock(100ms);
  test::poll_all();
  EXPECT_EQ(test::walks.passwd.started, walks);
  add_account("dana", 2001, 1000);
  passwd_.append("dana");
  offline::advance_clock(100ms);
  test::poll_all();
  EXPECT_EQ(test::texts_of(lines_), Texts{"added dana group=alice"});
}

TEST_F(AccountEvents, ReachTheCallbacksThatAskedForThem) {
  std::vector<test::EventLine> all, passwords, dana;
  ASSERT_EQ(qel_user_reg_callback("", kEverything, test::note_user, &all), 0);
  ASSERT_EQ(qel_user_reg_callback(nullptr, QEL_USER_PASSWORD, test::note_user, &passwords), 0);
  ASSERT_GE(qel_user_reg_callback("dana", QEL_USER_ADDED | QEL_USER_GROUP, test::note_user, &dana),
            0);
  add_dana_and_evan();
  end_passwd_rename();
  databases.passwd[kDana].gid = 0;
  databases.shadow[kDana].hash = "$y$d";
  databases.shadow[kAlice].hash = "$y$b";
  end_passwd_rename();
  EXPECT_EQ(test::texts_of(all), (Texts{"added dana group=staffers", "added evan group=evan",
                                        "password alice group=alice", "password dana group=root",
                                        "group dana group=root"}));
  EXPECT_EQ(test::texts_of(passwords),
            (Texts{"password alice group=alice", "password dana group=root"}));
  EXPECT_EQ(test::texts_of(dana), (Texts{"added dana group=staffers", "group dana group=root"}));
}

// What is written after the event of its open is seen when no messages wait any more; also what
// comes while accounts are compared.
TEST_F(AccountEvents, TellOfLateWrites) {
  start();
  const auto add_frank = [](const qel_user_info*, void* passwd) {
    add_account("frank", 2003, 0);
    static_cast<test::ScratchFile*>(passwd)->append("frank");
    return 0;
  };
  ASSERT_GE(qel_user_reg_callback("dana", QEL_USER_ADDED, add_frank, &passwd_), 0);
  end_passwd_rename();
  add_dana_and_evan();
  passwd_.append("dana");
  for (int i = 0; i < 100; ++i) offline::feed(AUDIT_CWD, "audit(1.0:9): cwd=\"/\"");
  EXPECT_EQ(test::poll_once(), 1);
  EXPECT_EQ(lines_.size(), 0U);
  offline::advance_clock(100ms);
  EXPECT_EQ(test::poll_once(), 1) << "records keep coming";
  EXPECT_EQ(test::texts_of(lines_), kBothAdded);
  offline::advance_clock(100ms);
  test::poll_all();
  EXPECT_EQ(lines_.size(), 3U);
}

// A callback stops the library in the middle of a comparison: what it has begun is finished, and
// nothing is known of it after the next start.
TEST_F(AccountEvents, AreAllToldWhenACallbackStopsTheLibrary) {
  start();
  const auto stop = [](const qel_user_info*, void*) {
    qel_audit_fini();
    return 0;
  };
  ASSERT_GE(qel_user_reg_callback("dana", kEverything, stop, nullptr), 0);
  add_dana_and_evan();
  end_passwd_rename();
  EXPECT_EQ(test::texts_of(lines_), kBothAdded);
  EXPECT_FALSE(offline::is_open());
  start();
  databases.passwd[kDana].gid = 0;
  passwd_.append("dana");
  offline::advance_clock(200ms);
  test::poll_all();
  EXPECT_EQ(test::texts_of(lines_), kBothAdded);
}

TEST_F(AccountEvents, WatchTheFilesThatTheMaskNeeds) {
  const auto watches = [this](int mask) {
    qel_audit_fini();
    EXPECT_EQ(qel_user_reg_callback(nullptr, mask, test::note_user, &lines_), 0);
    std::set<std::string> texts;
    for (const offline::Rule& rule : offline::rules()) texts.emplace(rule->buf, rule->buflen);
    return texts;
  };
  const std::string passwd = "/etc/passwdpasswd_rule", shadow = "/etc/shadowshadow_rule";
  EXPECT_EQ(watches(QEL_USER_GROUP), std::set{passwd});
  EXPECT_EQ(watches(QEL_USER_PASSWORD), std::set{shadow});
  EXPECT_EQ(watches(kEverything), (std::set{passwd, shadow}));
}

}  // namespace
