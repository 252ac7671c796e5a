// Services that act on the modem as a whole (SAR state, subsystem restart, crash with and without a
// full dump, NV synchronisation, the counters of all restarts) and on its SIM cards; NAS requests
// and the extension service's class 4. All run on the command's thread, the callbacks on the QMI
// framework's. Responses are untrusted.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmi_client.h"

// ---- request class 4 of the extension service: common messages, and common requests ----

// The longest data of each, in bytes.
inline constexpr unsigned TERVIK_COMMON_DATA_MAX = 491;
inline constexpr unsigned TERVIK_COMMON_REQ_DATA_MAX = 499;

// Body of a common message. Little-endian.
struct tervik_common_request {
  uint32_t always_2;
  uint32_t unused_4;
  uint32_t type;
  uint32_t data_len;
  uint8_t data[496];
};
static_assert(sizeof(tervik_common_request) == 512);
static_assert(offsetof(tervik_common_request, type) == 8);
static_assert(offsetof(tervik_common_request, data) == 16);

// What comes back for a common message; `data_len` is the modem's claim.
struct tervik_common_response {
  uint32_t unused_0;
  int32_t result;  // 0 when the modem carried the message out
  uint32_t type;
  uint32_t data_len;
  uint8_t data[492];
};
static_assert(sizeof(tervik_common_response) == 508);
static_assert(offsetof(tervik_common_response, result) == 4);
static_assert(offsetof(tervik_common_response, type) == 8);
static_assert(offsetof(tervik_common_response, data) == 16);

// What comes back for a common request: `data` as far as it was received.
struct tervik_common_req_response {
  uint32_t unused_0;
  int32_t result;  // 0 when the modem carried the request out
  uint8_t data[500];
};
static_assert(sizeof(tervik_common_req_response) == sizeof(tervik_common_response));
static_assert(offsetof(tervik_common_req_response, data) == 8);

// The types of common messages.
inline constexpr int TERVIK_COMMON_MODEM_SSR = 31;
inline constexpr int TERVIK_COMMON_NV_SYNC = 35;
inline constexpr int TERVIK_COMMON_CARD_STATUS_QUERY = 39;
inline constexpr int TERVIK_COMMON_CARD_STATUS_GET = 55;
inline constexpr int TERVIK_COMMON_CARD_TYPE_QUERY = 56;
inline constexpr int TERVIK_COMMON_CARD_STATUS_SET = 57;
inline constexpr int TERVIK_COMMON_MODEM_TEST = 73;
inline constexpr int TERVIK_COMMON_CARD_HOTSWAP_TEST = 80;
inline constexpr int TERVIK_COMMON_MODEM_CRASH = 99;

// Types of common requests. The first word of a request is its type, where a common message has 2.
inline constexpr int TERVIK_COMMON_REQ_GPIO_TEST = 0;
inline constexpr int TERVIK_COMMON_REQ_TX_TEST = 1;
inline constexpr int TERVIK_COMMON_REQ_STATS_DEBUG = 20;
inline constexpr int TERVIK_COMMON_REQ_STATS_LOG_IDS = 27;

// Sends the 512 bytes of `body`, in the log for the function `func`. `rsp` is one of the responses
// above, zeroed first; `rsp_len`, when given, returns how many of its bytes were received. Returns
// the result of the extension client; an answer of less than `rsp_min` bytes, which end with its
// result, is TERVIK_EXTEND_SEND_FAILED.
[[nodiscard]] int tervik_send_class_4(const char* func, const void* body, void* rsp, int* rsp_len,
                                      int rsp_min = offsetof(tervik_common_response, type));

// Sends one common message, or common request, with `len` bytes of data, as the above does;
// TERVIK_ERR_INVALID_INPUT for too many, or for a null `rsp` or `data`.
[[nodiscard]] int tervik_send_common_qmi_msg(int type, unsigned len, const void* data, void* rsp,
                                             int* rsp_len = nullptr);
[[nodiscard]] int tervik_common_qmi_req(int type, unsigned len, const void* data, void* rsp,
                                        int* rsp_len = nullptr);

// ---- SAR ----

