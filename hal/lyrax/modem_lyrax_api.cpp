#include "modem_lyrax_api.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <span>

#include "tervik_utils_cmn.h"

// ---- white list ----

namespace {

constexpr std::array<const char*, 3> WHITE_LIST = {"qcrilNrd", "kiv", "modem_api_test"};

std::atomic<bool> g_white_list_checked{false};
std::atomic<bool> g_white_list_failed{false};

bool modem_api_check_white_list() {
  const char* const p_name = tervik_utils_get_pid_name();
  const bool is_first_check = !g_white_list_checked;
  if (is_first_check) {
    g_white_list_failed =
        std::none_of(WHITE_LIST.begin(), WHITE_LIST.end(),
                     [p_name](const char* known) { return tervik_str_cmp(p_name, known) == 0; });
    g_white_list_checked = true;
  }
  if (is_first_check || g_white_list_failed) {
    tervik_log_debug("check %s, p_id: %d, p_name: %s", g_white_list_failed ? "fail" : "pass",
                     tervik_utils_get_pid_number(), p_name);
  }
  return !g_white_list_failed;
}

}  // namespace

// ---- clients ----

namespace {

constexpr uint32_t STATUS_LOST = 4;  // of a VS client that reports a loss; this one does not
constexpr size_t CLIENTS_MAX = 10;

// The pid and the event callback tell whose client it is; nothing reads them.
struct modem_api_client {
  uint32_t client_type;
  uint32_t pid;
  uint32_t operational_status;
  vs_event_cb event_cb;
  modem_api_operational_status_event_cb operational_status_cb;
};

// Held while a client is freed; taken before g_clients_mutex.
std::mutex g_client_table_mutex;
// Guards what follows. Never held over a call of the VS client, whose status callback takes it.
std::mutex g_clients_mutex;
bool g_inited = false;
// The client id is the slot.
std::array<std::unique_ptr<modem_api_client>, CLIENTS_MAX> g_clients;

// A change empties the table.
void set_inited(bool inited) {
  const std::lock_guard lock(g_clients_mutex);
  if (g_inited != inited) {
    g_inited = inited;
    g_clients = {};
  }
}

bool in_table(int32_t client_id) {
  return client_id >= 0 && client_id < static_cast<int32_t>(CLIENTS_MAX);
}

// Nothing for an empty slot or an id outside the table.
std::optional<uint32_t> status_of(int32_t client_id) {
  const std::lock_guard lock(g_clients_mutex);
  if (!in_table(client_id) || g_clients[static_cast<size_t>(client_id)] == nullptr) {
    return std::nullopt;
  }
  return g_clients[static_cast<size_t>(client_id)]->operational_status;
}

bool modem_api_check_client_valid(int32_t client_id) {
  return status_of(client_id) == VS_CONNECTED;
}

// Puts a client into the lowest empty slot, whose number goes to `client_id`.
uint32_t add_client(const char* func, std::unique_ptr<modem_api_client> client,
                    int32_t* client_id) {
  const std::lock_guard lock(g_clients_mutex);
  for (const auto& other : g_clients) {
    if (other != nullptr && other->operational_status == VS_CONNECTED) {
      tervik_log_debug_as(func, "Already another client init vs client successfully");
      return MODEM_API_OTHER_CLIENT;
    }
    if (other != nullptr) {
      tervik_log_debug_as(func, "Another client init vs client with operational status %d",
                          other->operational_status);
      return MODEM_API_OTHER_CLIENT_NOT_READY;
    }
  }
  auto* const slot = std::find(g_clients.begin(), g_clients.end(), nullptr);
  if (slot == g_clients.end()) {
    tervik_log_error_as(func, "no more client can be added");
    return MODEM_API_NO_SLOT;
  }
  *slot = std::move(client);
  *client_id = static_cast<int32_t>(slot - g_clients.begin());
  return MODEM_API_SUCCESS;
}

void empty_slot(int32_t client_id) {
  const std::lock_guard lock(g_clients_mutex);
  g_clients[static_cast<size_t>(client_id)].reset();
}

}  // namespace

