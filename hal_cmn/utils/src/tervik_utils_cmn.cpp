#include "tervik_utils_cmn.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "cutils/properties.h"

std::atomic<uint32_t> g_tervik_log_gate{UINT32_MAX};
std::atomic<uint32_t> g_tervik_logcat_print_mask{0xFFFF};
std::atomic<uint32_t> g_tervik_shell_print_mask{0xFFFF};

namespace {

// ---- print masks ----

// The mask of one sink and the names under which its bookkeeping lines speak of it.
struct print_sink {
  std::atomic<uint32_t>& mask;
  const char* property;
  const char* sink_name;
  const char* mask_name;
  const char* merge_name;
  std::atomic<bool> loaded{false};
};

constinit print_sink g_logcat_sink{g_tervik_logcat_print_mask, "persist.vendor.radio.adb_log_tk",
                                   "logcat", "g_tervik_logcat_print_mask",
                                   "tervik_hal_set_logcat_print_mask"};
constinit print_sink g_shell_sink{g_tervik_shell_print_mask, "persist.vendor.radio.adb_log_shell",
                                  "shell", "g_tervik_shell_print_mask",
                                  "g_tervik_shell_print_mask"};

std::atomic<tervik_log_observer> g_log_observer{nullptr};

// Call sites skip a statement by one load: once both masks are merged no class outside their
// union can reach a sink.
void update_log_gate() {
  const bool merged = g_logcat_sink.loaded && g_shell_sink.loaded;
  const bool everything = !merged || g_log_observer.load() != nullptr;
  g_tervik_log_gate = everything ? UINT32_MAX : g_logcat_sink.mask | g_shell_sink.mask;
}

void merge_mask_with_property(print_sink& sink) {
  sink.loaded = true;
  char value[TERVIK_TEXT_SIZE] = {};
  property_get(sink.property, value, "65535");
  const auto merge_mask = static_cast<uint32_t>(atoi(value));
  tervik_utils_syslog_dbg("merge, old %s 0x%x, merge_mask 0x%x", sink.merge_name, sink.mask.load(),
                          merge_mask);
  sink.mask &= merge_mask;
  update_log_gate();
  tervik_utils_syslog_dbg("new %s 0x%x", sink.merge_name, sink.mask.load());
  tervik_utils_syslog_dbg("%s print is %s, %s 0x%x", sink.sink_name,
                          sink.mask != 0 ? "started" : "stoped", sink.mask_name, sink.mask.load());
}

bool sink_takes(print_sink& sink, uint32_t log_class) {
  if (!sink.loaded) {
    merge_mask_with_property(sink);
  }
  return (log_class & ~sink.mask.load()) == 0;
}

// ---- log statement ----

int priority_of(uint32_t log_class) {
  switch (log_class) {
    case LOG_CLASS_ERROR:
      return LOG_ERR;
    case LOG_CLASS_NOTICE:
      return LOG_NOTICE;
    default:
      return LOG_DEBUG;
  }
}

// A statement's text, formatted once for both sinks. Texts beyond the inner buffer move to the
// heap; without memory they are cut.
class statement_text {
 public:
  [[gnu::format(printf, 2, 0)]] statement_text(const char* format, va_list args) {
    buffer_[0] = '\0';
    va_list again;
    va_copy(again, args);
    const int needed = vsnprintf(buffer_, sizeof(buffer_), format, args);
    if (needed >= static_cast<int>(sizeof(buffer_))) {
      const size_t size = static_cast<size_t>(needed) + 1;
      heap_.reset(new (std::nothrow) char[size]);
      if (heap_ != nullptr) {
        vsnprintf(heap_.get(), size, format, again);
      }
    }
    va_end(again);
  }
  const char* c_str() const { return heap_ != nullptr ? heap_.get() : buffer_; }

