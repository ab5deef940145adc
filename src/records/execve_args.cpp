#include "records/execve_args.h"

#include <malloc.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <tuple>
#include <utility>

#include "base/log.h"
#include "base/memory.h"
#include "records/record_text.h"

// The kernel writes "argc=N a0=... a1=...", with each argument quoted or as hexadecimal digits. An
// argument that does not fit into its record is announced as "aN_len=LENGTH", the length of its
// written form without quotes. It follows as "aN[0]=... aN[1]=...", in as many records as it takes.
// Every field is found by plain substring search for the slot that is to be filled next.
//
// The work for a record grows about linearly with its length, whatever it holds: fields out of
// order are found in one pass and sorted.

namespace {

constexpr char kLogSource[] = "audit_msg";

// Limits for one program. The kernel's own limit for one argument is 128 KiB.
constexpr std::int32_t kMaxArguments = 40000;
constexpr std::int32_t kMaxSplitLength = 32768;

constexpr std::int32_t kNoIndex = std::numeric_limits<std::int32_t>::max();
constexpr std::string_view kArgc = "argc=";
constexpr std::string_view kLength = "_len=";

// The array of a list that was freed, kept for the next list. glibc takes memory for long arrays
// from the part of its heap that first merges all small free blocks. Those are the blocks of
// thousands of argument texts, which the next list would have to split off again.
char** spare_array;

// The number of slots that fit into the block (malloc_usable_size(3)).
std::size_t room_of(char** array) {
  return malloc_usable_size(array) / sizeof(char*);
}

// Returns an array of null pointers.
char** new_array(std::size_t size) {
  if (room_of(spare_array) < size) free_spare_args();
  char** array = std::exchange(spare_array, nullptr);
  if (array == nullptr) array = static_cast<char**>(QEL_CHECKED(std::malloc(size * sizeof(char*))));
  std::fill_n(array, size, nullptr);
  return array;
}

char* empty_text() {
  return QEL_CHECKED(qel::copy_of(""));
}

char* decode(std::string_view value) {
  return QEL_CHECKED(qel::decode_field_value(value));
}

bool is_separator(char c) {
  return c == '=' || c == '_' || c == '[';
}

std::int32_t to_int32(std::string_view decimal) {
  return static_cast<std::int32_t>(qel::to_number(decimal, 10));
}

// Reads a decimal number as printf(3) writes it, without a sign or leading zeros. Returns kNoIndex
// for anything else, and for numbers of ten digits or more.
std::int32_t read_index(const char*& at, const char* end) {
  constexpr std::ptrdiff_t kMaxDigits = 9;
  const char* const from = at;
  const char* const limit = end - from > kMaxDigits ? from + kMaxDigits + 1 : end;
  const char* digit = from;
  std::uint32_t index = 0;
  for (; digit != limit && qel::is_decimal(*digit); ++digit)
    index = index * 10 + qel::hex_value(*digit);
  at = digit;
  const std::ptrdiff_t digits = digit - from;
  if (digits == 0 || digits > kMaxDigits || (*from == '0' && digits > 1)) return kNoIndex;
  return static_cast<std::int32_t>(index);
}

// Steps over a number as scanf(3)'s "%d" reads it, including leading blanks and a sign. Returns
// null when there are no digits.
const char* skip_number(const char* at, const char* end) {
  at = std::find_if_not(at, end, qel::is_blank);
  if (at != end && (*at == '+' || *at == '-')) ++at;
  const char* const behind = std::find_if_not(at, end, qel::is_decimal);
  return behind == at ? nullptr : behind;
}

// A word that may begin an argument's field: "a", a number and a separator.
struct Word {
  char separator = '\0';          // 0 when the word is no such field
  std::int32_t index = kNoIndex;  // set when the number is written as the kernel does
  const char* behind = nullptr;   // the place after the separator
};

Word read_word(const char* at, const char* end) {
  if (at == end || *at != 'a') return {};
  Word word;
  const char* const number = ++at;
  word.index = read_index(at, end);
  if (word.index == kNoIndex) at = skip_number(number, end);
  if (at == nullptr || at == end || !is_separator(*at)) return {};
  word.separator = *at;
  word.behind = at + 1;
  return word;
}

// The text before the argument of a slot: "aN=". Nearly every argument directly follows the
// previous one, and comparing with the expected name is less work than reading the number.
class ExpectedName {
 public:
  explicit ExpectedName(std::int32_t slot) {
    name_[0] = 'a';
    char* const end = std::to_chars(name_ + 1, name_ + kSize - 1, slot).ptr;
    *end = '=';
    length_ = static_cast<std::size_t>(end - name_) + 1;
    std::memset(mask_, 0xFF, length_);
  }

