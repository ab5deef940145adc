// The library in a test's hands: its poller is kept instead of run by a main loop, recordings are
// played to it through the offline kernel, and each event that a callback receives is kept as text.
#pragma once

#include <qel_audit.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace test {

// An event as text, in the notation of recordings/README.md.
struct EventLine {
  std::string text;
  // What the text leaves out: process ids, arguments of a system call, bytes of an address.
  std::string details;
};

// Printable ASCII as it is; spaces, backslashes, opening braces and all other bytes as \xHH; 16 or
// more of the same as {x*N}; "" for nothing.
std::string quoted(std::string_view bytes);

// Callbacks for any class: each adds a line to the vector that is its registration's argument.
int note_login(const qel_login_info* event, void* lines);
int note_user(const qel_user_info* event, void* lines);
int note_syscall(const qel_syscall_info* event, void* lines);
int note_execve(const qel_execve_info* event, void* lines);
int note_bind(const qel_bind_info* event, void* lines);

std::vector<std::string> texts_of(const std::vector<EventLine>& lines);

// Calls the library's poller once. Returns its result.
int poll_once();
// Calls it until it finds nothing to read.
void poll_all();

// A record of a recording, with its text.
struct RecordedMessage {
  int type;
  std::string payload;
};
// Throws std::runtime_error when the file cannot be read.
std::vector<RecordedMessage> read_recording(const std::string& path);

// The serial in a record's header; 0 for what is no record.
unsigned serial_of(const RecordedMessage& message);

// Plays a recording, message by message. `before_end` is called with 0, 1, 2 ... before the end of
// each group that carries a rule's key.
void play(const std::vector<RecordedMessage>& recording,
          const std::function<void(int group)>& before_end = nullptr);

}  // namespace test
