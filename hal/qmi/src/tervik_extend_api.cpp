#include "tervik_extend_api.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "tervik_qmi_client.h"
#include "tervik_utils_cmn.h"
#include "tervik_utils_timer.h"

namespace {

constexpr uint32_t WATCHDOG_TIMER_ID = 1;
constexpr unsigned long WATCHDOG_TIMEOUT_S = 3;
constexpr std::chrono::seconds WATCHDOG_END_TIMEOUT{1};
constexpr unsigned int SEND_TIMEOUT_MS = 3000;
constexpr int SERVICE_LIST_ATTEMPTS = 50;
constexpr unsigned int SERVICE_LIST_WAIT_MS = 20;
constexpr unsigned int SERVICE_INFO_MAX = 8;
constexpr int PAYLOAD_MAX = static_cast<int>(TERVIK_EXTEND_PAYLOAD_SIZE);

constexpr unsigned int IND_DATA_MSG_ID = 0x0003;
constexpr uint32_t IND_SUB_ID_COUNT = 8;

std::atomic<bool> g_tervik_qmi_lock_init{false};
std::mutex tervik_extend_qmi_client_crit_sect;

// Under tervik_extend_qmi_client_crit_sect.
struct extend_connection {
  bool inited = false;
  qmi_client_type client = nullptr;
  qmi_client_type notifier = nullptr;
  qmi_client_os_params os_params;
};
extend_connection g_connection;

qmi_idl_service_object_type extend_service() {
  return tervik_extend_get_service_object_internal_v01(1, 1, 6);
}

// The client lock, with its lines in the log.
class client_lock {
 public:
  explicit client_lock(const char* func) : func_(func) {
    tervik_log_debug_as(func_, "TERVIK_EXTEND_QMI_CLIENT_CRIT_SECT_LOCK_WAIT...");
    tervik_extend_qmi_client_crit_sect.lock();
    tervik_log_debug_as(func_, "TERVIK_EXTEND_QMI_CLIENT_CRIT_SECT_LOCK_DONE");
  }
  ~client_lock() {
    // Logged first, so that the line always stands before those of the next holder.
    tervik_log_debug_as(func_, "TERVIK_EXTEND_QMI_CLIENT_CRIT_SECT_UNLOCK_DONE");
    tervik_extend_qmi_client_crit_sect.unlock();
  }
  client_lock(const client_lock&) = delete;
  client_lock& operator=(const client_lock&) = delete;

 private:
  const char* const func_;
};

// The run of the watchdog's callback. Never destroyed: the callback may run while the process ends.
struct watchdog_run {
  std::mutex mutex;
  std::condition_variable changed;
  bool running = false;

