// Runs a fuzz target over files with any compiler: seeds as an ordinary test, findings again under a
// debugger.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <span>
#include <string>

#include "fuzz_target.h"

int main(int argc, char** argv) {
  const auto paths = std::span(argv, static_cast<std::size_t>(argc)).subspan(1);
  for (const char* path : paths) {
    std::ifstream file(path, std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    if (input.empty()) {
      std::fprintf(stderr, "cannot read %s\n", path);
      return 2;
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
  }
  std::printf("%zu inputs, %zu events\n", paths.size(), events_seen());
  // Inputs without an event do not reach what they are for.
  return events_seen() > 0 ? 0 : 1;
}
