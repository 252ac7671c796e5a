#include "tervik_kiv_lyrax_unpk.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "tervik_kiv_lyrax_counters.h"
#include "tervik_utils_cmn.h"
#include "tervik_utils_outcome.h"

static_assert(std::endian::native == std::endian::little);

// ---- the unpacker's steps ----

modem_stats_result g_modem_stats_result;
uint32_t g_unpk_print_flag = 0;

namespace {

constexpr int SPAN_BITS = 128;
constexpr int HALF_BITS = SPAN_BITS / 2;

// The record that is being decoded, and where.
struct {
  // Behind the record zeros, also for a span that begins at the last byte of the limit.
  std::array<uint8_t, UNPK_LIMIT + SPAN_BITS / 8> buffer;
  size_t buffer_used;       // by the last record
  const uint8_t* data_ptr;  // null: there is no record
  uint32_t id;
  int32_t base;      // byte of the last rebase
  int32_t base_bit;  // bit that the current structure begins at
  int32_t cnt;       // bytes read since the byte base
} g_unpk;

// The value's bytes as they lie in memory, without the zeros at the end.
std::array<char, 2 + 2 * sizeof(uint64_t) + 1> memory_text(uint64_t value) {
  std::array<char, 2 + 2 * sizeof(uint64_t) + 1> text = {'0', 'x'};
  char* end = text.data() + 2;
  do {
    end += snprintf(end, 3, "%02X", static_cast<unsigned>(value & 0xFF));
    value >>= 8;
  } while (value != 0);
  return text;
}

// The `bits` (1 to 64) lowest bits.
constexpr uint64_t low_mask(int bits) {
  return ~uint64_t{0} >> (64 - bits);
}

constexpr bool is_within(int value, int first, int last) {
  return first <= value && value <= last;
}

// A traced step prints what it did. One that fails prints the reason, traced or not.

// Reads the `size` (4 or 8) next bytes; `suffix` follows the name in what is printed.
template <bool traced>
bool unpk_i(const char* name, const char* suffix, int size, uint64_t& value) {
  if (g_unpk.data_ptr == nullptr) {
    printf("DATA_UNPK, g_unpk_data_ptr is NULL, name: %s%s, id(0x%x)\n", name, suffix, g_unpk.id);
    return false;
  }
  const int pos = g_unpk.base + g_unpk.cnt;
  if (!is_within(pos, 0, UNPK_LIMIT - 1)) {
    printf("DATA_UNPK, (base + cnt)(%d) is can not >= %d for %s%s, id(0x%x)\n", pos, UNPK_LIMIT,
           name, suffix, g_unpk.id);
    return false;
  }
  memcpy(&value, g_unpk.data_ptr + pos, sizeof(value));
  value &= low_mask(8 * size);
  g_unpk.cnt += size;
  if constexpr (traced) {
    printf("    UNPK_I, name: %s%s, val: %" PRIu64
           "(%s), val_size: %d, unpk_cnt: %d, data_base: %d, base_bit: %d\n",
           name, suffix, value, memory_text(value).data(), size, g_unpk.cnt, g_unpk.base,
           g_unpk.base_bit);
  }
  return true;
}

// Prints where a step that was given `bit` put the cursor.
void print_cursor(const char* step, int bit) {
  printf(
      "%s, g_unpk_data_base_bit(%d), g_unpk_data_base(%d), g_unpk_data_cnt(%d), bit(%d), id(0x%x)\n",
      step, g_unpk.base_bit, g_unpk.base, g_unpk.cnt, bit, g_unpk.id);
}

// Moves the base by `bits`.
template <bool traced>
void unpk_base_with_bit(int bits) {
  g_unpk.base_bit += bits;
  g_unpk.base = g_unpk.base_bit / 8;
  g_unpk.cnt = 0;
  if constexpr (traced) {
    print_cursor("BASE_WITH_BIT", bits);
  }
}

// Puts the next read to the byte that holds `bit`, counted from the base.
template <bool traced>
bool unpk_set_bit(int bit) {
  // Rounds down, so that a bit before the record does not count as one in its first byte.
  const int pos = static_cast<int>((int64_t{g_unpk.base_bit} + bit) >> 3);
  if (!is_within(pos, 0, UNPK_LIMIT - 1)) {
    printf("UNPK_SET_BIT, pos(%d) should be[0, %d), id(0x%x)\n", pos, UNPK_LIMIT, g_unpk.id);
    return false;
  }
  g_unpk.cnt = pos - g_unpk.base;
  if constexpr (traced) {
    print_cursor("UNPK_SET_BIT", bit);
  }
  return true;
}

// Keeps the `bit_num` lowest bits.
template <bool traced>
bool unpk_low(const unpk_field& field, int bit_num, uint64_t& value) {
  const int variable_bits = 8 * field.size;
  if (!is_within(bit_num, 1, variable_bits)) {
    printf("UNPK_LOW, bit_num(%d) should be in [1, %d] for %s, id(0x%x)\n", bit_num, variable_bits,
           field.name, g_unpk.id);
    return false;
  }
  const uint64_t old_value = value;
  value &= low_mask(bit_num);
  if constexpr (traced) {
    printf("UNPK_LOW, old_val: %" PRIu64 ", new_val: %" PRIu64 ", bit_num: %d, mask_max(0x%" PRIx64
           "), old_size(%d), name: %s, id(0x%x)\n",
           old_value, value, bit_num, low_mask(variable_bits), field.size, field.name, g_unpk.id);
  }
  return true;
}

// The bits of a span from bit `low` on; from the first one on, those of the lower half alone.
constexpr int kept_bits(int low) {
  return low == 1 ? HALF_BITS : SPAN_BITS + 1 - low;
}

// Whether bits `low` to `high` can be cut out of a span.
bool check_span_bits(const unpk_field& field, int low, int high) {
  const int high_max = low == 1 ? HALF_BITS : SPAN_BITS;
  if (!is_within(low, 1, SPAN_BITS)) {
    printf("UNPK_MID, low(%d) should be in [1, 128] for %s, id(0x%x)\n", low, field.name,
           g_unpk.id);
  } else if (!is_within(high, 1, high_max)) {
    printf("UNPK_MID, high(%d) should be in [1, %d] for %s, id(0x%x)\n", high, high_max, field.name,
           g_unpk.id);
  } else if (low > high) {
    printf("UNPK_MID, low(%d) should <= high(%d) for %s, id(0x%x)\n", low, high, field.name,
           g_unpk.id);
  } else if (kept_bits(low) < HALF_BITS) {
    printf("UNPK_HIGH, bit_num(%d) should be in [64, 128] for %s, id(0x%x)\n", kept_bits(low),
           field.name, g_unpk.id);
  } else {
    return true;
  }
  return false;
}

// Keeps bits `low` to `high`, counted from 1, of the span of which `tmp1` is the lower half.
template <bool traced>
bool unpk_mid(const unpk_field& field, uint64_t tmp1, uint64_t tmp2, int low, int high,
              uint64_t& value) {
  if (!check_span_bits(field, low, high)) {
    return false;
  }
  __extension__ using bits128 = unsigned __int128;
  value = static_cast<uint64_t>((static_cast<bits128>(tmp2) << HALF_BITS | tmp1) >> (low - 1));
  if constexpr (traced) {
    printf("UNPK_HIGH, old_val: %" PRIu64 ", new_val: %" PRIu64
           ", bit_num: %d, name: %s, id(0x%x)\n",
           tmp1, value, kept_bits(low), field.name, g_unpk.id);
  }
  if (!unpk_low<traced>(field, high - low + 1, value)) {
    return false;
  }
  if constexpr (traced) {
    printf("UNPK_MID, old_val: %" PRIu64 ", new_val: %" PRIu64
           ", low: %d, high: %d, name: %s, id(0x%x)\n",
           tmp1, value, low, high, field.name, g_unpk.id);
  }
  return true;
}

template <bool traced>
bool unpk_at(const unpk_field& field, int bit, uint64_t& value) {
  if (!unpk_set_bit<traced>(bit)) {
    return false;
  }
  // What is left of the bit when the next read begins at its byte, counted from 1.
  const int low = ((g_unpk.base_bit + bit) & 7) + 1;
  const int high = low + field.width - 1;
  if constexpr (traced) {
    printf(
        "PRINT_CNT, base_bit: %d, base_byte: %d, data_cnt: %d, low: %d, high: %d, param: %d, name: "
        "%s\n",
        g_unpk.base_bit, g_unpk.base, g_unpk.cnt, low, high, bit, field.name);
  }
  uint64_t tmp1 = 0;
  uint64_t tmp2 = 0;
  if (!unpk_i<traced>(field.name, "_tmp1", sizeof(tmp1), tmp1) ||
      !unpk_i<traced>(field.name, "_tmp2", sizeof(tmp2), tmp2) ||
      !unpk_mid<traced>(field, tmp1, tmp2, low, high, value)) {
    return false;
  }
  if constexpr (traced) {
    printf("    UNPK_AT, name: %s, val: %" PRIu64
           "(%s), low: %d, high: %d, bit_start: %d, bit_num: %d\n",
           field.name, value, memory_text(value).data(), low, high, bit, field.width);
  }
  return true;
}

}  // namespace

