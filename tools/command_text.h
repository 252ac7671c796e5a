// What docs/commands.md says of a command, for the shell.
#pragma once

#include <string>
#include <vector>

// The list of the categories for no words, a category's section for one, and the rows of a command
// for two. Empty when there is nothing of that number.
std::string command_text(const std::vector<std::string>& words);
