// Category 5, the common commands (raw DIAG commands, card status, SAR index, eSIM test), and
// category 6, raw requests of the extension service. Command thread.
#pragma once

#include <cstdint>

// The numbers that users type: decimal, or hexadecimal behind "0x" or "0X". Null and hexadecimal
// numbers of more than 50 digits are reported and read as 0.
int tervik_string_to_int(const char* text);
// Hexadecimal digits without prefix; any other character counts as digit 0. Exact up to 7 digits;
// each digit's share of a longer number is cut to 2147483647.
int tervik_hex_string_to_int(const char* digits);
// Writes two lower-case hexadecimal characters per byte into `out`, which holds 2 * len characters;
// no terminating NUL. A null `in` or a `len` below 1 writes nothing.
void tervik_byte_to_hex(const uint8_t* in, int len, char* out);

// The handler of category 5. Returns 0.
int tervik_test_cmn_do(int argc, char** argv);
// Prints the help block of category 5 when `category` is 0 or 5.
void tervik_test_cmn_show_help(int category);

// The handler of category 6. Returns 0.
int tervik_test_qmi_send_data_do(int argc, char** argv);
// Prints the help block of category 6 when `category` is 0 or 6.
void tervik_test_qmi_send_data_show_help(int category);
