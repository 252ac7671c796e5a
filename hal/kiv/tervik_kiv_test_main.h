// The entry of the tool: hands the argument vector to the handler of the category that the first
// argument names, and owns the combined help. Main thread.
#pragma once

#include <vector>

#include "tervik_kiv_test_args.h"

// One run of the tool with main's arguments. Always returns 0: results and errors are told by
// printed lines alone.
int tervik_kiv_test_main(int argc, char** argv);

// All categories that have commands, in the order of the help.
std::vector<const command_category*> tervik_kiv_categories();
