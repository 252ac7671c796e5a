#include "tervik_kiv_test_args.h"

#include <charconv>
#include <cstdlib>

namespace {

void log_error(const tervik_log_place& place, const char* text) {
  tervik_log_write(place, LOG_CLASS_ERROR, TERVIK_NO_SUB, "%s", text);
}

// Runs a command whose line is as it wants it. Its result, or the rule's error code.
int run_command(const tervik_log_place& place, const category_command& command, int argc,
                char** argv) {
  tervik_log_place own = place;
  own.func = command.name;
  if (command.is_announced) {
    tervik_log_write(own, LOG_CLASS_NOTICE, command.sub, "%s", command.name);
  }
  return tervik_check_arguments(own, command.sub, command.arguments, argc, argv)
             ? command.run(argc, argv)
             : command.arguments.error_code;
}

// False when the category has no command of that number, or when the command failed; the note is
// logged then.
bool find_and_run(const tervik_log_place& place, const command_category& category, int argc,
                  char** argv) {
  const int number = atoi(argv[2]);
  const category_command* const command =
      find_row(category.commands, &category_command::number, number);
  if (command == nullptr) {
    if (category.number_name == nullptr) {
      log_error(place, "note: the second parameters is invalid, Pls refer to the following cmd:");
    } else {
      tervik_log_write(place, LOG_CLASS_ERROR, TERVIK_NO_SUB, "invalid %s = %d",
                       category.number_name, number);
    }
    return false;
  }
  const int result = run_command(place, *command, argc, argv);
  if (result != 0 && command->failure != nullptr) {
    log_error(place, command->failure);
  } else if (result != 0 && category.tells_error_codes) {
    tervik_log_write(place, LOG_CLASS_ERROR, TERVIK_NO_SUB, "note: Error happen! error_code(%d)",
                     result);
  }
  return result == 0;
}

}  // namespace

bool tervik_check_arguments(const tervik_log_place& place, uint32_t sub, const argument_rule& rule,
                            int argc, char** argv) {
  if (argc < rule.words_min || argc > rule.words_max) {
    char note[TERVIK_TEXT_SIZE];
    rule.note.render(note);
    tervik_log_write(place, rule.note_class, sub, "%s", note);
    return false;
  }
  const int value = rule.takes_switch ? atoi(argv[3]) : 0;
  if (value != 0 && value != 1) {
    tervik_log_write(place, LOG_CLASS_ERROR, sub, "note: opt(%d) is invalid:", value);
    return false;
  }
  return true;
}

bool tervik_check_category_args(const tervik_log_place& place, int category, int argc, char** argv,
                                int words_min) {
  if (argc < words_min) {
    log_error(place, NOTE_TOO_FEW_PARAMETERS);
  } else if (atoi(argv[1]) != category) {
    tervik_log_write(
        place, LOG_CLASS_ERROR, TERVIK_NO_SUB,
        "note: the first parameters should be %d, Pls refer to the following cmd:", category);
  } else {
    return true;
  }
  show_help(category);
  return false;
}

void tervik_run_category(const tervik_log_place& place, const command_category& category, int argc,
                         char** argv) {
  if (tervik_check_category_args(place, category.number, argc, argv, category.words_min) &&
      !find_and_run(place, category, argc, argv)) {
    show_help(category.number);
  }
}

void tervik_print_byte_lines(const tervik_log_place& place, uint32_t log_class, uint32_t sub,
                             std::span<const uint8_t> bytes) {
  for (const uint8_t byte : bytes) {
    tervik_log_write(place, log_class, sub, " %02X", byte);
  }
  tervik_log_write(place, log_class, sub, "%s", "");
}

void text_line::render(std::span<char> out) const {
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
                             std::span<const text_line> lines) {
  if (wanted != 0 && wanted != category) {
    return;
  }
  for (const text_line& line : lines) {
    char text[TERVIK_TEXT_SIZE];
    line.render(text);
    tervik_log_write(place, LOG_CLASS_HELP, TERVIK_NO_SUB, "%s", text);
  }
}
