// The reader for recordings. zlib also reads plain files, so all files are read through it.
#include "record_file.h"

#include <libaudit.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <optional>
#include <system_error>
#include <type_traits>

namespace offline {
namespace {

// Enriched log lines carry interpretations, which about double a record. A longer line is not a
// text line, and need not be held in memory to find that out.
constexpr std::size_t kMaxLineLength = 65536;
constexpr std::size_t kChunkSize = 65536;
constexpr unsigned kMaxType = 65535;  // 16 bits in the netlink header
constexpr char kInterpretationsFollow = AUDIT_INTERP_SEPARATOR;

struct CloseFile {
  void operator()(gzFile file) const { gzclose(file); }
};
using File = std::unique_ptr<std::remove_pointer_t<gzFile>, CloseFile>;

// ---- Parsing ----------------------------------------------------------------------------------

// Takes `prefix` away from the front of `text`.
bool skip(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

// Cuts the part before `end` off the front of `text`, and removes `end`.
std::optional<std::string_view> cut(std::string_view& text, char end) {
  const std::size_t length = text.find(end);
  if (length == std::string_view::npos) return std::nullopt;
  const std::string_view part = text.substr(0, length);
  text.remove_prefix(length + 1);
  return part;
}

std::optional<int> parse_type(std::string_view digits) {
  unsigned type = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), type);
  if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  if (type == 0 || type > kMaxType) return std::nullopt;
  return static_cast<int>(type);
}

std::optional<int> find_type(std::string_view name) {
  if (skip(name, "UNKNOWN[")) {
    if (!name.ends_with(']')) return std::nullopt;
    return parse_type(name.substr(0, name.size() - 1));
  }
  // libaudit accepts numbers as names, and ignores what follows their digits.
  if (name.empty() || std::isdigit(static_cast<unsigned char>(name.front()))) return std::nullopt;
  const int type = audit_name_to_msg_type(std::string(name).c_str());
  if (type <= 0) return std::nullopt;
  return type;
}

std::optional<unsigned> parse_digit(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return std::nullopt;
}

bool decode_hex(std::string_view digits, std::string& bytes) {
  if (digits.size() % 2 != 0) return false;
  bytes.clear();
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    const auto high = parse_digit(digits[i]);
    const auto low = parse_digit(digits[i + 1]);
    if (!high || !low) return false;
    bytes.push_back(static_cast<char>(*high << 4 | *low));
  }
  return true;
}

// The record of a line; `problem` says why there is none.
struct Line {
  Record record = {};
  const char* problem = nullptr;
};

// A payload in hexadecimal is decoded into `bytes`.
Line parse_recorded(std::string_view line, std::string& bytes) {
  const auto digits = cut(line, '\t');
  if (!digits) return {.problem = "no tab behind the record type"};
  const auto type = parse_type(*digits);
  if (!type) return {.problem = "the record type is not a number from 1 to 65535"};
  if (!skip(line, "hex:")) return {.record = {*type, line, false}};
  if (!decode_hex(line, bytes)) return {.problem = "the payload is not in hexadecimal"};
  return {.record = {*type, bytes, false}};
}

Line parse_logged(std::string_view line) {
  if (skip(line, "node=")) cut(line, ' ');
  if (!skip(line, "type=")) return {.problem = "no type= behind the node"};
  const auto name = cut(line, ' ');
  const auto type = find_type(name.value_or(""));
  if (!type) return {.problem = "unknown record type"};
  if (!skip(line, "msg=") || !line.starts_with("audit("))
    return {.problem = "no msg=audit( behind the record type"};
  return {.record = {*type, line.substr(0, line.find(kInterpretationsFollow)), true}};
}

Line parse_line(std::string_view line, std::string& bytes) {
  if (line.starts_with("type=") || line.starts_with("node=")) return parse_logged(line);
  return parse_recorded(line, bytes);
}

// ---- Reading ----------------------------------------------------------------------------------

struct Reader {
  const std::function<void(const Record&)>& take;
  File file;
  std::string pending = {};  // the incomplete line read so far
  std::string bytes = {};
  std::size_t line_number = 1;
};

File open_file(const std::string& path) {
  errno = 0;
  if (path != "-") return File(gzopen(path.c_str(), "re"));
  const int fd = dup(STDIN_FILENO);
  File file(fd < 0 ? nullptr : gzdopen(fd, "r"));
  if (!file && fd >= 0) close(fd);
  return file;
}

// Why reading stopped; empty at the end of the file.
std::string explain_stop(gzFile file) {
  const int system_error = errno;
  int error = Z_OK;
  gzerror(file, &error);
  if (error == Z_OK || error == Z_STREAM_END) return {};
  if (error == Z_ERRNO) return std::strerror(system_error);
  if (error == Z_BUF_ERROR) return "the compressed data ends too early";
  if (error == Z_DATA_ERROR) return "the compressed data is damaged";
  return zError(error);
}

// Each of these returns an empty text, or a description of the problem.
std::string take_line(Reader& reader, std::string_view text) {
  if (text.empty()) return {};
  const Line line = parse_line(text, reader.bytes);
  if (line.problem != nullptr) return line.problem;
  if (line.record.payload.size() > MAX_AUDIT_MESSAGE_LENGTH)
    return "the record is longer than " + std::to_string(MAX_AUDIT_MESSAGE_LENGTH) + " bytes";
  reader.take(line.record);
  return {};
}

std::string take_whole_lines(Reader& reader) {
  std::string_view rest = reader.pending;
  while (const auto text = cut(rest, '\n')) {
    std::string problem = take_line(reader, *text);
    if (!problem.empty()) return problem;
    ++reader.line_number;
  }
  reader.pending.erase(0, reader.pending.size() - rest.size());
  return reader.pending.size() > kMaxLineLength ? "the line is too long" : "";
}

std::string take_all(Reader& reader) {
  std::array<char, kChunkSize> chunk;
  int size = 0;
  while ((size = gzread(reader.file.get(), chunk.data(), chunk.size())) > 0) {
    reader.pending.append(chunk.data(), static_cast<std::size_t>(size));
    std::string problem = take_whole_lines(reader);
    if (!problem.empty()) return problem;
  }
  std::string problem = explain_stop(reader.file.get());
  return problem.empty() ? take_line(reader, reader.pending) : problem;
}

}  // namespace

std::string read_records(const std::string& path, const std::function<void(const Record&)>& take) {
  const std::string name = path == "-" ? "standard input" : path;
  Reader reader{.take = take, .file = open_file(path)};
  if (!reader.file) return name + ": " + std::strerror(errno == 0 ? ENOMEM : errno);
  const std::string problem = take_all(reader);
  if (problem.empty()) return {};
  return name + ":" + std::to_string(reader.line_number) + ": " + problem;
}

}  // namespace offline
