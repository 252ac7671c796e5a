// Sends DIAG commands to the modem through the platform's DIAG library, in callback mode or as a
// DCI client, with or without waiting for the response. A command is 1 to 4096 opaque bytes, a
// response 1 to 10240. Sends may come from any thread, one at a time of each kind; the response
// handlers run on the library's thread, the waits are bounded by a thread of their own. Response
// packets are untrusted. Unsigned results: 0 accepted or success, 1 rejected or failed.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "libdiag.h"

inline constexpr int TERVIK_DIAG_COMMAND_MAX = 4096;
inline constexpr int TERVIK_DIAG_RESPONSE_MAX = 10240;

// The response collected for the send in progress. Guarded by g_diag_dci_rsp_mutex.
struct qcril_diag_rsp_buf {
  std::unique_ptr<uint8_t[]> data;  // `length` bytes and a spare one; none when empty
  int32_t length = 0;
  std::unique_ptr<uint8_t[]> previous;  // DCI mode: data as it stood before the last append
};

extern qcril_diag_rsp_buf& g_qcril_diag_rsp_buf;
extern std::mutex g_diag_dci_rsp_mutex;
// A with-result send sleeps on it until a response or the wait thread posts it.
extern sem_t g_diag_rsp_sem;
// 1 while a with-result send waits.
extern std::atomic<uint8_t> g_diag_rsp_waiting;
// 1 when the wait thread gave up.
extern std::atomic<uint8_t> g_diag_rsp_timeout;
// How many 100 ms ticks the wait thread waits.
extern std::atomic<int32_t> g_diag_wait_cnt_limit;
// Uses of the library connection by with-result sends; 0 is closed.
extern std::atomic<int32_t> g_diag_init_status;

extern "C" {

// ---- checks and logging ----

// Logs a packet of 1 to 4096 bytes as hex.
void tervik_print_data_with_hex(const uint8_t* data, int len);
// Checks a command before it is sent.
[[nodiscard]] unsigned tervik_diag_comand_input_check(const uint8_t* data, int data_len);
// Checks the caller's reply buffer and its capacity.
[[nodiscard]] unsigned tervik_diag_comand_output_check(const uint8_t* reply_buf,
                                                       const int* p_reply_len);
// Checks a response packet; `context_data` points at a 32-bit processor id or is null.
[[nodiscard]] unsigned tervik_diag_cmd_response_check(const uint8_t* ptr, int len,
                                                      const void* context_data);

// ---- the library connection of a with-result send ----

void tervik_diag_init_with_result();
void tervik_diag_deinit_with_result();
// Starts a detached thread that ends the send's wait at the limit. When it cannot be started, the
// send keeps that limit itself.
void tervik_diag_cmd_send_with_result_wait_create_thread();
// That thread: ticks every 100 ms until the send is done or the limit is reached.
void* tervik_diag_cmd_send_with_result_wait_thread_proc(void* arg);

// ---- response handlers, called by the library ----

int tervik_diag_cmd_response_by_callback(unsigned char* ptr, int len, void* context_data);
int tervik_diag_cmd_response_by_callback_no_handle(unsigned char* ptr, int len, void* context_data);
void tervik_diag_cmd_response_by_dci(unsigned char* ptr, int len, void* context_data);
void tervik_diag_cmd_response_by_dci_no_handle(unsigned char* ptr, int len, void* context_data);
void tervik_diag_cmd_response_by_dci_log_stream(unsigned char* ptr, int len);
void tervik_diag_cmd_response_by_dci_event_stream(unsigned char* ptr, int len);
void tervik_diag_cmd_response_by_dci_log_stream_no_handle(unsigned char* ptr, int len);
void tervik_diag_cmd_response_by_dci_event_stream_no_handle(unsigned char* ptr, int len);

// ---- sending ----

// Registers `callback` for the primary and every remote processor.
void tervik_diag_register_callback(diag_response_callback callback);

// Sends a command and waits for its response, at most `time_out` ms (callback mode: 0 and values
// above 60000 count as 3000). `*p_reply_len` is the capacity of `reply_buf`, then the bytes copied;
// a longer response is cut.
[[nodiscard]] unsigned tervik_diag_cmd_send_with_result_by_callback_mode(const uint8_t* cmd,
                                                                         int data_len, int time_out,
                                                                         uint8_t* reply_buf,
                                                                         int* p_reply_len);
[[nodiscard]] unsigned tervik_diag_cmd_send_with_result_by_dci_mode(const uint8_t* cmd,
                                                                    int data_len, int time_out,
                                                                    uint8_t* reply_buf,
                                                                    int* p_reply_len);

// Starts a worker that sends a command and drops the response; 0 once it is started, 1 when the
// command was rejected or memory ran out. Work mode 0 is callback mode, any other DCI mode.
[[nodiscard]] unsigned tervik_diag_cmd_send_without_result_start_thread(const uint8_t* cmd,
                                                                        int data_len,
                                                                        int diag_work_mode);
[[nodiscard]] unsigned tervik_diag_cmd_send_without_result_by_callback_mode(const uint8_t* cmd,
                                                                            int data_len);
[[nodiscard]] unsigned tervik_diag_cmd_send_without_result_by_dci_mode(const uint8_t* cmd,
                                                                       int data_len);
// The workers: `block` is a command made by the worker start, which they free.
void* tervik_diag_cmd_send_without_result_by_callback_mode_thread_proc(void* block);
void* tervik_diag_cmd_send_without_result_by_dci_mode_thread_proc(void* block);

// Waits until every started worker has handed its command to the library or failed to, at most
// `time_out` ms.
void tervik_diag_wait_for_workers(int time_out);

}  // extern "C"