 private:
  char buffer_[1024];
  std::unique_ptr<char[]> heap_;
};

void write_to_system_log(const tervik_log_place& place, uint32_t log_class, uint32_t sub,
                         const char* text) {
  const int level = priority_of(log_class);
  const uint32_t instance_id = tervik_get_ril_process_instance_id();
  const uint32_t shown_sub = tervik_check_sub_id(sub) ? sub : instance_id;
  if (tervik_check_sub_id(shown_sub)) {
    tervik_utils_syslog(level, "SUB[%d][%s:%d] %s: %s", shown_sub, place.file, place.line,
                        place.func, text);
  } else if (instance_id != TERVIK_NO_SUB) {
    tervik_utils_syslog(level, "[%s][%s:%d] %s: %s", tervik_get_current_pid_name(), place.file,
                        place.line, place.func, text);
  } else {
    tervik_utils_syslog(level, "[%s:%d] %s: %s", place.file, place.line, place.func, text);
  }
}

// ---- text ----

// Copies `from`, cut to fit and terminated.
void copy_text(char (&to)[TERVIK_TEXT_SIZE], const char* from) {
  snprintf(to, sizeof(to), "%s", from);
}

// ---- process identity ----

pid_info g_pid_info;
std::atomic<bool> g_pid_info_loaded{false};
std::atomic<bool> g_pid_name_loaded{false};

struct file_closer {
  void operator()(FILE* file) const { fclose(file); }
};
using file_guard = std::unique_ptr<FILE, file_closer>;

// argv[0] of the process, read by one fgets as far as its terminating NUL.
constexpr int CMDLINE_READ_COUNT = 254;

void format_cmdline_path(char (&path)[TERVIK_TEXT_SIZE]) {
  snprintf(path, sizeof(path), "/proc/%d/cmdline", getpid());
}

void tervik_get_name_by_pid(pid_info* p_pid_info) {
  char proc_pid_path[TERVIK_TEXT_SIZE];
  format_cmdline_path(proc_pid_path);
  tervik_log_debug("proc_pid_path: %s", proc_pid_path);
  const file_guard file(fopen(proc_pid_path, "r"));
  if (file == nullptr) {
    tervik_log_error("fopen fail");
    return;
  }
  char proc_pid_buf[TERVIK_TEXT_SIZE] = {};
  if (fgets(proc_pid_buf, CMDLINE_READ_COUNT, file.get()) == nullptr) {
    tervik_log_error("fgets fail");
    tervik_log_debug("close fp");
    return;
  }
  tervik_log_debug("proc_pid_buf: %s", proc_pid_buf);
  const char* slash = strrchr(proc_pid_buf, '/');
  if (slash == nullptr) {
    tervik_log_debug("proc_pid_buf should be name");
  }
  const char* str_pid_name = slash != nullptr ? slash + 1 : proc_pid_buf;
  tervik_log_debug("str_pid_name: %s", str_pid_name);
  copy_text(p_pid_info->p_name, str_pid_name);
  tervik_log_debug("p_pid_info->p_name: %s", p_pid_info->p_name);
  tervik_log_debug("close fp");
}

void load_pid_info() {
  if (!g_pid_info_loaded.exchange(true)) {
    tervik_get_current_pid_info(&g_pid_info);
  }
}

// ---- properties ----

constexpr int PROP_PRINT_UNREAD = 2;
std::atomic<int> g_prop_print{PROP_PRINT_UNREAD};

bool property_trace_on() {
  if (g_prop_print == PROP_PRINT_UNREAD) {
    char value[TERVIK_TEXT_SIZE] = {};
    property_get("persist.vendor.radio.print_prop", value, "1");
    g_prop_print = value[0] == '1' ? 1 : 0;
    tervik_utils_syslog_dbg("prop print is %s", g_prop_print == 1 ? "started" : "stoped");
  }
  return g_prop_print == 1;
}

// ---- device states ----

constexpr std::array<const char*, 23> DEVICE_STATE_NAMES = {
    "WIFI_STATE",
    "HOTSPOT_STATE",
    "MODEM_STATE",
    "SAR_SENSOR_STATE",
    "HALL_SENSOR_STATE",
    "AUDIO_RECEIVER_STATE",
    "MCC_STATE",
    "BLUETOOTH_PAN_STATE",
    "BLUETOOTH_STATE",
    "SAR_SENSOR2_STATE",
    "CABLE_STATE",
    "USB_STATE",
    "USE_CASE_TEST",
    "RADIOPOWER_STATE",
    "SIMCARD_STATE",
    "SMART_TX_STATE",
    "WHITE_LIST_STATE",
    "GPD_SENSOR_STATE",
    "GRAVITY_Y_AXES_STATE",
    "NTN_RADIO_POWER_STATE",
    "HALL_SENSOR2_STATE",
    "SAR_SENSOR2_ONE_TYPE",
    "SAR_SENSOR3_STATE",
};

}  // namespace

