// What the simulated modem is and does, from `modem.conf` in the state directory. The file is read
// by the thread that publishes the modem's services, and again by the thread that first opens the
// DIAG library; a restart of the modem does not read it again. The file is untrusted: what cannot
// be understood is named on standard error with its line number, and the rest still counts.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

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
  int32_t first_request = 1;  // of a run, that the fault is there for
  int32_t runs = 0;           // that have the fault; 0 for all
};

// The values are those that the services report.
enum class CardState : uint32_t { kAbsent = 0, kPresent = 1, kError = 2 };

inline constexpr size_t kCardSlots = 2;

// 32 decimal digits, two a byte, the first one in the high half.
using Eid = std::array<uint8_t, 16>;

// Of the factory; its check digits (ISO 7064 MOD 97-10) are right.
inline constexpr Eid kFactoryEid{0x89, 0x00, 0x10, 0x17, 0x00, 0x00, 0x00, 0x00,
                                 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x63};

inline constexpr size_t kStatsValueMax = 700;

// What the modem answers instead of its own measurement.
struct StatsOverride {
  uint32_t id = 0;
  uint32_t sub = 0;
  std::vector<uint8_t> value;  // empty: the modem has none
};

// An indication as it is sent.
struct Indication {
  uint16_t msg_id = 0;
  std::vector<uint8_t> bytes;
};

// When the PDC service tells the outcome of a request.
enum class PdcIndication : uint8_t {
  kNormal,  // soon after the response
  kLate,    // when nobody waits for it any more
  kTwice,
  kNever,
  kEarly,  // before the response
};

// One byte more than there is room for in a message: a length to try.
inline constexpr size_t kPdcConfigIdMax = 125;

struct ModemConf {
  // Of the QMI services that have one, by service id.
  std::map<uint32_t, ServiceFault> faults;

  // Not 0: the extension service carries out no class 2 and class 4 request and answers with this
  // as the payload's own result word.
  int32_t extension_rsp_result = 0;
  // The DSI until one is set.
  int32_t sar_dsi = 0;

  std::array<CardState, kCardSlots> card_states{CardState::kPresent, CardState::kPresent};
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

  // The configuration ids of each subscription until they are set; empty for none.
  std::array<std::vector<uint8_t>, kCardSlots> pdc_active{std::vector<uint8_t>(20, 0xC0),
                                                          std::vector<uint8_t>(20, 0xC1)};
  std::array<std::vector<uint8_t>, kCardSlots> pdc_pending;
  int32_t pdc_ind_error = 0;  // of every indication
  PdcIndication pdc_indication = PdcIndication::kNormal;

  // Radio technology of each subscription: 9 is LTE, 12 NR.
  std::array<int32_t, kCardSlots> rats{9, 12};
  int32_t stats_fading_db = 0;                 // how far levels go up and down
  std::vector<StatsOverride> stats_overrides;  // of one parameter the last one counts
  std::vector<Indication> vs_indications;      // in the order in which they are sent

  // What the extension service tells of the modem's statistics.
  int32_t stats_debug_version = 3;  // layout of the debug block, 0 to 4
  int32_t stats_enable = 1;
  int32_t stats_not_supported = 0;
  std::vector<uint16_t> stats_log_ids{0x1100, 0x1101};

  // The fault of a QMI service.
  ServiceFault fault_of(uint32_t service_id) const;
};

// The configuration that the text of a `modem.conf` describes.
ModemConf parse_modem_conf(std::string_view text);

// The configuration of the state directory; that of a healthy modem when there is no file.
ModemConf load_modem_conf();

// The fault without its end: none when as many runs as it has were counted before this one. Counts
// this run, in the state file fault/`name`.
ServiceFault fault_of_this_run(const char* name, const ServiceFault& fault);

}  // namespace kiv::platform
