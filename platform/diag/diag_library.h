// What the DIAG library of the stand-in asks of the modem behind it, and how a test takes that
// modem's place. The processor is called on the sender's own thread with no lock of the library
// held, several at once when several send; the answers it gives are delivered on the connection's
// callback thread. Commands come from the product and are untrusted by a processor.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "libdiag.h"

namespace kiv::platform {

// One packet that a command is answered with. A DCI response is cut into pieces on its way; all
// other packets arrive whole. No bytes at all arrive as a packet of length 0.
struct DiagAnswer {
  enum class Stream : uint8_t { kResponse, kDciLog, kDciEvent };
  std::vector<uint8_t> bytes;
  std::chrono::milliseconds delay{0};  // from the command on; equal ones arrive in their order
  Stream stream = Stream::kResponse;   // in callback mode there is no other
  int processor = 0;                   // callback mode: whose receiver gets it
};

// The modem's answers to a command, none for silence.
using DiagProcessor = std::function<std::vector<DiagAnswer>(std::span<const uint8_t> command)>;

// Library calls that do nothing but fail, with errno EIO: what each of them returns, 0 for a call
// that works. A release that fails ends the client all the same.
struct DiagFaults {
  bool init = false;
  int callback_send = 0;
  int register_dci_client = 0;
  int register_dci_signal = 0;
  int dci_support_list = 0;
  int register_dci_stream = 0;
  int dci_send = 0;
  int release_dci_client = 0;
};

struct DiagModem {
  DiagProcessor processor{};  // none: no command is answered
  uint16_t remote_mask = 0;
  uint16_t dci_support = DIAG_CON_MPSS;
  DiagFaults faults{};
};

// The modem as it is when the connection is opened for the first time; defined by whoever supplies
// the modem (platform/modem).
DiagModem make_diag_modem();

// Takes the place of the modem from the next call on, until reset_diag_library.
void set_diag_modem(DiagModem modem);

// Closes the connection whatever its use count, as the last Diag_LSM_DeInit does, ends all clients
// and has the next open make the modem anew.
void reset_diag_library();

}  // namespace kiv::platform
