// Category 8: one AT command, written to the modem's AT channel by a shell echo, and the channel's
// answer, read by a receiver thread. The AT text is untrusted: nothing in it reaches the shell as
// anything but text. The answer is untrusted: one read of bounded length, within bounded time.
#pragma once

#include <atomic>

// The category's handler. Returns 0.
int tervik_test_at_cmd_do(int argc, char** argv);
// Prints the help block of category 8 when `category` is 0 or 8.
void tervik_test_at_cmd_show_help(int category);
// The rows of its commands.
extern const struct command_category TERVIK_AT_CATEGORY;

// The AT channel's device.
extern const char* g_at_device_path;
// The shell that writes into the device, and how long it may take. Both are there to be replaced by
// tests.
extern const char* g_at_shell_path;
extern int g_at_shell_limit_ms;
// The open AT channel; below 1 it is not open.
extern std::atomic<int> g_at_serial_fd;

// Writes the AT text, a carriage return and a newline into the device, through the shell.
void tervik_test_at_cmd_send(const char* at_cmd);
// The receiver thread: waits for an answer, at most until 3 s after the end of the send, logs it
// and sets the done flag. `arg` points at the descriptor that is readable once the send has ended.
void* tervik_test_at_cmd_receive(void* arg);
