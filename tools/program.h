// What the programs beside kiv share: their streams, their ends and the writing of texts.
#pragma once

#include <string>
#include <string_view>

// Begins a program of this name: a closed stream becomes one that delivers nothing, and a reader
// that goes away does not end the program.
void prepare_program(const char* name);

// Ends it with the reason on standard error; of a file, with the reason that errno has.
[[noreturn]] void end_program(int status, const std::string& why);
[[noreturn]] void end_for_file(int status, const char* file);

// Opens a file for writing, O_APPEND or O_EXCL; ends the program with status 2 when that fails.
int open_file(const char* name, int how);

// False when not all of the text could be delivered.
[[nodiscard]] bool write_all(int fd, std::string_view text);

// The whole text as a number of seconds above 0; 0 when it is none.
double seconds_of(const char* text);

// As 2026-01-31T12:00:00.000, local time.
std::string time_now();

// The word as a shell reads it back.
std::string shell_word(std::string_view word);

// The text as a JSON string. A byte that is not printable ASCII is written as \u00XX, because an
// answer of a modem is bytes and not UTF-8. (A library for JSON would be one more thing that a
// build for a handset needs.)
std::string json_string(std::string_view text);
