// Category 8: one AT command to the modem's AT channel. Command thread.
#pragma once

// The handler of category 8. Returns 0.
int tervik_test_at_cmd_do(int argc, char** argv);
// Prints the help block of category 8 when `category` is 0 or 8.
void tervik_test_at_cmd_show_help(int category);
