// The account monitor and the cache of user names, fed with databases of the test's own.
#include "passwd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
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

constexpr int kKeepGoing = -1;

// What the emitter was offered, as "name group flags".
Texts offered;
int stop_at;  // the number of the offer that the emitter refuses to go on behind
audit_ctx* offered_ctx;

int note(passwd_entry* entry, audit_ctx* ctx) {
  offered.push_back(std::string(entry->name) + " " + entry->group + " " +
                    std::to_string(entry->flags));
  offered_ctx = ctx;
  return static_cast<int>(offered.size()) == stop_at ? 1 : 0;
}

// Compares, and returns what was offered.
Texts compare(int stop = kKeepGoing) {
  offered.clear();
  test::clear_log();
  stop_at = stop;
  EXPECT_EQ(check_passwd_event(note, nullptr), 0);
  return offered;
}

std::string trace() {
  return test::log_text(QEL_LOG_DEBUG);
}

class PasswdTest : public testing::Test {
 protected:
  PasswdTest() {
    test::reset_databases();
    databases.passwd = {{"root", 0, 0}, {"alice", 1000, 100}, {"bob", 1001, 100}};
    databases.shadow = {{"root", "*"}, {"alice", "$6$a"}, {"bob", "$6$b"}};
    databases.group = {{"root", 0}, {"users", 100}, {"staff", 50}};
    passwd_init();
    test::clear_log();
  }
  ~PasswdTest() override { passwd_fini(); }

  static test::Account& alice() { return databases.passwd[1]; }
};

TEST_F(PasswdTest, ReportsNothingWhenNothingChanged) {
  EXPECT_EQ(compare(), Texts{});
  EXPECT_TRUE(test::log_lines().empty());
  const test::Walks& walks = test::walks;
  EXPECT_EQ(walks.passwd_started, 2);  // at the start, and for the comparison
  EXPECT_EQ(walks.passwd_ended, 2);
  EXPECT_EQ(walks.shadow_started, 2);
  EXPECT_EQ(walks.shadow_ended, 2);
  EXPECT_EQ(walks.group_started, 2);
  EXPECT_EQ(walks.group_ended, 2);
}

struct Change {
  const char* name;
  void (*make)();
  Texts offers;
  std::string trace;
};

class PasswdChange : public PasswdTest, public testing::WithParamInterface<Change> {};

TEST_P(PasswdChange, IsOfferedAndTracedOnce) {
  GetParam().make();
  EXPECT_EQ(compare(), GetParam().offers);
  EXPECT_EQ(trace(), GetParam().trace);
  EXPECT_EQ(compare(), Texts{});
  EXPECT_EQ(trace(), "");
  EXPECT_EQ(test::log_text(QEL_LOG_ERROR), "");
}

const Change kChanges[] = {
    {"Added",
     [] {
       databases.passwd.push_back({"dana", 2001, 50});
     },
     {"dana staff 1"},
     "passwd: --> user       dana added\n"},
    {"AddedWithALongName",
     [] {
       databases.passwd.push_back({"a-name-beyond-ten-%s", 2001, 50});
     },
     {"a-name-beyond-ten-%s staff 1"},
     "passwd: --> user a-name-beyond-ten-%s added\n"},
    {"Deleted",
     [] { databases.passwd.erase(databases.passwd.begin() + 1); },
     {"alice users 2"},
     "passwd: --> user      alice deleted\n"},
    {"DeletedWithItsGroup",
     [] {
       databases.passwd.erase(databases.passwd.begin() + 1);
       databases.group.erase(databases.group.begin() + 1);
     },
     {"alice users 2"},
     "passwd: --> user      alice deleted\n"},
    {"Renamed",
     [] { databases.passwd[1].name = "alicia"; },
     {"alice users 2", "alicia users 1"},
     "passwd: --> user      alice deleted\npasswd: --> user     alicia added\n"},
    {"Group",
     [] { databases.passwd[1].gid = 50; },
     {"alice staff 8"},
     "passwd: --> user      alice group changed 100->50\n"},
    {"GroupWithoutName",
     [] { databases.passwd[1].gid = std::numeric_limits<gid_t>::max(); },
     {"alice 4294967295 8"},
     "passwd: --> user      alice group changed 100->4294967295\n"},
    {"Password",
     [] { databases.shadow[1].hash = "$6$c"; },
     {"alice users 4"},
     "passwd: --> user      alice password changed $6$a->$6$c\n"},
    {"PasswordToNone",
     [] { databases.shadow[1].hash = ""; },
     {"alice users 4"},
     "passwd: --> user      alice password changed $6$a->\n"},
    {"PasswordAndGroup",
     [] {
       databases.shadow[1].hash = "!";
       databases.passwd[1].gid = 0;
     },
     {"alice root 12"},
     "passwd: --> user      alice group changed 100->0\n"
     "passwd: --> user      alice password changed $6$a->!\n"},
    {"ShadowEntryGone",
     [] { databases.shadow.erase(databases.shadow.begin() + 1); },
     {"alice users 4"},
     "passwd: --> user      alice password changed $6$a->*nopasswd*\n"},
    {"NothingThatCounts",
     [] {
       databases.passwd[1] = {"alice", 4000, 100, "$6$x", "Alice A", "/srv/alice", "/bin/zsh"};
       databases.group[1].name = "people";
       std::swap(databases.passwd[0], databases.passwd[2]);
     },
     {},
     ""},
};

