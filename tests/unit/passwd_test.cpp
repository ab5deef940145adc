// The account monitor and the cache of user names, fed with databases of the test's own.
#include "passwd.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "audit_event.h"
#include "audit_rule.h"
#include "captured_log.h"
#include "databases.h"

namespace {

using test::databases;
using Texts = std::vector<std::string>;

// What the emitter was offered, as "name group flags".
Texts offered;
std::size_t stop_at;  // the number of the offer that the emitter refuses to go on behind
audit_ctx context;

int note(passwd_entry* entry, audit_ctx* ctx) {
  EXPECT_EQ(ctx, &context);
  offered.push_back(std::string(entry->name) + " " + entry->group + " " +
                    std::to_string(entry->flags));
  return offered.size() == stop_at ? 1 : 0;
}

// Compares, and returns what was offered.
Texts compare(std::size_t stop = 0) {
  offered.clear();
  test::clear_log();
  stop_at = stop;
  EXPECT_EQ(check_passwd_event(note, &context), 0);
  EXPECT_EQ(test::log_text(QEL_LOG_ERROR), "");
  return offered;
}

std::string trace() {
  return test::log_text(QEL_LOG_DEBUG);
}

class PasswdTest : public testing::Test {
 protected:
  PasswdTest() {
    test::reset_databases();
    start();
  }
  ~PasswdTest() override {
    passwd_fini();
    const auto& [passwd, shadow, group] = test::walks;
    EXPECT_EQ(passwd.ended, passwd.started);
    EXPECT_EQ(shadow.ended, shadow.started);
    EXPECT_EQ(group.ended, group.started);
  }

