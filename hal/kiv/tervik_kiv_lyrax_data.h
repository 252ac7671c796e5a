// Category 9: live radio statistics of the modem, one query a run, in one line. The help function
// of this category has the name that one would expect for category 7, and the other way round.
// Command thread.
#pragma once

// The handler of category 9.
void tervik_test_qmi_modem_stats_do(int argc, char** argv);
// Prints the help block of category 9 when `category` is 0 or 9.
void tervik_test_modem_stats_show_help(int category);
// The rows of its commands.
extern const struct command_category TERVIK_QMI_STATS_CATEGORY;

// Runs the query that `opt` names, on the connected statistics client.
void tervik_test_qmi_modem_stats_hdl(int opt, int sub);
