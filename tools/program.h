// What the programs beside kiv share: their streams and the writing of texts.
#pragma once

#include <string>
#include <string_view>

// Begins a program: a closed stream becomes one that delivers nothing, and a reader that goes away
// does not end the program.
void prepare_program();

// Prints a text on standard output; false when it could not be delivered.
[[nodiscard]] bool print(std::string_view text);

// Writes all of the text; false when that fails.
[[nodiscard]] bool write_all(int fd, std::string_view text);

// The whole text as a number of seconds above 0; 0 when it is none.
double seconds_of(const char* text);

// The word as a shell reads it back.
std::string shell_word(std::string_view word);

// The text as a JSON string. In a text that has a byte which is not printable ASCII, such a byte is
// written as \u00XX, because an answer of a modem is bytes and not UTF-8.
std::string json_string(std::string_view text);
