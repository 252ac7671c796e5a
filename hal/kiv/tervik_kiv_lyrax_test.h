// Category 7: statistics records decoded from DIAG logs, and the debug block of the modem's
// statistics framework. The help function of this category has the name that one would expect for
// category 9, and the other way round. Command thread. Arguments and replies are untrusted.
#pragma once

// The handler of category 7: what went wrong was printed.
void tervik_test_modem_stats_do(int argc, char** argv);
// Prints the help block of category 7 when `category` is 0 or 7.
void tervik_test_qmi_modem_stats_show_help(int category);
// The rows of its commands.
extern const struct command_category TERVIK_MODEM_STATS_CATEGORY;

// Command 0: decodes the built-in record; `print_flag` other than 0 switches the trace on.
void tervik_test_modem_stats_parsing_process(int print_flag);
// Command 1. Fetches the debug block: type 0 checks the support status, any other prints the
// counters.
void tervik_test_modem_stats_get_debug_info_do(int type);
