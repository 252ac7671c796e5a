#include "platform/modem/modem_conf.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/android/state_directory.h"
#include "platform/modem/extension_service.h"
#include "platform/modem/nas_service.h"
#include "platform/modem/pdc_service.h"
#include "platform/modem/sar_service.h"
#include "platform/modem/uim_service.h"
#include "platform/modem/vs_service.h"

namespace kiv::platform {
namespace {

constexpr std::string_view kConfFile = "modem.conf";
constexpr size_t kQuotedMax = 60;
constexpr int32_t kUimProfilesMax = 255;
constexpr int32_t kDiagDelayMaxMs = 600000;
constexpr int32_t kDiagResponseMax = 20000;
constexpr int32_t kStatsDebugVersionMax = 4;
constexpr int32_t kFadingMaxDb = 40;
constexpr size_t kStatsLogIdsMax = 249;     // what the answer has room for
constexpr size_t kVsIndicationMax = 10672;  // longest message of the service

// False, and `number` as before, when the text is anything else.
template <class Integer>
bool parse_number(std::string_view text, Integer& number, int base = 10) {
  Integer parsed = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, parsed, base);
  if (error != std::errc{} || stop != end) {
    return false;
  }
  number = parsed;
  return true;
}

// A decimal number, or a hexadecimal one behind "0x" or when `base` says so.
bool parse_unsigned(std::string_view text, uint32_t highest, uint32_t& number, int base = 10) {
  if (text.starts_with("0x") || text.starts_with("0X")) {
    text.remove_prefix(2);
    base = 16;
  }
  return parse_number(text, number, base) && number <= highest;
}

constexpr std::string_view kBlanks = " \t\r";

// The first word of `text`, which it is taken from; empty at the end.
std::string_view take_word(std::string_view& text, std::string_view separators) {
  text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
  const std::string_view word = text.substr(0, text.find_first_of(separators));
  text.remove_prefix(word.size());
  return word;
}

// Two digits a byte, blanks between bytes as one likes; 1 to `max_size` bytes. `bytes`, empty
// before, count only when all are good.
bool parse_hex_bytes(std::string_view text, size_t max_size, std::vector<uint8_t>& bytes) {
  for (auto word = take_word(text, kBlanks); !word.empty(); word = take_word(text, kBlanks)) {
    for (; !word.empty(); word.remove_prefix(2)) {
      uint8_t byte = 0;
      if (word.size() < 2 || bytes.size() == max_size ||
          !parse_number(word.substr(0, 2), byte, 16)) {
        return false;
      }
      bytes.push_back(byte);
    }
  }
  return !bytes.empty();
}

// A value that is one of some words.
template <class Value>
struct ConfWord {
  std::string_view word;
  Value value;
};

template <class Words, class Value>
bool parse_word(std::string_view text, const Words& words, Value& value) {
  for (const auto& row : words) {
    if (row.word == text) {
      value = row.value;
      return true;
    }
  }
  return false;
}

// "from <n>" and "for <n>" behind a fault, in this order.
bool parse_times(std::string_view text, ServiceFault& fault) {
  for (const auto& [word, number] :
       {std::pair("from", &fault.first_request), std::pair("for", &fault.runs)}) {
    std::string_view rest = text;
    if (take_word(rest, kBlanks) == word) {
      if (!parse_number(take_word(rest, kBlanks), *number) || *number < 1) {
        return false;
      }
      text = rest;
    }
  }
  return take_word(text, kBlanks).empty();
}

bool parse_fault(std::string_view times, ServiceFault& fault) {
  const std::string_view value = take_word(times, kBlanks);
  using Kind = ServiceFault::Kind;
  constexpr std::array<ConfWord<Kind>, 2> kWords{
      {{"down", Kind::kDown}, {"silent", Kind::kSilent}}};
  constexpr std::array<ConfWord<Kind>, 2> kWordsWithCode{
      {{"error", Kind::kError}, {"result", Kind::kResult}}};
  const size_t colon = value.find(':');
  ServiceFault parsed;
  if (colon == std::string_view::npos) {
    if (!parse_word(value, kWords, parsed.kind)) {
      return false;
    }
  } else if (!parse_word(value.substr(0, colon), kWordsWithCode, parsed.kind) ||
             !parse_number(value.substr(colon + 1), parsed.code) || parsed.code == 0) {
    return false;  // a fault with code 0 would be no fault
  }
  if (!parse_times(times, parsed)) {
    return false;
  }
  fault = parsed;
  return true;
}

template <uint32_t service_id>
bool fault_value(std::string_view value, ModemConf& conf) {
  return parse_fault(value, conf.faults[service_id]);
}

// The DIAG library looks at its fault once, but for the answers.
bool diag_fault_value(std::string_view value, ModemConf& conf) {
  using Kind = ServiceFault::Kind;
  ServiceFault fault;
  if (!parse_fault(value, fault) ||
      (fault.first_request > 1 && fault.kind != Kind::kSilent && fault.kind != Kind::kResult)) {
    return false;
  }
  conf.diag_fault = fault;
  return true;
}

template <int32_t ModemConf::*member, int32_t lowest = INT32_MIN, int32_t highest = INT32_MAX>
bool number_value(std::string_view value, ModemConf& conf) {
  int32_t parsed = 0;
  if (!parse_number(value, parsed) || parsed < lowest || parsed > highest) {
    return false;
  }
  conf.*member = parsed;
  return true;
}

constexpr std::array<ConfWord<CardState>, 3> kCardStateWords{{
    {"absent", CardState::kAbsent},
    {"present", CardState::kPresent},
    {"error", CardState::kError},
}};
constexpr std::array<ConfWord<PdcIndication>, 5> kPdcIndicationWords{{
    {"normal", PdcIndication::kNormal},
    {"late", PdcIndication::kLate},
    {"twice", PdcIndication::kTwice},
    {"never", PdcIndication::kNever},
    {"early", PdcIndication::kEarly},
}};
constexpr std::array<ConfWord<bool>, 2> kOkWords{{{"ok", false}, {"fail", true}}};
constexpr std::array<ConfWord<bool>, 2> kUpWords{{{"up", false}, {"down", true}}};

template <auto member, const auto& words>
bool word_value(std::string_view value, ModemConf& conf) {
  return parse_word(value, words, conf.*member);
}

template <size_t slot>
bool card_value(std::string_view value, ModemConf& conf) {
  return parse_word(value, kCardStateWords, conf.card_states[slot]);
}

template <std::array<std::vector<uint8_t>, kCardSlots> ModemConf::*member, size_t sub>
bool config_id_value(std::string_view value, ModemConf& conf) {
  std::vector<uint8_t> id;
  if (value != "none" && !parse_hex_bytes(value, kPdcConfigIdMax, id)) {
    return false;
  }
  (conf.*member)[sub] = std::move(id);
  return true;
}

// Any digits: wrong check digits are a case to try.
bool eid_value(std::string_view value, ModemConf& conf) {
  if (value == "none") {
    conf.eid.reset();
    return true;
  }
  std::vector<uint8_t> bytes;
  if (value.size() != 2 * sizeof(Eid) ||
      value.find_first_not_of("0123456789") != std::string_view::npos ||
      !parse_hex_bytes(value, sizeof(Eid), bytes)) {
    return false;
  }
  std::copy(bytes.begin(), bytes.end(), conf.eid.emplace().begin());
  return true;
}

template <size_t sub>
bool rat_value(std::string_view value, ModemConf& conf) {
  return parse_number(value, conf.rats[sub]);
}

bool log_ids_value(std::string_view value, ModemConf& conf) {
  constexpr std::string_view kSeparators = ", \t\r";
  std::vector<uint16_t> ids;
  if (value != "none") {
    for (auto word = take_word(value, kSeparators); !word.empty();
         word = take_word(value, kSeparators)) {
      uint32_t id = 0;
      if (ids.size() == kStatsLogIdsMax || !parse_unsigned(word, UINT16_MAX, id)) {
        return false;
      }
      ids.push_back(static_cast<uint16_t>(id));
    }
    if (ids.empty()) {
      return false;
    }
  }
  conf.stats_log_ids = std::move(ids);
  return true;
}

enum class ConfOutcome : uint8_t { kTaken, kUnknownKey, kBadValue };

// "<id>.<sub>": a measurement's raw bytes, or "none".
ConfOutcome stats_value(std::string_view name, std::string_view value, ModemConf& conf) {
  StatsOverride parameter;
  const size_t dot = name.find('.');
  if (dot == std::string_view::npos ||
      !parse_unsigned(name.substr(0, dot), UINT32_MAX, parameter.id) ||
      !parse_unsigned(name.substr(dot + 1), kCardSlots - 1, parameter.sub)) {
    return ConfOutcome::kUnknownKey;
  }
  if (value != "none" && !parse_hex_bytes(value, kStatsValueMax, parameter.value)) {
    return ConfOutcome::kBadValue;
  }
  conf.stats_overrides.push_back(std::move(parameter));
  return ConfOutcome::kTaken;
}

// "<message id>", hexadecimal: the bytes of one indication.
ConfOutcome indication_value(std::string_view name, std::string_view value, ModemConf& conf) {
  uint32_t msg_id = 0;
  if (!parse_unsigned(name, UINT16_MAX, msg_id, 16)) {
    return ConfOutcome::kUnknownKey;
  }
  Indication indication{.msg_id = static_cast<uint16_t>(msg_id), .bytes = {}};
  if (!parse_hex_bytes(value, kVsIndicationMax, indication.bytes)) {
    return ConfOutcome::kBadValue;
  }
  conf.vs_indications.push_back(std::move(indication));
  return ConfOutcome::kTaken;
}

struct ConfKey {
  std::string_view name;
  bool (*parse)(std::string_view value, ModemConf& conf);
  const char* wanted;  // the values that are allowed
};

constexpr const char* kFaults =
    R"(down, silent, error:<n> or result:<n>, then "from <n>", "for <n>" or nothing)";
constexpr const char* kDiagFaults =
    R"(as of the other services, but "from <n>" behind silent and result:<n> alone)";
constexpr const char* kNumber = "a decimal number of 32 bits";
constexpr const char* kPositiveNumber = "a decimal number from 0";
constexpr const char* kOk = "ok or fail";
constexpr const char* kCard = "absent, present or error";
constexpr const char* kConfigId = "none or 1 to 125 bytes in hexadecimal";

constexpr std::array<ConfKey, 32> kConfKeys{{
    {"fault.extension", fault_value<kExtensionServiceId>, kFaults},
    {"fault.sar", fault_value<kSarServiceId>, kFaults},
    {"fault.uim", fault_value<kUimServiceId>, kFaults},
    {"fault.nas", fault_value<kNasServiceId>, kFaults},
    {"fault.pdc", fault_value<kPdcServiceId>, kFaults},
    {"fault.vs", fault_value<kVsServiceId>, kFaults},
    {"fault.diag", diag_fault_value, kDiagFaults},
    {"extension.rsp_result", number_value<&ModemConf::extension_rsp_result>, kNumber},
    {"sar.dsi", number_value<&ModemConf::sar_dsi>, kNumber},
    {"card.0", card_value<0>, kCard},
    {"card.1", card_value<1>, kCard},
    {"eid", eid_value, "none or 32 decimal digits"},
    {"uim.profiles", number_value<&ModemConf::uim_profiles, 0, kUimProfilesMax>, "0 to 255"},
    {"uim.reset", word_value<&ModemConf::uim_reset_fails, kOkWords>, kOk},
    {"uim.open_channel", word_value<&ModemConf::uim_open_channel_fails, kOkWords>, kOk},
    {"diag.remote", number_value<&ModemConf::diag_remote_mask, 0, UINT16_MAX>, "0 to 65535"},
    {"diag.delay_ms", number_value<&ModemConf::diag_delay_ms, 0, kDiagDelayMaxMs>, "0 to 600000"},
    {"diag.response_size", number_value<&ModemConf::diag_response_size, 1, kDiagResponseMax>,
     "1 to 20000"},
    {"diag.dci", word_value<&ModemConf::diag_dci_down, kUpWords>, "up or down"},
    {"pdc.active.0", config_id_value<&ModemConf::pdc_active, 0>, kConfigId},
    {"pdc.active.1", config_id_value<&ModemConf::pdc_active, 1>, kConfigId},
    {"pdc.pending.0", config_id_value<&ModemConf::pdc_pending, 0>, kConfigId},
    {"pdc.pending.1", config_id_value<&ModemConf::pdc_pending, 1>, kConfigId},
    {"pdc.ind_error", number_value<&ModemConf::pdc_ind_error, 0>, kPositiveNumber},
    {"pdc.ind", word_value<&ModemConf::pdc_indication, kPdcIndicationWords>,
     "normal, late, twice, never or early"},
    {"rat.0", rat_value<0>, kNumber},
    {"rat.1", rat_value<1>, kNumber},
    {"stats.fading", number_value<&ModemConf::stats_fading_db, 0, kFadingMaxDb>, "0 to 40"},
    {"stats.debug_version", number_value<&ModemConf::stats_debug_version, 0, kStatsDebugVersionMax>,
     "0 to 4"},
    {"stats.enable", number_value<&ModemConf::stats_enable, 0, 1>, "0 or 1"},
    {"stats.not_supported", number_value<&ModemConf::stats_not_supported, 0>, kPositiveNumber},
    {"stats.log_ids", log_ids_value, "none or up to 249 ids, decimal or behind 0x"},
}};

// Keys whose name goes on with an id; looked up when no key above is meant.
struct ConfKeyFamily {
  std::string_view prefix;
  ConfOutcome (*parse)(std::string_view rest_of_name, std::string_view value, ModemConf& conf);
  const char* wanted;
};

constexpr std::array<ConfKeyFamily, 2> kConfKeyFamilies{{
    {"stats.", stats_value, "none or 1 to 700 bytes in hexadecimal"},
    {"vs.indication.", indication_value, "1 to 10672 bytes in hexadecimal"},
}};

// `wanted` is what the key allows.
ConfOutcome take_value(std::string_view name, std::string_view value, ModemConf& conf,
                       const char*& wanted) {
  for (const ConfKey& key : kConfKeys) {
    if (key.name == name) {
      wanted = key.wanted;
      return key.parse(value, conf) ? ConfOutcome::kTaken : ConfOutcome::kBadValue;
    }
  }
  for (const ConfKeyFamily& family : kConfKeyFamilies) {
    if (name.starts_with(family.prefix)) {
      wanted = family.wanted;
      return family.parse(name.substr(family.prefix.size()), value, conf);
    }
  }
  return ConfOutcome::kUnknownKey;
}

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

void complain(size_t line_number, const char* what, std::string_view text,
              const char* wanted = nullptr) {
  std::string quoted(text.substr(0, kQuotedMax));
  std::replace_if(
      quoted.begin(), quoted.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  std::fprintf(stderr, "modem.conf:%zu: %s \"%s\"%s%s%s\n", line_number, what, quoted.c_str(),
               text.size() > kQuotedMax ? "..." : "", wanted != nullptr ? "; wanted: " : "",
               wanted != nullptr ? wanted : "");
}

void parse_line(size_t line_number, std::string_view line, ModemConf& conf) {
  line = trimmed(line.substr(0, line.find('#')));
  if (line.empty()) {
    return;
  }
  const size_t equals = line.find('=');
  if (equals == std::string_view::npos) {
    complain(line_number, "no \"key = value\"", line);
    return;
  }
  const std::string_view name = trimmed(line.substr(0, equals));
  const char* wanted = nullptr;
  const ConfOutcome outcome = take_value(name, trimmed(line.substr(equals + 1)), conf, wanted);
  if (outcome == ConfOutcome::kUnknownKey) {
    complain(line_number, "unknown key", name);
  } else if (outcome == ConfOutcome::kBadValue) {
    complain(line_number, "bad value", line, wanted);
  }
}

}  // namespace

ServiceFault ModemConf::fault_of(uint32_t service_id) const {
  const auto entry = faults.find(service_id);
  return entry != faults.end() ? entry->second : ServiceFault{};
}

ModemConf parse_modem_conf(std::string_view text) {
  ModemConf conf;
  text = without_byte_order_mark(text);
  for (size_t line_number = 1; !text.empty(); ++line_number) {
    const size_t end = text.find('\n');
    parse_line(line_number, text.substr(0, end), conf);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return conf;
}

ServiceFault fault_of_this_run(const char* name, const ServiceFault& fault) {
  if (fault.runs == 0) {
    return fault;
  }
  int32_t counted = 0;
  const auto count = [&counted, &fault](std::string_view text) {
    if (!parse_number(trimmed(text.substr(0, text.find('\n'))), counted) || counted < 0) {
      counted = 0;
    }
    return std::to_string(std::min(counted, fault.runs - 1) + 1) + '\n';
  };
  // A run that cannot be counted has the fault.
  static_cast<void>(update_state_file(std::string("fault/") + name, count));
  return counted < fault.runs ? fault : ServiceFault{};
}

ModemConf load_modem_conf() {
  const auto content = read_state_file(kConfFile);
  if (content) {
    return parse_modem_conf({reinterpret_cast<const char*>(content->data()), content->size()});
  }
  if (errno != ENOENT) {
    std::fprintf(stderr, "modem.conf: %s\n", std::strerror(errno));
  }
  return {};
}

}  // namespace kiv::platform
