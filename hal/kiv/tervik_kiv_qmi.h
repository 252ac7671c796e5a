// Category 12: network scans. Command thread.
#pragma once

// The handler of category 12. Returns 0.
int tervik_test_qmi_do(int argc, char** argv);
// Prints the help block of category 12 when `category` is 0 or 12.
void tervik_test_qmi_show_help(int category);
