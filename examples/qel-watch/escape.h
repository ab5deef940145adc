// How bytes from outside are shown, the same way in lines for people and in JSON.
#pragma once

#include <string>
#include <string_view>

// Printable UTF-8 stays as it is, a backslash becomes two, and every other byte becomes \xHH: bytes
// that are not UTF-8, and those of control characters and of characters that are invisible or
// change the direction of writing. So nothing reaches a terminal that could steer it, and different
// bytes always give different texts.
std::string escape_bytes(std::string_view bytes);

// The same as one word of a line: in double quotes when it is empty or has a blank or a quotation
// mark in it, with \" for a double quote inside.
std::string quote_word(std::string_view bytes);