  std::size_t length() const { return length_; }

  bool stands_at(const char* at, const char* end) const {
    if (static_cast<std::size_t>(end - at) < kSize) return false;
    return ((load(at) ^ load(name_)) & load(mask_)) == 0;
  }

  void advance_to(std::int32_t slot) {
    char& last_digit = name_[length_ - 2];
    if (last_digit != '9') {
      ++last_digit;
    } else {
      *this = ExpectedName(slot);
    }
  }

 private:
  static constexpr std::size_t kSize = sizeof(std::uint64_t);
  static_assert(kMaxArguments < 1'000'000, "a name is longer than a word");

  static std::uint64_t load(const char* from) {
    std::uint64_t word;
    std::memcpy(&word, from, sizeof(word));
    return word;
  }

  char name_[kSize] = {};
  char mask_[kSize] = {};  // 0xFF where the name has a character
  std::size_t length_;
};

// ---- Fields out of order -----------------------------------------------------------------------

// A field of a record, ordered by slot, piece and place.
struct Field {
  std::int32_t slot;
  std::int32_t piece;  // 0 for a field without pieces
  const char* value;

  bool operator<(const Field& other) const {
    return std::tie(slot, piece, value) < std::tie(other.slot, other.piece, other.value);
  }
};

// Steps back over a number that ends at `at`, but not before `from`. Returns the number, or
// kNoIndex.
std::int32_t step_back_number(const char* from, const char*& at) {
  const char* const end = at;
  while (at != from && qel::is_decimal(at[-1])) --at;
  const char* behind = at;
  const std::int32_t number = read_index(behind, end);
  return behind == end ? number : kNoIndex;
}

bool step_back_text(const char* from, const char*& at, std::string_view text) {
  if (at - from < static_cast<std::ptrdiff_t>(text.size())) return false;
  if (std::string_view(at - text.size(), text.size()) != text) return false;
  at -= text.size();
  return true;
}

// Each of these reads one kind of name backwards from its "=". Returns whether there is such a
// name.
bool read_whole(const char* from, const char* at, Field& field) {
  field.slot = step_back_number(from, at);
  return field.slot != kNoIndex && step_back_text(from, at, "a");
}

bool read_announced(const char* from, const char* at, Field& field) {
  return step_back_text(from, at, "_len") && read_whole(from, at, field);
}

bool read_piece_name(const char* from, const char* at, Field& field) {
  if (!step_back_text(from, at, "]")) return false;
  field.piece = step_back_number(from, at);
  return field.piece != kNoIndex && step_back_text(from, at, "[") && read_whole(from, at, field);
}

// All fields of one kind in the rest of a record. This is only needed when the next word is not the
// field that is expected next: after lost records, or in a hostile record. Slots, pieces and places
// that are asked for only grow, so a field that was stepped over is never needed again.
class OddFields {
 public:
  using ReadName = bool (*)(const char* from, const char* at, Field& field);

  explicit OddFields(ReadName read_name) : read_name_(read_name) {}

  // The first field that is not less than `wanted` and whose value lies after the place of
  // `wanted`, or null.
  const Field* first_from(const Field& wanted, const char* end) {
    if (fields_ == nullptr) collect(wanted.value, end);
    while (next_ != end_ && (*next_ < wanted || next_->value <= wanted.value)) ++next_;
    return next_ != end_ ? next_ : nullptr;
  }

