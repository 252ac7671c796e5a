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

template <int32_t ModemConf::*member>
bool number_value(std::string_view value, ModemConf& conf) {
  return parse_number(value, conf.*member);
}

struct ConfKey {
  std::string_view name;
  bool (*parse)(std::string_view value, ModemConf& conf);
};

constexpr std::array<ConfKey, 2> kConfKeys{{
    {"fault.extension", fault_value<&ModemConf::extension_fault>},
    {"extension.rsp_result", number_value<&ModemConf::extension_rsp_result>},
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