bool unpk_start(std::span<const uint8_t> record, uint32_t id) {
  memset(g_modem_stats_result.value, 0, g_modem_stats_result.len);
  g_modem_stats_result.len = 0;
  g_unpk.data_ptr = nullptr;
  g_unpk.id = id;
  g_unpk.base = 0;
  g_unpk.base_bit = 0;
  g_unpk.cnt = 0;
  if (record.data() == nullptr) {
    printf("UNPK_START, payload is NULL, id(0x%x)\n", id);
    return false;
  }
  const size_t len = std::min<size_t>(record.size(), UNPK_LIMIT);
  memcpy(g_unpk.buffer.data(), record.data(), len);
  if (len < g_unpk.buffer_used) {
    memset(g_unpk.buffer.data() + len, 0, g_unpk.buffer_used - len);
  }
  g_unpk.buffer_used = len;
  g_unpk.data_ptr = g_unpk.buffer.data();
  return true;
}

std::optional<uint64_t> unpk_mid(const unpk_field& field, uint64_t tmp1, uint64_t tmp2, int low,
                                 int high) {
  uint64_t value = 0;
  return unpk_mid<false>(field, tmp1, tmp2, low, high, value) ? std::optional(value) : std::nullopt;
}

std::optional<uint64_t> unpk_at(const unpk_field& field, int bit) {
  uint64_t value = 0;
  return unpk_at<false>(field, bit, value) ? std::optional(value) : std::nullopt;
}

