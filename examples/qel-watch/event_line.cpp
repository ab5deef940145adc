#include "event_line.h"

#include <algorithm>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string_view>

#include "escape.h"

namespace {

constexpr std::size_t kClassWidth = 8;

using Json = nlohmann::ordered_json;

// Shows a value in a line for people.
struct ToText {
  std::string operator()(bool yes) const { return yes ? "yes" : "no"; }
  std::string operator()(std::int64_t number) const { return std::to_string(number); }
  std::string operator()(const std::string& bytes) const { return quote_word(bytes); }
  std::string operator()(Arguments arguments) const {
    std::string words;
    for (const char* argument : arguments) {
      if (!words.empty()) words += ' ';
      words += quote_word(argument);
    }
    return words;
  }
};

struct ToJson {
  Json operator()(bool yes) const { return yes; }
  Json operator()(std::int64_t number) const { return number; }
  Json operator()(const std::string& bytes) const { return escape_bytes(bytes); }
  Json operator()(Arguments arguments) const {
    Json array = Json::array();
    for (const char* argument : arguments) array.push_back(escape_bytes(argument));
    return array;
  }
};

bool is_empty_text(const Value& value) {
  const auto* text = std::get_if<std::string>(&value);
  return text != nullptr && text->empty();
}

bool is_for_people(const Field& field) {
  if (field.shown == Shown::kInJson) return false;
  return field.shown == Shown::kAlways || !is_empty_text(field.value);
}

// The number of UTF-8 characters, that is, of all bytes but continuation bytes.
std::size_t length_of(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
  }));
}

std::string pad(std::string text, std::size_t width) {
  const std::size_t length = length_of(text);
  if (length < width) text.append(width - length, ' ');
  return text;
}

}  // namespace

std::string text_line(const char* class_name, const Fields& fields) {
  std::string line = pad(class_name, kClassWidth);
  for (const Field& field : fields) {
    if (!is_for_people(field)) continue;
    line +=
        std::string(" ") + field.name + "=" + pad(std::visit(ToText(), field.value), field.width);
  }
  return line.substr(0, line.find_last_not_of(' ') + 1);
}

std::string json_line(const char* class_name, const Fields& fields) {
  Json object = {{"class", class_name}};
  for (const Field& field : fields) object[field.name] = std::visit(ToJson(), field.value);
  return object.dump();
}
