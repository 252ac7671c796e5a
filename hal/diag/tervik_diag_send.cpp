#include "tervik_diag_send.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <new>
#include <set>

#include "tervik_utils_cmn.h"
#include "tervik_utils_outcome.h"

// Never destroyed: the library's thread may still use it while the process exits.
qcril_diag_rsp_buf& g_qcril_diag_rsp_buf = *new qcril_diag_rsp_buf;
std::mutex g_diag_dci_rsp_mutex;
sem_t g_diag_rsp_sem;
std::atomic<uint8_t> g_diag_rsp_waiting{0};
std::atomic<uint8_t> g_diag_rsp_timeout{0};
std::atomic<int32_t> g_diag_wait_cnt_limit{30};
std::atomic<int32_t> g_diag_init_status{0};

namespace {

constexpr unsigned DIAG_OK = 0;
constexpr unsigned DIAG_FAIL = 1;

constexpr int PRIMARY_PROCESSOR = 0;
constexpr int DIAG_CHANNEL = 0;

const char* processor_name(int32_t id) {
  constexpr std::array<const char*, 3> NAMES = {"MSM", "MDM", "MDM_2"};
  const auto index = static_cast<uint32_t>(id);
  return index < NAMES.size() ? NAMES[index] : "Unknown";
}

// The library takes commands as changeable bytes, but copies them.
unsigned char* library_bytes(const uint8_t* bytes) {
  return const_cast<unsigned char*>(bytes);
}

// Starts a detached thread of this module's name. Returns pthread_create's result.
int create_diag_thread(void* (*start_routine)(void*), void* arg) {
  pthread_t thread = {};
  const int result = pthread_create(&thread, nullptr, start_routine, arg);
  if (result == 0) {
    // A thread without its name serves as well.
    static_cast<void>(pthread_setname_np(thread, "TERV DIAG"));
    pthread_detach(thread);
  }
  return result;
}

}  // namespace

// ---- checks and logging ----

void tervik_print_data_with_hex(const uint8_t* data, int len) {
  if (data == nullptr) {
    tervik_log_debug("print_data_with_hex, data is null");
    return;
  }
  if (len <= 0 || len > TERVIK_DIAG_COMMAND_MAX) {
    tervik_log_debug("print_data_with_hex, invalid data len(%d)", len);
    return;
  }
  // Each byte becomes a blank and two digits. The text is shown without its first blank.
  char text[3 * TERVIK_DIAG_COMMAND_MAX + 2];
  static_cast<void>(tervik_get_hex_str(text, sizeof(text), data, len));  // nothing is null
  tervik_log_debug("data hex show, len(%d), data: %s", len, text + 1);
}

unsigned tervik_diag_comand_input_check(const uint8_t* data, int data_len) {
  tervik_log_debug("diag_comand, data_len = %d", data_len);
  if (data == nullptr) {
    tervik_log_debug("data is null");
    return DIAG_FAIL;
  }
  if (data_len < 1 || data_len > TERVIK_DIAG_COMMAND_MAX) {
    tervik_log_debug("Invalid input parameter, data_len = %d", data_len);
    return DIAG_FAIL;
  }
  tervik_print_data_with_hex(data, data_len);
  return DIAG_OK;
}

unsigned tervik_diag_comand_output_check(const uint8_t* reply_buf, const int* p_reply_len) {
  if (reply_buf == nullptr) {
    tervik_log_debug("reply_buf is null");
    return DIAG_FAIL;
  }
  if (p_reply_len == nullptr) {
    tervik_log_debug("p_reply_len is null");
    return DIAG_FAIL;
  }
  tervik_log_debug("reply_len = %d", *p_reply_len);
  if (*p_reply_len < 1) {
    tervik_log_debug("Invalid output parameter, reply_len = %d", *p_reply_len);
    return DIAG_FAIL;
  }
  return DIAG_OK;
}

