// Common utilities: the log statement with its two sinks and their print masks, the process's
// identity, checked system properties, detached threads, device-state names and small text
// conversions. Every module logs through here. Any thread may call everything but the two
// device-state name functions, which return a static buffer. Property values and the text of
// /proc are untrusted: they are cut to the buffers they go to.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

// Message classes; a statement names exactly one.
inline constexpr uint32_t LOG_CLASS_ERROR = 0x08;   // failures and argument errors
inline constexpr uint32_t LOG_CLASS_NOTICE = 0x20;  // results for the operator
inline constexpr uint32_t LOG_CLASS_DEBUG = 0x80;   // traces
inline constexpr uint32_t LOG_CLASS_HELP = 0x100;   // help texts, printed without prefix

// The value of `sub` in a log statement that has no subscription at hand.
inline constexpr uint32_t TERVIK_NO_SUB = 255;

// Properties and process names pass through buffers of this size, terminating NUL included.
inline constexpr size_t TERVIK_TEXT_SIZE = 256;

// Where a log statement stands in the source, and the function that it speaks for.
struct tervik_log_place {
  const char* file;  // without its folders
  int line;
  const char* func;
};

// Superset of the classes that anybody takes; everything until both masks were loaded and as long
// as there is an observer.
extern std::atomic<uint32_t> g_tervik_log_gate;

// The classes enabled for the system log and for standard output.
extern std::atomic<uint32_t> g_tervik_logcat_print_mask;
extern std::atomic<uint32_t> g_tervik_shell_print_mask;

// Writes one statement of `log_class` to the sinks whose mask takes it. The log statement's own
// back end: call it through tervik_log_print, or with the place of another call site.
[[gnu::format(printf, 4, 5)]] void tervik_log_write(const tervik_log_place& place,
                                                    uint32_t log_class, uint32_t sub,
                                                    const char* format, ...);

// The place of the statement it stands in, under the name of the function `func`.
#define TERVIK_LOG_PLACE_AS(func) (tervik_log_place{__FILE_NAME__, __LINE__, (func)})
#define TERVIK_LOG_PLACE TERVIK_LOG_PLACE_AS(__func__)

// The log statement: tervik_log_print(class, sub, format, arguments...). The format has no line
// end. Arguments are evaluated only when a sink may take the class.
#define tervik_log_print(...) tervik_log_print_as(__func__, __VA_ARGS__)

// The log statement of a helper that speaks for the function that called it:
// tervik_log_print_as(func, class, sub, format, arguments...). The caller hands its name over as
// __func__; the line number is the statement's own.
#define tervik_log_print_as(func, log_class, sub, ...)                                \
  ((((log_class) & ~g_tervik_log_gate.load(std::memory_order_relaxed)) == 0)          \
       ? tervik_log_write(TERVIK_LOG_PLACE_AS(func), (log_class), (sub), __VA_ARGS__) \
       : static_cast<void>(0))

// A third taker of statements beside the two sinks, for a program that judges runs of the tool:
// it gets every statement, whatever the masks say, before the sinks do, on the thread that issues
// it. `text` is the formatted text. Set before there are other threads; null for none.
using tervik_log_observer = void (*)(const tervik_log_place& place, uint32_t log_class,
                                     uint32_t sub, const char* format, const char* text);
void tervik_set_log_observer(tervik_log_observer observer);

#define tervik_log_error(...) tervik_log_error_as(__func__, __VA_ARGS__)
#define tervik_log_notice(...) tervik_log_notice_as(__func__, __VA_ARGS__)
#define tervik_log_debug(...) tervik_log_debug_as(__func__, __VA_ARGS__)
#define tervik_log_help(...) tervik_log_print(LOG_CLASS_HELP, TERVIK_NO_SUB, __VA_ARGS__)

#define tervik_log_error_as(func, ...) \
  tervik_log_print_as(func, LOG_CLASS_ERROR, TERVIK_NO_SUB, __VA_ARGS__)
#define tervik_log_notice_as(func, ...) \
  tervik_log_print_as(func, LOG_CLASS_NOTICE, TERVIK_NO_SUB, __VA_ARGS__)
#define tervik_log_debug_as(func, ...) \
  tervik_log_print_as(func, LOG_CLASS_DEBUG, TERVIK_NO_SUB, __VA_ARGS__)

// The entry and exit lines of a function that traces itself; the exit line comes when the guard
// leaves its scope, so declare it before any lock.
class tervik_function_trace {
 public:
  explicit tervik_function_trace(const tervik_log_place& place, uint32_t sub = TERVIK_NO_SUB);
  ~tervik_function_trace();
  tervik_function_trace(const tervik_function_trace&) = delete;
  tervik_function_trace& operator=(const tervik_function_trace&) = delete;

