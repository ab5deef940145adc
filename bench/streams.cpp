// Generators of audit records, each a pure function of its arguments.
#include "streams.h"

#include <libaudit.h>
#include <made_records.h>
#include <record_file.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace bench {
namespace {

using Arguments = std::vector<std::string>;

struct Program {
  const char* comm;
  const char* exe;
};
constexpr std::array<Program, 8> kPrograms = {{{"ls", "/usr/bin/ls"},
                                               {"cat", "/usr/bin/cat"},
                                               {"sshd", "/usr/sbin/sshd"},
                                               {"python3", "/usr/bin/python3.11"},
                                               {"nginx", "/usr/sbin/nginx"},
                                               {"systemd-udevd", "/usr/bin/udevadm"},
                                               {"kworker/u8:2-ev", "/usr/lib/worker/run"},
                                               {"my tool", "/opt/my tools/my tool"}}};

// Mostly root and www-data, for which every Debian system has names.
constexpr std::array<unsigned, 8> kUsers = {0, 0, 0, 0, 33, 33, 0, 1000};

constexpr std::array<const char*, 6> kFiles = {
    "/etc/ld.so.cache",
    "/lib/x86_64-linux-gnu/libc.so.6",
    "/usr/share/locale/C.UTF-8/LC_MESSAGES/libc.mo",
    "/proc/self/status",
    "/home/alice/with blank.txt",
    "/var/lib/app/data/2024/05/01/part-00017-of-00512.db"};

constexpr std::array<const char*, 10> kShortArguments = {
    "-l", "-a", "--color=auto", "/etc/hosts", "-c", "eth0", "/var/log/syslog", "42", "-n", "@all"};
constexpr std::array<const char*, 3> kHexArguments = {"two words", "echo \"hi\" | tee out",
                                                      "gr\xc3\xbc\xc3\x9f"
                                                      "e"};

struct Address {
  const char* start;   // in hexadecimal; the rest is zero
  std::size_t length;  // in bytes
};
constexpr std::array<Address, 6> kAddresses = {{{"02001F90", 16},
                                                {"020000507F000001", 16},
                                                {"0A002382", 28},
                                                {"0A0001BB00000000FE80", 28},
                                                {"1000", 12},
                                                {"01002F72756E2F6170702F6374726C", 110}}};

[[gnu::format(printf, 1, 2)]] std::string format(const char* text, ...) {
  char buffer[1024];
  va_list arguments;
  va_start(arguments, text);
  const int length = std::vsnprintf(buffer, sizeof(buffer), text, arguments);
  va_end(arguments);
  if (length < 0 || static_cast<std::size_t>(length) >= sizeof(buffer)) std::abort();
  return {buffer, static_cast<std::size_t>(length)};
}

std::string quoted(std::string_view text) {
  return std::string("\"").append(text).append("\"");
}

class Generator {
 public:
  void add_execve(const Program& program, const Arguments& arguments) {
    begin();
    add_syscall(program, 59, 0, "55d0c0ffee10", 3, "execve_rule");
    add_arguments(arguments);
    add(AUDIT_CWD, "cwd=\"/home/alice\"");
    add_path(0, program.exe, true);
    add_path(1, "/lib64/ld-linux-x86-64.so.2", true);
    add_title(arguments);
    end();
  }

  void add_bind(const Program& program, const Address& address) {
    const bool refused = pick(16) == 0;
    begin();
    add_syscall(program, 49, refused ? -98 : 0, "4", 0, "bind_rule");
    std::string digits = address.start;
    digits.resize(2 * address.length, '0');
    add(AUDIT_SOCKADDR, "saddr=" + digits);
    add_title({program.exe, "--port", "8080"});
    end();
  }

  void add_openat(const Program& program, const char* file) {
    const bool found = pick(3) != 0;
    begin();
    add_syscall(program, 257, found ? 4 : -2, "ffffff9c", 1, "syscall_rule");
    add(AUDIT_CWD, "cwd=\"/home/alice\"");
    add_path(0, file, found);
    add_title({program.exe, "-c", "/etc/app/app.conf"});
    end();
  }

  // Arguments are mostly short, with a long tail: one execution in 50 has one that is split over
  // records.
  Arguments make_arguments(const Program& program) {
    Arguments arguments = {program.exe};
    for (std::size_t left = pick(8); left > 0; --left) {
      arguments.emplace_back(pick(6) == 0 ? one_of(kHexArguments) : one_of(kShortArguments));
    }
    if (pick(50) == 0) arguments.emplace_back(8000 + pick(8000), pick(2) == 0 ? 'x' : ' ');
    return arguments;
  }