unsigned tervik_diag_cmd_response_check(const uint8_t* ptr, int len, const void* context_data) {
  int32_t id = -1;
  if (context_data == nullptr) {
    tervik_log_debug("context_data is null");
  } else {
    memcpy(&id, context_data, sizeof(id));
  }
  tervik_log_debug("================ response from %d[%s], len = %d ========================", id,
                   processor_name(id), len);
  if (ptr == nullptr) {
    tervik_log_debug("ptr is null");
    return DIAG_FAIL;
  }
  if (len < 1 || len > TERVIK_DIAG_RESPONSE_MAX) {
    tervik_log_debug("Invalid parameter, len = %d", len);
    return DIAG_FAIL;
  }
  tervik_print_data_with_hex(ptr, len);
  return DIAG_OK;
}

// ---- the connection and the wait of a with-result send ----

namespace {

constexpr int DEFAULT_WAIT_CNT_LIMIT = 30;
constexpr int TICK_MS = 100;

// One with-result send at a time; taken before g_diag_dci_rsp_mutex.
std::mutex g_diag_send_mutex;

// The wait of a with-result send. Guarded by g_diag_dci_rsp_mutex. Who changes what:
// The send sets `phase` to WAITING and, at its end, to IDLE. It starts the wait thread, and clears
// g_diag_rsp_waiting to tell that thread that the wait is over.
// The response handlers, on the library's thread, set `phase` to ANSWERED and post the semaphore.
// The wait thread sets g_diag_rsp_timeout and posts the semaphore when the time has run out. It
// sets `thread` to ENDED last of all.
struct diag_wait {
  // IDLE: no send waits, and a response that comes is dropped. WAITING: set before the command is
  // handed over, because the answer may come before that call returns. ANSWERED: a response has
  // come, and a time-out can no longer end the wait.
  enum wait_phase : uint8_t { IDLE, WAITING, ANSWERED } phase = IDLE;
  // The thread that keeps the limit. The send waits for its end, because its post must not reach a
  // semaphore that the send has destroyed.
  enum : uint8_t { NO_THREAD, RUNNING, ENDED } thread = NO_THREAD;
  std::condition_variable changed;
};

diag_wait& g_diag_wait = *new diag_wait;

void set_phase(diag_wait::wait_phase phase) {
  const std::lock_guard lock(g_diag_dci_rsp_mutex);
  g_diag_wait.phase = phase;
}

// Sleeps one tick, or less when the send has ended its wait. True while no response has come.
bool sleep_tick() {
  std::unique_lock lock(g_diag_dci_rsp_mutex);
  g_diag_wait.changed.wait_for(lock, std::chrono::milliseconds(TICK_MS),
                               [] { return g_diag_wait.phase == diag_wait::IDLE; });
  return g_diag_wait.phase == diag_wait::WAITING;
}

// Ends the wait of a send that is still waiting at its limit. In DCI mode a response of full pieces
// alone has no last piece that would end the wait: the time-out is then its regular end.
void stop_waiting(const char* func) {
  const std::lock_guard lock(g_diag_dci_rsp_mutex);
  if (g_diag_wait.phase != diag_wait::WAITING) {
    return;
  }
  const int32_t length = g_qcril_diag_rsp_buf.length;
  if (length != 0 && length % DIAG_DCI_PIECE_MAX == 0) {
    tervik_log_debug_as(func, "stop waiting, receive success, length is times of 4096");
  } else {
    tervik_log_debug_as(func, "stop waiting");
    g_diag_rsp_timeout = 1;
  }
  sem_post(&g_diag_rsp_sem);
}

}  // namespace

void* tervik_diag_cmd_send_with_result_wait_thread_proc(void* /*arg*/) {
  int cnt_of_100ms = 0;
  do {
    static_cast<void>(sleep_tick());  // g_diag_rsp_waiting tells when the send is done
    ++cnt_of_100ms;
    tervik_log_debug("tervik_diag_cmd_send_with_result_wait_thread_proc, cnt_of_100ms = %d",
                     cnt_of_100ms);
  } while (g_diag_rsp_waiting == 1 && cnt_of_100ms < g_diag_wait_cnt_limit);
  stop_waiting(__func__);
  const std::lock_guard lock(g_diag_dci_rsp_mutex);
  g_diag_wait.thread = diag_wait::ENDED;
  g_diag_wait.changed.notify_all();
  return nullptr;
}

