// Late writes, with a clock that the test moves.
#include "monitors/late_write.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "audit_rule.h"
#include "offline_test.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

// The contexts that were handed over.
Texts handled;

int note(audit_ctx* ctx) {
  handled.push_back(std::to_string(ctx->ruletype) + " pid=" + std::to_string(ctx->pid) +
                    " uid=" + std::to_string(ctx->uid) +
                    " syscall=" + std::to_string(ctx->syscall) + " comm=" + ctx->comm);
  return 0;
}

class LateWrite : public test::OfflineTest {
 protected:
  LateWrite() {
    test::redirect("/etc/passwd", files_[0].path());
    test::redirect("/etc/shadow", files_[1].path());
    test::redirect("/var/log/wtmp", files_[2].path());
    handled.clear();
    qel::note_watched_files();
  }
  ~LateWrite() override { qel::forget_watches(); }

  void write(int file) { files_[file].append("text"); }

  // A watch context of this rule type, remembered as it is after a comparison.
  static void remember(RuleType type, std::uint32_t pid = 1, std::string comm = "vi") {
    audit_ctx ctx = {};
    ctx.ruletype = type;
    ctx.pid = pid;
    ctx.uid = 1000;
    ctx.syscall = 257;
    ctx.comm = comm.data();
    qel::remember_opener(ctx, qel::watched_file(ctx));
  }

  // Looks as often as a main loop that pauses for so long.
  static void look_for(milliseconds time, milliseconds pause = 10ms) {
    for (milliseconds passed = 0ms; passed < time; passed += pause) {
      offline::advance_clock(pause);
      qel::look_at_watches(note);
    }
  }

  // Since the last call of this.
  static int looks() { return std::exchange(test::stat_calls, 0); }

  test::ScratchFile files_[3];
};

TEST_F(LateWrite, LooksTenTimesASecondForTenSeconds) {
  remember(kWtmpRule);
  looks();
  qel::look_at_watches(note);
  EXPECT_EQ(looks(), 0);  // the comparison has just read it
  for (int second = 0; second < 10; ++second) {
    look_for(1s, 1ms);
    EXPECT_EQ(looks(), 10) << "second " << second;
  }
  write(2);
  look_for(5s);
  EXPECT_EQ(looks(), 0);
  EXPECT_EQ(handled, Texts{});
}

TEST_F(LateWrite, TakesALastLookWhenTheTimeIsOver) {
  // Not later when the looks do not meet that time.
  remember(kWtmpRule);
  look_for(9940ms, 70ms);
  write(2);
  look_for(70ms, 70ms);
  EXPECT_EQ(handled.size(), 1U);

  // Also when the loop was held up meanwhile.
  remember(kWtmpRule);
  offline::advance_clock(60s);
  write(2);
  qel::look_at_watches(note);
  EXPECT_EQ(handled.size(), 2U);
}

TEST_F(LateWrite, SeesAChangeOfAnyPartOfTheIdentity) {
  using File = const test::ScratchFile&;
  constexpr timespec kTime = {500, 7};
  const struct {
    const char* name;
    void (*change)(File file);
    timespec modified;
  } changes[] = {
      {"nanoseconds", [](File) {}, {500, 8}},
      {"seconds", [](File) {}, {499, 7}},
      {"size", [](File file) { file.append("text"); }, kTime},
      {"inode", [](File file) { file.replace(); }, kTime},
  };
  for (const auto& [name, change, modified] : changes) {
    SCOPED_TRACE(name);
    handled.clear();
    files_[2].set_time(kTime);
    remember(kWtmpRule);
    look_for(200ms);
    EXPECT_EQ(handled.size(), 0U);
    change(files_[2]);
    files_[2].set_time(modified);
    look_for(200ms);
    EXPECT_EQ(handled.size(), 1U);
  }
}

TEST_F(LateWrite, SeesAFileGoAndComeBack) {
  remember(kWtmpRule);
  std::filesystem::remove(files_[2].path());
  look_for(200ms);
  EXPECT_EQ(handled.size(), 1U);
  remember(kWtmpRule);
  look_for(200ms);
  EXPECT_EQ(handled.size(), 1U);
  write(2);
  look_for(200ms);
  EXPECT_EQ(handled.size(), 2U);
}

TEST_F(LateWrite, HandsOverTheNewestContextOfAFile) {
  remember(kWtmpRule, 1, "first");
  look_for(5s);
  remember(kLastloginRule, 2, "second");  // wtmp too
  look_for(9s);                           // the time runs from the newest
  write(2);
  look_for(2s);
  EXPECT_EQ(handled, Texts{"3 pid=2 uid=1000 syscall=257 comm=second"});
}

TEST_F(LateWrite, KeepsTheFilesApartAndTheirCommandNamesCut) {
  audit_ctx nameless = {};
  nameless.ruletype = kPasswdRule;
  qel::remember_opener(nameless, qel::watched_file(nameless));
  remember(kShadowRule, 11);
  remember(kWtmpRule, 12, std::string(300, 'c'));
  write(1);
  look_for(200ms);
  write(2);
  write(0);
  look_for(200ms);
  EXPECT_EQ(handled,
            (Texts{"1 pid=11 uid=1000 syscall=257 comm=vi", "0 pid=0 uid=0 syscall=0 comm=",
                   "2 pid=12 uid=1000 syscall=257 comm=" + std::string(255, 'c')}));
}

// The context of a call that the kernel refused to somebody.
audit_ctx refused() {
  audit_ctx ctx = {};
  ctx.ruletype = kWtmpRule;
  ctx.pid = 666;
  return ctx;
}

TEST_F(LateWrite, ARefusedCallHasTheFileComparedWithWhatItWasWhenItWasLastRead) {
  write(2);  // after it was noted
  look_for(200ms);
  EXPECT_EQ(handled, Texts{}) << "nobody is remembered";
  for (int i = 0; i < 100; ++i) qel::remember_refused(refused());
  look_for(200ms);
  EXPECT_EQ(handled, Texts{"2 pid=4294967295 uid=0 syscall=0 comm="});
}

TEST_F(LateWrite, ARefusedCallTakesNeitherThePlaceNorAddsToTheTimeOfAnOpener) {
  remember(kWtmpRule, 12);
  write(2);
  qel::remember_refused(refused());
  look_for(200ms);
  EXPECT_EQ(handled, Texts{"2 pid=12 uid=1000 syscall=257 comm=vi"});
  remember(kWtmpRule, 13);
  look_for(9s);
  qel::remember_refused(refused());
  look_for(2s);
  write(2);
  looks();
  look_for(2s);
  EXPECT_EQ(looks(), 0);
}

}  // namespace