// ---- print masks ----

bool tervik_hal_get_logcat_print_flag(uint32_t log_class) {
  return sink_takes(g_logcat_sink, log_class);
}

bool tervik_hal_get_shell_print_flag(uint32_t log_class) {
  return sink_takes(g_shell_sink, log_class);
}

void tervik_hal_set_shell_print_mask(uint32_t mask) {
  tervik_utils_syslog_dbg("set, old g_tervik_shell_print_mask 0x%x, dst_mask 0x%x",
                          g_tervik_shell_print_mask.load(), mask);
  g_tervik_shell_print_mask = mask;
  update_log_gate();
  tervik_utils_syslog_dbg("new g_tervik_shell_print_mask 0x%x", g_tervik_shell_print_mask.load());
}

void tervik_hal_remove_shell_print_mask(uint32_t bits) {
  tervik_utils_syslog_dbg("remove, old g_tervik_shell_print_mask 0x%x, rm_mask 0x%x",
                          g_tervik_shell_print_mask.load(), bits);
  g_tervik_shell_print_mask &= ~bits;
  update_log_gate();
  tervik_utils_syslog_dbg("new g_tervik_shell_print_mask 0x%x", g_tervik_shell_print_mask.load());
}

void tervik_hal_close_print() {
  tervik_utils_syslog_dbg("close, g_tervik_logcat_print_mask 0x%x",
                          g_tervik_logcat_print_mask.load());
  tervik_utils_syslog_dbg("close, g_tervik_shell_print_mask 0x%x",
                          g_tervik_shell_print_mask.load());
  g_tervik_logcat_print_mask = 0;
  g_tervik_shell_print_mask = 0;
  update_log_gate();
}

// ---- log statement ----

void tervik_log_write(const tervik_log_place& place, uint32_t log_class, uint32_t sub,
                      const char* format, ...) {
  if ((log_class & ~g_tervik_log_gate) != 0) {
    return;
  }
  va_list args;
  va_start(args, format);
  const statement_text text(format, args);
  va_end(args);
  if (const tervik_log_observer observer = g_log_observer) {
    observer(place, log_class, sub, format, text.c_str());
  }
  if (tervik_hal_get_logcat_print_flag(log_class)) {
    write_to_system_log(place, log_class, sub, text.c_str());
  }
  if (tervik_hal_get_shell_print_flag(log_class)) {
    if (log_class == LOG_CLASS_HELP) {
      puts(text.c_str());
    } else {
      printf("RIL[%s:%d] %s: %s\n", place.file, place.line, place.func, text.c_str());
    }
  }
}

void tervik_set_log_observer(tervik_log_observer observer) {
  g_log_observer = observer;
  update_log_gate();
}

tervik_function_trace::tervik_function_trace(const tervik_log_place& place, uint32_t sub)
    : place_(place), sub_(sub) {
  tervik_log_write(place_, LOG_CLASS_DEBUG, sub_, "function entry ------------->");
}

tervik_function_trace::~tervik_function_trace() {
  tervik_log_write(place_, LOG_CLASS_DEBUG, sub_, "function exit <-------------");
}

void tervik_utils_syslog(int level, const char* format, ...) {
  if (level > LOG_DEBUG) {
    tervik_utils_syslog_dbg("invalid tk_log_tag, tk_log_tag %d", level);
    level = LOG_DEBUG;
  }
  va_list args;
  va_start(args, format);
  vsyslog(level, format, args);
  va_end(args);
}

void tervik_utils_syslog_err(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsyslog(LOG_ERR, format, args);
  va_end(args);
}

void tervik_utils_syslog_dbg(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsyslog(LOG_DEBUG, format, args);
  va_end(args);
}

// ---- process identity ----

uint32_t tervik_get_ril_process_instance_id() {
  return TERVIK_NO_SUB;
}

