// What all command categories share: the checks of the argument vector, the dispatch by command
// number, and the printing of help blocks. Called by the category handlers on the command's own
// thread. The argument vector is untrusted; numbers are decimal (atoi) unless a category says
// otherwise.
#pragma once

#include <initializer_list>
#include <span>

#include "tervik_extend_api.h"
#include "tervik_utils_cmn.h"

// Prints the help between its banners: every category's block for 0, else the block of one
// category alone.
void show_help(int category);

// One command of a category: its number (the second argument) and the function that runs it with
// the whole argument vector. The function returns 0 or an error code.
struct category_command {
  int number;
  int (*run)(int argc, char** argv);
};

// Checks that a command number is there and that the category is the handler's own; argc must be at
// least `argc_min`. On failure prints the note in the handler's name, then the category's help.
[[nodiscard]] bool tervik_check_category_args(const tervik_log_place& place, int category, int argc,
                                              char** argv, int argc_min = 3);

// The note that several categories print by themselves.
inline constexpr const char* NOTE_TOO_FEW_PARAMETERS =
    "note: Too few parameters, Pls refer to the following cmd:";

// A category's whole run: checks the arguments, finds the command by its number and runs it; each
// failure prints its note in the handler's name, then the category's help. Returns 0.
int tervik_run_category(const tervik_log_place& place, int category,
                        std::span<const category_command> commands, int argc, char** argv);

// A command's own check: exactly `argc_wanted` arguments, else an error note in the command's name.
[[nodiscard]] bool tervik_check_argc(const tervik_log_place& place, int argc, int argc_wanted);

// Prints bytes in a command's name: each " XX" on a line of its own, then an empty line.
void tervik_print_byte_lines(const tervik_log_place& place, uint32_t log_class, uint32_t sub,
                             std::span<const uint8_t> bytes);

// One line of a help block: a text whose "%d" fields take the numbers. A row whose fields and
// numbers do not match does not compile.
class help_line {
 public:
  consteval help_line(const char* text, std::initializer_list<int> numbers = {}) : text_(text) {
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

// Prints a category's block when `wanted` (the argument of show_help) is 0 or the category.
void tervik_print_help_block(const tervik_log_place& place, int category, int wanted,
                             std::span<const help_line> lines);