void tervik_diag_cmd_send_with_result_wait_create_thread() {
  const auto set_thread = [](auto thread) {
    const std::lock_guard lock(g_diag_dci_rsp_mutex);
    g_diag_wait.thread = thread;
  };
  set_thread(diag_wait::RUNNING);
  const int conf = create_diag_thread(tervik_diag_cmd_send_with_result_wait_thread_proc, nullptr);
  tervik_log_debug("tervik daig is created, conf = %d", conf);
  if (conf != 0) {
    set_thread(diag_wait::NO_THREAD);
  }
}

namespace {

// Without its wait thread the send keeps the limit itself.
void wait_without_thread(const char* func) {
  int32_t ticks = 0;
  while (sleep_tick() && ++ticks < g_diag_wait_cnt_limit) {
  }
  stop_waiting(func);
}

// True while a thread keeps the limit of the wait, or has kept it.
bool has_wait_thread() {
  const std::lock_guard lock(g_diag_dci_rsp_mutex);
  return g_diag_wait.thread != diag_wait::NO_THREAD;
}

// Waits for the response or the time-out, copies what came to the caller and leaves the module
// ready for the next send.
unsigned wait_and_take_response(const char* func, uint8_t* reply_buf, int* p_reply_len) {
  tervik_diag_cmd_send_with_result_wait_create_thread();
  if (!has_wait_thread()) {
    wait_without_thread(func);
  }
  while (sem_wait(&g_diag_rsp_sem) != 0 && errno == EINTR) {
  }
  g_diag_rsp_waiting = 0;
  std::unique_lock lock(g_diag_dci_rsp_mutex);
  g_diag_wait.phase = diag_wait::IDLE;
  g_diag_wait.changed.notify_all();
  g_diag_wait.changed.wait(lock, [] { return g_diag_wait.thread != diag_wait::RUNNING; });
  g_diag_wait_cnt_limit = DEFAULT_WAIT_CNT_LIMIT;
  const qcril_diag_rsp_buf& response = g_qcril_diag_rsp_buf;
  const int reply_len = *p_reply_len;
  const int data_size = std::min(response.length, reply_len);
  tervik_log_debug_as(func,
                      "req end, data_size = %d, g_qcril_diag_rsp_buf.length = %d, reply_len = %d",
                      data_size, response.length, reply_len);
  *p_reply_len = data_size;
  if (data_size >= 1) {
    memcpy(reply_buf, response.data.get(), static_cast<size_t>(data_size));
  }
  return g_diag_rsp_timeout.exchange(0) == 1 ? DIAG_FAIL : DIAG_OK;
}

// The checks at the beginning of both with-result sends.
unsigned check_send_arguments(const char* func, const uint8_t* cmd, int data_len,
                              const uint8_t* reply_buf, const int* p_reply_len) {
  if (tervik_diag_comand_input_check(cmd, data_len) != DIAG_OK) {
    tervik_log_debug_as(func, "tervik_diag_comand_param_check fail");
    return DIAG_FAIL;
  }
  if (tervik_diag_comand_output_check(reply_buf, p_reply_len) != DIAG_OK) {
    tervik_log_debug_as(func, "tervik_diag_comand_output_check fail");
    return DIAG_FAIL;
  }
  return DIAG_OK;
}

// Room for `len` bytes and a spare one, all zero; null without memory.
std::unique_ptr<uint8_t[]> allocate_response(int len) {
  return std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[static_cast<size_t>(len) + 1]());
}

// False, with a line in the log, for a response that no send waits for.
bool response_is_expected(const char* func, int len) {
  const bool expected = g_diag_wait.phase != diag_wait::IDLE;
  if (!expected) {
    tervik_log_debug_as(func, "late response is dropped, len = %d", len);
  }
  return expected;
}

}  // namespace

void tervik_diag_init_with_result() {
  if (g_diag_init_status != 0) {
    tervik_log_debug("diag init done, g_diag_init_status = %d", g_diag_init_status.load());
    ++g_diag_init_status;
    return;
  }
  // Also when the open fails: the send goes on, and may reach its wait.
  sem_init(&g_diag_rsp_sem, 0, 0);
  if (Diag_LSM_Init(nullptr)) {
    g_diag_init_status = 1;
  } else {
    tervik_log_debug("LSM init failed");
  }
}