  static void start() {
    databases.passwd = {{"root", 0, 0}, {"alice", 1000, 100}, {"bob", 1001, 100}};
    databases.shadow = {{"root", "*"}, {"alice", "$6$a"}, {"bob", "$6$b"}};
    databases.group = {{"root", 0}, {"users", 100}, {"staff", 50}};
    passwd_init();
    test::clear_log();
  }
};

test::Account& alice() {
  return databases.passwd[1];
}
void add_account(const char* name) {
  databases.passwd.push_back({name, 2001, 50});
}

TEST_F(PasswdTest, AShadowEntryWithoutTextsIsNobodys) {
  databases.shadow.push_back({"", "", true});
  EXPECT_EQ(compare(), Texts{});
  databases.shadow[1].hash = "$6$b";
  EXPECT_EQ(compare(), Texts{"alice users 4"});
}

TEST_F(PasswdTest, AChangeIsOfferedAndTracedOnce) {
  const struct {
    void (*make)();
    Texts offers;
    Texts trace;
  } changes[] = {
      {[] { add_account("dana"); }, {"dana staff 1"}, {"      dana added"}},
      {[] { add_account("a-name-beyond-ten-%s"); },
       {"a-name-beyond-ten-%s staff 1"},
       {"a-name-beyond-ten-%s added"}},
      // A deleted account is told with the group it had.
      {[] {
         databases.passwd.pop_back();
         databases.group.resize(1);
       },
       {"bob users 2"},
       {"       bob deleted"}},
      {[] { alice().gid = 50; }, {"alice staff 8"}, {"     alice group changed 100->50"}},
      {[] { alice().gid = std::numeric_limits<gid_t>::max(); },
       {"alice 4294967295 8"},
       {"     alice group changed 100->4294967295"}},
      {[] { databases.shadow[1].hash = ""; },
       {"alice users 4"},
       {"     alice password changed $6$a->"}},
      {[] { databases.shadow.pop_back(); },
       {"bob users 4"},
       {"       bob password changed $6$b->*nopasswd*"}},
      {[] {
         databases.shadow[1].hash = "!";
         alice().gid = 0;
       },
       {"alice root 12"},
       {"     alice group changed 100->0", "     alice password changed $6$a->!"}},
      // Nothing that counts.
      {[] {
         alice() = {"alice", 4000, 100, "$6$x", "Alice A", "/srv/alice", "/bin/zsh"};
         databases.group[1].name = "people";
         std::swap(databases.passwd[0], databases.passwd[2]);
       },
       {},
       {}},
  };
  for (const auto& [make, offers, traced] : changes) {
    passwd_fini();
    start();
    make();
    std::string lines;
    for (const std::string& line : traced) lines += "passwd: --> user " + line + "\n";
    EXPECT_EQ(compare(), offers);
    EXPECT_EQ(trace(), lines);
    EXPECT_EQ(compare(), Texts{});
    EXPECT_EQ(trace(), "");
  }
}

TEST_F(PasswdTest, TakesADatabaseThatCannotBeReadAsEmpty) {
  const test::Databases readable = databases;
  databases.passwd.clear();
  EXPECT_EQ(compare(), (Texts{"root root 2", "alice users 2", "bob users 2"}));
  databases = readable;
  EXPECT_EQ(compare(), (Texts{"root root 1", "alice users 1", "bob users 1"}));
  databases.shadow.clear();
  EXPECT_EQ(compare(), (Texts{"root root 4", "alice users 4", "bob users 4"}));
  databases = readable;
  EXPECT_EQ(compare(), Texts{});  // a first password is no change
  databases.group.clear();
  alice().gid = 50;
  EXPECT_EQ(compare(), Texts{"alice 50 8"});
}

// ---- An emitter that wants no more -------------------------------------------------------------

TEST_F(PasswdTest, OffersNothingBehindARefusedDeletionUntilTheNextComparison) {
  databases.passwd = {{"root", 0, 50}, {"dana", 2001, 50}};
  EXPECT_EQ(compare(1), Texts{"alice users 2"});
  EXPECT_NE(trace().find("bob deleted"), std::string::npos);
  // What is known now is the new state: bob's deletion is lost, the other two changes wait.
  EXPECT_EQ(compare(), (Texts{"root staff 8", "dana staff 1"}));
  EXPECT_EQ(compare(), Texts{});
}

TEST_F(PasswdTest, OffersWhatAComparisonLeftAsItIsByThenUnlessTheEmitterIsNull) {
  databases.passwd = {{"root", 0, 0}, {"alice", 1000, 50}, {"bob", 1001, 50}, {"dana", 2001, 50}};
  EXPECT_EQ(compare(1), Texts{"alice staff 8"});
  databases.passwd.resize(3);
  databases.shadow[2].hash = "!";
  // bob's record of the last comparison waits with its flag, and is followed by the new one; dana
  // is new and deleted at once.
  EXPECT_EQ(compare(), (Texts{"bob staff 8", "dana staff 3", "bob staff 4"}));
  EXPECT_EQ(compare(), Texts{});

  alice().gid = 0;
  EXPECT_EQ(check_passwd_event(nullptr, nullptr), 0);
  EXPECT_EQ(trace(), "passwd: --> user      alice group changed 50->0\n");
  EXPECT_EQ(compare(), Texts{});
}

// ---- Duplicates, start and stop ----------------------------------------------------------------

TEST_F(PasswdTest, TheLaterOfTwoEntriesCounts) {
  databases.shadow.push_back({"alice", "$6$late"});
  databases.group.push_back({"late", 100});
  databases.passwd.push_back({"bob", 1001, 50});
  EXPECT_EQ(compare(), (Texts{"alice late 4", "bob staff 8"}));
  alice().gid = 0;
  databases.passwd[2].gid = 0;  // bob's first entry: not looked at
  EXPECT_EQ(compare(), Texts{"alice root 8"});
}

TEST_F(PasswdTest, SaysWhenItIsStartedOrStoppedTwice) {
  alice().gid = 50;
  EXPECT_EQ(passwd_init(), 0);
  EXPECT_EQ(test::log_text(QEL_LOG_ERROR), "passwd: passwd_init already called\n");
  EXPECT_EQ(compare(), Texts{"alice staff 8"});  // the first snapshot has stayed

  test::clear_log();
  passwd_fini();
  passwd_fini();
  EXPECT_EQ(check_passwd_event(note, nullptr), -1);
  EXPECT_EQ(test::log_text(QEL_LOG_ERROR),
            "passwd: passwd not inited\npasswd: passwd not inited\n");
  passwd_init();
}

// ---- Which contexts lead to a comparison -------------------------------------------------------

TEST_F(PasswdTest, TheAccountToolsOwnStepsAreSkipped) {
  constexpr std::uint32_t kOpen = 2, kRename = 82, kOpenat = 257;
  const struct {
    std::string comm;
    std::uint32_t syscall;
    std::int32_t ruletype;
    bool passes;
  } steps[] = {{"useradd", kOpen, kPasswdRule, false},   {"useradd", kOpenat, kPasswdRule, true},
               {"useradd", kRename, kPasswdRule, true},  {"useradd", kRename, kShadowRule, false},
               {"userdel", kOpenat, kShadowRule, false}, {"userdel", kRename, kPasswdRule, true},
               {"usermod", kOpen, kShadowRule, false},   {"usermod", kRename, kShadowRule, true},
               {"useradd2", kOpen, kShadowRule, true},   {"user", kOpen, kPasswdRule, true},
               {"passwd", kOpen, kShadowRule, true},     {"", kOpen, kPasswdRule, true}};
  for (auto [comm, syscall, ruletype, passes] : steps) {
    audit_ctx ctx = {};
    ctx.comm = comm.data();
    ctx.syscall = syscall;
    ctx.ruletype = ruletype;
    test::walks = {};
    EXPECT_EQ(handle_audit_event(&ctx), 0);
    EXPECT_EQ(test::walks.passwd.started, passes ? 1 : 0) << comm << " " << syscall;
  }
}

// ---- Names by uid ------------------------------------------------------------------------------

// /etc/passwd's place is taken by a file of 16 bytes; the names come from the database.
class UserNames : public PasswdTest {
 protected:
  UserNames() {
    file_.append("sixteen bytes...");
    file_.set_time({1'000'000, 5});
    test::redirect("/etc/passwd", file_.path());
    EXPECT_STREQ(get_uname_by_uid(1000), "alice");
    walks();
  }

