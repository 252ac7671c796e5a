// Category 7: statistics records decoded from DIAG logs, and the debug block of the modem's
// statistics framework. Its help function and the one of category 9 carry each other's names.
// Command thread.
#pragma once

// The handler of category 7. Returns 0.
int tervik_test_modem_stats_do(int argc, char** argv);
// Prints the help block of category 7 when `category` is 0 or 7.
void tervik_test_qmi_modem_stats_show_help(int category);