void tervik_diag_deinit_with_result() {
  // False only when the open had failed.
  static_cast<void>(Diag_LSM_DeInit());
  g_diag_init_status = 0;
  sem_destroy(&g_diag_rsp_sem);
}

// ---- callback mode ----

namespace {

constexpr int DEFAULT_TIME_OUT_MS = 3000;
constexpr int TIME_OUT_MAX_MS = 60000;

// Processor ids whose addresses the library hands back with each response; of the remote ones, one
// for each bit of the remote mask.
int32_t data_primary = PRIMARY_PROCESSOR;
std::array<int32_t, 16> data_remote = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

// The name of the lowest remote processor in the mask.
const char* remote_label(uint16_t remote_mask) {
  constexpr std::array<const char*, 6> LABELS = {" APSS",  " MPSS",    " LPASS",
                                                 " WCNSS", " SENSORS", " WDSP"};
  const auto lowest = static_cast<size_t>(std::countr_zero(remote_mask));
  return lowest < LABELS.size() ? LABELS[lowest] : "";
}

}  // namespace

void tervik_diag_register_callback(diag_response_callback callback) {
  uint16_t remote_mask = 0;
  diag_register_callback(callback, &data_primary);
  diag_has_remote_device(&remote_mask);
  tervik_log_debug(
      "register call back, g_diag_channel = [%d]%s, data_primary = %d, remote_mask = [%d]%s",
      DIAG_CHANNEL, processor_name(DIAG_CHANNEL), data_primary, remote_mask,
      remote_label(remote_mask));
  for (int32_t& processor : data_remote) {
    if ((remote_mask >> (processor - 1) & 1) == 0) {
      continue;
    }
    tervik_log_debug("register remote call back, data_remote = %d", processor);
    diag_register_remote_callback(callback, processor, &processor);
  }
}

int tervik_diag_cmd_response_by_callback(unsigned char* ptr, int len, void* context_data) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  if (tervik_diag_cmd_response_check(ptr, len, context_data) != DIAG_OK) {
    tervik_log_debug("tervik_diag_cmd_response_check fail");
    return 1;
  }
  std::unique_ptr<uint8_t[]> ptr_out = allocate_response(len);
  if (ptr_out == nullptr) {
    tervik_log_error("Failed to allocate memory for ptr_out");
    return 1;
  }
  memcpy(ptr_out.get(), ptr, static_cast<size_t>(len));
  const std::lock_guard lock(g_diag_dci_rsp_mutex);
  if (!response_is_expected(__func__, len)) {
    return 1;
  }
  g_qcril_diag_rsp_buf.data = std::move(ptr_out);
  g_qcril_diag_rsp_buf.length = len;
  tervik_log_debug("callback, cmd_code = 0x%02x, data_size = %d", ptr[0], len);
  g_diag_wait.phase = diag_wait::ANSWERED;
  sem_post(&g_diag_rsp_sem);
  return 0;
}

int tervik_diag_cmd_response_by_callback_no_handle(unsigned char* /*ptr*/, int len,
                                                   void* /*context_data*/) {
  tervik_log_debug("len = %d", len);
  return 0;
}

