// The platform's DIAG library as kiv uses it: one connection per process, over which DIAG commands
// are sent either in callback mode or as a DCI client (diagnostic consumer interface). All calls
// may come from any thread. Callbacks run on the library's own thread, one at a time; once
// Diag_LSM_DeInit has returned for the last open connection, none runs any more. Packets that
// callbacks get are untrusted and live only for the duration of the call.
#pragma once

#include <cstdint>

// Modes of diag_switch_logging.
inline constexpr int DIAG_USB_MODE = 1;
inline constexpr int DIAG_CALLBACK_MODE = 6;

// What every DCI call returns on success; any other value is a failure, with errno set.
inline constexpr int DIAG_DCI_NO_ERROR = 1001;

// Bit of the modem processor (MPSS) in a DCI peripheral list.
inline constexpr uint16_t DIAG_CON_MPSS = 2;

// Longest piece in which a DCI response arrives, in bytes.
inline constexpr int DIAG_DCI_PIECE_MAX = 4096;

// A response packet of `len` bytes; `context` is what the registration or the request gave.
using diag_response_callback = int (*)(unsigned char* packet, int len, void* context);
using diag_dci_response_callback = void (*)(unsigned char* packet, int len, void* context);
using diag_dci_stream_callback = void (*)(unsigned char* packet, int len);

extern "C" {

// Opens the connection, or one more use of it; false on failure. `environment` is null.
[[nodiscard]] bool Diag_LSM_Init(unsigned char* environment);
// Ends one use of the connection; false when none is open.
bool Diag_LSM_DeInit();

// Switches where the library's traffic goes. `directory` is null.
void diag_switch_logging(int mode, char* directory);

// Registers the receiver of the primary processor's responses.
void diag_register_callback(diag_response_callback callback, void* context);
// Stores the mask of remote processors: bit i for processor i + 1. Returns whether there is one.
int diag_has_remote_device(uint16_t* remote_mask);
// Registers the receiver of a remote processor's responses (1 and up).
void diag_register_remote_callback(diag_response_callback callback, int processor, void* context);
// Sends a command to a processor (0 is the primary). 0 on success.
[[nodiscard]] int diag_callback_send_data(int processor, unsigned char* data, int len);

// Makes the caller a DCI client of the peripherals in `*list`; stores the client's id.
// `signal_type` is its operating-system parameter.
[[nodiscard]] int diag_register_dci_client(int* client_id, uint16_t* list, int channel,
                                           void* signal_type);
// Asks for a signal when DCI data is there.
[[nodiscard]] int diag_register_dci_signal_data(int client_id, int signal);
// Stores the list of peripherals that are up.
[[nodiscard]] int diag_get_dci_support_list_proc(int channel, uint16_t* list);
// Registers the receivers of the DCI log and event streams.
[[nodiscard]] int diag_register_dci_stream_proc(int client_id, diag_dci_stream_callback log,
                                                diag_dci_stream_callback event);
// Sends a command; its response comes to `callback` in pieces of at most DIAG_DCI_PIECE_MAX bytes.
// `response` (`response_size` bytes) is the library's until the client is released.
[[nodiscard]] int diag_send_dci_async_req(int client_id, unsigned char* command, int len,
                                          unsigned char* response, int response_size,
                                          diag_dci_response_callback callback, void* context);
// Ends the client; no callback of it runs any more once it returned.
[[nodiscard]] int diag_release_dci_client(int* client_id);

}  // extern "C"
