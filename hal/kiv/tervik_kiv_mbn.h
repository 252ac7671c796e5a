// Category 10: refresh and reactivation of the modem's configuration files. Command thread.
#pragma once

// The handler of category 10.
void tervik_test_mbn_do(int argc, char** argv);
// Prints the help block of category 10 when `category` is 0 or 10.
void tervik_test_mbn_show_help(int category);
// The rows of its commands.
extern const struct command_category TERVIK_MBN_CATEGORY;