unsigned tervik_diag_cmd_send_with_result_by_callback_mode(const uint8_t* cmd, int data_len,
                                                           int time_out, uint8_t* reply_buf,
                                                           int* p_reply_len) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  const std::lock_guard lock(g_diag_send_mutex);
  if (check_send_arguments(__func__, cmd, data_len, reply_buf, p_reply_len) != DIAG_OK) {
    return DIAG_FAIL;
  }
  tervik_diag_init_with_result();
  tervik_diag_register_callback(tervik_diag_cmd_response_by_callback);
  diag_switch_logging(DIAG_CALLBACK_MODE, nullptr);
  set_phase(diag_wait::WAITING);
  const int ret_send = diag_callback_send_data(PRIMARY_PROCESSOR, library_bytes(cmd), data_len);
  tervik_log_debug("ret_send = %d, will wait callback", ret_send);
  unsigned result = DIAG_FAIL;
  if (ret_send == 0) {
    if (time_out < 1 || time_out > TIME_OUT_MAX_MS) {
      tervik_log_debug("Time out is invalid, set default");
      time_out = DEFAULT_TIME_OUT_MS;
    }
    g_diag_rsp_waiting = 1;
    g_diag_wait_cnt_limit = time_out / TICK_MS;
    tervik_log_debug("Command time = %d * 100ms", g_diag_wait_cnt_limit.load());
    result = wait_and_take_response(__func__, reply_buf, p_reply_len);
  } else {
    set_phase(diag_wait::IDLE);
    tervik_log_debug("Fail to send diag cmd");
  }
  diag_switch_logging(DIAG_USB_MODE, nullptr);
  tervik_diag_deinit_with_result();
  return result;
}

// ---- DCI mode ----

namespace {

constexpr int DCI_RESPONSE_BUFFER_SIZE = 16384;

// A modem that goes on sending pieces must not fill the memory.
constexpr int32_t COLLECTED_MAX = 1 << 20;

// The handlers of one kind of DCI send.
struct dci_handlers {
  diag_dci_response_callback response;
  diag_dci_stream_callback log_stream;
  diag_dci_stream_callback event_stream;
};

constexpr dci_handlers WITH_RESULT_HANDLERS = {tervik_diag_cmd_response_by_dci,
                                               tervik_diag_cmd_response_by_dci_log_stream,
                                               tervik_diag_cmd_response_by_dci_event_stream};
constexpr dci_handlers WITHOUT_RESULT_HANDLERS = {
    tervik_diag_cmd_response_by_dci_no_handle, tervik_diag_cmd_response_by_dci_log_stream_no_handle,
    tervik_diag_cmd_response_by_dci_event_stream_no_handle};

// A DCI client of one send. It is released by release(), and its response buffer, which is the
// library's until then, goes with the object.
class dci_client {
 public:
  // `func` is the function that the log's lines speak for.
  explicit dci_client(const char* func) : func_(func) {}

  // Allocates the response buffer and registers the client. False: there is nothing to release.
  bool register_client() {
    response_.reset(new (std::nothrow) unsigned char[DCI_RESPONSE_BUFFER_SIZE]);
    if (response_ == nullptr) {
      tervik_log_debug_as(func_, "Unable to allocate memory for DCI rsp pkt, errno: %d", errno);
      return false;
    }
    const int err = diag_register_dci_client(&client_id_, &list_, DIAG_CHANNEL, &signal_type_);
    if (err != DIAG_DCI_NO_ERROR) {
      tervik_log_debug_as(func_, "Could not register with DCI, err: %d, errno: %d ch:%d", err,
                          errno, DIAG_CHANNEL);
      return false;
    }
    tervik_log_debug_as(func_, "Successfully registered with DCI for ch:%d, client ID = %d",
                        DIAG_CHANNEL, client_id_);
    return true;
  }

