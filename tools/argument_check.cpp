#include "argument_check.h"

#include <charconv>
#include <string_view>

#include "tervik_kiv_test_main.h"

namespace {

// The whole text as a number of the base, which may be signed; false when it is none.
template <typename Number>
bool read_number(std::string_view text, int base, Number& number) {
  const std::from_chars_result read =
      std::from_chars(text.data(), text.data() + text.size(), number, base);
  return !text.empty() && read.ec == std::errc() && read.ptr == text.data() + text.size();
}

bool is_in_range(const command_argument& argument, std::string_view text, int base) {
  int64_t negative = 0;
  uint64_t number = 0;
  if (text.starts_with('-')) {
    return base == 10 && read_number(text, base, negative) && negative >= argument.min;
  }
  return read_number(text, base, number) && number <= argument.max &&
         (argument.min <= 0 || number >= static_cast<uint64_t>(argument.min));
}

bool is_as_wanted(const command_argument& argument, const std::string& word) {
  const std::string_view text = word;
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  switch (argument.kind) {
    case argument_kind::UNUSED:
      return true;
    case argument_kind::TEXT:
      return word.size() >= static_cast<size_t>(argument.min) && word.size() <= argument.max;
    case argument_kind::DECIMAL:
      return is_in_range(argument, text, 10);
    case argument_kind::HEX_OR_DECIMAL:
      return is_in_range(argument, hex ? text.substr(2) : text, hex ? 16 : 10);
    default:
      return is_in_range(argument, hex ? text.substr(2) : text,
                         hex                                        ? 16
                         : text.size() > 1 && text.starts_with('0') ? 8
                                                                    : 10);
  }
}

std::string wanted(const command_argument& argument) {
  const std::string range = std::to_string(argument.min) + " to " + std::to_string(argument.max);
  switch (argument.kind) {
    case argument_kind::TEXT:
      return "a text of " + range + " bytes";
    case argument_kind::HEX_OR_DECIMAL:
      return "a number, " + range + ", decimal or behind 0x";
    case argument_kind::C_NUMBER:
      return "a number, " + range + ", decimal, behind 0x or octal behind 0";
    default:
      return "a decimal number, " + range;
  }
}

// The words from `next` on against the arguments of one command.
std::string wrong_with(const category_command& command, const std::string& start,
                       const std::vector<std::string>& words, size_t next) {
  for (const command_argument& argument : command.takes) {
    if (argument.name == nullptr) {
      break;
    }
    for (int count = 0; count < argument.words_max; ++count, ++next) {
      if (next == words.size()) {
        if (count < argument.words_min) {
          return start + ": " + argument.name + " is missing: " + wanted(argument);
        }
        return "";
      }
      if (!is_as_wanted(argument, words[next])) {
        return start + ": " + argument.name + " is \"" + words[next] + "\"; wanted is " +
               wanted(argument);
      }
    }
  }
  return next == words.size() ? "" : start + ": \"" + words[next] + "\" is one word too many";
}

}  // namespace

std::string what_is_wrong(const std::vector<std::string>& words) {
  int number = 0;
  if (!read_number(std::string_view(words.at(0)), 10, number)) {
    return "no category \"" + words[0] + "\"; wanted is a number";
  }
  if (number == 1 || number == 2) {
    return "";
  }
  for (const command_category* category : tervik_kiv_categories()) {
    if (category->number != number) {
      continue;
    }
    const category_command& only = category->commands[0];
    if (only.number == NO_COMMAND_NUMBER) {
      return wrong_with(only, words[0], words, 1);
    }
    int command_number = -1;
    if (words.size() < 2 || !read_number(std::string_view(words[1]), 10, command_number)) {
      return words[0] + ": the command's number is missing";
    }
    const category_command* const command =
        find_row(category->commands, &category_command::number, command_number);
    return command == nullptr ? words[0] + ": no command " + words[1]
                              : wrong_with(*command, words[0] + ' ' + words[1], words, 2);
  }
  return "no category " + words[0];
}
