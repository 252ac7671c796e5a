// What docs/commands.md says of a command, and docs/meaning.md of an error code. Both documents are
// part of the programs.
#pragma once

#include <string>
#include <vector>

// The list of the categories for no words, a category's section for one, and the rows of a command
// for two. Empty when there is nothing of that number.
std::string command_text(const std::vector<std::string>& words);

// What is known of the error code of a command, in words: its name, cause and remedy; all empty
// when it is not in the table.
struct error_meaning {
  std::string name;
  std::string cause;
  std::string remedy;
};
error_meaning meaning_of(int code, const std::string& category, const std::string& command);