uint32_t modem_api_init() {
  if (!modem_api_check_white_list()) {
    tervik_log_error("check fail, do nothing");
    return MODEM_API_NOT_ALLOWED;
  }
  set_inited(true);
  vs_init(modem_api_process_response);
  return MODEM_API_SUCCESS;
}

uint32_t modem_api_release() {
  set_inited(false);
  return MODEM_API_SUCCESS;
}

uint32_t modem_api_init_client(uint32_t client_type, vs_event_cb event_cb,
                               modem_api_operational_status_event_cb status_cb,
                               int32_t* client_id) {
  if (!modem_api_check_white_list()) {
    tervik_log_error("check fail, do nothing");
    return MODEM_API_NOT_ALLOWED;
  }
  std::unique_ptr<modem_api_client> client(new (std::nothrow) modem_api_client{
      client_type, tervik_utils_get_pid_number(), VS_RELEASED, event_cb, status_cb});
  if (client == nullptr) {
    tervik_log_error("could not allocate memory");
    return MODEM_API_NO_MEMORY;
  }
  if (client_type != VS_CLIENT_TYPE) {
    tervik_log_error("modem api client type %d not supported", client_type);
    return MODEM_API_NOT_SUPPORTED;
  }
  int32_t new_id = 0;
  const uint32_t result = add_client(__func__, std::move(client), &new_id);
  if (result != MODEM_API_SUCCESS) {
    return result;
  }
  vs_client_set_operational_status_callback(modem_api_operational_status_cb);
  if (vs_client_init(event_cb) == 0) {
    empty_slot(new_id);
    return MODEM_API_FAILURE;
  }
  *client_id = new_id;
  tervik_log_debug("new client: type %d, id %d", client_type, new_id);
  return MODEM_API_SUCCESS;
}

void modem_api_operational_status_cb(uint32_t client_type, uint32_t status) {
  for (size_t id = 0; id < CLIENTS_MAX; ++id) {
    modem_api_operational_status_event_cb status_cb = nullptr;
    {
      const std::lock_guard lock(g_clients_mutex);
      modem_api_client* const client = g_clients[id].get();
      if (client == nullptr || client->client_type != client_type) {
        continue;
      }
      client->operational_status = status;
      status_cb = client->operational_status_cb;
    }
    tervik_log_debug("client type %d, client id %d, operational_status %d", client_type,
                     static_cast<int>(id), status);
    if (status_cb != nullptr && status == VS_CONNECTED) {
      status_cb(MODEM_API_EVENT_CONNECTED, client_type);
    } else if (status_cb != nullptr && status == STATUS_LOST) {
      status_cb(MODEM_API_EVENT_LOST, client_type);
    }
  }
}

uint32_t modem_api_free_client(int32_t client_id) {
  tervik_log_debug("client_id %d", client_id);
  if (!in_table(client_id)) {
    tervik_log_error("invalid client_id %d", client_id);
    return MODEM_API_INVALID_CLIENT;
  }
  const std::lock_guard lock(g_client_table_mutex);
  if (status_of(client_id)) {
    vs_client_release();
    empty_slot(client_id);
  } else {
    tervik_log_error("client already freed");
  }
  return MODEM_API_SUCCESS;
}

// ---- results ----

