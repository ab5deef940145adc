// Every recording through the library: what comes is what its list says. The notation of the lists
// is described next to the recordings.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include "record_file.h"
#include "stage.h"

namespace {

const std::filesystem::path kDirectory = QEL_RECORDINGS_DIR;

// Each line up to its process id, with how often it came.
std::string counted(const std::string& text) {
  std::map<std::string, int> counts;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) ++counts[line.substr(0, line.find(" pid="))];
  std::string list;
  for (const auto& [line, count] : counts) list += std::to_string(count) + " x " + line + "\n";
  return list;
}

std::string with_numbers_named(std::string text) {
  std::string numbers = "1";
  for (int i = 2; i <= 5000; ++i) numbers += " " + std::to_string(i);
  const std::size_t at = text.find(numbers);
  return at == text.npos ? text : text.replace(at, numbers.size(), "{1..5000}");
}

std::vector<std::string> recording_names() {
  std::vector<std::string> names;
  for (const auto& file : std::filesystem::directory_iterator(kDirectory)) {
    const std::string name = file.path().filename();
    const std::size_t end = name.find(".rec");
    if (end != name.npos) names.push_back(name.substr(0, end));
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Nobody logs in and no account changes meanwhile: callbacks for that must not be called.
class Recordings : public test::Stage, public testing::WithParamInterface<std::string> {};

TEST_P(Recordings, GivesWhatItsListSays) {
  account("alice", 1000, 100);
  account("bob", 1001, 100);
  for (const int result : {on_execve(""), on_bind(""), on_syscall(""), on_user(""), on_login("")}) {
    ASSERT_EQ(result, 0);
  }
  std::string path = kDirectory / (GetParam() + ".rec");
  if (!std::filesystem::exists(path)) path += ".gz";
  const std::string error = offline::read_records(path, [](const offline::Record& record) {
    feed(record.type, std::string(record.payload));
    poll_all();
  });
  EXPECT_EQ(error, "");
  std::ifstream file(kDirectory / (GetParam() + ".events"));
  const std::string list(std::istreambuf_iterator<char>(file), {});
  const bool is_counted = list.find(" x ") == list.find_first_not_of("0123456789");
  const std::string lines = heard();
  EXPECT_EQ(is_counted ? counted(lines) : with_numbers_named(lines), list);
}

INSTANTIATE_TEST_SUITE_P(All, Recordings, testing::ValuesIn(recording_names()),
                         [](const auto& test) {
                           std::string name = test.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

}  // namespace
