// Registration, start, stop, poller and dispatch, as a client sees them.
#include "stage.h"

namespace {

using test::execve_record;
using test::Stage;
using namespace std::chrono_literals;

using Lifecycle = Stage;

TEST_F(Lifecycle, CallbacksOfTheKeyRunBeforeThoseForAllEachInOrderAlsoThoseThatCallbacksRegister) {
  EXPECT_EQ(on_execve("all 1", "", [&] { on_execve("all 2"); }), 0);
  EXPECT_EQ(on_execve("cat 1", "cat", [&] { EXPECT_EQ(on_execve("cat 2", "cat"), 2); }), 1);
  feed_group({.comm = "cat"}, {execve_record({"cat", "x y"})});
  poll_all();
  const std::string event =
      "execve result=0 user=root process=cat pid=11 ppid=10 argc=2 cat x\\x20y\n";
  EXPECT_EQ(heard(), "cat 1: " + event + "cat 2: " + event + "all 1: " + event + "all 2: " + event);
}

}  // namespace
