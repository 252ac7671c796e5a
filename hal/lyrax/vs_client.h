// The one connection to the modem's VS statistics service: connects with retries, sends requests
// synchronously, and turns the service's indications into numbered events for one callback.
// Connecting and sending run on the caller's thread, indications on the QMI framework's; their
// bytes are untrusted.
#pragma once

#include <cstdint>

#include "qmi_client.h"
#include "vs_idl.h"

// Events, one per indication, and the records that come along.
enum vs_event_id : uint32_t {
  VS_EVENT_FEATURE_STATUS = 2,   // vs_feature_status_ind, its flags 0 or 1
  VS_EVENT_STATS_PARAMETER = 3,  // vs_event_stats_parameter
  VS_EVENT_STATS_EVENT = 4,      // vs_event_stats_event
  VS_EVENT_STATE = 5,            // vs_state_ind
};

// A parameter entry as events carry it.
struct vs_event_entry {
  uint32_t id;
  uint8_t value[VS_STATS_VALUE_MAX];
  uint32_t value_len;
  uint16_t sub;
  uint16_t second_half_word;
};
static_assert(sizeof(vs_event_entry) == 712);

struct vs_event_stats_parameter {
  uint32_t value;
  vs_event_entry entries[VS_STATS_ENTRIES_MAX];
  uint32_t entries_len;
  vs_event_entry more_entries[VS_STATS_MORE_ENTRIES_MAX];
  uint32_t more_entries_len;
  uint32_t last_value;  // 0xFFFFFFFF when the indication had none
};
static_assert(sizeof(vs_event_stats_parameter) == 10696);

struct vs_event_stats_event {
  uint32_t value;
  uint32_t values[VS_EVENT_BYTES_MAX];
  uint32_t values_len;
  uint16_t third_value;
  uint16_t fourth_value;
};
static_assert(sizeof(vs_event_stats_event) == 412);

inline constexpr uint32_t VS_CLIENT_TYPE = 0;  // the only one

// Operational status of the connection.
enum vs_operational_status : uint32_t {
  VS_RELEASED = 0,
  VS_CONNECTING = 1,
  VS_CONNECT_FAILED = 2,
  VS_CONNECTED = 3,
};

// `data` lives for the duration of the call alone. Framework thread.
using vs_event_cb = void (*)(uint32_t event_id, const void* data, uint32_t data_len);
// The thread that connects or releases.
using vs_operational_status_cb = void (*)(uint32_t client_type, uint32_t status);

// Takes the responses to asynchronous requests. Framework thread.
using vs_response_cb = void (*)(unsigned int msg_id, void* resp, unsigned int resp_len,
                                void* cb_data, qmi_client_error_type transport_error);

// Zeroes the client's record and takes the service object and the receiver of asynchronous
// responses, who stays when the client is released.
void vs_init(vs_response_cb response_cb);
// Stores the event callback and connects: at most 10 attempts, 1 s apart. 1 connected, 0 failed.
[[nodiscard]] uint32_t vs_client_init(vs_event_cb event_cb);
// Releases the connection and zeroes the record, the service object included. Always 1.
uint32_t vs_client_release();
void vs_client_set_operational_status_callback(vs_operational_status_cb cb);
// Sends a request and waits at most 30 s. The framework's error code.
[[nodiscard]] qmi_client_error_type vs_client_send_msg_sync(uint16_t msg_id, const void* req,
                                                            uint32_t req_len, void* resp,
                                                            uint32_t resp_len);

// ---- callbacks for the framework ----

void vs_client_unsol_ind_cb(qmi_client_type handle, unsigned int msg_id, void* ind_buf,
                            unsigned int ind_len, void* cb_data);
void vs_client_service_down_event(qmi_client_type handle, qmi_client_error_type error,
                                  void* cb_data);
// The response path of asynchronous requests: passes on to what vs_init was given.
void vs_client_command_cb(qmi_client_type handle, unsigned int msg_id, void* resp,
                          unsigned int resp_len, void* cb_data,
                          qmi_client_error_type transport_error);