  // Opens the streams and sends the command. The client is registered.
  bool send(const dci_handlers& handlers, const uint8_t* cmd, int data_len) {
    int err = diag_register_dci_signal_data(client_id_, SIGRTMIN + 30);
    if (err != DIAG_DCI_NO_ERROR) {
      tervik_log_debug_as(func_,
                          "Could not register signal for DCI Data for ch:%d, err: %d, errno: %d",
                          DIAG_CHANNEL, err, errno);
      return false;
    }
    tervik_log_debug_as(func_, "DCI Status on Processors for ch%d:", DIAG_CHANNEL);
    err = diag_get_dci_support_list_proc(DIAG_CHANNEL, &list_);
    if (err != DIAG_DCI_NO_ERROR) {
      tervik_log_debug_as(func_, "Could not get support list for ch %d, err: %d, errno: %d",
                          DIAG_CHANNEL, err, errno);
      return false;
    }
    tervik_log_debug_as(func_, "MPSS on ch:%d: %s", DIAG_CHANNEL,
                        (list_ & DIAG_CON_MPSS) != 0 ? "UP" : "DOWN");
    tervik_log_debug_as(func_, "Opening Data Stream, registering listeners for ch:%d",
                        DIAG_CHANNEL);
    err = diag_register_dci_stream_proc(client_id_, handlers.log_stream, handlers.event_stream);
    if (err != DIAG_DCI_NO_ERROR) {
      tervik_log_debug_as(func_, "Unable to register DCI stream for ch:%d, err: %d, errno: %d",
                          DIAG_CHANNEL, err, errno);
      return false;
    }
    tervik_log_debug_as(func_, "Sending Asynchronous Command for ch:%d", DIAG_CHANNEL);
    err = diag_send_dci_async_req(client_id_, library_bytes(cmd), data_len, response_.get(),
                                  DCI_RESPONSE_BUFFER_SIZE, handlers.response, nullptr);
    if (err != DIAG_DCI_NO_ERROR) {
      tervik_log_debug_as(func_, "Error sending SEND_REQUEST_ASYNC to peripheral %d for ch:%d",
                          DIAG_CON_MPSS, DIAG_CHANNEL);
      return false;
    }
    return true;
  }

  void release() {
    const int err = diag_release_dci_client(&client_id_);
    tervik_log_debug_as(func_, "Releasing DCI connection, err: %d, errno: %d", err, errno);
  }

 private:
  const char* func_;
  int client_id_ = 0;
  uint16_t list_ = DIAG_CON_MPSS;
  int signal_type_ = SIGCONT;
  std::unique_ptr<unsigned char[]> response_;
};

void clear_response() {
  const std::lock_guard lock(g_diag_dci_rsp_mutex);
  g_qcril_diag_rsp_buf = {};
}

// Puts a piece behind what is there. False without memory.
bool append_piece(const char* func, const uint8_t* piece, int len) {
  qcril_diag_rsp_buf& response = g_qcril_diag_rsp_buf;
  if (response.data == nullptr) {
    response.data = allocate_response(len);
    if (response.data == nullptr) {
      tervik_log_error_as(func, "Failed to allocate memory for ptr_out_1");
      return false;
    }
    memcpy(response.data.get(), piece, static_cast<size_t>(len));
    response.length = len;
    return true;
  }
  const auto old_length = static_cast<size_t>(response.length);
  response.previous = allocate_response(response.length);
  if (response.previous == nullptr) {
    tervik_log_error_as(func, "Failed to allocate memory for ptr_out_2");
    return false;
  }
  memcpy(response.previous.get(), response.data.get(), old_length);
  std::unique_ptr<uint8_t[]> longer = allocate_response(response.length + len);
  if (longer == nullptr) {
    tervik_log_error_as(func, "Failed to allocate memory for ptr_out_3");
    return false;
  }
  memcpy(longer.get(), response.previous.get(), old_length);
  memcpy(longer.get() + old_length, piece, static_cast<size_t>(len));
  response.data = std::move(longer);
  response.length += len;
  return true;
}

}  // namespace

void tervik_diag_cmd_response_by_dci(unsigned char* ptr, int len, void* context_data) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  const std::lock_guard lock(g_diag_dci_rsp_mutex);
  if (tervik_diag_cmd_response_check(ptr, len, context_data) != DIAG_OK) {
    tervik_log_debug("tervik_diag_cmd_response_check fail");
    return;
  }
  if (!response_is_expected(__func__, len)) {
    return;
  }
  const int32_t& length = g_qcril_diag_rsp_buf.length;
  if (length > COLLECTED_MAX - len) {
    tervik_log_error("response is too long, length = %d, len = %d", length, len);
    return;
  }
  if (!append_piece(__func__, ptr, len)) {
    return;
  }
  tervik_log_debug("response, cmd_code = 0x%02x, data_size = %d", ptr[0], length);
  if (len != DIAG_DCI_PIECE_MAX) {
    g_diag_wait.phase = diag_wait::ANSWERED;
    sem_post(&g_diag_rsp_sem);
  }
}

void tervik_diag_cmd_response_by_dci_no_handle(unsigned char* /*ptr*/, int len,
                                               void* /*context_data*/) {
  tervik_log_debug("len = %d", len);
}