  static Arguments make_short_arguments(const Program& program, std::size_t count) {
    Arguments arguments = {program.exe};
    while (arguments.size() < count) arguments.push_back(format("file-%zu.txt", arguments.size()));
    return arguments;
  }

  // A number below `limit`, from an xorshift generator.
  std::size_t pick(std::size_t limit) {
    random_ ^= random_ << 13;
    random_ ^= random_ >> 7;
    random_ ^= random_ << 17;
    return static_cast<std::size_t>(random_ >> 11) % limit;
  }

  template <typename Table>
  const typename Table::value_type& one_of(const Table& table) {
    return table[pick(table.size())];
  }

  Stream take() { return std::move(stream_); }

 private:
  void begin() {
    ++serial_;
    time_ms_ += pick(4);
    header_ = format("audit(%llu.%03llu:%u): ", time_ms_ / 1000, time_ms_ % 1000, serial_);
  }

  void add(int type, const std::string& fields) {
    stream_.records.push_back({type, header_ + fields});
  }

  void end() {
    add(AUDIT_EOE, "");
    ++stream_.groups;
  }

  void add_syscall(const Program& program, int number, int result, const char* first_argument,
                   int items, const char* key) {
    const unsigned user = one_of(kUsers);
    const unsigned pid = 1000 + static_cast<unsigned>(pick(30000));
    add(AUDIT_SYSCALL,
        format("arch=c000003e syscall=%d success=%s exit=%d a0=%s a1=7ffd%08zx a2=%zx a3=0 "
               "items=%d ppid=%u pid=%u auid=4294967295 uid=%u gid=%u euid=%u suid=%u fsuid=%u "
               "egid=%u sgid=%u fsgid=%u tty=(none) ses=4294967295 comm=",
               number, result < 0 ? "no" : "yes", result, first_argument, pick(0xffffffff),
               pick(0x80000), items, pid - 1, pid, user, user, user, user, user, user, user, user) +
            offline::untrusted(program.comm) + " exe=" + offline::untrusted(program.exe) +
            " subj=unconfined key=\"" + key + "\"");
  }

  void add_path(int item, const char* name, bool found) {
    const std::string inode =
        found ? format(" inode=%zu dev=fe:01 mode=0100755 ouid=0 ogid=0 rdev=00:00 nametype=NORMAL",
                       100 + pick(100000))
              : " nametype=UNKNOWN";
    add(AUDIT_PATH, format("item=%d name=", item) + offline::untrusted(name) + inode +
                        " cap_fp=0 cap_fi=0 cap_fe=0 cap_fver=0 cap_frootid=0");
  }

  void add_title(const Arguments& arguments) {
    constexpr std::size_t kMaxTitle = 128;
    std::string title;
    for (const std::string& argument : arguments) title.append(argument).append(1, '\0');
    title.resize(std::min(title.size() - 1, kMaxTitle));
    add(AUDIT_PROCTITLE, "proctitle=" + offline::untrusted(title));
  }

  // Fills records as the kernel's audit_log_execve_info does. A new record begins when the name of
  // an argument may not fit, and an argument that does not fit into the rest of the record is split
  // into pieces.
  void add_arguments(const Arguments& arguments) {
    constexpr std::size_t kRecordRoom = 7500;
    constexpr std::size_t kNameRoom = 96;
    std::string record = format("argc=%zu", arguments.size());
    std::size_t room = kRecordRoom;
    const auto next_record = [&] {
      add(AUDIT_EXECVE, record);
      record.clear();
      room = kRecordRoom;
    };
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      const bool hex = offline::needs_hex(arguments[i]);
      std::string written = hex ? offline::to_hex(arguments[i]) : arguments[i];
      const std::size_t quotes = hex ? 0 : 2;
      for (std::size_t piece = 0; piece == 0 || !written.empty(); ++piece) {
        if (kNameRoom + 8 > room) next_record();
        std::string name = format(" a%zu=", i);
        if (piece > 0 || written.size() + quotes + kNameRoom > room) {
          name = piece == 0 ? format(" a%zu_len=%zu", i, written.size()) : "";
          name += format(" a%zu[%zu]=", i, piece);
        }
        room -= name.size();
        const std::size_t fits = hex ? room / 2 * 2 : room - quotes;
        const std::string part = written.substr(0, fits);
        written.erase(0, part.size());
        record += name + (hex ? part : quoted(part));
        room -= part.size() + quotes;
      }
    }
    next_record();
  }

  Stream stream_;
  std::string header_;
  std::uint64_t random_ = 88172645463325252;
  unsigned serial_ = 1000;
  unsigned long long time_ms_ = 1714557604532;
};

void add_any_execve(Generator& generator) {
  const Program& program = generator.one_of(kPrograms);
  generator.add_execve(program, generator.make_arguments(program));
}

