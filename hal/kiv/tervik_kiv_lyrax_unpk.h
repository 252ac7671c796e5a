// What category 7 reads of the modem's statistics: the unpacker of bit-packed cell records from
// DIAG logs, the printers of the statistics framework's debug counters, and the check whether the
// framework is enabled and supported. Cursor and result are module state of the command thread.
// Records and replies are untrusted: nothing is read but what was received, and zeros behind it.
// Lines go straight to standard output, whatever the print masks, but for a failed request's
// errors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "tervik_extend_cmn.h"

// ---- the unpacker ----

// Byte positions at or beyond it are not read.
inline constexpr int UNPK_LIMIT = 2000;
inline constexpr size_t UNPK_RESULT_SIZE = 700;

// A decoded cell record. Little-endian.
struct [[gnu::packed]] modem_stats_cell_record {
  uint32_t version;
  uint16_t mcc;
  uint16_t mnc;
  uint32_t tac;
  uint64_t cgi;
  uint16_t pci;
  uint16_t freq_band_ind;
  uint32_t dl_earfcn;
  uint16_t dl_bw;
  uint32_t ul_earfcn;
  uint16_t ul_bw;
  uint8_t allow_access;
  uint8_t scs;  // not part of the records that are decoded: always 0
};
static_assert(sizeof(modem_stats_cell_record) == 38);
static_assert(offsetof(modem_stats_cell_record, cgi) == 12);
static_assert(offsetof(modem_stats_cell_record, ul_earfcn) == 30);

// All that a decode gives.
struct modem_stats_cell {
  modem_stats_cell_record record;
  uint8_t mnc_num;  // shown, but not handed on
};

// What the last decode gave: a modem_stats_cell_record and zeros; `len` is 0 when it gave nothing.
struct modem_stats_result {
  uint32_t len;
  uint8_t value[UNPK_RESULT_SIZE];
};
extern modem_stats_result g_modem_stats_result;

// Not 0: every step of a decode prints a trace line.
extern uint32_t g_unpk_print_flag;

// Decodes a record, cut to the limit, into g_modem_stats_result and prints it; its data() is null
// for no record. A record of an unknown version is ignored.
void tervik_test_modem_stats_parsing_process_do(std::span<const uint8_t> record);

// ---- the unpacker's steps, for tests and benchmarks: a failed one prints the reason ----

// A field: its name, the bytes of the variable that takes it (1, 2, 4 or 8), its bits.
struct unpk_field {
  const char* name;
  uint8_t size;
  uint8_t width;
};

// Puts the cursor to the start of a record of DIAG log `id`. False when there is no record.
[[nodiscard]] bool unpk_start(std::span<const uint8_t> record, uint32_t id);
// Bits `low` to `high`, counted from 1, of the span of which `tmp1` is the lower half. Untraced.
[[nodiscard]] std::optional<uint64_t> unpk_mid(const unpk_field& field, uint64_t tmp1,
                                               uint64_t tmp2, int low, int high);
// Reads the field at `bit`, counted from the base. Untraced.
[[nodiscard]] std::optional<uint64_t> unpk_at(const unpk_field& field, int bit);
// Decodes the record given to unpk_start. False when a step failed or the version is unknown.
[[nodiscard]] bool unpk_cell(modem_stats_cell& cell);

// ---- replies of the statistics framework ----

// The data of a reply of which `received` bytes came.
[[nodiscard]] std::span<const uint8_t> modem_stats_reply_data(
    const tervik_common_req_response& reply, int received);

// Prints the version of the block's layout, and of each section the counters that the layout has,
// up to the first that was not received.
void tervik_modem_stats_debug_info_unpk(std::span<const uint8_t> block);

// Prints the state that `data` tells (data.data() may be null). When the framework lacks support,
// asks the modem for the DIAG logs to be upgraded and prints their ids.
void tervik_modem_stats_support_status_check(std::span<const uint8_t> data);