  void set(bool now_running) {
    const std::lock_guard lock(mutex);
    running = now_running;
    changed.notify_all();
  }
};

watchdog_run& g_watchdog_run = *new watchdog_run;

// ---- opening the client ----

// Waits about a second for the service to appear; returns the number of its instances.
unsigned int wait_for_service(const char* func) {
  unsigned int num_services = 0;
  for (int attempt = 0; attempt < SERVICE_LIST_ATTEMPTS; ++attempt) {
    const qmi_client_error_type err =
        qmi_client_get_service_list(extend_service(), nullptr, nullptr, &num_services);
    tervik_log_debug_as(func, "qmi_client_get_service_list() returned %d num_services = %d", err,
                        num_services);
    if (err == QMI_NO_ERR) {
      break;
    }
    qmi_cci_os_signal_wait(&g_connection.os_params, SERVICE_LIST_WAIT_MS);
  }
  return num_services;
}

// ---- one request ----

[[nodiscard]] bool check_arguments(const char* func, const uint8_t* req, int req_len,
                                   const uint8_t* rsp, const int* rsp_len) {
  if (req == nullptr || rsp == nullptr || rsp_len == nullptr) {
    tervik_log_error_as(func, "%x,  put Invalid param",
                        static_cast<unsigned>(reinterpret_cast<uintptr_t>(req)));
    return false;
  }
  const auto in_range = [](int len) { return len >= 0 && len <= PAYLOAD_MAX; };
  if (!in_range(req_len) || !in_range(*rsp_len)) {
    tervik_log_error_as(func, "put data_len %d > max %d", req_len, PAYLOAD_MAX);
    return false;
  }
  return true;
}

[[nodiscard]] int take_response(const char* func, const tervik_extend_data_msg& response,
                                uint8_t* rsp, int* rsp_len) {
  if (response.id != 0) {
    tervik_log_error_as(func, "%d QMI service framework error. Check client",
                        static_cast<int>(response.id));
    return TERVIK_EXTEND_SEND_FAILED;
  }
  const uint32_t stored = std::min(static_cast<uint32_t>(*rsp_len), response.len);
  *rsp_len = response.payload_valid != 0 ? static_cast<int>(stored) : 0;
  memcpy(rsp, response.payload, static_cast<size_t>(*rsp_len));
  if (g_extend_qmi_trace != 0) {
    tervik_log_debug_as(func, "resp_len:%d", *rsp_len);
  }
  return TERVIK_EXTEND_SUCCESS;
}

// One request under the client lock, from the check of its arguments to its result.
[[nodiscard]] int exchange_locked(const char* func, uint32_t id, const uint8_t* req, int req_len,
                                  uint8_t* rsp, int* rsp_len) {
  const client_lock lock(func);
  tervik_extend_qmi_init_do();
  int result = TERVIK_EXTEND_SUCCESS;
  if (!check_arguments(func, req, req_len, rsp, rsp_len)) {
    result = TERVIK_EXTEND_INVALID_PARAM;
  } else if (g_connection.client == nullptr && tervik_extend_qmi_client_open() == nullptr) {
    result = TERVIK_EXTEND_NO_CLIENT;
  } else {
    tervik_extend_data_msg request = {id, static_cast<uint32_t>(req_len), 1, {}};
    memcpy(request.payload, req, request.len);
    tervik_extend_data_msg response = {};
    // Without a watchdog the send still ends by its own time-out.
    static_cast<void>(
        tervik_timer_start(WATCHDOG_TIMER_ID, tervik_qmi_timer_cb, WATCHDOG_TIMEOUT_S));
    const qmi_client_error_type err =
        qmi_client_send_msg_sync(g_connection.client, TERVIK_EXTEND_DATA_MSG_ID, &request,
                                 sizeof(request), &response, sizeof(response), SEND_TIMEOUT_MS);
    tervik_timer_stop(WATCHDOG_TIMER_ID);
    if (err != QMI_NO_ERR) {
      tervik_log_error_as(func, "send msg sync failed: %d, id: %d", err, id);
      tervik_extend_qmi_deinit_do();
      tervik_extend_qmi_init_do();
      return TERVIK_EXTEND_SEND_FAILED;
    }
    result = take_response(func, response, rsp, rsp_len);
  }
  if (g_extend_qmi_trace != 0) {
    tervik_log_debug_as(func, "result: %d, id: %d", result, id);
  }
  return result;
}

}  // namespace

std::atomic<int> g_extend_qmi_trace{1};

void tervik_qmi_lock_init() {
  if (g_tervik_qmi_lock_init) {
    tervik_log_debug("done, do nothing");
    return;
  }
  // The mutex is ready from the start and has no number of its own to show.
  tervik_log_debug("start, tervik_extend_qmi_client_crit_sect = %d, g_tervik_qmi_lock_init = %d", 0,
                   0);
  g_tervik_qmi_lock_init = true;
  tervik_log_debug("end, tervik_extend_qmi_client_crit_sect = %d", 0);
}

void tervik_extend_qmi_init_do() {
  if (g_connection.inited) {
    tervik_log_debug("done, do nothing");
    return;
  }
  tervik_log_debug("start, inited = %d", g_connection.inited);
  if (extend_service() == nullptr) {
    tervik_log_error("QMI get service obj failed. Check .c and .h");
  }
  g_connection.inited = true;
  tervik_log_debug("end, inited = %d", g_connection.inited);
}

void tervik_extend_qmi_deinit_do() {
  if (!g_connection.inited) {
    tervik_log_debug("no init, do nothing");
    return;
  }
  tervik_log_debug("start, inited = %d", g_connection.inited);
  qmi_client_error_type err = qmi_client_release(g_connection.client);
  tervik_log_debug("qmi_client_release client_handle, err = %d", err);
  err = qmi_client_release(g_connection.notifier);
  tervik_log_debug("qmi_client_release notifier, err = %d", err);
  g_connection = {};
  tervik_log_debug("end, inited = %d", g_connection.inited);
}

