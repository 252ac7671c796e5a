// The process's single client of the vendor extension QMI service: opened on first use, one
// request at a time, watched by a 3 s timer that rebuilds it when the modem does not answer. Any
// thread may send; the watchdog runs on a timer thread, indications on the framework's thread.
// Responses and indications are untrusted.
#pragma once

#include <atomic>
#include <csignal>
#include <cstdint>

#include "qmi_client.h"
#include "tervik_extend_idl.h"

// Request classes that kiv itself builds.
inline constexpr uint32_t REQUEST_ID_NV_ITEM = 1;
inline constexpr uint32_t REQUEST_ID_EFS = 2;
inline constexpr uint32_t REQUEST_ID_COMMON = 4;

// A command function's or request builder's answer to a wrong argument.
inline constexpr int TERVIK_ERR_INVALID_INPUT = 0x0FFFF00A;

// Results of tervik_extend_qmi_send_sync.
inline constexpr int TERVIK_EXTEND_SUCCESS = 0;
inline constexpr int TERVIK_EXTEND_INVALID_PARAM = -1;
inline constexpr int TERVIK_EXTEND_NO_CLIENT = -2;
inline constexpr int TERVIK_EXTEND_SEND_FAILED = -3;

// Switches the trace lines of results and indications; on at start.
extern std::atomic<int> g_extend_qmi_trace;

// Sends one request of class `id` and waits for its response, at most 3000 ms. `req_len` and the
// capacity `*rsp_len` are at most 550 bytes; `*rsp_len` returns the bytes stored in `rsp`.
// Returns one of the results above: invalid arguments, no client, send or service failure.
[[nodiscard]] int tervik_extend_qmi_send_sync(uint32_t id, const uint8_t* req, int req_len,
                                              uint8_t* rsp, int* rsp_len);

// ---- steps of a send, public only so that tests can call them ----

// Records that the client lock is ready; for a caller that wants its state in the log.
void tervik_qmi_lock_init();

// Looks whether the service object is there and marks the state as prepared; does nothing when that
// is done. A send and the opening both call it, so its lines come twice. Wants the client lock or a
// process with no other thread, as do the next two.
void tervik_extend_qmi_init_do();
// Releases client and notifier and forgets the state.
void tervik_extend_qmi_deinit_do();
// Opens the client if there is none: waits about a second for the service. Null on failure.
[[nodiscard]] qmi_client_type tervik_extend_qmi_client_open();

// Takes the client lock and rebuilds the client's state.
void tervik_extend_qmi_init_force();
// The watchdog: `value.sival_int` is the timer that expired. Timer thread.
void tervik_qmi_timer_cb(union sigval value);

// Takes indications of the service on the framework's thread.
void tervik_extend_qmi_ind_cb(qmi_client_type client, unsigned int msg_id, void* buffer,
                              unsigned int buffer_len, void* user_data);