void tervik_diag_cmd_response_by_dci_log_stream(unsigned char* ptr, int len) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  tervik_print_data_with_hex(ptr, len);
}

void tervik_diag_cmd_response_by_dci_event_stream(unsigned char* ptr, int len) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  tervik_print_data_with_hex(ptr, len);
}

void tervik_diag_cmd_response_by_dci_log_stream_no_handle(unsigned char* /*ptr*/, int len) {
  tervik_log_debug("len = %d", len);
}

void tervik_diag_cmd_response_by_dci_event_stream_no_handle(unsigned char* /*ptr*/, int len) {
  tervik_log_debug("len = %d", len);
}

unsigned tervik_diag_cmd_send_with_result_by_dci_mode(const uint8_t* cmd, int data_len,
                                                      int time_out, uint8_t* reply_buf,
                                                      int* p_reply_len) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  const std::lock_guard lock(g_diag_send_mutex);
  if (check_send_arguments(__func__, cmd, data_len, reply_buf, p_reply_len) != DIAG_OK) {
    return DIAG_FAIL;
  }
  tervik_diag_init_with_result();
  dci_client client(__func__);
  if (!client.register_client()) {
    tervik_diag_deinit_with_result();
    return DIAG_FAIL;
  }
  clear_response();
  set_phase(diag_wait::WAITING);
  unsigned result = DIAG_FAIL;
  if (client.send(WITH_RESULT_HANDLERS, cmd, data_len)) {
    g_diag_rsp_waiting = 1;
    g_diag_wait_cnt_limit = time_out / TICK_MS;
    tervik_log_debug("Dci Command time = %d", g_diag_wait_cnt_limit.load());
    result = wait_and_take_response(__func__, reply_buf, p_reply_len);
    clear_response();
  } else {
    set_phase(diag_wait::IDLE);
  }
  tervik_diag_deinit_with_result();
  client.release();
  return result;
}

// ---- workers: sends without result ----

namespace {

// One worker at a time.
std::mutex g_diag_without_result_mutex;

// A command on its way to a worker: the length, then the bytes and a spare one, in one allocation.
using command_block = std::unique_ptr<uint8_t[]>;

command_block make_block(const uint8_t* cmd, int32_t data_len) {
  const auto len = static_cast<size_t>(data_len);
  command_block block(new (std::nothrow) uint8_t[len + sizeof(data_len) + 1]());
  if (block != nullptr) {
    memcpy(block.get(), &data_len, sizeof(data_len));
    memcpy(block.get() + sizeof(data_len), cmd, len);
  }
  return block;
}

// A worker's command as it lies in its block.
struct worker_command {
  const uint8_t* block;
  const uint8_t* bytes;
  int32_t length;
};

// The blocks of the workers that have not come to their hand-over yet.
struct pending_workers {
  std::mutex mutex;
  std::condition_variable changed;
  std::set<const void*> blocks;
};

pending_workers& g_pending_workers = *new pending_workers;

void add_pending_worker(const void* block) {
  const std::lock_guard lock(g_pending_workers.mutex);
  g_pending_workers.blocks.insert(block);
}

void remove_pending_worker(const void* block) {
  const std::lock_guard lock(g_pending_workers.mutex);
  g_pending_workers.blocks.erase(block);
  g_pending_workers.changed.notify_all();
}

void send_by_callback(const char* func, const worker_command& command) {
  constexpr useconds_t RESPONSE_TIME_US = 200 * 1000;
  tervik_diag_register_callback(tervik_diag_cmd_response_by_callback_no_handle);
  diag_switch_logging(DIAG_CALLBACK_MODE, nullptr);
  const int ret_send =
      diag_callback_send_data(PRIMARY_PROCESSOR, library_bytes(command.bytes), command.length);
  // First: the run may end once no worker is pending, and nothing else tells whether the send
  // failed.
  tervik_log_debug_as(func, "ret_send = %d, will wait callback", ret_send);
  tervik_tell_outcome(ret_send);
  remove_pending_worker(command.block);
  usleep(RESPONSE_TIME_US);
  diag_switch_logging(DIAG_USB_MODE, nullptr);
}

void send_by_dci(const char* func, const worker_command& command) {
  dci_client client(func);
  if (!client.register_client()) {
    tervik_tell_outcome(-1);
    return;
  }
  const bool sent = client.send(WITHOUT_RESULT_HANDLERS, command.bytes, command.length);
  tervik_tell_outcome(sent ? 0 : -1);
  remove_pending_worker(command.block);
  if (sent) {
    sleep(1);
  }
  client.release();
}

using worker_send = void (*)(const char* func, const worker_command& command);

// Sends the block's command over an open of the library of its own.
void send_block(const char* func, const uint8_t* block, worker_send send) {
  const std::lock_guard lock(g_diag_without_result_mutex);
  if (block == nullptr) {
    tervik_log_debug_as(func, "param is null");
    return;
  }
  worker_command command{block, block + sizeof(command.length), 0};
  memcpy(&command.length, block, sizeof(command.length));
  tervik_log_debug_as(func, "data_len = %d", command.length);
  if (!Diag_LSM_Init(nullptr)) {
    tervik_log_debug_as(func, "LSM init failed");
    tervik_tell_outcome(-1);
    return;
  }
  send(func, command);
  Diag_LSM_DeInit();
}

// A worker's whole run, which owns its block. Returns null.
void* run_worker(const char* func, void* block, worker_send send) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE_AS(func));
  command_block owned(static_cast<uint8_t*>(block));
  send_block(func, owned.get(), send);
  // However the send ended; before the block's address can be another one's.
  remove_pending_worker(block);
  owned.reset();
  tervik_log_debug_as(func, "will sleep 3s before quit");
  sleep(3);
  return nullptr;
}

}  // namespace

