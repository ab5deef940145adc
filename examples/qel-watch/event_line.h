// Events as lines, without the line feed.
#pragma once

#include <string>

#include "event_fields.h"

// For people: the class's name, then name=value in columns; all bytes from outside as quote_word
// gives them.
std::string text_line(const char* class_name, const Fields& fields);

// One JSON object, "class" first; all bytes from outside as escape_bytes gives them.
std::string json_line(const char* class_name, const Fields& fields);
