// What all command categories share: the rows that describe commands, the dispatch by command
// number with the checks of the argument vector, and the printing of help blocks. Called by the
// category handlers on the command's own thread. The argument vector is untrusted; numbers are
// decimal (atoi) unless a category says otherwise.
#pragma once

#include <array>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <type_traits>

#include "tervik_extend_api.h"
#include "tervik_utils_cmn.h"

// Prints the help between its banners: every category's block for 0, else the block of one
// category alone.
void show_help(int category);

// ---- commands ----

// The note that several categories print by themselves.
inline constexpr const char* NOTE_TOO_FEW_PARAMETERS =
    "note: Too few parameters, Pls refer to the following cmd:";

// What a command wants of its line. Anything else gives the note, and the command is not run.
struct argument_rule {
  int words_min = 0;  // of the line, "kiv" included
  int words_max = INT_MAX;
  const char* note = "";
  int error_code = TERVIK_ERR_INVALID_INPUT;  // that a command ends with which is not run
  uint32_t note_class = LOG_CLASS_ERROR;
  bool takes_switch = false;  // the fourth word is 0 or 1
};

consteval argument_rule at_least_words(int words, const char* note) {
  return {.words_min = words, .note = note};
}

// True when the line is as the rule wants it; else logs the note in the place's name.
[[nodiscard]] bool tervik_check_arguments(const tervik_log_place& place, uint32_t sub,
                                          const argument_rule& rule, int argc, char** argv);

enum class argument_kind : uint8_t {
  DECIMAL,
  HEX_OR_DECIMAL,  // hexadecimal behind 0x
  C_NUMBER,        // hexadecimal behind 0x, octal behind 0
  TEXT,
  UNUSED,  // is not looked at
};

// What an argument of a command means to the command: for the documents, the completion and the
// programs that check a line before a modem sees it. The command itself checks `argument_rule`.
struct command_argument {
  const char* name = nullptr;  // in the help
  int64_t min = 0;             // of a number; of a text, its bytes
  uint64_t max = 0;
  // In words, with the unit; null where the range says all. Behind "=": the values that have a
  // meaning, with commas between them.
  const char* meaning = nullptr;
  argument_kind kind = argument_kind::DECIMAL;
  int words_min = 1;  // 0: may be left out
  int words_max = 1;
};

// As many as have a name.
using command_arguments = std::array<command_argument, 4>;

template <typename... Arguments>
consteval command_arguments takes(Arguments... arguments) {
  return {arguments...};
}

consteval command_argument number(const char* name, int64_t min, uint64_t max,
                                  const char* meaning = nullptr, int words_min = 1,
                                  int words_max = 1) {
  return {name, min, max, meaning, argument_kind::DECIMAL, words_min, words_max};
}

consteval command_argument text(const char* name, int64_t min, uint64_t max,
                                const char* meaning = nullptr) {
  return {name, min, max, meaning, argument_kind::TEXT};
}

consteval command_argument bytes(const char* name, argument_kind kind, int count_max) {
  return {name, 0, UINT8_MAX, nullptr, kind, 1, count_max};
}

consteval command_argument unused(const char* name, int words_min, int words_max = 1) {
  return {name, 0, 0, nullptr, argument_kind::UNUSED, words_min, words_max};
}

// A subscription, as several categories take it.
inline constexpr command_argument SUB_ARGUMENT =
    number("sub", 0, 1, "= 0 first, 1 second subscription");

// One command of a category.
struct category_command {
  int number = 0;              // the third word of the line
  const char* name = nullptr;  // the function that note and announcement are logged under
  // Gets the whole line; returns 0 or an error code.
  int (*run)(int argc, char** argv) = nullptr;
  // What its line of the help block shows behind the usage. Further lines stand in the same column.
  const char* help = nullptr;
  command_arguments takes = {};
  argument_rule arguments = {};
  const char* failure = nullptr;  // the note when the command fails
  bool is_announced = false;  // by a notice that shows the name, before the arguments are checked
  uint32_t sub = TERVIK_NO_SUB;  // of note and announcement
};

consteval category_command announced(category_command command) {
  command.is_announced = true;
  return command;
}

// A function of the command as a row's: it takes the whole line, the number in the fourth word, or
// nothing, and returns an error code or nothing. The row of a function that takes a number says
// `words_min` 4 or more in its rule: the number is read without another check.
template <auto function>
int command_of([[maybe_unused]] int argc, [[maybe_unused]] char** argv) {
  const auto call = [&] {
    if constexpr (std::is_invocable_v<decltype(function), int, char**>) {
      return function(argc, argv);
    } else if constexpr (std::is_invocable_v<decltype(function), int>) {
      return function(atoi(argv[3]));
    } else {
      return function();
    }
  };
  if constexpr (std::is_void_v<decltype(call())>) {
    call();
    return 0;
  } else {
    return call();
  }
}

// The number of the one command of a category whose line has no word for it.
inline constexpr int NO_COMMAND_NUMBER = -1;

struct command_category {
  int number = 0;
  const char* title = nullptr;                 // of the help block
  std::span<const category_command> commands;  // in the order of the help block
  int words_min = 3;                           // of any line
  const char* number_name = nullptr;  // what the note about an unknown number calls the number
  bool tells_error_codes = true;      // of commands that failed and have no note of their own
  int help_column = 33;               // in which the comments of the help block begin
};

// Checks that the line has the words that the category wants and that it names the category. On
// failure prints the note in the handler's name, then the category's help.
[[nodiscard]] bool tervik_check_category_args(const tervik_log_place& place,
                                              const command_category& category, int argc,
                                              char** argv);

// A category's whole run: checks the line, finds the command by its number and runs it; each
// failure prints its note, then the category's help. `place` is in the category's handler.
void tervik_run_category(const tervik_log_place& place, const command_category& category, int argc,
                         char** argv);

// ---- output ----

// Prints bytes in a command's name: each " XX" on a line of its own, then an empty line.
void tervik_print_byte_lines(const tervik_log_place& place, uint32_t log_class, uint32_t sub,
                             std::span<const uint8_t> bytes);
// Writes two lower-case hexadecimal characters per byte into `out`, which holds 2 * len characters;
// no terminating NUL. A null `in` or a `len` below 1 writes nothing.
void tervik_byte_to_hex(const uint8_t* in, int len, char* out);

// Prints a category's block when `wanted` (the argument of show_help) is 0 or the category.
void tervik_print_help_block(const tervik_log_place& place, const command_category& category,
                             int wanted);
