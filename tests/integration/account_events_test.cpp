// Account events from recorded records to callbacks, while the databases change as the account
// tools change them.
#include <gtest/gtest.h>
#include <libaudit.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "captured_log.h"
#include "databases.h"
#include "event_log.h"
#include "offline_kernel.h"

namespace {

using test::databases;
using Texts = std::vector<std::string>;

constexpr int kEverything = QEL_USER_ADDED | QEL_USER_DELETED | QEL_USER_PASSWORD | QEL_USER_GROUP;

// What a tool has done to the databases before the end of the recording's group of this number.
using Steps = std::map<int, std::function<void()>>;

std::string& hash_of(const std::string& name) {
  return std::find_if(databases.shadow.begin(), databases.shadow.end(),
                      [&name](const auto& entry) { return entry.name == name; })
      ->hash;
}

test::Account& account(const std::string& name) {
  return *std::find_if(databases.passwd.begin(), databases.passwd.end(),
                       [&name](const auto& entry) { return entry.name == name; });
}

template <typename Entry>
void remove(std::vector<Entry>& entries, const std::string& name) {
  std::erase_if(entries, [&name](const auto& entry) { return entry.name == name; });
}

void add_dana_and_evan() {
  databases.passwd.push_back({"dana", 2001, 3000});
  databases.passwd.push_back({"evan", 2002, 2002});
  databases.shadow.push_back({"dana", "!"});
  databases.shadow.push_back({"evan", "!"});
  databases.group.push_back({"staffers", 3000});
  databases.group.push_back({"evan", 2002});
}

class AccountEvents : public testing::Test {
 protected:
  AccountEvents() {
    test::reset_databases();
    test::clear_log();
    offline::switch_on();
    offline::set_path_check([](const std::string&) { return true; });
    databases.passwd = {{"root", 0, 0}, {"alice", 1000, 1000}};
    databases.shadow = {{"root", "*"}, {"alice", "$y$a"}};
    databases.group = {{"root", 0}, {"alice", 1000}};
  }
  ~AccountEvents() override {
    qel_audit_fini();
    offline::switch_off();
  }

  void start() {
    ASSERT_EQ(qel_user_reg_callback(nullptr, kEverything, test::note_user, &lines_), 0);
    test::poll_all();
  }

  void play(const std::string& recording, const Steps& steps) {
    test::play(test::read_recording(QEL_TEST_DATA_DIR "/recordings/" + recording + ".rec"),
               [&steps](int group) {
                 const auto step = steps.find(group);
                 if (step != steps.end()) step->second();
               });
  }

  // Any program's rename of a new file over /etc/passwd.
  static void end_passwd_rename() {
    static int serial = 100'000;
    const std::string header = "audit(1714557600.000:" + std::to_string(++serial) + "): ";
    offline::feed(AUDIT_SYSCALL,
                  header +
                      "arch=c000003e syscall=82 success=yes exit=0 a0=1 a1=2 a2=0 a3=0 items=0 "
                      "ppid=1 pid=77 auid=0 uid=0 gid=0 comm=\"vipw\" exe=\"/usr/sbin/vipw\" "
                      "key=\"passwd_rule\"");
    offline::feed(AUDIT_EOE, header);
    test::poll_all();
  }

  Texts events() const { return test::texts_of(lines_); }

