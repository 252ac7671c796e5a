// What the programs beside kiv share: their streams, their ends and the writing of texts.
#pragma once

#include <string>
#include <string_view>

// What the exit statuses say: FAILURE is the unit's, NO_VERDICT a wrong usage or a run that could
// not be made or told.
enum exit_status : int { SUCCESS = 0, FAILURE = 1, NO_VERDICT = 2, TIMED_OUT = 124 };

// Begins a program of this name: a closed stream becomes one that delivers nothing, and a reader
// that goes away does not end the program.
void prepare_program(const char* name);

// Ends it with the reason on standard error; of a file, with the reason that errno has.
[[noreturn]] void end_program(exit_status status, const std::string& why);
[[noreturn]] void end_for_file(exit_status status, const char* file);
// With a text on standard output that the user has asked for.
[[noreturn]] void end_with(const std::string& text);

// Opens a file for writing, O_APPEND or O_EXCL; ends the program with NO_VERDICT when that fails.
int open_file(const char* name, int how);

// False when not all of the text could be delivered.
[[nodiscard]] bool write_all(int fd, std::string_view text);

// The whole text as a number of seconds above 0; 0 when it is none.
double seconds_of(const char* text);

// As 2026-01-31T12:00:00.000, local time.
std::string time_now();

// The word as a shell reads it back.
std::string shell_word(std::string_view word);