void add_any_bind(Generator& generator) {
  const Program& program = generator.one_of(kPrograms);
  generator.add_bind(program, generator.one_of(kAddresses));
}

void add_any_openat(Generator& generator) {
  const Program& program = generator.one_of(kPrograms);
  generator.add_openat(program, generator.one_of(kFiles));
}

template <typename Add>
Stream generate(std::size_t groups, Add add) {
  Generator generator;
  for (std::size_t i = 0; i < groups; ++i) add(generator, i);
  return generator.take();
}

Stream read_real() {
  return read_recording(QEL_RECORDINGS_DIR "/mixed.rec.gz", 1);
}

struct NamedStream {
  std::string_view name;
  Stream (*make)();
};
constexpr NamedStream kStreams[] = {
    {"real", read_real},
    {"mixed", [] { return make_mixed_stream(8000); }},
    {"execve", [] { return make_execve_stream(5000); }},
    {"bind", [] { return make_bind_stream(10000); }},
    {"openat", [] { return make_openat_stream(10000); }},
    {"many-arguments", [] { return make_many_arguments_stream(150); }},
};

// A text record, taken apart at its serial.
struct Recorded {
  int type;
  std::string before;  // text up to the serial
  unsigned long serial;
  std::string behind;
};

Recorded take_apart(const offline::Record& record) {
  const std::string text(record.payload);
  const std::size_t colon = text.find(':');
  const std::size_t end = text.find(')');
  if (!text.starts_with("audit(") || colon > end || end == text.npos)
    throw std::runtime_error("no audit record: " + text);
  return {record.type, text.substr(0, colon + 1), std::stoul(text.substr(colon + 1)),
          text.substr(end)};
}

}  // namespace

Stream make_execve_stream(std::size_t groups) {
  return generate(groups, [](Generator& generator, std::size_t) { add_any_execve(generator); });
}

Stream make_bind_stream(std::size_t groups) {
  return generate(groups, [](Generator& generator, std::size_t) { add_any_bind(generator); });
}

Stream make_openat_stream(std::size_t groups) {
  return generate(groups, [](Generator& generator, std::size_t) { add_any_openat(generator); });
}

Stream make_mixed_stream(std::size_t groups) {
  constexpr void (*kCycle[])(Generator&) = {add_any_openat, add_any_execve, add_any_openat,
                                            add_any_bind};
  return generate(groups, [&](Generator& generator, std::size_t i) {
    kCycle[i % std::size(kCycle)](generator);
  });
}

Stream make_many_arguments_stream(std::size_t groups) {
  return generate(groups, [](Generator& generator, std::size_t) {
    const Program& program = kPrograms[0];
    const std::size_t count = 500 + generator.pick(2501);
    generator.add_execve(program, Generator::make_short_arguments(program, count));
  });
}

Stream make_arguments_stream(std::size_t groups, std::size_t argc) {
  return generate(groups, [argc](Generator& generator, std::size_t) {
    const Program& program = kPrograms[0];
    generator.add_execve(program, Generator::make_short_arguments(program, argc));
  });
}

Stream read_recording(const std::string& path, std::size_t copies) {
  std::vector<Recorded> recorded;
  const std::string error = offline::read_records(path, [&](const offline::Record& record) {
    if (record.type >= AUDIT_FIRST_USER_MSG) recorded.push_back(take_apart(record));
  });
  if (!error.empty()) throw std::runtime_error(error);
  if (recorded.empty()) throw std::runtime_error(path + " has no records");

  const auto [least, most] =
      std::minmax_element(recorded.begin(), recorded.end(),
                          [](const Recorded& a, const Recorded& b) { return a.serial < b.serial; });
  const unsigned long span = most->serial - least->serial + 1;
  Stream stream;
  for (std::size_t copy = 0; copy < copies; ++copy) {
    for (const Recorded& record : recorded) {
      stream.records.push_back(
          {record.type,
           record.before + std::to_string(record.serial + copy * span) + record.behind});
      if (record.type == AUDIT_EOE) ++stream.groups;
    }
  }
  return stream;
}

Stream make_stream(std::string_view name) {
  const auto* found = std::find_if(std::begin(kStreams), std::end(kStreams),
                                   [name](const NamedStream& s) { return s.name == name; });
  if (found == std::end(kStreams))
    throw std::runtime_error("no stream is called " + std::string(name));
  return found->make();
}

std::string to_log(const Stream& stream, std::size_t from, std::size_t to) {
  std::string log;
  for (std::size_t i = from; i < to; ++i) {
    const Record& record = stream.records[i];
    log.append("type=").append(audit_msg_type_to_name(record.type));
    log.append(" msg=").append(record.text).append("\n");
  }
  return log;
}

}  // namespace bench