INSTANTIATE_TEST_SUITE_P(All, PasswdChange, testing::ValuesIn(kChanges),
                         [](const auto& test) { return test.param.name; });

TEST_F(PasswdTest, DoesNotReportAFirstPassword) {
  databases.passwd.push_back({"dana", 2001, 50});
  compare();
  databases.shadow.push_back({"dana", "$6$d"});
  EXPECT_EQ(compare(), Texts{});
  EXPECT_EQ(trace(), "");
  databases.shadow.back().hash = "$6$e";
  EXPECT_EQ(compare(), Texts{"dana staff 4"});
}

TEST_F(PasswdTest, OffersDeletionsFirstAndTheRestInDatabaseOrder) {
  passwd_fini();
  databases.passwd.clear();
  for (int i = 0; i < 40; ++i) databases.passwd.push_back({"old" + std::to_string(i), 0, 100});
  databases.passwd.push_back({"kept", 0, 100});
  passwd_init();

  Texts expected;
  for (int i = 0; i < 40; ++i) expected.push_back("old" + std::to_string(i) + " users 2");
  databases.passwd.erase(databases.passwd.begin(), databases.passwd.end() - 1);
  for (int i = 0; i < 40; ++i) {
    databases.passwd.insert(databases.passwd.end() - 1, {"new" + std::to_string(i), 0, 50});
    expected.push_back("new" + std::to_string(i) + " staff 1");
  }
  databases.passwd.back().gid = 50;
  expected.push_back("kept staff 8");
  EXPECT_EQ(compare(), expected);
}

TEST_F(PasswdTest, HandsTheContextOn) {
  audit_ctx ctx = {};
  alice().gid = 50;
  check_passwd_event(note, &ctx);
  EXPECT_EQ(offered_ctx, &ctx);
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
  EXPECT_EQ(compare(), Texts{});  // a first password
  databases.group.clear();
  alice().gid = 50;
  EXPECT_EQ(compare(), Texts{"alice 50 8"});
  EXPECT_EQ(test::log_text(QEL_LOG_ERROR), "");
}

// ---- An emitter that wants no more -------------------------------------------------------------

TEST_F(PasswdTest, OffersNothingBehindARefusedDeletionUntilTheNextComparison) {
  databases.passwd = {{"root", 0, 50}, {"dana", 2001, 50}};
  EXPECT_EQ(compare(1), Texts{"alice users 2"});
  EXPECT_NE(trace().find("bob deleted"), std::string::npos);
  // What is known now is the new state: bob's deletion is lost, the other two changes wait.
  EXPECT_EQ(compare(), (Texts{"root staff 8", "dana staff 1"}));
  EXPECT_EQ(trace(), "");
  EXPECT_EQ(compare(), Texts{});
}

TEST_F(PasswdTest, OffersWhatAComparisonLeftAsItIsByThen) {
  databases.passwd = {{"root", 0, 0}, {"alice", 1000, 50}, {"bob", 1001, 50}, {"dana", 2001, 50}};
  EXPECT_EQ(compare(1), Texts{"alice staff 8"});
  databases.passwd.resize(3);
  databases.shadow[2].hash = "!";
  // bob's record of the last comparison waits with its flag, and is followed by the new one; dana
  // is new and deleted at once.
  EXPECT_EQ(compare(), (Texts{"bob staff 8", "dana staff 3", "bob staff 4"}));
  EXPECT_EQ(compare(), Texts{});
}

