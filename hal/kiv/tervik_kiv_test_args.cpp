#include "tervik_kiv_test_args.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

namespace {

// Prints `note` in the handler's name, then the category's help.
void print_note_and_help(const tervik_log_place& place, int category, const char* note) {
  tervik_log_write(place, LOG_CLASS_ERROR, TERVIK_NO_SUB, "%s", note);
  show_help(category);
}

// Prints the code of a command that failed, then the category's help.
void print_error_code_and_help(const tervik_log_place& place, int category, int error_code) {
  tervik_log_write(place, LOG_CLASS_ERROR, TERVIK_NO_SUB, "note: Error happen! error_code(%d)",
                   error_code);
  show_help(category);
}

}  // namespace

bool tervik_check_category_args(const tervik_log_place& place, int category, int argc, char** argv,
                                int argc_min) {
  if (argc < argc_min) {
    print_note_and_help(place, category, NOTE_TOO_FEW_PARAMETERS);
    return false;
  }
  if (atoi(argv[1]) != category) {
    tervik_log_write(
        place, LOG_CLASS_ERROR, TERVIK_NO_SUB,
        "note: the first parameters should be %d, Pls refer to the following cmd:", category);
    show_help(category);
    return false;
  }
  return true;
}

int tervik_run_category(const tervik_log_place& place, int category,
                        std::span<const category_command> commands, int argc, char** argv) {
  if (!tervik_check_category_args(place, category, argc, argv)) {
    return 0;
  }
  const auto command = std::find_if(
      commands.begin(), commands.end(),
      [number = atoi(argv[2])](const category_command& row) { return row.number == number; });
  if (command == commands.end()) {
    print_note_and_help(place, category,
                        "note: the second parameters is invalid, Pls refer to the following cmd:");
    return 0;
  }
  const int result = command->run(argc, argv);
  if (result != 0) {
    print_error_code_and_help(place, category, result);
  }
  return 0;
}

bool tervik_check_argc(const tervik_log_place& place, int argc, int argc_wanted) {
  if (argc == argc_wanted) {
    return true;
  }
  tervik_log_write(place, LOG_CLASS_ERROR, TERVIK_NO_SUB,
                   "note: need %d inputs, Pls refer to the following cmd:", argc_wanted);
  return false;
}

void tervik_print_byte_lines(const tervik_log_place& place, uint32_t log_class, uint32_t sub,
                             std::span<const uint8_t> bytes) {
  for (const uint8_t byte : bytes) {
    tervik_log_write(place, log_class, sub, " %02X", byte);
  }
  tervik_log_write(place, log_class, sub, "%s", "");
}

void help_line::render(std::span<char> out) const {
  char* to = out.data();
  char* const end = to + out.size() - 1;
  const int* number = numbers_;
  for (const char* from = text_; *from != '\0' && to != end; ++from) {
    if (*from != '%') {
      *to++ = *from;
      continue;
    }
    ++from;
    const std::to_chars_result written = std::to_chars(to, end, *number++);
    to = written.ptr;
  }
  *to = '\0';
}

void tervik_print_help_block(const tervik_log_place& place, int category, int wanted,
                             std::span<const help_line> lines) {
  if (wanted != 0 && wanted != category) {
    return;
  }
  for (const help_line& line : lines) {
    char text[TERVIK_TEXT_SIZE];
    line.render(text);
    tervik_log_write(place, LOG_CLASS_HELP, TERVIK_NO_SUB, "%s", text);
  }
}