// ---- the cell record ----

namespace {

constexpr uint32_t TEST_RECORD_ID = 0x123;
constexpr int VERSION_SIZE = 4;

// The versions of the record, and the order of the offsets in the rows below.
constexpr std::array<uint32_t, 4> CELL_VERSIONS = {0x30000, 0x30001, 0x30002, 4};

using cell_record = modem_stats_cell_record;

struct cell_field {
  unpk_field field;
  size_t variable;                            // its offset in modem_stats_cell
  std::array<int, CELL_VERSIONS.size()> bit;  // in the body, by version
};
static_assert(offsetof(modem_stats_cell, record) == 0);

constexpr std::array<cell_field, 12> CELL_FIELDS = {{
    {{"mcc", 2, 16}, offsetof(cell_record, mcc), {240, 250, 264, 176}},
    {{"mnc_num", 1, 8}, offsetof(modem_stats_cell, mnc_num), {256, 266, 280, 192}},
    {{"mnc", 2, 16}, offsetof(cell_record, mnc), {264, 274, 288, 200}},
    {{"tac", 4, 32}, offsetof(cell_record, tac), {288, 298, 312, 224}},
    {{"cgi", 8, 64}, offsetof(cell_record, cgi), {176, 186, 200, 112}},
    {{"pci", 2, 16}, offsetof(cell_record, pci), {0, 10, 24, 0}},
    {{"freq_band_ind", 2, 16}, offsetof(cell_record, freq_band_ind), {320, 330, 344, 256}},
    {{"dl_earfcn", 4, 32}, offsetof(cell_record, dl_earfcn), {80, 90, 104, 16}},
    {{"dl_bw", 2, 16}, offsetof(cell_record, dl_bw), {144, 154, 168, 80}},
    {{"ul_earfcn", 4, 32}, offsetof(cell_record, ul_earfcn), {112, 122, 136, 48}},
    {{"ul_bw", 2, 16}, offsetof(cell_record, ul_bw), {160, 170, 184, 96}},
    {{"allow_access", 1, 8}, offsetof(cell_record, allow_access), {280, 290, 304, 216}},
}};

// Decodes the rows from `row` on. The row is a constant so that its untraced form is, too.
template <bool traced, size_t row = 0>
bool unpk_cell_fields(size_t column, modem_stats_cell& cell) {
  if constexpr (row < CELL_FIELDS.size()) {
    constexpr const cell_field& ROW = CELL_FIELDS[row];
    uint64_t value = 0;
    if (!unpk_at<traced>(ROW.field, ROW.bit[column], value)) {
      return false;
    }
    memcpy(reinterpret_cast<uint8_t*>(&cell) + ROW.variable, &value, ROW.field.size);
    return unpk_cell_fields<traced, row + 1>(column, cell);
  }
  return true;
}

template <bool traced>
bool unpk_cell(modem_stats_cell& cell) {
  uint64_t version = 0;
  if (!unpk_i<traced>("version", "", VERSION_SIZE, version)) {
    return false;
  }
  unpk_base_with_bit<traced>(8 * VERSION_SIZE);
  const auto* const layout = std::find(CELL_VERSIONS.begin(), CELL_VERSIONS.end(), version);
  if (layout == CELL_VERSIONS.end()) {
    return false;
  }
  cell.record.version = *layout;
  return unpk_cell_fields<traced>(static_cast<size_t>(layout - CELL_VERSIONS.begin()), cell);
}

// Flattened: an untraced step is a few instructions, less than its call.
[[gnu::flatten]] bool unpk_cell_untraced(modem_stats_cell& cell) {
  return unpk_cell<false>(cell);
}

void modem_stats_parse_xxxx_diag_xxxx() {
  modem_stats_cell cell = {};
  if (!unpk_cell(cell)) {
    return;
  }
  const modem_stats_cell_record& record = cell.record;
  printf("version = %d, mcc = %d, mnc_num %d, mnc %d, tac %d, cgi %" PRIu64 ", pci %d\n",
         static_cast<int>(record.version), record.mcc, cell.mnc_num, record.mnc,
         static_cast<int>(record.tac), record.cgi, record.pci);
  printf(
      "freq_band_ind = %d, dl_earfcn = %d, dl_bw %d, ul_earfcn %d, ul_bw %d, allow_access %d, scs "
      "%d\n",
      record.freq_band_ind, static_cast<int>(record.dl_earfcn), record.dl_bw,
      static_cast<int>(record.ul_earfcn), record.ul_bw, record.allow_access, record.scs);
  memcpy(g_modem_stats_result.value, &record, sizeof(record));
  g_modem_stats_result.len = sizeof(record);
}

}  // namespace

