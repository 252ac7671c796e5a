// What the simulated modem is and does, from `modem.conf` in the state directory. Read once, by the
// thread that publishes the modem's services. The file is untrusted: what cannot be understood is
// named on standard error with its line number, and the rest still counts.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kiv::platform {

// How one service of the modem misbehaves.
struct ServiceFault {
  enum class Kind : uint8_t {
    kNone,
    kDown,    // not on the bus
    kSilent,  // never answers
    kError,   // every send ends with the transport error `code`
    kResult,  // the service answers with its own failure `code`
  };
  Kind kind = Kind::kNone;
  int32_t code = 0;
};

// The values are those that the services report.
enum class CardState : uint32_t { kAbsent = 0, kPresent = 1, kError = 2 };

inline constexpr size_t kCardSlots = 2;

// 32 decimal digits, two a byte, the first one in the high half.
using Eid = std::array<uint8_t, 16>;

// Of the factory; its check digits (ISO 7064 MOD 97-10) are right.
inline constexpr Eid kFactoryEid{0x89, 0x00, 0x10, 0x17, 0x00, 0x00, 0x00, 0x00,
                                 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x63};

struct ModemConf {
  ServiceFault extension_fault;
  // Not 0: the extension service carries out no class 2 and class 4 request and answers with this
  // as the payload's own result word.
  int32_t extension_rsp_result = 0;
  ServiceFault sar_fault;
  // The DSI until one is set.
  int32_t sar_dsi = 0;

  std::array<CardState, kCardSlots> card_states{CardState::kPresent, CardState::kPresent};
  ServiceFault uim_fault;
  // None: the eUICC never reports one.
  std::optional<Eid> eid = kFactoryEid;
  // Operational profiles on the eUICC until they are deleted.
  int32_t uim_profiles = 1;
  bool uim_reset_fails = false;
  bool uim_open_channel_fails = false;

  ServiceFault diag_fault;
  int32_t diag_remote_mask = 0;    // bit i: processor i + 1
  int32_t diag_delay_ms = 0;       // of every answer
  int32_t diag_response_size = 0;  // what every answer is filled up or cut to; 0: as it is
  bool diag_dci_down = false;
};

// The configuration that the text of a `modem.conf` describes.
ModemConf parse_modem_conf(std::string_view text);

// The configuration of the state directory; that of a healthy modem when there is no file.
ModemConf load_modem_conf();

}  // namespace kiv::platform