void tervik_extend_qmi_init_force() {
  const client_lock lock(__func__);
  tervik_extend_qmi_deinit_do();
  tervik_extend_qmi_init_do();
}

qmi_client_type tervik_extend_qmi_client_open() {
  tervik_extend_qmi_init_do();
  auto& [inited, client, notifier, os_params] = g_connection;
  if (client != nullptr) {
    return client;
  }
  const qmi_idl_service_object_type service = extend_service();
  // A notifier only shortens the wait below; without one it polls.
  static_cast<void>(qmi_client_notifier_init(service, &os_params, &notifier));
  unsigned int num_services = wait_for_service(__func__);
  std::array<qmi_service_info, SERVICE_INFO_MAX> service_info = {};
  unsigned int num_entries = std::min(num_services, SERVICE_INFO_MAX);
  qmi_client_error_type err =
      qmi_client_get_service_list(service, service_info.data(), &num_entries, &num_services);
  tervik_log_debug("qmi_client_get_service_list, err = %d, num_entries = %d, num_services = %d",
                   err, num_entries, num_services);
  qmi_client_type handle = nullptr;
  err = qmi_client_init(&service_info[0], service, tervik_extend_qmi_ind_cb, nullptr, nullptr,
                        &handle);
  client = err == QMI_NO_ERR ? handle : nullptr;
  const auto shown = [](qmi_client_type each) {
    return static_cast<int>(reinterpret_cast<intptr_t>(each));
  };
  tervik_log_debug("qmi_client_init, err = %d, handle = %d, client_handle = %d", err, shown(handle),
                   shown(client));
  if (err == QMI_NO_ERR) {
    tervik_log_debug("QMI client inited");
  } else {
    tervik_log_error("%d QMI client init failed", err);
    // The next attempt registers a notifier of its own.
    static_cast<void>(qmi_client_release(notifier));
    notifier = nullptr;
  }
  return client;
}

int tervik_extend_qmi_send_sync(uint32_t id, const uint8_t* req, int req_len, uint8_t* rsp,
                                int* rsp_len) {
  const int result = exchange_locked(__func__, id, req, req_len, rsp, rsp_len);
  // The run may end with the request: a watchdog that runs rebuilds the client first, so that the
  // last lines are the same every time.
  std::unique_lock lock(g_watchdog_run.mutex);
  g_watchdog_run.changed.wait_for(lock, WATCHDOG_END_TIMEOUT,
                                  [] { return !g_watchdog_run.running; });
  return result;
}

void tervik_qmi_timer_cb(union sigval value) {
  g_watchdog_run.set(true);
  const auto timer_id = static_cast<uint32_t>(value.sival_int);
  tervik_log_notice("The timer expired with ID %u", timer_id);
  tervik_timer_stop(timer_id);
  tervik_extend_qmi_init_force();
  g_watchdog_run.set(false);
}

// Nobody in this tool handles an indication: what is decoded is told and dropped.
void tervik_extend_qmi_ind_cb(qmi_client_type client, unsigned int msg_id, void* buffer,
                              unsigned int buffer_len, void* /*user_data*/) {
  const tervik_qmi_indication indication =
      tervik_qmi_decode_indication(extend_service(), client, msg_id, buffer, buffer_len);
  if (indication.len == 0) {
    return;
  }
  if (indication.c_struct == nullptr || indication.err != QMI_NO_ERR) {
    tervik_log_debug("indication 0x%x does not decode, buf_len: %u", msg_id, buffer_len);
    return;
  }
  if (msg_id != IND_DATA_MSG_ID || g_extend_qmi_trace == 0) {
    return;
  }
  const auto data = tervik_qmi_record<tervik_extend_data_msg>(indication.c_struct.get());
  const int sub_id = static_cast<int>(data.id);
  tervik_log_debug("msg_id: 0x%x, buf_len: %d, ind.ind: %d", msg_id, static_cast<int>(buffer_len),
                   sub_id);
  if (data.id >= IND_SUB_ID_COUNT) {
    tervik_log_debug("Indicaion: %d greater than maximum known indication.", sub_id);
  } else {
    tervik_log_debug("No function defined to handle indication: %d", sub_id);
  }
}
