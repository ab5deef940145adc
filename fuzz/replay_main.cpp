// Runs a fuzz target over files, and over the files of directories, with any compiler: seeds as
// ordinary tests, findings again under a debugger.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_target.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> files_of(const fs::path& path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<fs::path> files;
  std::copy(fs::directory_iterator(path), fs::directory_iterator(), std::back_inserter(files));
  std::sort(files.begin(), files.end());
  return files;
}

void run(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path.string());
  const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
  const std::vector<std::uint8_t> input(content.begin(), content.end());
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t inputs = 0;
  try {
    for (int i = 1; i < argc; ++i) {
      for (const fs::path& file : files_of(argv[i])) {
        run(file);
        ++inputs;
      }
    }
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "%s\n", problem.what());
    return 2;
  }
  std::printf("%zu inputs, %zu events\n", inputs, events_seen());
  // Inputs without an event do not reach what they are for.
  return inputs > 0 && events_seen() > 0 ? 0 : 1;
}