namespace {

struct mapped_error {
  int32_t error;
  modem_api_result result;
};

constexpr mapped_error TRANSPORT_ERRORS[] = {
    {-5, MODEM_API_TRANSPORT}, {-1, MODEM_API_TRANSPORT}, {-3, MODEM_API_TIMEOUT}};

// Of a failed response.
constexpr mapped_error QMI_ERRORS[] = {
    {0, MODEM_API_SUCCESS},        {26, MODEM_API_SUCCESS},       {4, MODEM_API_QMI_ERROR_4},
    {17, MODEM_API_INVALID_ARG},   {19, MODEM_API_INVALID_ARG},   {48, MODEM_API_INVALID_ARG},
    {49, MODEM_API_INVALID_ARG},   {24, MODEM_API_NOT_SUPPORTED}, {42, MODEM_API_NOT_SUPPORTED},
    {77, MODEM_API_NOT_SUPPORTED}, {94, MODEM_API_NOT_SUPPORTED}, {52, MODEM_API_QMI_ERROR_52}};

// What the error stands for; one without a row is a failure.
uint32_t result_of(std::span<const mapped_error> rows, int32_t error) {
  const mapped_error* const row = find_row(rows, &mapped_error::error, error);
  return row != nullptr ? row->result : MODEM_API_FAILURE;
}

uint32_t modem_api_map_qmi_error_to_modem_api(qmi_client_error_type transport_error,
                                              const qmi_result& response) {
  constexpr int32_t QMI_RESULT_FAILURE = 1;
  if (transport_error != 0 && transport_error != -2) {
    return result_of(TRANSPORT_ERRORS, transport_error);
  }
  if (response.result == QMI_RESULT_FAILURE) {
    return result_of(QMI_ERRORS, response.error);
  }
  return response.result == 0 ? MODEM_API_SUCCESS : MODEM_API_FAILURE;
}

}  // namespace

// ---- requests ----

uint32_t modem_api_set_lyrax_feature_status(int32_t client_id, uint32_t feature, uint8_t status,
                                            uint8_t second_flag_present, uint8_t second_flag) {
  if (!modem_api_check_client_valid(client_id)) {
    tervik_log_error("modem_api_check_client_valid fail, do nothing");
    return MODEM_API_INVALID_CLIENT;
  }
  const vs_set_feature_status_req request = {.feature = feature,
                                             .status = status,
                                             .second_flag_valid = second_flag_present,
                                             .second_flag = second_flag,
                                             .unused_7 = 0};
  vs_set_feature_status_resp response = {};
  const qmi_client_error_type qmi_error = vs_client_send_msg_sync(
      VS_SET_FEATURE_STATUS, &request, sizeof(request), &response, sizeof(response));
  const uint32_t result = modem_api_map_qmi_error_to_modem_api(qmi_error, response);
  tervik_log_debug("result %d, qmi_error %d", result, qmi_error);
  return result;
}

namespace {

// A value as the log shows it: its first bytes in hex.
std::array<char, 29> value_text(const vs_stats_entry& entry) {
  std::array<char, 29> text = {};
  // It fails for a null or tiny buffer alone.
  static_cast<void>(
      tervik_get_hex_str(text.data(), text.size(), entry.value, static_cast<int>(entry.value_len)));
  return text;
}

// Fills the entries of a request from the caller's, which are cut to their buffers.
void fill_entries(const char* func, uint32_t sub, const stats_para_data& data,
                  vs_get_stats_parameter_req& request) {
  request.entries_len = data.para_num;
  for (uint32_t i = 0; i < data.para_num; ++i) {
    vs_stats_entry& entry = request.entries[i];
    entry.id = data.para[i].id;
    entry.value_len = std::min(data.para[i].value_len, VS_STATS_VALUE_MAX);
    memcpy(entry.value, data.para[i].value, sizeof(entry.value));
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub,
                        "req: ids[%d] = %d, value_len = %d, type = %d, value: %s", i, entry.id,
                        entry.value_len, entry.second_half_word, value_text(entry).data());
  }
}

void take_entries(const char* func, uint32_t sub, const vs_get_stats_parameter_resp& response,
                  stats_para_data& data) {
  data.para_num = std::min(response.entries_len, VS_STATS_ENTRIES_MAX);
  for (uint32_t i = 0; i < data.para_num; ++i) {
    const vs_stats_entry& entry = response.entries[i];
    vs_stats_entry& taken = data.para[i];
    taken.sub = entry.sub;
    taken.second_half_word = entry.second_half_word;
    taken.id = entry.id;
    taken.value_len = std::min(entry.value_len, VS_STATS_VALUE_MAX);
    memcpy(taken.value, entry.value, taken.value_len);
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "rsp: ids[%d] = %d, value_len = %d, value: %s",
                        i, taken.id, taken.value_len, value_text(taken).data());
  }
}

}  // namespace

