// Category 3: RF factory tests. A GPIO list for the antenna switches and a fixed Tx antenna, kept
// by the modem. Command thread.
#pragma once

// The handler of category 3. Returns 0.
int tervik_test_rf_do(int argc, char** argv);
// Prints the help block of category 3 when `category` is 0 or 3.
void tervik_test_rf_show_help(int category);
