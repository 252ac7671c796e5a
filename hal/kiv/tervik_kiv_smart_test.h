// Category 11: provoke and observe modem failure handling, switch the statistics and trace prints
// of both processors, read the file that the modem shares, check the timer service. Command thread;
// the timer test's callback runs on a timer thread. What the modem answers and what stands in the
// shared file is untrusted.
#pragma once

#include <atomic>
#include <csignal>
#include <cstdint>

// The category's handler.
void tervik_smart_test_do(int argc, char** argv);
// Prints the help block of category 11 when `category` is 0 or 11.
void tervik_smart_test_show_help(int category);
// The rows of its commands.
extern const struct command_category TERVIK_SMART_CATEGORY;

// The file that the modem shares with the application processor.
extern const char* g_share_memory_file_path;
// 1 while the timer test waits for its timer.
extern std::atomic<uint8_t> g_tervik_timer_running;

void tervik_smart_test_modem_ssr();
void tervik_smart_test_full_dump();
void tervik_smart_test_nv_sync();
void tervik_smart_test_modem_crash();
// `opt` 1 switches a print on, 0 off; the modem's prints take effect by an NV sync and a restart.
void tervik_smart_test_ap_lyrax_switch(int opt);
void tervik_smart_test_bp_lyrax_print_switch(int opt);
void tervik_smart_test_bp_qmi_print_switch(int opt);
void tervik_smart_test_bp_rf_print_switch(int opt);
void tervik_smart_test_share_memory();
// Maps the shared file (made when needed, and set to 100 bytes) and logs its first five bytes.
void tervik_smart_test_sh_test_read();
// Starts a timer of `timeout_s` seconds and waits for it, telling the seconds.
void tervik_smart_test_tervik_timer(int timeout_s);
// Endless by purpose: the operator ends the process.
[[noreturn]] void tervik_smart_test_dead_cycle_test();
[[noreturn]] void tervik_smart_test_dead_cycle_test_do();
// Sends test request `type` to the modem and logs the answer.
void tervik_qmi_send_modem_test_request(int type);

// The timer test's callback: `value.sival_int` is the timer. Timer thread.
void tervik_kiv_delay_timer_cb(union sigval value);