 private:
  void collect(const char* from, const char* end) {
    constexpr std::size_t kShortestName = 3;  // "a0="
    const std::size_t most = static_cast<std::size_t>(end - from) / kShortestName + 1;
    fields_.reset(QEL_CHECKED(static_cast<Field*>(std::malloc(most * sizeof(Field)))));
    next_ = end_ = fields_.get();
    const char* at = from;
    while ((at = qel::find_field(at, end, "=")) != nullptr) {
      Field field = {.slot = 0, .piece = 0, .value = at + 1};
      if (read_name_(from, at, field)) *end_++ = field;
      ++at;
    }
    std::sort(next_, end_);
  }

  ReadName read_name_;
  qel::Owned<Field> fields_;
  Field* next_ = nullptr;
  Field* end_ = nullptr;
};

// ---- Reading -----------------------------------------------------------------------------------

// One pass over one record.
class ArgumentReader {
 public:
  ArgumentReader(audit_ctx& ctx, std::string_view text)
      : ctx_(ctx), at_(text.data()), end_(text.data() + text.size()) {}

  bool read() {
    if (ctx_.argc == 0 && !read_count()) return false;
    while (ctx_.arg_index < ctx_.argc && at_ != end_) {
      if (ctx_.arg_left <= 0 && read_run()) continue;
      if (!read_one(read_word(at_, end_))) return false;
    }
    return true;
  }

 private:
  bool read_count() {
    const char* field = qel::find_field(at_, end_, kArgc);
    if (field == nullptr) return false;
    ctx_.argc = to_int32(take_value(field + kArgc.size()));
    if (ctx_.argc <= 0) return false;
    ctx_.argc = std::min(ctx_.argc, kMaxArguments);
    ctx_.arg_index = 0;
    ctx_.argv = new_array(static_cast<std::size_t>(ctx_.argc));
    return true;
  }

  // Reads arguments as long as they come in order, each after one blank. Returns whether it read
  // any.
  bool read_run() {
    const std::int32_t first = ctx_.arg_index;
    for (ExpectedName name(first); ctx_.arg_index < ctx_.argc && name.stands_at(at_, end_);
         name.advance_to(ctx_.arg_index)) {
      fill_slot(decode(take_value(at_ + name.length())));
      if (at_ != end_) ++at_;
    }
    return ctx_.arg_index != first;
  }

  bool read_one(const Word& word) {
    if (word.separator == '\0') {
      skip_word();
      return true;
    }
    if (ctx_.arg_left > 0) {
      if (word.separator == '[') {
        read_piece(word);
      } else {
        abandon_split();
      }
      return true;
    }
    if (word.separator == '_') return read_announcement(word);
    if (word.separator == '=') {
      read_argument(word);
    } else {
      skip_word();  // a further piece of an argument that was cut short
    }
    return true;
  }

  void read_argument(const Word& word) {
    const bool expected = word.index == ctx_.arg_index;
    const char* value = expected ? word.behind : skip_to_argument(whole_);
    if (value != nullptr) fill_slot(decode(take_value(value)));
  }

  bool read_announcement(const Word& word) {
    const std::string_view rest(word.behind, static_cast<std::size_t>(end_ - word.behind));
    const bool expected = word.index == ctx_.arg_index && rest.starts_with(kLength.substr(1));
    const char* value = expected ? word.behind + kLength.size() - 1 : skip_to_argument(announced_);
    if (value == nullptr) return true;
    ctx_.arg_left = to_int32(take_value(value));
    ctx_.arg_parts = 0;
    ctx_.arg_offset = 0;
    if (ctx_.arg_left <= 0) return false;
    ctx_.arg_left = std::min(ctx_.arg_left, kMaxSplitLength);
    return true;
  }

  // Looks for the field of the slot to fill, or of the nearest later slot that has one in the rest
  // of the record. The slots in between get empty texts. Returns the place of the field's value, or
  // null when no slot has one.
  const char* skip_to_argument(OddFields& fields) {
    const Field* field = fields.first_from({ctx_.arg_index, 0, at_}, end_);
    const bool found = field != nullptr && field->slot < ctx_.argc;
    const std::int32_t nearest = found ? field->slot : ctx_.argc;
    while (ctx_.arg_index < nearest) fill_slot(empty_text());
    return found ? field->value : nullptr;
  }

