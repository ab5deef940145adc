// Events as lines, without the line feed.
#pragma once

#include <string>

#include "event_fields.h"

// For people: the name of the class, then name=value in columns. Bytes from outside are shown as by
// quote_word.
std::string text_line(const char* class_name, const Fields& fields);

// One JSON object, beginning with "class". Bytes from outside are shown as by escape_bytes.
std::string json_line(const char* class_name, const Fields& fields);
