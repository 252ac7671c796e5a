#include "tervik_kiv_argument_check.h"

#include <charconv>
#include <string_view>

#include "tervik_kiv_test_main.h"

namespace {

// The whole text as a number of the base; false when it is none.
template <typename Number>
bool read_number(std::string_view text, int base, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return error == std::errc() && end == text.data() + text.size();
}

bool is_number_of(const command_argument& argument, std::string_view text) {
  const bool hex =
      argument.kind != argument_kind::DECIMAL && (text.starts_with("0x") || text.starts_with("0X"));
  const bool octal = argument.kind == argument_kind::C_NUMBER && text.starts_with('0') && !hex;
  const bool negative = text.starts_with('-');
  text.remove_prefix(hex ? 2 : negative ? 1 : 0);
  uint64_t number = 0;
  if (!read_number(text, hex ? 16 : octal ? 8 : 10, number)) {
    return false;
  }
  return negative ? argument.min < 0 && number <= static_cast<uint64_t>(-argument.min)
                  : number <= argument.max &&
                        (argument.min <= 0 || number >= static_cast<uint64_t>(argument.min));
}

bool is_as_wanted(const command_argument& argument, const std::string& word) {
  if (argument.kind == argument_kind::TEXT) {
    return word.size() >= static_cast<size_t>(argument.min) && word.size() <= argument.max;
  }
  return argument.kind == argument_kind::UNUSED || is_number_of(argument, word);
}

std::string wanted(const command_argument& argument) {
  const std::string range = std::to_string(argument.min) + " to " + std::to_string(argument.max);
  switch (argument.kind) {
    case argument_kind::TEXT:
      return "a text of " + range + " bytes";
    case argument_kind::HEX_OR_DECIMAL:
      return "a number, " + range + ", decimal or behind 0x";
    case argument_kind::C_NUMBER:
      return "a number, " + range + ", decimal, 0x... or octal 0...";
    default:
      return "a decimal number, " + range;
  }
}

// The words from `next` on against the arguments of one command.
std::string wrong_with(const category_command& command, const std::string& start,
                       const std::vector<std::string>& words, size_t next) {
  for (const command_argument& argument : command.takes) {
    for (int i = 0; argument.name != nullptr && i < argument.words_max; ++i, ++next) {
      if (next == words.size()) {
        return i >= argument.words_min
                   ? ""
                   : start + ": " + argument.name + " is missing; wanted is " + wanted(argument);
      }
      if (!is_as_wanted(argument, words[next])) {
        return start + ": " + argument.name + " is \"" + words[next] + "\"; wanted is " +
               wanted(argument);
      }
    }
  }
  return next == words.size() ? "" : start + ": \"" + words[next] + "\" is one word too many";
}

// Of a line whose second word names no command of the category.
std::string no_command(const command_category& category, const std::vector<std::string>& words) {
  std::string wrong = words[0] + ": ";
  wrong += words.size() < 2 ? "the command's number is missing" : "no command \"" + words[1] + '"';
  const char* separator = "; wanted is ";
  for (const category_command& command : category.commands) {
    wrong += separator + std::to_string(command.number);
    separator = ", ";
  }
  return wrong;
}

}  // namespace

std::string tervik_kiv_what_is_wrong(const std::vector<std::string>& words) {
  constexpr int NOTHING_TO_CHECK = 2;  // up to this one, categories do nothing
  std::string no_category = "no category \"" + words.at(0) + "\"; wanted is 3 to 12";
  int number = 0;
  if (!read_number(words[0], 10, number)) {
    return no_category;
  }
  for (const command_category* category : tervik_kiv_categories()) {
    if (category->number != number || number <= NOTHING_TO_CHECK) {
      continue;
    }
    const category_command& only = category->commands[0];
    if (only.number == NO_COMMAND_NUMBER) {
      return wrong_with(only, words[0], words, 1);
    }
    int command_number = -1;
    const category_command* const command =
        words.size() > 1 && read_number(words[1], 10, command_number)
            ? find_row(category->commands, &category_command::number, command_number)
            : nullptr;
    return command == nullptr ? no_command(*category, words)
                              : wrong_with(*command, words[0] + ' ' + words[1], words, 2);
  }
  return number == 1 || number == NOTHING_TO_CHECK ? "" : no_category;
}