const char* tervik_get_current_pid_name() {
  // Set before the attempt: the lines below may themselves want the name for their prefix.
  if (g_pid_name_loaded.exchange(true)) {
    return g_pid_info.p_name;
  }
  char proc_pid_path[TERVIK_TEXT_SIZE];
  format_cmdline_path(proc_pid_path);
  const file_guard file(fopen(proc_pid_path, "r"));
  if (file == nullptr) {
    tervik_log_error("fopen fail");
    return g_pid_info.p_name;
  }
  char proc_pid_buf[TERVIK_TEXT_SIZE] = {};
  if (fgets(proc_pid_buf, CMDLINE_READ_COUNT, file.get()) == nullptr) {
    tervik_log_error("tervik_get_current_pid_name, fgets fail");
    return g_pid_info.p_name;
  }
  tervik_log_debug("tervik_get_current_pid_name, proc_pid_buf = %s", proc_pid_buf);
  const char* slash = strrchr(proc_pid_buf, '/');
  if (slash == nullptr) {
    tervik_log_error("tervik_get_current_pid_name, proc_pid_buf should be name");
  }
  const char* str_pid_name = slash != nullptr ? slash + 1 : proc_pid_buf;
  tervik_log_debug("tervik_get_current_pid_name, str_pid_name: %s", str_pid_name);
  copy_text(g_pid_info.p_name, str_pid_name);
  tervik_log_debug("tervik_get_current_pid_name, g_pid_info.p_name = %s", g_pid_info.p_name);
  return g_pid_info.p_name;
}

void tervik_get_current_pid_info(pid_info* out) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  if (out == nullptr) {
    tervik_log_error("p_pid_info is NULL");
    return;
  }
  *out = {};
  out->p_id = getpid();
  tervik_get_name_by_pid(out);
  tervik_log_debug("p_id: %d, p_name: %s", out->p_id, out->p_name);
}

uint32_t tervik_utils_get_pid_number() {
  load_pid_info();
  return static_cast<uint32_t>(g_pid_info.p_id);
}

const char* tervik_utils_get_pid_name() {
  load_pid_info();
  return g_pid_info.p_name;
}

void tervik_modem_check_odm_white_list() {
  constexpr int TERVIK_MANUFACTURER_ID_TERVIK = 1;
  const uint32_t p_id = tervik_utils_get_pid_number();
  const char* p_name = tervik_utils_get_pid_name();
  tervik_log_debug(
      "TERVIK_MANUFACTURER_ID is TERVIK_MANUFACTURER_ID_TERVIK(%d), p_id: %d, p_name: %s",
      TERVIK_MANUFACTURER_ID_TERVIK, p_id, p_name);
}

// ---- properties ----

int tervik_get_property_value(const char* name, char* value, const char* default_value) {
  if (name == nullptr) {
    tervik_log_error("property_name is null");
    return -1;
  }
  if (value == nullptr) {
    tervik_log_error("property_value is null");
    return -2;
  }
  if (default_value == nullptr) {
    tervik_log_error("default_property_value is null");
    return -3;
  }
  char name_buf[TERVIK_TEXT_SIZE];
  copy_text(name_buf, name);
  const int ret = property_get(name_buf, value, default_value);
  if (property_trace_on()) {
    tervik_log_debug("%s: %s, ret = %d", name_buf, value, ret);
  }
  return ret;
}

int tervik_set_property_value(const char* name, const char* value) {
  if (name == nullptr) {
    tervik_log_error("property_name is null");
    return -1;
  }
  if (value == nullptr) {
    tervik_log_error("property_value is null");
    return -2;
  }
  const size_t length = strlen(value);
  if (length >= PROPERTY_VALUE_MAX) {
    tervik_log_error("property_value len(%u) is out of range(%d)", static_cast<unsigned>(length),
                     PROPERTY_VALUE_MAX - 1);
    return -3;
  }
  char name_buf[TERVIK_TEXT_SIZE];
  copy_text(name_buf, name);
  const int ret = property_set(name_buf, value);
  if (property_trace_on()) {
    tervik_log_debug("%s: %s, ret = %d", name_buf, value, ret);
  }
  tervik_print_property_value(name);
  return ret;
}

