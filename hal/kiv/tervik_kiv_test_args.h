// What all command categories share: the rows that describe commands, the dispatch by command
// number with the checks of the argument vector, and the printing of help blocks. Called by the
// category handlers on the command's own thread. The argument vector is untrusted; numbers are
// decimal (atoi) unless a category says otherwise.
#pragma once

#include <climits>
#include <cstdlib>
#include <initializer_list>
#include <span>
#include <type_traits>

#include "tervik_extend_api.h"
#include "tervik_utils_cmn.h"

// Prints the help between its banners: every category's block for 0, else the block of one
// category alone.
void show_help(int category);

// A line of a help block, or a note: a text whose "%d" fields take numbers that are known at
// compile time. A text whose fields and numbers do not match does not compile.
class text_line {
 public:
  consteval text_line(const char* text, std::initializer_list<int> numbers = {}) : text_(text) {
    for (const int number : numbers) {
      numbers_[count_++] = number;
    }
    if (count_fields(text) != count_) {
      numbers_do_not_match_fields();
    }
  }
  // Writes the text with its numbers into `out`, cut to fit.
  void render(std::span<char> out) const;

 private:
  // Not constexpr: reaching one of them ends the compilation of a wrong row.
  static void numbers_do_not_match_fields();
  static void field_is_not_an_integer();

  static consteval size_t count_fields(const char* text) {
    size_t fields = 0;
    for (; *text != '\0'; ++text) {
      if (*text == '%') {
        if (text[1] != 'd') {
          field_is_not_an_integer();
        }
        ++fields;
      }
    }
    return fields;
  }

  const char* text_;
  int numbers_[2] = {};
  size_t count_ = 0;
};

// ---- commands ----

// The note that several categories print by themselves.
inline constexpr const char* NOTE_TOO_FEW_PARAMETERS =
    "note: Too few parameters, Pls refer to the following cmd:";

// What a command wants of its line. Anything else gives the note, and the command is not run.
struct argument_rule {
  int words_min = 0;  // of the line, "kiv" included
  int words_max = INT_MAX;
  text_line note = "";
  int error_code = TERVIK_ERR_INVALID_INPUT;  // that a command ends with which is not run
  uint32_t note_class = LOG_CLASS_ERROR;
  bool takes_switch = false;  // the fourth word is 0 or 1
};

consteval argument_rule exactly_words(int words) {
  return {.words_min = words,
          .words_max = words,
          .note = {"note: need %d inputs, Pls refer to the following cmd:", {words}}};
}

consteval argument_rule at_least_words(int words, text_line note) {
  return {.words_min = words, .note = note};
}

// True when the line is as the rule wants it; else logs the note in the place's name.
[[nodiscard]] bool tervik_check_arguments(const tervik_log_place& place, uint32_t sub,
                                          const argument_rule& rule, int argc, char** argv);

// One command of a category.
struct category_command {
  int number = 0;              // the third word of the line
  const char* name = nullptr;  // the function that note and announcement are logged under
  // Gets the whole line; returns 0 or an error code.
  int (*run)(int argc, char** argv) = nullptr;
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
// nothing, and returns an error code or nothing.
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

struct command_category {
  int number = 0;
  std::span<const category_command> commands;
  int words_min = 3;                  // of any line
  const char* number_name = nullptr;  // what the note about an unknown number calls the number
  bool tells_error_codes = true;      // of commands that failed and have no note of their own
};

// Checks that the line has at least `words_min` words and that the category is the handler's own.
// On failure prints the note in the handler's name, then the category's help.
[[nodiscard]] bool tervik_check_category_args(const tervik_log_place& place, int category, int argc,
                                              char** argv, int words_min = 3);

// A category's whole run: checks the line, finds the command by its number and runs it; each
// failure prints its note, then the category's help. `place` is in the category's handler.
void tervik_run_category(const tervik_log_place& place, const command_category& category, int argc,
                         char** argv);

// ---- output ----

// Prints bytes in a command's name: each " XX" on a line of its own, then an empty line.
void tervik_print_byte_lines(const tervik_log_place& place, uint32_t log_class, uint32_t sub,
                             std::span<const uint8_t> bytes);

// Prints a category's block when `wanted` (the argument of show_help) is 0 or the category.
void tervik_print_help_block(const tervik_log_place& place, int category, int wanted,
                             std::span<const text_line> lines);