TEST_F(PasswdTest, ANullEmitterLeavesNothingBehind) {
  alice().gid = 50;
  EXPECT_EQ(check_passwd_event(nullptr, nullptr), 0);
  EXPECT_EQ(trace(), "passwd: --> user      alice group changed 100->50\n");
  EXPECT_EQ(compare(), Texts{});

  databases.passwd = {{"root", 0, 50}, {"alice", 1000, 100}};
  compare(1);
  EXPECT_EQ(check_passwd_event(nullptr, nullptr), 0);
  EXPECT_EQ(compare(), Texts{});
}

// ---- Duplicates --------------------------------------------------------------------------------

TEST_F(PasswdTest, TheLaterOfTwoEntriesCounts) {
  databases.shadow.push_back({"alice", "$6$late"});
  databases.group.push_back({"late", 100});
  databases.passwd.push_back({"bob", 1001, 50});
  EXPECT_EQ(compare(), (Texts{"alice late 4", "bob staff 8"}));
  EXPECT_EQ(compare(), Texts{});
  alice().gid = 0;
  databases.passwd[2].gid = 0;  // bob's first entry: not looked at
  EXPECT_EQ(compare(), Texts{"alice root 8"});
}

TEST_F(PasswdTest, AnAccountWithTwoEntriesComesAndGoesOnce) {
  databases.passwd.push_back({"dana", 2001, 50});
  databases.passwd.push_back({"dana", 2002, 100});
  EXPECT_EQ(compare(), Texts{"dana users 1"});
  databases.passwd.resize(3);
  EXPECT_EQ(compare(), Texts{"dana users 2"});
}

// ---- Start and stop ----------------------------------------------------------------------------

TEST_F(PasswdTest, SaysWhenItIsStartedOrStoppedTwice) {
  alice().gid = 50;
  EXPECT_EQ(passwd_init(), 0);
  EXPECT_EQ(test::log_text(QEL_LOG_ERROR), "passwd: passwd_init already called\n");
  EXPECT_EQ(compare(), Texts{"alice staff 8"});  // the first snapshot has stayed

  test::clear_log();
  passwd_fini();
  EXPECT_TRUE(test::log_lines().empty());
  passwd_fini();
  EXPECT_EQ(test::log_text(QEL_LOG_ERROR), "passwd: passwd not inited\n");
  test::clear_log();
  EXPECT_EQ(check_passwd_event(note, nullptr), -1);
  EXPECT_EQ(test::log_text(QEL_LOG_ERROR), "passwd: passwd not inited\n");

  alice().gid = 0;
  passwd_init();
  EXPECT_EQ(compare(), Texts{});
}

// ---- Which contexts lead to a comparison -------------------------------------------------------

struct Gate {
  const char* comm;
  std::uint32_t syscall;
  std::int32_t ruletype;
  bool passes;
};

class PasswdGate : public PasswdTest, public testing::WithParamInterface<Gate> {};

TEST_P(PasswdGate, SkipsTheAccountToolsOwnSteps) {
  const Gate& gate = GetParam();
  std::string comm = gate.comm;
  audit_ctx ctx = {};
  ctx.comm = comm.data();
  ctx.syscall = gate.syscall;
  ctx.ruletype = gate.ruletype;
  test::walks = {};
  EXPECT_EQ(handle_audit_event(&ctx), 0);
  EXPECT_EQ(test::walks.passwd_started, gate.passes ? 1 : 0);
  EXPECT_EQ(test::walks.shadow_started, gate.passes ? 1 : 0);
  passwd_fini();
  EXPECT_EQ(handle_audit_event(&ctx), gate.passes ? -1 : 0);
  passwd_init();
}

constexpr std::uint32_t kOpen = 2, kRename = 82, kOpenat = 257;

const Gate kGates[] = {
    {"useradd", kOpen, kPasswdRule, false},   {"useradd", kOpenat, kPasswdRule, true},
    {"useradd", kRename, kPasswdRule, true},  {"useradd", kRename, kShadowRule, false},
    {"userdel", kOpen, kPasswdRule, false},   {"userdel", kRename, kPasswdRule, true},
    {"userdel", kOpenat, kShadowRule, false}, {"usermod", kOpen, kPasswdRule, false},
    {"usermod", kOpen, kShadowRule, false},   {"usermod", kRename, kShadowRule, true},
    {"usermod", kRename, kPasswdRule, true},  {"passwd", kOpen, kShadowRule, true},
    {"useradd2", kOpen, kShadowRule, true},   {"user", kOpen, kPasswdRule, true},
    {"", kOpen, kPasswdRule, true},
};