bool unpk_cell(modem_stats_cell& cell) {
  return g_unpk_print_flag != 0 ? unpk_cell<true>(cell) : unpk_cell_untraced(cell);
}

void tervik_test_modem_stats_parsing_process_do(std::span<const uint8_t> record) {
  if (unpk_start(record, TEST_RECORD_ID)) {
    modem_stats_parse_xxxx_diag_xxxx();
  }
}

// ---- replies of the statistics framework: debug counters ----

std::span<const uint8_t> modem_stats_reply_data(const tervik_common_req_response& reply,
                                                int received) {
  const int carried = received - static_cast<int>(offsetof(tervik_common_req_response, data));
  const int room = sizeof(reply.data);
  return std::span(reply.data).first(static_cast<size_t>(std::clamp(carried, 0, room)));
}

namespace {

// Prints the counter that `data` begins with, and takes it off; nothing when the data ends early.
std::optional<uint64_t> print_counter(const debug_counter& row, std::span<const uint8_t>& data) {
  if (data.size() < row.size) {
    printf("UNPK, the data ends before %s: %zu of %d bytes received\n", row.name, data.size(),
           row.size);
    tervik_tell_outcome(-1, "the data ends early");
    return std::nullopt;
  }
  uint64_t value = 0;
  memcpy(&value, data.data(), row.size);
  printf("UNPK[size:%d], %s = %" PRIu64 "\n", row.size, row.name, value);
  data = data.subspan(row.size);
  return value;
}

// Prints the counters that a section of layout `version` has. The bytes that they take, 0 for no
// data, or nothing when the data ends early: those before were printed.
template <const auto& counters>
std::optional<size_t> print_section(std::span<const uint8_t> data, uint64_t version) {
  if (data.data() == nullptr) {
    printf("ptr is null\n");
    tervik_tell_outcome(-1, "there is no data");
    return 0;
  }
  std::span<const uint8_t> rest = data;
  for (const debug_counter& row : counters) {
    if (row.from_version > version) {
      break;
    }
    if (!print_counter(row, rest)) {
      return std::nullopt;
    }
  }
  return data.size() - rest.size();
}

constexpr auto& tervik_modem_stats_main_info_unpk = print_section<MAIN_COUNTERS>;
constexpr auto& tervik_modem_stats_diag_info_unpk = print_section<DIAG_COUNTERS>;
constexpr auto& tervik_modem_stats_cm_info_unpk = print_section<CM_COUNTERS>;
constexpr auto& tervik_modem_stats_uim_info_unpk = print_section<UIM_COUNTERS>;

// A section of the debug block.
struct debug_section {
  const char* name;
  std::optional<size_t> (*print)(std::span<const uint8_t> data, uint64_t version);
};

constexpr std::array<debug_section, 4> DEBUG_SECTIONS = {{
    {"main", tervik_modem_stats_main_info_unpk},
    {"diag", tervik_modem_stats_diag_info_unpk},
    {"cm", tervik_modem_stats_cm_info_unpk},
    {"uim", tervik_modem_stats_uim_info_unpk},
}};

}  // namespace