unsigned tervik_diag_cmd_send_without_result_start_thread(const uint8_t* cmd, int data_len,
                                                          int diag_work_mode) {
  tervik_log_debug("function entry ------------->");
  if (tervik_diag_comand_input_check(cmd, data_len) != DIAG_OK) {
    tervik_log_debug("tervik_diag_comand_input_check fail");
    return DIAG_FAIL;
  }
  command_block block = make_block(cmd, data_len);
  if (block == nullptr) {
    tervik_log_error("Failed to allocate memory for ptr_out");
    return DIAG_FAIL;
  }
  add_pending_worker(block.get());
  const int conf = create_diag_thread(
      diag_work_mode != 0 ? tervik_diag_cmd_send_without_result_by_dci_mode_thread_proc
                          : tervik_diag_cmd_send_without_result_by_callback_mode_thread_proc,
      block.get());
  tervik_log_debug("tervik daig is created, conf = %d, diag_work_mode = %d", conf, diag_work_mode);
  tervik_tell_outcome(conf);
  if (conf == 0) {
    static_cast<void>(block.release());  // the worker's now
  } else {
    remove_pending_worker(block.get());
  }
  return DIAG_OK;
}

unsigned tervik_diag_cmd_send_without_result_by_callback_mode(const uint8_t* cmd, int data_len) {
  return tervik_diag_cmd_send_without_result_start_thread(cmd, data_len, 0);
}

unsigned tervik_diag_cmd_send_without_result_by_dci_mode(const uint8_t* cmd, int data_len) {
  return tervik_diag_cmd_send_without_result_start_thread(cmd, data_len, 1);
}

void* tervik_diag_cmd_send_without_result_by_callback_mode_thread_proc(void* block) {
  return run_worker(__func__, block, send_by_callback);
}

void* tervik_diag_cmd_send_without_result_by_dci_mode_thread_proc(void* block) {
  return run_worker(__func__, block, send_by_dci);
}

void tervik_diag_wait_for_workers(int time_out) {
  std::unique_lock lock(g_pending_workers.mutex);
  const bool all_through = g_pending_workers.changed.wait_for(
      lock, std::chrono::milliseconds(time_out), [] { return g_pending_workers.blocks.empty(); });
  tervik_tell_outcome(all_through ? 0 : -1, "the command is not with the DIAG library in time");
}
