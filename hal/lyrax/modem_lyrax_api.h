// The client manager in front of the VS client: admits known processes alone, keeps a table of
// clients, switches statistics features on and fetches statistics parameters. Command thread; what
// the modem answers is untrusted and cut to the caller's records.
#pragma once

#include <cstdint>

#include "vs_client.h"

// Results of every operation.
enum modem_api_result : uint32_t {
  MODEM_API_SUCCESS = 0,
  MODEM_API_FAILURE = 1,
  MODEM_API_UNEXPECTED_MSG = 2,
  MODEM_API_NO_MEMORY = 3,
  MODEM_API_NOT_SUPPORTED = 4,
  MODEM_API_INVALID_ARG = 5,
  MODEM_API_NOT_ALLOWED = 6,
  MODEM_API_INVALID_CLIENT = 7,
  MODEM_API_QMI_ERROR_52 = 8,
  MODEM_API_OTHER_CLIENT_NOT_READY = 9,
  MODEM_API_QMI_ERROR_4 = 10,
  MODEM_API_TIMEOUT = 11,
  MODEM_API_TRANSPORT = 12,
  MODEM_API_NO_SLOT = 14,
  MODEM_API_OTHER_CLIENT = 15,
};

// The caller's parameters of a fetch: what is asked for, then what came.
struct stats_para_data {
  uint32_t para_num;  // 1 to 10
  vs_stats_entry para[VS_STATS_ENTRIES_MAX];
};

// Events of the operational status callback.
inline constexpr uint32_t MODEM_API_EVENT_CONNECTED = 0x10002;
inline constexpr uint32_t MODEM_API_EVENT_LOST = 0x10001;
using modem_api_operational_status_event_cb = void (*)(uint32_t event, uint32_t client_type);

// 0, or MODEM_API_NOT_ALLOWED.
[[nodiscard]] uint32_t modem_api_init();
// Forgets the table; callers free their clients first. Always 0.
uint32_t modem_api_release();

// Adds a client of type 0 and connects. Stores its id. 0 or a result above.
[[nodiscard]] uint32_t modem_api_init_client(uint32_t client_type, vs_event_cb event_cb,
                                             modem_api_operational_status_event_cb status_cb,
                                             int32_t* client_id);
// Disconnects and removes a client. 0, or MODEM_API_INVALID_CLIENT for an id outside the table.
[[nodiscard]] uint32_t modem_api_free_client(int32_t client_id);
// Notes the connection's status in every client of the type and tells them.
void modem_api_operational_status_cb(uint32_t client_type, uint32_t status);

// Switches a statistics feature.
[[nodiscard]] uint32_t modem_api_set_lyrax_feature_status(int32_t client_id, uint32_t feature,
                                                          uint8_t status,
                                                          uint8_t second_flag_present,
                                                          uint8_t second_flag);
// Fetches the parameters that `data` names; their values come back in it.
[[nodiscard]] uint32_t modem_api_get_stats_parameter(int32_t client_id, uint16_t sub, uint16_t slot,
                                                     stats_para_data* data);

// What an asynchronous request gives as its callback data; heap-allocated (malloc), freed by the
// response path. `data` passes to the callback, which frees it; null on a failure.
struct modem_api_async_request {
  void (*callback)(uint8_t* data, uint32_t len, uintptr_t user_data, uint32_t result);
  uintptr_t user_data;
};

// The head of an asynchronous response; `data_len` bytes follow it.
struct modem_api_async_response {
  qmi_result resp;
  uint32_t data_len;
};
static_assert(sizeof(modem_api_async_response) == 12);

// Takes a response to an asynchronous request, and frees it and `cb_data`. Framework thread.
void modem_api_process_response(unsigned int msg_id, void* resp, unsigned int resp_len,
                                void* cb_data, qmi_client_error_type transport_error);