void tervik_modem_stats_debug_info_unpk(std::span<const uint8_t> block) {
  std::span<const uint8_t> rest = block;
  const std::optional<uint64_t> version = print_counter({"version", 1}, rest);
  if (!version) {
    return;
  }
  uint8_t cnt = 1;
  for (const debug_section& section : DEBUG_SECTIONS) {
    printf("-------- stats %s info start --------\n", section.name);
    const std::optional<size_t> consumed = section.print(block.subspan(cnt), *version);
    if (!consumed) {
      return;
    }
    // Eight bits, also as the offset of the next section: it may wrap, but not pass the end.
    cnt = static_cast<uint8_t>(cnt + *consumed);
    printf("-------- stats %s info end, cnt(%d) --------\n", section.name, cnt);
  }
}

// ---- replies of the statistics framework: support status ----

namespace {

constexpr std::array<debug_counter, 5> SUPPORT_COUNTERS = {{
    {"version", 1},
    {"modem_stats_feature_enable_status", 1},
    {"version_not_support_num", 8},
    {"modem_stats_cmd_ok_count", 8},
    {"modem_stats_cmd_fail_count", 8},
}};

void print_banner(const char* verdict) {
  constexpr const char* RULE = "===========================================";
  printf("%s\n%s\n%s\n", RULE, verdict, RULE);
}

// Prints the ids of the list that `data` begins with, as far as they were received.
void print_logs_to_upgrade(std::span<const uint8_t> data) {
  const std::optional<uint64_t> counted = print_counter({"log_num", 2}, data);
  if (!counted) {
    return;
  }
  const int log_num = static_cast<int>(*counted);
  print_banner("================= FAIL ====================");
  tervik_tell_outcome(-1, "the support check says FAIL");
  printf("Diag logs to be upgraded[num:%d]:\n", log_num);
  const int received = static_cast<int>(data.size() / sizeof(uint16_t));
  for (int i = 0; i < std::min(log_num, received); ++i) {
    uint16_t log_id = 0;
    memcpy(&log_id, &data[static_cast<size_t>(i) * sizeof(log_id)], sizeof(log_id));
    printf("log_id[%d]: 0x%04X\n", i, log_id);
  }
  if (received < log_num) {
    printf("UNPK, the data ends early: %d of %d log ids received\n", received, log_num);
  }
}

}  // namespace

void tervik_modem_stats_support_status_check(std::span<const uint8_t> data) {
  if (data.data() == nullptr) {
    printf("tervik_modem_stats_support_status_check, ptr is null\n");
    tervik_tell_outcome(-1, "there is no data");
    return;
  }
  std::array<uint64_t, SUPPORT_COUNTERS.size()> values = {};
  for (size_t i = 0; i < values.size(); ++i) {
    const std::optional<uint64_t> value = print_counter(SUPPORT_COUNTERS[i], data);
    if (!value) {
      return;
    }
    values[i] = *value;
  }
  const auto& [version, enable_status, version_not_support_num, ok_count, fail_count] = values;
  if (enable_status == 0) {
    print_banner("================ CLOSED ===================");
    tervik_tell_outcome(-1, "the support check says CLOSED");
    return;
  }
  if (version_not_support_num == 0) {
    print_banner("================ SUCCES ===================");
    return;
  }
  tervik_common_req_response rsp_not_support = {};
  int received = 0;
  const int result = tervik_common_qmi_req(TERVIK_COMMON_REQ_STATS_LOG_IDS, 0, nullptr,
                                           &rsp_not_support, &received);
  if (result != 0) {
    tervik_log_error("tervik_common_qmi_req fail, result = %d, rsp_not_support.result = %d", result,
                     rsp_not_support.result);
    tervik_tell_outcome(result);
  } else if (rsp_not_support.result != 0) {
    tervik_log_error("qmi response fail, result = %d, rsp_not_support.result = %d", result,
                     rsp_not_support.result);
    tervik_tell_outcome(rsp_not_support.result);
  } else {
    print_logs_to_upgrade(modem_stats_reply_data(rsp_not_support, received));
  }
}