void tervik_print_property_value(const char* name) {
  if (!property_trace_on()) {
    return;
  }
  if (name == nullptr) {
    tervik_log_error("property_name is null");
    return;
  }
  char name_buf[TERVIK_TEXT_SIZE];
  copy_text(name_buf, name);
  char value[TERVIK_TEXT_SIZE] = {};
  const int ret = property_get(name_buf, value, "null_val");
  tervik_log_debug("%s: %s, ret = %d", name_buf, value, ret);
}

int tervik_set_property_value_to_int(const char* name, int value) {
  char text[TERVIK_TEXT_SIZE];
  snprintf(text, sizeof(text), "%d", value);
  return tervik_set_property_value(name, text);
}

void tervik_get_property_value_from_int(const char* name, int* out, int default_value) {
  char default_text[TERVIK_TEXT_SIZE];
  snprintf(default_text, sizeof(default_text), "%d", default_value);
  char value[TERVIK_TEXT_SIZE] = {};
  tervik_get_property_value(name, value, default_text);
  *out = atoi(value);
}

int tervik_get_default_data_sub() {
  char value[TERVIK_TEXT_SIZE] = {};
  tervik_get_property_value("persist.radio.default_data_sub", value, "0");
  return atoi(value);
}

// ---- threads ----

pthread_t tervik_create_pthread(const char* name, void* (*start_routine)(void*), void* arg) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  tervik_log_debug("pthread[%s] will be created", name != nullptr ? name : "Unkown name");
  if (start_routine == nullptr) {
    tervik_log_error("p_thread_proc_cb is NULL, do nothing");
    return 0;
  }
  pthread_t thread = 0;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  const int result = pthread_create(&thread, &attr, start_routine, arg);
  pthread_attr_destroy(&attr);
  tervik_log_debug("result = %d", result);
  return result == 0 ? thread : 0;
}

// ---- device states ----

const char* tervik_get_device_type_string_ex(uint32_t type) {
  static char text[TERVIK_TEXT_SIZE];
  if (type >= DEVICE_STATE_NAMES.size()) {
    return nullptr;
  }
  snprintf(text, sizeof(text), "[%u]%s", type, DEVICE_STATE_NAMES[type]);
  return text;
}

const char* tervik_get_device_state_prop_name(uint32_t type) {
  static char name[TERVIK_TEXT_SIZE];
  if (type >= DEVICE_STATE_NAMES.size()) {
    return nullptr;
  }
  const int length = snprintf(name, sizeof(name), "debug.device.%s", DEVICE_STATE_NAMES[type]);
  std::transform(name, name + length, name,
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  return name;
}

// ---- text ----

int tervik_get_hex_str(char* out, int out_max, const uint8_t* data, int data_len) {
  constexpr int GROUP_SIZE = 4;  // " XX" and the terminating NUL
  if (out == nullptr) {
    tervik_log_error("hex_str is null");
    return 0;
  }
  if (out_max <= GROUP_SIZE) {
    tervik_log_error("len_max is invalid");
    return 0;
  }
  if (data == nullptr) {
    tervik_log_error("ptr_data is null");
    return 0;
  }
  memset(out, 0, static_cast<size_t>(out_max));
  int length = 0;
  for (int i = 0; i < data_len && length + GROUP_SIZE < out_max; ++i) {
    length += snprintf(out + length, GROUP_SIZE, " %02X", data[i]);
  }
  return 1;
}

int tervik_str_cmp(const char* str1, const char* str2) {
  if (str1 == nullptr) {
    tervik_log_debug("str1 is null");
    return -101;
  }
  if (str2 == nullptr) {
    tervik_log_debug("str2 is null");
    return -102;
  }
  const int len1 = static_cast<int>(strlen(str1));
  const int len2 = static_cast<int>(strlen(str2));
  if (len1 != len2) {
    tervik_log_debug("len1(%d) != len2(%d), str1: %s, str2: %s", len1, len2, str1, str2);
    return -103;
  }
  const int k = static_cast<int>(std::mismatch(str1, str1 + len1, str2).first - str1);
  if (k != len1) {
    tervik_log_debug("str1[%d]('%c') != str2[%d]('%c'), str1(%d): %s, str2(%d): %s", k, str1[k], k,
                     str2[k], len1, str1, len2, str2);
    return 104;
  }
  tervik_log_debug("same, str1(%d): %s, str2(%d): %s", len1, str1, len2, str2);
  return 0;
}
