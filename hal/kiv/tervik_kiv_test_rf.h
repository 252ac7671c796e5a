// Category 3: RF factory tests. A list of GPIO values for the antenna switches, and the Tx fixed to
// one antenna for some bands of a radio system. The settings go to the modem by a request; it keeps
// them in two EFS files, which the get and close commands read and delete. Command thread.
#pragma once

// The category's handler. Returns 0.
int tervik_test_rf_do(int argc, char** argv);
// Prints the help block of category 3 when `category` is 0 or 3.
void tervik_test_rf_show_help(int category);
// The rows of its commands.
extern const struct command_category TERVIK_RF_CATEGORY;

// The commands: 0, TERVIK_ERR_INVALID_INPUT for a wrong number of arguments, or the result of the
// request or EFS operation.
[[nodiscard]] int tervik_gpio_test_set(int argc, char** argv);
[[nodiscard]] int tervik_gpio_test_get();
[[nodiscard]] int tervik_gpio_test_closed();
// Antenna and radio system are decimal; the 64-bit band mask is decimal, 0x hexadecimal or octal.
[[nodiscard]] int tervik_rf_tx_test_set(int argc, char** argv);
[[nodiscard]] int tervik_rf_tx_test_get();
[[nodiscard]] int tervik_rf_tx_test_closed();