  void read_piece(const Word& word) {
    const char* value = piece_behind(word);
    if (value == nullptr) {
      skip_word();
      return;
    }
    add_piece(take_value(value));
    ++ctx_.arg_parts;
    if (ctx_.arg_left <= 0) finish_split();
  }

  // The place of the value of the next piece, or null when the rest of the record has none.
  const char* piece_behind(const Word& word) {
    if (word.index == ctx_.arg_index) {
      const char* at = word.behind;
      if (read_index(at, end_) == ctx_.arg_parts && end_ - at >= 2 && at[0] == ']' && at[1] == '=')
        return at + 2;
    }
    const Field* field = pieces_.first_from({ctx_.arg_index, ctx_.arg_parts, at_}, end_);
    const bool found =
        field != nullptr && field->slot == ctx_.arg_index && field->piece == ctx_.arg_parts;
    return found ? field->value : nullptr;
  }

  // Appends a piece, cut to the announced length. Pieces are joined in their written form: a quoted
  // argument keeps its opening quote, and each piece overwrites the closing quote of the previous
  // one. The buffer has arg_left + 3 bytes at first, and from then on there are never fewer than
  // arg_left + 2 bytes from arg_offset on.
  void add_piece(std::string_view piece) {
    const bool first = ctx_.arg_parts == 0;
    const std::int32_t quotes = piece.starts_with('"') ? 1 : 0;
    if (first) new_buffer();
    if (!first) piece.remove_prefix(static_cast<std::size_t>(quotes));
    const std::int32_t opening = first ? quotes : 0;
    const std::int32_t room = ctx_.arg_left + quotes + opening;
    const std::int32_t stored = std::min(static_cast<std::int32_t>(piece.size()), room);

    char* const to = ctx_.argv[ctx_.arg_index] + ctx_.arg_offset;
    std::memcpy(to, piece.data(), static_cast<std::size_t>(stored));
    to[stored] = '\0';
    if (stored < quotes) return;  // nothing but a quote
    ctx_.arg_offset += stored - quotes;
    ctx_.arg_left -= stored - quotes - opening;
  }

  void new_buffer() {
    ctx_.argv[ctx_.arg_index] =
        static_cast<char*>(QEL_CHECKED(std::malloc(static_cast<std::size_t>(ctx_.arg_left) + 3)));
  }

  // A text is never longer than its written form, so it can replace that form in the buffer.
  void finish_split() {
    char* const text = ctx_.argv[ctx_.arg_index];
    const auto length = static_cast<std::size_t>(ctx_.arg_offset);
    qel::decode_field_value({text, length}, text, length + 1);
    fill_slot(text);
  }

  // Another argument's field came before the last piece: the pieces so far stay, in their written
  // form.
  void abandon_split() {
    ctx_.arg_left = 0;
    char* const written = ctx_.argv[ctx_.arg_index];
    fill_slot(written != nullptr ? written : empty_text());
  }

  void fill_slot(char* text) { ctx_.argv[ctx_.arg_index++] = text; }

  std::string_view take_value(const char* from) {
    at_ = qel::end_of_value(from, end_);
    return {from, static_cast<std::size_t>(at_ - from)};
  }

  void skip_word() {
    at_ = qel::end_of_value(at_, end_);
    if (at_ != end_) ++at_;
  }

  audit_ctx& ctx_;
  const char* at_;
  const char* const end_;
  OddFields whole_{read_whole};
  OddFields announced_{read_announced};
  OddFields pieces_{read_piece_name};
};

}  // namespace

bool add_execve_args(audit_ctx& ctx, std::string_view text) {
  return ArgumentReader(ctx, text).read();
}

void free_args(char** argv, std::int32_t argc) {
  if (argv == nullptr) return;
  for (std::int32_t i = 0; i < argc; ++i) std::free(argv[i]);
  if (room_of(argv) > room_of(spare_array)) std::swap(argv, spare_array);
  std::free(argv);
}

void free_spare_args() {
  std::free(std::exchange(spare_array, nullptr));
}

void complete_execve_args(audit_ctx& ctx) {
  for (std::int32_t i = std::max(ctx.arg_index, 0); i < ctx.argc; ++i) {
    std::free(ctx.argv[i]);
    ctx.argv[i] = empty_text();
  }
}