uint32_t modem_api_get_stats_parameter(int32_t client_id, uint16_t sub, uint16_t slot,
                                       stats_para_data* data) {
  tervik_log_print(LOG_CLASS_DEBUG, sub, "client_id = %d, sub = %d, slot = %d", client_id, sub,
                   slot);
  if (!modem_api_check_client_valid(client_id)) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "modem_api_check_client_valid fail, do nothing");
    return MODEM_API_INVALID_CLIENT;
  }
  if (data == nullptr) {
    tervik_log_print(LOG_CLASS_DEBUG, sub, "stats_para_data is null");
    return MODEM_API_INVALID_ARG;
  }
  if (data->para_num < 1 || data->para_num > VS_STATS_ENTRIES_MAX) {
    tervik_log_print(LOG_CLASS_DEBUG, sub, "para_num(%d) is invalid", data->para_num);
    return MODEM_API_INVALID_ARG;
  }
  vs_get_stats_parameter_req request = {};
  request.sub = sub;
  request.slot = slot;
  fill_entries(__func__, sub, *data, request);
  vs_get_stats_parameter_resp response = {};
  const qmi_client_error_type qmi_error = vs_client_send_msg_sync(
      VS_GET_STATS_PARAMETER, &request, sizeof(request), &response, sizeof(response));
  const uint32_t result = modem_api_map_qmi_error_to_modem_api(qmi_error, response.resp);
  if (result != MODEM_API_SUCCESS) {
    return result;
  }
  if (response.entries_valid == 0) {
    return MODEM_API_FAILURE;
  }
  take_entries(__func__, sub, response, *data);
  return MODEM_API_SUCCESS;
}

// ---- asynchronous responses ----

namespace {

// On success `data` is a copy of the bytes behind the response's head, for the callback to free.
uint32_t take_async_response(unsigned int msg_id, std::span<const uint8_t> resp,
                             qmi_client_error_type transport_error, std::span<uint8_t>& data) {
  if (resp.empty()) {
    return MODEM_API_NO_MEMORY;
  }
  modem_api_async_response head = {};
  memcpy(&head, resp.data(), std::min(resp.size(), sizeof(head)));
  const uint32_t result = modem_api_map_qmi_error_to_modem_api(transport_error, head.resp);
  if (result != MODEM_API_SUCCESS) {
    return result;
  }
  if (msg_id != 0) {
    return MODEM_API_UNEXPECTED_MSG;
  }
  const bool is_whole = resp.size() >= sizeof(head) && head.data_len <= resp.size() - sizeof(head);
  void* const copy = is_whole ? malloc(head.data_len + size_t{1}) : nullptr;
  if (copy == nullptr) {
    return MODEM_API_NO_MEMORY;
  }
  memcpy(copy, resp.data() + sizeof(head), head.data_len);
  data = {static_cast<uint8_t*>(copy), head.data_len};
  return MODEM_API_SUCCESS;
}

}  // namespace

void modem_api_process_response(unsigned int msg_id, void* resp, unsigned int resp_len,
                                void* cb_data, qmi_client_error_type transport_error) {
  const std::unique_ptr<void, void (*)(void*)> owned_resp(resp, free);
  const std::unique_ptr<void, void (*)(void*)> owned_cb_data(cb_data, free);
  const auto* const request = static_cast<const modem_api_async_request*>(cb_data);
  if (request == nullptr || request->callback == nullptr) {
    return;
  }
  const std::span bytes(static_cast<const uint8_t*>(resp), resp != nullptr ? resp_len : 0);
  std::span<uint8_t> data;
  const uint32_t result = take_async_response(msg_id, bytes, transport_error, data);
  request->callback(data.data(), static_cast<uint32_t>(data.size()), request->user_data, result);
}
