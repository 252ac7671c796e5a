// Category 11: provoke and observe modem failure handling. Command thread.
#pragma once

// The handler of category 11. Returns 0.
int tervik_smart_test_do(int argc, char** argv);
// Prints the help block of category 11 when `category` is 0 or 11.
void tervik_smart_test_show_help(int category);
