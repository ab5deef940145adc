// Runs a fuzz target over files, and over the files of directories, with any compiler: seeds as
// ordinary tests, findings again under a debugger.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <span>
#include <stdexcept>
#include <string>

#include "fuzz_target.h"

namespace {

namespace fs = std::filesystem;

void run(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path.string());
  const std::string input{std::istreambuf_iterator<char>(file), {}};
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
}

}  // namespace

int main(int argc, char** argv) {
  std::set<fs::path> files;
  try {
    for (const fs::path path : std::span(argv, static_cast<std::size_t>(argc)).subspan(1)) {
      if (fs::is_directory(path)) {
        files.insert(fs::directory_iterator(path), fs::directory_iterator());
      } else {
        files.insert(path);
      }
    }
    for (const fs::path& path : files) run(path);
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "%s\n", problem.what());
    return 2;
  }
  std::printf("%zu inputs, %zu events\n", files.size(), events_seen());
  // Inputs without an event do not reach what they are for.
  return events_seen() > 0 ? 0 : 1;
}