  std::vector<test::EventLine> lines_;
};

// The group file is the last that useradd writes: evan's own group has no name yet.
TEST_F(AccountEvents, TellOfAddedAccounts) {
  start();
  databases.group.push_back({"staffers", 3000});
  play("account-add", {
                          {2,
                           [] {
                             databases.passwd.push_back({"dana", 2001, 3000});
                           }},
                          {3,
                           [] {
                             databases.shadow.push_back({"dana", "!"});
                           }},
                          {6,
                           [] {
                             databases.passwd.push_back({"evan", 2002, 2002});
                           }},
                          {7,
                           [] {
                             databases.shadow.push_back({"evan", "!"});
                             databases.group.push_back({"evan", 2002});
                           }},
                      });
  EXPECT_EQ(events(), (Texts{"added dana group=staffers", "added evan group=2002"}));
}

TEST_F(AccountEvents, TellOfChangedGroupsAndPasswords) {
  add_dana_and_evan();
  start();
  play("account-change", {
                             {4, [] { account("evan").gid = 3000; }},
                             {5, [] { hash_of("dana") = "$y$d1"; }},
                             {6, [] { hash_of("dana") = "$y$d2"; }},
                             {9, [] { account("dana").gecos = "Dana"; }},
                             {11, [] { account("dana").shell = "/bin/sh"; }},
                             {15, [] { hash_of("evan") = "!!"; }},
                         });
  EXPECT_EQ(events(), (Texts{"group evan group=staffers", "password dana group=staffers",
                             "password dana group=staffers", "password evan group=staffers"}));
}

TEST_F(AccountEvents, TellOfDeletedAccounts) {
  add_dana_and_evan();
  start();
  play("account-delete", {
                             {2, [] { remove(databases.passwd, "dana"); }},
                             {3, [] { remove(databases.shadow, "dana"); }},
                             {6, [] { remove(databases.passwd, "evan"); }},
                             {7,
                              [] {
                                remove(databases.shadow, "evan");
                                remove(databases.group, "evan");
                              }},
                         });
  EXPECT_EQ(events(), (Texts{"deleted dana group=staffers", "deleted evan group=evan"}));
}

// What useradd and userdel do to the shadow file is left out: a change that came with it alone is
// told at the next comparison.
TEST_F(AccountEvents, DoNotFollowTheAccountToolsShadowFile) {
  start();
  play("account-add", {{7, [] { hash_of("alice") = "!"; }}});
  EXPECT_EQ(events(), Texts{});
  end_passwd_rename();
  EXPECT_EQ(events(), Texts{"password alice group=alice"});
}

TEST_F(AccountEvents, ReachTheCallbacksThatAskedForThem) {
  std::vector<test::EventLine> all, passwords, dana;
  ASSERT_EQ(qel_user_reg_callback("", kEverything, test::note_user, &all), 0);
  ASSERT_EQ(qel_user_reg_callback(nullptr, QEL_USER_PASSWORD, test::note_user, &passwords), 0);
  ASSERT_GE(qel_user_reg_callback("dana", QEL_USER_ADDED | QEL_USER_GROUP, test::note_user, &dana),
            0);
  add_dana_and_evan();
  end_passwd_rename();
  account("dana").gid = 0;
  hash_of("dana") = "$y$d";
  hash_of("alice") = "$y$b";
  end_passwd_rename();
  EXPECT_EQ(test::texts_of(all), (Texts{"added dana group=staffers", "added evan group=evan",
                                        "password alice group=alice", "password dana group=root",
                                        "group dana group=root"}));
  EXPECT_EQ(test::texts_of(passwords),
            (Texts{"password alice group=alice", "password dana group=root"}));
  EXPECT_EQ(test::texts_of(dana), (Texts{"added dana group=staffers", "group dana group=root"}));
}

TEST_F(AccountEvents, RunAnAccountsOwnCallbacksFirst) {
  ASSERT_EQ(qel_user_reg_callback(nullptr, kEverything, test::note_user, &lines_), 0);
  const auto note_own = [](const qel_user_info* event, void* lines) {
    test::note_user(event, lines);
    static_cast<std::vector<test::EventLine>*>(lines)->back().text += " (own)";
    return 0;
  };
  ASSERT_GE(qel_user_reg_callback("alice", kEverything, note_own, &lines_), 0);
  account("alice").gid = 0;
  end_passwd_rename();
  EXPECT_EQ(events(), (Texts{"group alice group=root (own)", "group alice group=root"}));
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
  EXPECT_EQ(events(), (Texts{"added dana group=staffers", "added evan group=evan"}));
  EXPECT_FALSE(offline::is_open());
  start();
  end_passwd_rename();
  EXPECT_EQ(events().size(), 2U);
}

// ---- Watches -----------------------------------------------------------------------------------

std::vector<std::string> watches() {
  std::vector<std::string> texts;
  for (const offline::Rule& rule : offline::rules()) texts.emplace_back(rule->buf, rule->buflen);
  std::sort(texts.begin(), texts.end());
  return texts;
}

TEST_F(AccountEvents, WatchTheFilesThatTheMaskNeeds) {
  ASSERT_EQ(qel_user_reg_callback(nullptr, QEL_USER_GROUP, test::note_user, &lines_), 0);
  EXPECT_EQ(watches(), Texts{"/etc/passwdpasswd_rule"});
  qel_audit_fini();
  ASSERT_EQ(qel_user_reg_callback(nullptr, QEL_USER_PASSWORD, test::note_user, &lines_), 0);
  EXPECT_EQ(watches(), Texts{"/etc/shadowshadow_rule"});
  qel_audit_fini();
  start();
  EXPECT_EQ(watches(), (Texts{"/etc/passwdpasswd_rule", "/etc/shadowshadow_rule"}));
}

}  // namespace
