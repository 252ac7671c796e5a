#include "tervik_kiv_test_args.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tervik_utils_outcome.h"

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
  tervik_tell_outcome(result);
  if (result != 0 && command->failure != nullptr) {
    log_error(place, command->failure);
  } else if (result != 0 && category.tells_error_codes) {
    tervik_log_write(place, LOG_CLASS_ERROR, TERVIK_NO_SUB, "note: Error happen! error_code(%d)",
                     result);
  }
  return result == 0;
}

// Prints each line of `text` from the column on, the first one behind `usage`.
void print_in_column(const tervik_log_place& place, int column, std::string_view usage,
                     std::string_view text) {
  for (bool is_last = false; !is_last; usage = "") {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    tervik_log_write(place, LOG_CLASS_HELP, TERVIK_NO_SUB, "%-*.*s%.*s", line.empty() ? 0 : column,
                     static_cast<int>(usage.size()), usage.data(), static_cast<int>(line.size()),
                     line.data());
    is_last = end == text.size();
    text.remove_prefix(is_last ? end : end + 1);
  }
}

}  // namespace

bool tervik_check_arguments(const tervik_log_place& place, uint32_t sub, const argument_rule& rule,
                            int argc, char** argv) {
  if (argc < rule.words_min || argc > rule.words_max) {
    tervik_log_write(place, rule.note_class, sub, "%s", rule.note);
    return false;
  }
  const int value = rule.takes_switch ? atoi(argv[3]) : 0;
  if (value != 0 && value != 1) {
    tervik_log_write(place, LOG_CLASS_ERROR, sub, "note: opt(%d) is invalid:", value);
    return false;
  }
  return true;
}

bool tervik_check_category_args(const tervik_log_place& place, const command_category& category,
                                int argc, char** argv) {
  if (argc < category.words_min) {
    log_error(place, NOTE_TOO_FEW_PARAMETERS);
  } else if (atoi(argv[1]) != category.number) {
    tervik_log_write(place, LOG_CLASS_ERROR, TERVIK_NO_SUB,
                     "note: the first parameters should be %d, Pls refer to the following cmd:",
                     category.number);
  } else {
    return true;
  }
  show_help(category.number);
  return false;
}

void tervik_run_category(const tervik_log_place& place, const command_category& category, int argc,
                         char** argv) {
  if (tervik_check_category_args(place, category, argc, argv) &&
      !find_and_run(place, category, argc, argv)) {
    show_help(category.number);
  }
}

void tervik_print_byte_lines(const tervik_log_place& place, uint32_t log_class, uint32_t sub,
                             std::span<const uint8_t> bytes) {
  tervik_tell_bytes(place.func, bytes);
  for (const uint8_t byte : bytes) {
    tervik_log_write(place, log_class, sub, " %02X", byte);
  }
  tervik_log_write(place, log_class, sub, "%s", "");
}

void tervik_byte_to_hex(const uint8_t* in, int len, char* out) {
  constexpr char DIGITS[] = "0123456789abcdef";
  if (in == nullptr) {
    return;
  }
  for (int i = 0; i < len; ++i) {
    *out++ = DIGITS[in[i] >> 4];
    *out++ = DIGITS[in[i] & 0x0F];
  }
}

void tervik_print_help_block(const tervik_log_place& place, const command_category& category,
                             int wanted) {
  if (wanted != 0 && wanted != category.number) {
    return;
  }
  tervik_log_write(place, LOG_CLASS_HELP, TERVIK_NO_SUB, "%d: %s", category.number, category.title);
  for (const category_command& command : category.commands) {
    std::string usage = "   kiv " + std::to_string(category.number);
    if (command.number != NO_COMMAND_NUMBER) {
      usage += ' ' + std::to_string(command.number);
    }
    for (const command_argument& argument : command.takes) {
      if (argument.name != nullptr) {
        usage += ' ';
        usage += argument.name;
      }
    }
    print_in_column(place, category.help_column, usage, command.help);
  }
}