// Creates the SAR client.
void tervik_init_qmi_client_rf_sar();
// True when there is a SAR client; creates it when there is none.
[[nodiscard]] bool tervik_check_and_init_qmi_client_rf_sar();
// The modem's DSI, or -1.
[[nodiscard]] int tervik_get_sar_dsi();
// Sets the DSI, 1 to 20; any other value sets 0. Returns 0 or the QMI error, -1 without a client.
[[nodiscard]] int tervik_set_sar_dsi(int dsi);

// ---- restart, crash, NV synchronisation: the outcome is in the log ----

// Counts a restart: a flag without bit 31 is a mask of restart types, any other one type.
void tervik_save_modem_ssr_count(int flag);
// Adds 1 to the counter property of one restart type.
void tervik_update_modem_ssr_count(int type);

// Restarts the modem subsystem.
void tervik_modem_ssr(int flag);
// Crashes the modem so that it restarts by itself, with the waits around a changed restart type.
void tervik_modem_crash_without_orange_screen(int flag);
// Crashes the modem so that it leaves a full dump.
void tervik_modem_crash_with_orange_screen(int flag);
// Has the modem write its NV items to its flash memory, for the smart test: in the log alone.
void tervik_modem_nv_sync();
// The same request, for the configuration commands: the results of the send and of the modem,
// or-ed.
[[nodiscard]] int tervik_nvefs_sync();

// ---- NAS ----

// Sends one request of the NAS service on a client that lives for it alone. Waits at most
// `time_out_ms` for the response. 0; -1 for a null buffer or without a client; else the error of
// the send.
[[nodiscard]] int tervik_send_nas_qmi_req_msg(int msg_id, const void* req, unsigned req_len,
                                              void* rsp, unsigned rsp_len, unsigned time_out_ms);

// ---- SIM cards: the UIM service ----
//
// One client for all six operations, created on first use and anew after the service went down or
// three sends failed. Results: 0; -1 for a client, allocation or modem failure; -2 for bad input;
// else the error of the send. Slots are 1 and 2.

inline constexpr size_t UIM_EID_SIZE = 16;
// The longest answer that tervik_uim_send_apdu stores, with its length byte.
inline constexpr size_t UIM_APDU_OUTPUT_SIZE = 256;

// The client's ends; outside of this source only tests call them. Creates the client.
[[nodiscard]] bool init_uim_qmi_client();
// Releases the client if there is one.
void uim_qmi_client_recovery();
// Notes that the service went down (error -2). Framework thread.
void error_cb(qmi_client_type client, int error, void* data);

// Sets which cards feed the slots: word 0 the number of values (at most 5), then the values. The
// result is the send's: the modem's response is not looked at.
[[nodiscard]] int tervik_setSimType(const uint32_t* data);
// Reads the eUICC identifier of `*slot` into 16 bytes, which stay as they are when there is none.
[[nodiscard]] int tervik_uim_request_eid(const uint8_t* slot, uint8_t* eid_out);
// Writes the states of the two cards, one byte each: 0 absent, 1 present, 2 error, else unknown.
[[nodiscard]] int tervik_uim_get_card_status(uint16_t* states_out);
// Opens a logical channel to the ISD-R. `in`: slot, file-control-information option.
[[nodiscard]] int tervik_uim_open_channel(const uint8_t* in, uint8_t* channel_id_out);
// Closes a logical channel. `in`: slot, channel id.
[[nodiscard]] int tervik_uim_close_channel(const uint8_t* in);
// Exchanges one APDU. `apdu_in`: slot, channel id, length n, n bytes. `rsp_out`: the low byte of
// the length that the modem claims, not to be trusted, then the response, status word included, as
// far as it fits into UIM_APDU_OUTPUT_SIZE bytes.
[[nodiscard]] int tervik_uim_send_apdu(const uint8_t* apdu_in, uint8_t* rsp_out);

// ---- callbacks for the QMI framework: they only log ----

void tervik_qmi_client_common_empty_unsol_ind_cb(qmi_client_type client, unsigned int msg_id,
                                                 void* ind_buf, unsigned int ind_buf_len,
                                                 void* ind_cb_data);
void tervik_qmi_client_unsol_ind_cb(qmi_client_type client, unsigned int msg_id, void* ind_buf,
                                    unsigned int ind_buf_len, void* ind_cb_data);
void tervik_qmi_client_error_cb(qmi_client_type client, qmi_client_error_type error, void* data);
