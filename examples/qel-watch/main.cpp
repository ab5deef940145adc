// qel-watch: registers callbacks of all five classes and prints what they receive.
#include <offline_kernel.h>
#include <qel_audit.h>
#include <qel_frame.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "event_fields.h"
#include "options.h"
#include "output.h"
#include "replay.h"
#include "stop.h"
#include "watch.h"

namespace {

void print_summary(std::size_t records) {
  std::fprintf(stderr, "qel-watch: %zu records read; events:", records);
  for (std::size_t i = 0; i < QEL_CLASS_COUNT; ++i)
    std::fprintf(stderr, "%s %s %ju", i == 0 ? "" : ",", kClassNames[i],
                 std::uintmax_t{event_counts()[i]});
  std::fputc('\n', stderr);
}

// Returns false when a replayed file is refused.
bool watch(const Options& options) {
  if (!options.replayed.empty()) return replay_files(options.replayed);
  qel_mainloop_run();
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse_options(argc, argv);
  const bool live = options.replayed.empty();
  // The library prints the rules that it deletes. They are of interest only when they are the rules
  // of this machine.
  if (!open_output(live ? nullptr : "/dev/null")) return kFailed;
  catch_signals();
  if (!live) prepare_replay();

  if (!start_watching(options.watch, options.requests)) return kFailed;
  if (!live) finish_start();
  const std::size_t read_at_start = offline::received();
  const bool accepted = watch(options);
  const std::size_t records = offline::received() - read_at_start;
  finish_stop();
  qel_audit_fini();

  if (!accepted) return kRefused;
  if (output_failed()) return kFailed;
  print_summary(records);
  return kDone;
}