 private:
  const tervik_log_place place_;
  const uint32_t sub_;
};

// True when every bit of `log_class` is in the mask; the first call merges the mask with its
// property ("persist.vendor.radio.adb_log_tk" and "persist.vendor.radio.adb_log_shell").
bool tervik_hal_get_logcat_print_flag(uint32_t log_class);
bool tervik_hal_get_shell_print_flag(uint32_t log_class);
// Replaces the shell mask.
void tervik_hal_set_shell_print_mask(uint32_t mask);
// Clears `bits` from the shell mask.
void tervik_hal_remove_shell_print_mask(uint32_t bits);
// Sets both masks to 0: from then on no log statement reaches a sink.
void tervik_hal_close_print();

// One system-log line of priority `level`; a level of 8 or more is reported and replaced by 7.
[[gnu::format(printf, 2, 3)]] void tervik_utils_syslog(int level, const char* format, ...);
// Unprefixed system-log lines of priority 3 and 7 that no mask holds back, for this module's own
// bookkeeping.
[[gnu::format(printf, 1, 2)]] void tervik_utils_syslog_err(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void tervik_utils_syslog_dbg(const char* format, ...);

// True for the two subscriptions, 0 and 1.
constexpr bool tervik_check_sub_id(uint32_t sub) {
  return sub < 2;
}

// The RIL process instance; 255 (none) for this tool.
uint32_t tervik_get_ril_process_instance_id();

// A process's identity. `p_name` is the last path component of its argv[0].
struct pid_info {
  int32_t p_id;
  char p_name[TERVIK_TEXT_SIZE];
};

// The process name, read once; empty when it could not be read.
const char* tervik_get_current_pid_name();
// Fills `*out` with the current pid and process name; a null `out` is reported.
void tervik_get_current_pid_info(pid_info* out);
// Pid and name from a cache that the first call of either fills.
uint32_t tervik_utils_get_pid_number();
const char* tervik_utils_get_pid_name();
// The run's first statement: logs the identity line and thereby loads both masks and the process
// cache before any other thread exists.
void tervik_modem_check_odm_white_list();

// Reads property `name` into `value` (TERVIK_TEXT_SIZE bytes). Returns the value's length, or -1,
// -2, -3 for a null name, value, default.
int tervik_get_property_value(const char* name, char* value, const char* default_value);
// Writes a property. Returns the result of property_set (0 success), -1 or -2 for a null name or
// value, -3 for a value of more than 92 characters.
[[nodiscard]] int tervik_set_property_value(const char* name, const char* value);
// With the property trace on, logs the property's value as it reads back.
void tervik_print_property_value(const char* name);
// The integer forms (`out` is not null); text that is not a number reads as 0. The setter returns
// as tervik_set_property_value.
[[nodiscard]] int tervik_set_property_value_to_int(const char* name, int value);
void tervik_get_property_value_from_int(const char* name, int* out, int default_value);
// The default data subscription ("persist.radio.default_data_sub"), 0 when it is not set.
int tervik_get_default_data_sub();

// Starts a detached thread. `name` is for the log alone. Returns its handle, or 0.
[[nodiscard]] pthread_t tervik_create_pthread(const char* name, void* (*start_routine)(void*),
                                              void* arg);

// "[index]NAME" of a device state and the property that holds it; null above index 22. The text
// stands in a static buffer that the next call overwrites. One thread at a time.
const char* tervik_get_device_type_string_ex(uint32_t type);
const char* tervik_get_device_state_prop_name(uint32_t type);

// Renders bytes as " %02X" groups into `out`, always terminated within `out_max` bytes; stops when
// the text plus 4 reaches `out_max`. Returns 1, or 0 for a null pointer or an `out_max` below 5.
[[nodiscard]] int tervik_get_hex_str(char* out, int out_max, const uint8_t* data, int data_len);

// The first row of an array, vector or span whose `member` equals `key`, or null.
template <typename Table, typename Member, typename Key>
constexpr auto find_row(Table& table, Member member, const Key& key) -> decltype(&table[0]) {
  for (auto& row : table) {
    if (row.*member == key) {
      return &row;
    }
  }
  return nullptr;
}

// Compares two strings and logs the outcome. Returns 0 when equal, -101 or -102 when the first or
// second is null, -103 when the lengths differ, 104 when a character differs.
[[nodiscard]] int tervik_str_cmp(const char* str1, const char* str2);