INSTANTIATE_TEST_SUITE_P(All, PasswdGate, testing::ValuesIn(kGates), [](const auto& test) {
  return std::string(test.param.comm[0] != '\0' ? test.param.comm : "nobody") + "_" +
         std::to_string(test.param.syscall) +
         (test.param.ruletype == kShadowRule ? "_shadow" : "_passwd");
});

// ---- Names by uid ------------------------------------------------------------------------------

// /etc/passwd's place is taken by a file of 16 bytes; the names come from the database.
class UserNames : public PasswdTest {
 protected:
  UserNames() {
    std::ofstream(file_.path()) << "sixteen bytes...";
    set_time(file_.path(), {1'000'000, 5});
    test::redirect("/etc/passwd", file_.path());
    test::walks = {};
  }

  static void set_time(const std::string& path, timespec modified) {
    const timespec times[] = {modified, modified};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }

  // How often the database was read since the last call.
  static int walks() {
    EXPECT_EQ(test::walks.passwd_started, test::walks.passwd_ended);
    return std::exchange(test::walks, {}).passwd_started;
  }

  test::ScratchFile file_;
};

TEST_F(UserNames, AreReadOnceAndAfterEachStart) {
  EXPECT_STREQ(get_uname_by_uid(1000), "alice");
  EXPECT_EQ(walks(), 1);
  EXPECT_STREQ(get_uname_by_uid(1001), "bob");
  EXPECT_STREQ(get_uname_by_uid(0), "root");
  EXPECT_EQ(walks(), 0);

  passwd_fini();
  passwd_init();
  test::walks = {};
  EXPECT_STREQ(get_uname_by_uid(1000), "alice");
  EXPECT_EQ(walks(), 1);
}

TEST_F(UserNames, AreDecimalForUnknownUsers) {
  get_uname_by_uid(0);
  walks();
  const char* const first = get_uname_by_uid(77);
  EXPECT_STREQ(first, "77");
  EXPECT_STREQ(get_uname_by_uid(4294967295), "4294967295");
  EXPECT_STREQ(first, "4294967295");  // one buffer for all
  databases.passwd.push_back({"late", 77, 100});
  EXPECT_STREQ(get_uname_by_uid(77), "77");
  EXPECT_EQ(walks(), 0);  // also an unknown user does not have the database read again
}

TEST_F(UserNames, AreReadAgainWhenAnyPartOfTheStampChanges) {
  get_uname_by_uid(0);
  walks();
  alice().name = "alicia";
  set_time(file_.path(), {1'000'000, 6});  // within the second
  EXPECT_STREQ(get_uname_by_uid(1000), "alice");
  EXPECT_EQ(walks(), 0);

  set_time(file_.path(), {999'999, 6});
  EXPECT_STREQ(get_uname_by_uid(1000), "alicia");
  EXPECT_EQ(walks(), 1);

  std::ofstream(file_.path(), std::ios::app) << "+";
  set_time(file_.path(), {999'999, 6});
  get_uname_by_uid(1000);
  EXPECT_EQ(walks(), 1);

  const test::ScratchFile other;
  std::filesystem::copy_file(file_.path(), other.path(),
                             std::filesystem::copy_options::overwrite_existing);
  set_time(other.path(), {999'999, 6});
  test::redirect("/etc/passwd", other.path());
  get_uname_by_uid(1000);
  EXPECT_EQ(walks(), 1);
  get_uname_by_uid(1000);
  EXPECT_EQ(walks(), 0);
}

TEST_F(UserNames, AreDecimalWhileTheFileIsMissingAndThenTheOldOnes) {
  get_uname_by_uid(0);
  walks();
  alice().name = "alicia";
  test::redirect("/etc/passwd", "/nonexistent/passwd");
  EXPECT_STREQ(get_uname_by_uid(1000), "1000");
  test::redirect("/etc/passwd", file_.path());
  EXPECT_STREQ(get_uname_by_uid(1000), "alice");
  EXPECT_EQ(walks(), 0);
}

TEST_F(UserNames, TheLaterOfTwoEntriesCounts) {
  databases.passwd.push_back({"alias", 1000, 100});
  EXPECT_STREQ(get_uname_by_uid(1000), "alias");  // while the database is read
  EXPECT_STREQ(get_uname_by_uid(1000), "alias");  // from the table
  EXPECT_EQ(walks(), 1);
}

TEST_F(UserNames, AreDecimalWhileTheMonitorIsStopped) {
  get_uname_by_uid(0);
  passwd_fini();
  walks();
  EXPECT_STREQ(get_uname_by_uid(0), "0");
  EXPECT_EQ(walks(), 0);
  passwd_init();
}

}  // namespace
