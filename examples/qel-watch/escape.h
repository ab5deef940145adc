// How bytes from outside are shown, in lines for people and in JSON alike.
#pragma once

#include <string>
#include <string_view>

// Printable UTF-8 stays as it is, a backslash becomes two, and every other byte becomes \xHH. Those
// are the bytes that are not UTF-8, and the bytes of control characters, of invisible characters
// and of characters that change the direction of writing. So no byte that reaches a terminal can
// control it, and different bytes always give different texts.
std::string escape_bytes(std::string_view bytes);

// The same, as one word of a line. The word is in double quotes when it is empty or contains a
// blank or a quotation mark; a double quote inside becomes \".
std::string quote_word(std::string_view bytes);