  // How often the database was read since the last call.
  static int walks() {
    EXPECT_EQ(test::walks.passwd.ended, test::walks.passwd.started);
    return std::exchange(test::walks, {}).passwd.started;
  }

  test::ScratchFile file_;
};

TEST_F(UserNames, AreReadOnceAndAfterEachStart) {
  databases.passwd.push_back({"late", 77, 100});
  EXPECT_STREQ(get_uname_by_uid(1001), "bob");
  EXPECT_STREQ(get_uname_by_uid(4294967295), "4294967295");
  EXPECT_STREQ(get_uname_by_uid(77), "77");
  EXPECT_EQ(walks(), 0);

  passwd_fini();
  EXPECT_STREQ(get_uname_by_uid(0), "0");
  EXPECT_EQ(walks(), 0);
  databases.passwd.push_back({"alias", 1000, 100});
  passwd_init();
  walks();
  EXPECT_STREQ(get_uname_by_uid(1000), "alias");  // while the database is read
  EXPECT_STREQ(get_uname_by_uid(1000), "alias");  // from the table
  EXPECT_STREQ(get_uname_by_uid(77), "late");
  EXPECT_EQ(walks(), 1);
}

TEST_F(UserNames, AreReadAgainWhenAnyPartOfTheStampChanges) {
  alice().name = "alicia";
  std::erase_if(databases.passwd, [](const auto& user) { return user.uid == 1001; });
  file_.set_time({1'000'000, 6});  // within the second
  EXPECT_STREQ(get_uname_by_uid(1000), "alice");
  file_.set_time({999'999, 6});
  EXPECT_STREQ(get_uname_by_uid(1000), "alicia");
  EXPECT_STREQ(get_uname_by_uid(1001), "1001") << "gone since the last reading";
  EXPECT_EQ(walks(), 1);

  file_.append("+");
  file_.set_time({999'999, 6});
  get_uname_by_uid(1000);
  EXPECT_EQ(walks(), 1);

  file_.replace();
  file_.set_time({999'999, 6});
  get_uname_by_uid(1000);
  EXPECT_EQ(walks(), 1);

  // Decimal while the file is missing; then the names from before.
  alice().name = "alissa";
  test::redirect("/etc/passwd", "/nonexistent/passwd");
  EXPECT_STREQ(get_uname_by_uid(1000), "1000");
  test::redirect("/etc/passwd", file_.path());
  EXPECT_STREQ(get_uname_by_uid(1000), "alicia");
  EXPECT_EQ(walks(), 0);
}

}  // namespace
