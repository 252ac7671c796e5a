// Category 5, the common commands (raw DIAG commands, card status, SAR index, eSIM test), and
// category 6, raw requests of the extension service. Command thread.
#pragma once

// The numbers that users type: decimal, or hexadecimal behind "0x" or "0X". Null and hexadecimal
// numbers of more than 50 digits are reported and read as 0.
int tervik_string_to_int(const char* text);
// Hexadecimal digits without prefix; any other character counts as digit 0. Exact up to 7 digits;
// each digit's share of a longer number is cut to 2147483647.
int tervik_hex_string_to_int(const char* digits);

// The handler of category 5. Returns 0.
int tervik_test_cmn_do(int argc, char** argv);
// Prints the help block of category 5 when `category` is 0 or 5.
void tervik_test_cmn_show_help(int category);
// The rows of its commands.
extern const struct command_category TERVIK_CMN_CATEGORY;

// The commands of category 5: 0, TERVIK_ERR_INVALID_INPUT for a wrong number of arguments, or the
// code of the failed operation. A command that the modem itself refuses is in the log alone. Of the
// hot-swap test the category has checked that there is an argument.
[[nodiscard]] int tervik_cmn_diag_cmd_send(int argc, char** argv);
[[nodiscard]] int tervik_cmn_card_status_query(int argc, char** argv);
[[nodiscard]] int tervik_cmn_card_status_get(int argc, char** argv);
[[nodiscard]] int tervik_cmn_card_status_set(int argc, char** argv);
[[nodiscard]] int tervik_cmn_card_type_query(int argc, char** argv);
[[nodiscard]] int tervik_cmn_card_hotswap_test(int argc, char** argv);
void tervik_cmn_test_get_sar_dsi();
[[nodiscard]] int tervik_cmn_test_set_sar_dsi(int dsi);
void tervik_cmn_test_get_device_state();

// Sends common message `type` with `len` bytes of data (none when that is not 1 to 491) and prints
// the answer. The result of the extension client.
[[nodiscard]] int tervik_cmn_cmd_send(int type, unsigned int len, const char* data);
// Sends `param_cnt` parameters, from argv[3] on, as 32-bit words: as 0 or 1, or as typed.
[[nodiscard]] int tervik_cmn_card_status_cmd(int type, int param_cnt, int argc, char** argv);
[[nodiscard]] int tervik_cmn_card_status_cmd_ex(int type, int param_cnt, int argc, char** argv);

// The handler of category 6. Returns 0.
int tervik_test_qmi_send_data_do(int argc, char** argv);
// Prints the help block of category 6 when `category` is 0 or 6.
void tervik_test_qmi_send_data_show_help(int category);
// The rows of its commands.
extern const struct command_category TERVIK_QMI_SEND_CATEGORY;
