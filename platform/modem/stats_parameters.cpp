#include "platform/modem/stats_parameters.h"

#include <algorithm>
#include <array>
#include <chrono>

#include "platform/modem/service_messages.h"

namespace kiv::platform {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int32_t kAnyRat = -1;
constexpr int32_t kLteRat = 9;
constexpr int32_t kNrRat = 12;
constexpr size_t kAntennas = 4;

// The records, packed as they are handed out. Levels in dBm, qualities and path losses in dB.
#pragma pack(push, 1)

struct LteAntenna {
  float rsrp;
  float rsrq;
  float rssi;
  float snr;
};

struct LteServingCell {
  uint8_t version = 1;
  uint8_t version_ssmr = 1;
  uint32_t earfcn = 1300;
  uint16_t pci = 101;
  uint8_t is_serving_cell = 1;
  uint16_t rx_valid = 0xF;
  std::array<LteAntenna, kAntennas> antennas{};
};
static_assert(sizeof(LteServingCell) == 75);

struct NrServingCell {
  uint32_t version = 1;
  std::array<float, kAntennas> rsrp{};
  float rsrq = -10.75F;
};
static_assert(sizeof(NrServingCell) == 24);

struct NrPerAntenna {
  uint32_t version = 1;
  std::array<float, kAntennas> values{};
};
static_assert(sizeof(NrPerAntenna) == 20);

struct NrAntennaSwitch {
  uint32_t version = 1;
  std::array<uint8_t, 12> old_and_new{};  // of four receive antennas, then of two transmit ones
};
static_assert(sizeof(NrAntennaSwitch) == 16);

struct NrUplinkPower {
  uint32_t version = 1;
  std::array<float, 4> tx_power{};  // PUSCH, PUCCH, SRS, PRACH
  std::array<float, 4> limit{};     // of the same
  std::array<float, 4> path_loss{};
};
static_assert(sizeof(NrUplinkPower) == 52);

struct LtePuschPower {
  uint8_t version = 1;
  int16_t tx_power = 0;
  uint8_t path_loss = 0;
  int16_t max_power = 0;
  int16_t extended_tx_power = 0;
};
static_assert(sizeof(LtePuschPower) == 8);

struct PrimaryAndDiversity {
  uint8_t version = 1;
  float primary = 0;
  float diversity = 0;
};
static_assert(sizeof(PrimaryAndDiversity) == 9);

struct AntennaState {
  uint8_t version = 1;
  uint8_t antennas = 0;
  uint16_t switch_path = 0;
  uint16_t signal_path = 0;
  uint8_t old_config = 0;
  uint8_t new_config = 0;
};
static_assert(sizeof(AntennaState) == 8);

struct SystemMode {
  uint8_t stack_max = 1;
  uint32_t rat = 0;
};
static_assert(sizeof(SystemMode) == 5);

#pragma pack(pop)

template <class Record>
Bytes packed(const Record& record) {
  const auto bytes = bytes_of(record);
  return {bytes.begin(), bytes.end()};
}

struct Asked {
  uint32_t carrier;  // 0 is the primary one
  int32_t rat;
  float fade;  // dB on all levels and signal-to-noise ratios
};

// Evenly up and down with the clock, which is the same for all who ask at the same time.
float fade_now(int32_t fading_db) {
  constexpr int64_t kQuarterMs = 5000;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto since_start = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  const int64_t phase = since_start % (4 * kQuarterMs);
  int64_t height = phase;
  if (phase > 3 * kQuarterMs) {
    height = phase - 4 * kQuarterMs;
  } else if (phase > kQuarterMs) {
    height = 2 * kQuarterMs - phase;
  }
  return static_cast<float>(fading_db * height) / static_cast<float>(kQuarterMs);
}

// Each further antenna and each further carrier is a little worse.
Bytes lte_serving_cell(const Asked& asked) {
  const auto carrier = static_cast<float>(asked.carrier);
  LteServingCell cell;
  cell.earfcn += 100 * asked.carrier;
  cell.pci = static_cast<uint16_t>(cell.pci + asked.carrier);
  float loss = 2.0F * carrier;
  for (LteAntenna& antenna : cell.antennas) {
    antenna = {.rsrp = -84.5F - loss + asked.fade,
               .rsrq = -9.25F - loss / 4,
               .rssi = -55.75F - loss + asked.fade,
               .snr = 18.5F - loss / 2 + asked.fade};
    loss += 1.0F;
  }
  return packed(cell);
}

Bytes nr_serving_cell(const Asked& asked) {
  NrServingCell cell;
  float loss = 2.0F * static_cast<float>(asked.carrier);
  cell.rsrq -= loss / 4;
  for (float& rsrp : cell.rsrp) {
    rsrp = -88.25F - loss + asked.fade;
    loss += 1.0F;
  }
  return packed(cell);
}

constexpr NrPerAntenna kNrReceiveLevel{.values = {-61.5F, -62.75F, -64.0F, -65.25F}};
constexpr NrPerAntenna kNrSnr{.values = {21.25F, 20.0F, 18.75F, 17.5F}};
constexpr NrAntennaSwitch kNrAntennaSwitch{.old_and_new = {0, 4, 1, 5, 2, 6, 3, 7, 8, 10, 9, 11}};
constexpr NrUplinkPower kNrUplinkPower{.tx_power = {18.75F, 9.5F, 16.25F, 14.0F},
                                       .limit = {23.0F, 22.75F, 22.5F, 22.25F},
                                       .path_loss = {96.0F, 97.0F, 98.0F, 99.0F}};
constexpr LtePuschPower kLtePuschPower{
    .tx_power = 12, .path_loss = 98, .max_power = 23, .extended_tx_power = 11};
constexpr PrimaryAndDiversity kWcdmaReceiveLevel{.primary = -72.5F, .diversity = -75.25F};
constexpr PrimaryAndDiversity kGsmReceiveLevel{.primary = -68.75F, .diversity = -71.5F};
constexpr AntennaState kAntennaState{
    .antennas = 4, .switch_path = 2, .signal_path = 5, .old_config = 0, .new_config = 1};

template <const auto& record>
Bytes always(const Asked&) {
  return packed(record);
}

template <const NrPerAntenna& record>
Bytes per_antenna(const Asked& asked) {
  NrPerAntenna faded = record;
  for (float& value : faded.values) {
    value += asked.fade;
  }
  return packed(faded);
}

template <const PrimaryAndDiversity& record>
Bytes two_levels(const Asked& asked) {
  PrimaryAndDiversity faded = record;
  faded.primary += asked.fade;
  faded.diversity += asked.fade;
  return packed(faded);
}

Bytes system_mode(const Asked& asked) {
  return packed(SystemMode{.rat = static_cast<uint32_t>(asked.rat)});
}

// Parameters with ids that follow each other are one for each further carrier.
struct ParameterRow {
  uint32_t first_id;
  uint32_t count;
  uint32_t first_carrier;
  int32_t rat;  // that the subscription must have
  Bytes (*make)(const Asked& asked);
};

constexpr std::array<ParameterRow, 13> kParameters{{
    {0x52, 1, 0, kLteRat, lte_serving_cell},
    {0x67, 6, 1, kLteRat, lte_serving_cell},
    {0x62, 1, 0, kLteRat, always<kLtePuschPower>},
    {0x87, 1, 0, kNrRat, nr_serving_cell},
    {0x06, 2, 1, kNrRat, nr_serving_cell},
    {0x5E, 1, 0, kNrRat, per_antenna<kNrReceiveLevel>},
    {0x70, 1, 0, kNrRat, per_antenna<kNrSnr>},
    {0x71, 1, 0, kNrRat, always<kNrAntennaSwitch>},
    {0x5A, 1, 0, kNrRat, always<kNrUplinkPower>},
    {0x6E, 1, 0, kAnyRat, two_levels<kWcdmaReceiveLevel>},
    {0x6F, 1, 0, kAnyRat, two_levels<kGsmReceiveLevel>},
    {0x64, 1, 0, kAnyRat, always<kAntennaState>},
    {0x2C, 1, 0, kAnyRat, system_mode},
}};

}  // namespace

std::vector<uint8_t> read_stats_parameter(const ModemConf& conf, uint32_t sub, uint32_t id) {
  const auto given = std::find_if(
      conf.stats_overrides.rbegin(), conf.stats_overrides.rend(),
      [sub, id](const StatsOverride& entry) { return entry.id == id && entry.sub == sub; });
  if (given != conf.stats_overrides.rend()) {
    return given->value;
  }
  const int32_t rat = conf.rats[sub];
  for (const ParameterRow& row : kParameters) {
    if (id >= row.first_id && id - row.first_id < row.count &&
        (row.rat == rat || row.rat == kAnyRat)) {
      return row.make({.carrier = row.first_carrier + id - row.first_id,
                       .rat = rat,
                       .fade = fade_now(conf.stats_fading_db)});
    }
  }
  return {};
}

}  // namespace kiv::platform
