#include "platform/modem/modem_conf.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/android/state_directory.h"

namespace kiv::platform {
namespace {

constexpr std::string_view kConfFile = "modem.conf";
constexpr size_t kQuotedMax = 60;
constexpr int32_t kUimProfilesMax = 255;
constexpr int32_t kDiagDelayMaxMs = 600000;
constexpr int32_t kDiagResponseMax = 20000;

bool parse_number(std::string_view text, int32_t& number) {
  const char* const end = text.data() + text.size();
  int32_t parsed = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, parsed);
  if (error != std::errc{} || stop != end) {
    return false;
  }
  number = parsed;
  return true;
}

bool parse_fault(std::string_view value, ServiceFault& fault) {
  struct FaultWord {
    std::string_view word;
    ServiceFault::Kind kind;
    bool has_code;
  };
  constexpr std::array<FaultWord, 4> kFaultWords{{
      {"down", ServiceFault::Kind::kDown, false},
      {"silent", ServiceFault::Kind::kSilent, false},
      {"error:", ServiceFault::Kind::kError, true},
      {"result:", ServiceFault::Kind::kResult, true},
  }};
  for (const FaultWord& row : kFaultWords) {
    ServiceFault parsed{.kind = row.kind, .code = 0};
    // A fault with code 0 would be no fault.
    if (row.has_code
            ? value.starts_with(row.word) &&
                  parse_number(value.substr(row.word.size()), parsed.code) && parsed.code != 0
            : value == row.word) {
      fault = parsed;
      return true;
    }
  }
  return false;
}

template <ServiceFault ModemConf::*member>
bool fault_value(std::string_view value, ModemConf& conf) {
  return parse_fault(value, conf.*member);
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

// A value that is one of some words.
template <class Value>
struct ConfWord {
  std::string_view word;
  Value value;
};

constexpr std::array<ConfWord<CardState>, 3> kCardStateWords{{
    {"absent", CardState::kAbsent},
    {"present", CardState::kPresent},
    {"error", CardState::kError},
}};
constexpr std::array<ConfWord<bool>, 2> kOkWords{{{"ok", false}, {"fail", true}}};
constexpr std::array<ConfWord<bool>, 2> kUpWords{{{"up", false}, {"down", true}}};

template <class Words, class Value>
bool parse_word(std::string_view text, const Words& words, Value& value) {
  const auto row =
      std::find_if(words.begin(), words.end(), [text](const auto& w) { return w.word == text; });
  if (row == words.end()) {
    return false;
  }
  value = row->value;
  return true;
}

template <bool ModemConf::*member, const auto& words>
bool switch_value(std::string_view value, ModemConf& conf) {
  return parse_word(value, words, conf.*member);
}

template <size_t slot>
bool card_value(std::string_view value, ModemConf& conf) {
  return parse_word(value, kCardStateWords, conf.card_states[slot]);
}

// Any digits: wrong check digits are a case to try.
bool eid_value(std::string_view value, ModemConf& conf) {
  if (value == "none") {
    conf.eid.reset();
    return true;
  }
  Eid eid{};
  if (value.size() != 2 * eid.size() ||
      value.find_first_not_of("0123456789") != std::string_view::npos) {
    return false;
  }
  for (size_t i = 0; i < eid.size(); ++i) {
    eid[i] = static_cast<uint8_t>((value[2 * i] - '0') << 4 | (value[2 * i + 1] - '0'));
  }
  conf.eid = eid;
  return true;
}

struct ConfKey {
  std::string_view name;
  bool (*parse)(std::string_view value, ModemConf& conf);
};

constexpr std::array<ConfKey, 16> kConfKeys{{
    {"fault.extension", fault_value<&ModemConf::extension_fault>},
    {"extension.rsp_result", number_value<&ModemConf::extension_rsp_result>},
    {"fault.sar", fault_value<&ModemConf::sar_fault>},
    {"sar.dsi", number_value<&ModemConf::sar_dsi>},
    {"card.0", card_value<0>},
    {"card.1", card_value<1>},
    {"fault.uim", fault_value<&ModemConf::uim_fault>},
    {"eid", eid_value},
    {"uim.profiles", number_value<&ModemConf::uim_profiles, 0, kUimProfilesMax>},
    {"uim.reset", switch_value<&ModemConf::uim_reset_fails, kOkWords>},
    {"uim.open_channel", switch_value<&ModemConf::uim_open_channel_fails, kOkWords>},
    {"fault.diag", fault_value<&ModemConf::diag_fault>},
    {"diag.remote", number_value<&ModemConf::diag_remote_mask, 0, UINT16_MAX>},
    {"diag.delay_ms", number_value<&ModemConf::diag_delay_ms, 0, kDiagDelayMaxMs>},
    {"diag.response_size", number_value<&ModemConf::diag_response_size, 1, kDiagResponseMax>},
    {"diag.dci", switch_value<&ModemConf::diag_dci_down, kUpWords>},
}};

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

void complain(size_t line_number, const char* what, std::string_view text) {
  std::string quoted(text.substr(0, kQuotedMax));
  std::replace_if(
      quoted.begin(), quoted.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  std::fprintf(stderr, "modem.conf:%zu: %s \"%s\"%s\n", line_number, what, quoted.c_str(),
               text.size() > kQuotedMax ? "..." : "");
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
  const auto key = std::find_if(kConfKeys.begin(), kConfKeys.end(),
                                [name](const ConfKey& row) { return row.name == name; });
  if (key == kConfKeys.end()) {
    complain(line_number, "unknown key", name);
  } else if (!key->parse(trimmed(line.substr(equals + 1)), conf)) {
    complain(line_number, "bad value", line);
  }
}

}  // namespace

ModemConf parse_modem_conf(std::string_view text) {
  ModemConf conf;
  for (size_t line_number = 1; !text.empty(); ++line_number) {
    const size_t end = text.find('\n');
    parse_line(line_number, text.substr(0, end), conf);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return conf;
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
