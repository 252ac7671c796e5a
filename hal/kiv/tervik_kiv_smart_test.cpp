#include "tervik_kiv_smart_test.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <span>

#include "cutils/properties.h"
#include "tervik_extend_cmn.h"
#include "tervik_extend_nvefs.h"
#include "tervik_kiv_test_args.h"
#include "tervik_utils_outcome.h"
#include "tervik_utils_timer.h"

const char* g_share_memory_file_path = "/data/vendor/modem/share_memory";
std::atomic<uint8_t> g_tervik_timer_running{0};

namespace {

// Each is one restart type of its own.
constexpr int SSR_FLAG = static_cast<int>(0x80000010);
constexpr int CRASH_FLAG = static_cast<int>(0x80000011);
constexpr int FULL_DUMP_FLAG = static_cast<int>(0x80000012);

constexpr size_t SHARE_MEMORY_SIZE = 100;
constexpr int SHARE_MEMORY_SHOWN = 5;
constexpr unsigned MODEM_TEST_DATA_LIMIT = 501;
// How much later than asked for a timer may expire.
constexpr int TIMER_TEST_MARGIN_S = 10;

constexpr command_argument SWITCH = number("opt", 0, 1, "= 0 off, 1 on");

// The handler itself notes what is wrong with the arguments of a command.
constexpr const char* HANDLER = "tervik_smart_test_do";

constexpr argument_rule A_NUMBER = at_least_words(4, NOTE_TOO_FEW_PARAMETERS);
constexpr argument_rule A_SWITCH = {
    .words_min = 4, .note = NOTE_TOO_FEW_PARAMETERS, .takes_switch = true};

constexpr auto COMMANDS = std::to_array<category_command>({
    {0, HANDLER, command_of<tervik_smart_test_modem_ssr>, "/* trigger SSR of modem */"},
    {10, HANDLER, command_of<tervik_smart_test_modem_crash>, "/* trigger Crash of modem */"},
    {1, HANDLER, command_of<tervik_smart_test_full_dump>, "/* trigger Full Dump */"},
    {2, HANDLER, command_of<tervik_smart_test_nv_sync>, "/* trigger NV SYNC */"},
    {3, HANDLER, command_of<tervik_smart_test_ap_lyrax_switch>,
     "/* ap lyrax print(need reboot), opt: 0 - off; 1 - on */", takes(SWITCH), A_SWITCH},
    {4, HANDLER, command_of<tervik_smart_test_bp_lyrax_print_switch>,
     "/* bp lyrax print, opt: 0 - off; 1 - on */", takes(SWITCH), A_SWITCH},
    {5, HANDLER, command_of<tervik_smart_test_bp_qmi_print_switch>,
     "/* bp qmi print, opt: 0 - off; 1 - on */", takes(SWITCH), A_SWITCH},
    {6, HANDLER, command_of<tervik_smart_test_bp_rf_print_switch>,
     "/* bp rf print, opt: 0 - off; 1 - on */", takes(SWITCH), A_SWITCH},
    {7, HANDLER, command_of<tervik_smart_test_share_memory>, "/* share memory test */"},
    {8, HANDLER, command_of<tervik_smart_test_tervik_timer>,
     "/* tervik timer test, timeout_s - the expired time(s) */",
     takes(number("timeout_s", 0, INT_MAX, "s")), A_NUMBER},
    {9, HANDLER, command_of<tervik_smart_test_dead_cycle_test>, "/* dead cycle test */",
     takes(unused("timeout_s", 0))},
    {11, HANDLER, command_of<tervik_qmi_send_modem_test_request>,
     "/* modem test, type: test type(123456789 - do_modem_test) */",
     takes(number("type", INT_MIN, INT_MAX, "a number that the modem knows")), A_NUMBER},
});

// ---- print switches of the modem ----

// A file in the modem's EFS that switches a print on; without it the print is off.
struct print_switch {
  const char* name;
  const char* path;
  uint32_t path_len;
  std::array<uint8_t, 4> content;
  uint32_t content_len;
};

constexpr uint32_t PRINT_SWITCH_SUB = 0;

constexpr print_switch LYRAX_PRINT = {
    "bp_lyrax_print", "/oem/lyrax/lyrax_print_mask", 27, {0x1F, 0, 0, 0}, 4};
constexpr print_switch QMI_PRINT = {"bp_qmi_print", "/oem/debug/qmi_print_flag", 25, {1}, 1};
constexpr print_switch RF_PRINT = {
    "bp_rf_print", "/oem/debug/rf_print_mask", 24, {0x0F, 0, 0, 0}, 4};

void switch_print(const char* func, const print_switch& print, int opt) {
  tervik_log_print_as(func, LOG_CLASS_NOTICE, PRINT_SWITCH_SUB, "%s, opt = %d", print.name, opt);
  const bool on = opt == 1;
  const int result = on ? tervik_efs_write(PRINT_SWITCH_SUB, print.path, print.path_len,
                                           print.content.data(), print.content_len)
                        : tervik_efs_delete(PRINT_SWITCH_SUB, print.path, print.path_len);
  if (result != 0) {
    tervik_log_print_as(func, LOG_CLASS_ERROR, PRINT_SWITCH_SUB, "%s",
                        on ? "tervik_efs_write failed" : "tervik_efs_delete failed");
    tervik_tell_outcome(result);
    return;
  }
  tervik_smart_test_nv_sync();
  tervik_smart_test_modem_ssr();
  tervik_log_print_as(func, LOG_CLASS_NOTICE, PRINT_SWITCH_SUB, "success, pls wait 10 seconds ");
}

// ---- shared memory ----

// Logs the first bytes of the open shared file.
void log_shared_bytes(const char* func, int fd) {
  const int truncated = ftruncate(fd, SHARE_MEMORY_SIZE);
  tervik_log_notice_as(func, "ftruncate, ret: %d", truncated);
  if (truncated != 0) {
    tervik_log_error_as(func, "ftruncate error");
    tervik_tell_outcome(truncated);
    return;
  }
  void* mapping = mmap(nullptr, SHARE_MEMORY_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  tervik_log_notice_as(func, "mmap, data_ptr: 0x%08x",
                       static_cast<unsigned>(reinterpret_cast<uintptr_t>(mapping)));
  if (mapping == MAP_FAILED) {
    tervik_log_error_as(func, "mmap error");
    tervik_tell_outcome(-1);
    return;
  }
  const auto* data_ptr = static_cast<const uint8_t*>(mapping);
  for (int i = 0; i < SHARE_MEMORY_SHOWN; ++i) {
    tervik_log_notice_as(func, "data_ptr[%d]: %d", i, data_ptr[i]);
  }
  const int unmapped = munmap(mapping, SHARE_MEMORY_SIZE);
  tervik_log_notice_as(func, "munmap, ret: %d", unmapped);
  if (unmapped != 0) {
    tervik_log_error_as(func, "munmap error");
    tervik_tell_outcome(unmapped);
  }
}

// ---- modem test request ----

// Logs the answer to a modem test request, of which `received` bytes came.
void log_modem_test_answer(const char* func, const tervik_common_response& rsp, int received) {
  const int t_rsp = static_cast<int>(rsp.type);
  tervik_log_debug_as(func, "t_rsp %d", t_rsp);
  if (t_rsp != TERVIK_COMMON_MODEM_TEST) {
    tervik_log_debug_as(func, "t_rsp != t");
    tervik_tell_outcome(-1);
    return;
  }
  const unsigned l_rsp = rsp.data_len;
  tervik_log_debug_as(func, "l_rsp %d", l_rsp);
  if (l_rsp >= MODEM_TEST_DATA_LIMIT) {
    tervik_log_debug_as(func, "l_rsp is out of range");
    tervik_tell_outcome(-1);
    return;
  }
  unsigned cnt = 8;  // type and length
  if (l_rsp != 0) {
    const int carried = received - static_cast<int>(offsetof(tervik_common_response, data));
    const auto shown = std::min(l_rsp, static_cast<unsigned>(std::max(carried, 0)));
    tervik_log_debug_as(func, "data len(%d)\ndata: ", l_rsp);
    tervik_print_byte_lines(TERVIK_LOG_PLACE_AS(func), LOG_CLASS_DEBUG, TERVIK_NO_SUB,
                            std::span(rsp.data).first(shown));
    cnt += l_rsp;
  }
  tervik_log_debug_as(func, "cnt %d", cnt);
}

}  // namespace

constexpr command_category TERVIK_SMART_CATEGORY = {.number = 11,
                                                    .title = "smart test",
                                                    .commands = COMMANDS,
                                                    .number_name = "par_i",
                                                    .tells_error_codes = false};

void tervik_smart_test_modem_ssr() {
  tervik_log_notice("Will trigger SSR of modem");
  tervik_modem_ssr(SSR_FLAG);
}

void tervik_smart_test_full_dump() {
  tervik_log_notice("Will trigger Full dump of modem");
  tervik_modem_crash_with_orange_screen(FULL_DUMP_FLAG);
}

void tervik_smart_test_nv_sync() {
  tervik_log_notice("Will trigger NV SYNC");
  tervik_modem_nv_sync();
}

void tervik_smart_test_modem_crash() {
  tervik_log_notice("Will trigger Crash of modem");
  tervik_modem_crash_without_orange_screen(CRASH_FLAG);
}

void tervik_smart_test_ap_lyrax_switch(int opt) {
  tervik_log_notice("ap_lyrax_print, opt = %d", opt);
  // Whether it was stored shows after the reboot that the operator is told to make.
  tervik_tell_outcome(property_set("persist.vendor.radio.print_stats", opt == 1 ? "1" : "2"),
                      "the property is not stored");
  tervik_log_notice("success, need to reboot");
}

void tervik_smart_test_bp_lyrax_print_switch(int opt) {
  switch_print(__func__, LYRAX_PRINT, opt);
}

void tervik_smart_test_bp_qmi_print_switch(int opt) {
  switch_print(__func__, QMI_PRINT, opt);
}

void tervik_smart_test_bp_rf_print_switch(int opt) {
  switch_print(__func__, RF_PRINT, opt);
}

void tervik_smart_test_share_memory() {
  tervik_log_notice("share_memory");
  tervik_smart_test_sh_test_read();
}

void tervik_smart_test_sh_test_read() {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  tervik_log_notice("g_share_memory_file_path: %s", g_share_memory_file_path);
  const int fd = open(g_share_memory_file_path, O_RDWR | O_CREAT | O_CLOEXEC, 0777);
  tervik_log_notice("open, fd: %d", fd);
  if (fd < 0) {
    tervik_log_error("shm_open error");
    tervik_tell_outcome(fd);
    return;
  }
  log_shared_bytes(__func__, fd);
  tervik_log_notice("close fd");
  close(fd);
}

void tervik_smart_test_tervik_timer(int timeout_s) {
  tervik_log_notice("Timer test start, timeout_s = %d", timeout_s);
  // Before the start: a timer that expires at once must find it set to clear it.
  g_tervik_timer_running = 1;
  const uint32_t timer_id =
      tervik_timer_start(tervik_kiv_delay_timer_cb, static_cast<unsigned long>(timeout_s));
  if (timer_id == 0) {
    g_tervik_timer_running = 0;
    tervik_log_error("note: the timer could not be started, timeout_s = %d", timeout_s);
    tervik_tell_outcome(-1);
    return;
  }
  tervik_log_notice("Start one timer(timer_id %d), will pause until this timer is expired ...",
                    timer_id);
  for (int seconds = 1; g_tervik_timer_running != 0; ++seconds) {
    sleep(1);
    tervik_log_debug(seconds == 1 ? "%d second has passed" : "%d seconds have passed", seconds);
    if (seconds - TIMER_TEST_MARGIN_S >= timeout_s) {
      tervik_log_error("note: the timer did not expire, timeout_s = %d", timeout_s);
      tervik_timer_stop(timer_id);
      g_tervik_timer_running = 0;
      return;
    }
  }
  tervik_log_notice("Timer test done");
}

void tervik_kiv_delay_timer_cb(union sigval value) {
  const auto timer_id = static_cast<uint32_t>(value.sival_int);
  tervik_log_debug("The timer expired with ID %u", timer_id);
  tervik_timer_stop(timer_id);
  g_tervik_timer_running = 0;
}

void tervik_smart_test_dead_cycle_test() {
  tervik_log_notice("tervik_smart_test_dead_cycle_test start");
  tervik_smart_test_dead_cycle_test_do();
}

void tervik_smart_test_dead_cycle_test_do() {
  while (true) {
    tervik_log_notice("tervik_smart_test_dead_cycle_test_do start");
  }
}

void tervik_qmi_send_modem_test_request(int type) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  tervik_common_response rsp = {};
  int received = 0;
  const int result = tervik_qmi_result_map(
      tervik_send_common_qmi_msg(TERVIK_COMMON_MODEM_TEST, sizeof(type), &type, &rsp, &received));
  tervik_log_notice("result = %d, rsp.result = %d", result, rsp.result);
  tervik_tell_outcome(result != 0 ? result : rsp.result);
  if (result != 0) {
    tervik_log_debug("tervik_extend_qmi_send_sync fail, REQUEST_ID_COMMON");
  } else if (rsp.result != 0) {
    tervik_log_debug("qmi response fail");
  } else {
    log_modem_test_answer(__func__, rsp, received);
  }
}

void tervik_smart_test_do(int argc, char** argv) {
  tervik_run_category(TERVIK_LOG_PLACE, TERVIK_SMART_CATEGORY, argc, argv);
}

void tervik_smart_test_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, TERVIK_SMART_CATEGORY, category);
}
