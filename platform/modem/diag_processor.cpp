#include "platform/modem/diag_processor.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <utility>

namespace kiv::platform {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kVersionCommand = 0x00;
constexpr uint8_t kSubsystemCommand = 0x4B;
constexpr uint8_t kBuildIdCommand = 0x7C;
constexpr uint8_t kBadCommand = 0x13;  // the code that answers an unknown command

struct VersionResponse {
  uint8_t command_code = kVersionCommand;
  std::array<char, 11> compile_date{};
  std::array<char, 8> compile_time{};
  std::array<char, 11> release_date{};
  std::array<char, 8> release_time{};
  std::array<char, 8> directory{};
  uint8_t station_class = 42;
  uint8_t air_interface_revision = 6;
  uint8_t model = 255;
  std::array<uint8_t, 2> firmware_revision{1, 0};
  uint8_t slot_cycle_index = 0;
  uint8_t hardware_major = 1;
  uint8_t hardware_minor = 0;
};
static_assert(sizeof(VersionResponse) == 55);

template <size_t size>
std::array<char, size> text_field(std::string_view text) {
  std::array<char, size> field{};
  std::copy_n(text.begin(), std::min(text.size(), size), field.begin());
  return field;
}

Bytes answer_version(std::span<const uint8_t>) {
  VersionResponse response{};
  response.compile_date = text_field<11>("Jan 01 2024");
  response.compile_time = text_field<8>("00:00:00");
  response.release_date = response.compile_date;
  response.release_time = response.compile_time;
  response.directory = text_field<8>("kivmodem");
  const auto* const bytes = reinterpret_cast<const uint8_t*>(&response);
  return {bytes, bytes + sizeof response};
}

// Layout 2: two reserved bytes, the words revision and model, then the two texts with their NULs.
Bytes answer_build_id(std::span<const uint8_t>) {
  constexpr std::string_view kSoftware = "KIVMODEM.1.0";
  constexpr std::string_view kModel = "simulated modem";
  Bytes response{kBuildIdCommand, 2, 0, 0, 1, 0, 0, 0, 0xFF, 0, 0, 0};
  for (const std::string_view text : {kSoftware, kModel}) {
    response.insert(response.end(), text.begin(), text.end());
    response.push_back(0);
  }
  return response;
}

Bytes answer_echo(std::span<const uint8_t> command) {
  return {command.begin(), command.end()};
}

Bytes answer_with_error(uint8_t code, std::span<const uint8_t> command) {
  Bytes response(1 + command.size(), code);
  std::copy(command.begin(), command.end(), response.begin() + 1);
  return response;
}

struct CommandRow {
  uint8_t code;
  Bytes (*answer)(std::span<const uint8_t> command);
};

constexpr std::array<CommandRow, 3> kCommands{{
    {kVersionCommand, answer_version},
    {kSubsystemCommand, answer_echo},
    {kBuildIdCommand, answer_build_id},
}};

Bytes answer_command(const ServiceFault& fault, std::span<const uint8_t> command) {
  if (fault.kind == ServiceFault::Kind::kResult) {
    return answer_with_error(static_cast<uint8_t>(fault.code & 0xFF), command);
  }
  const auto row = std::find_if(kCommands.begin(), kCommands.end(), [&](const CommandRow& entry) {
    return entry.code == command.front();
  });
  return row != kCommands.end() ? row->answer(command) : answer_with_error(kBadCommand, command);
}

// Cuts the answer, or fills it up with the low byte of each index.
void set_size(Bytes& answer, size_t size) {
  const size_t natural = answer.size();
  answer.resize(size);
  for (size_t i = natural; i < size; ++i) {
    answer[i] = static_cast<uint8_t>(i & 0xFF);
  }
}

}  // namespace

DiagModem make_diag_modem(const ModemConf& conf) {
  const ServiceFault& fault = conf.diag_fault;
  DiagModem modem;
  modem.remote_mask = static_cast<uint16_t>(conf.diag_remote_mask);
  modem.dci_support = conf.diag_dci_down ? uint16_t{0} : DIAG_CON_MPSS;
  modem.faults.init = fault.kind == ServiceFault::Kind::kDown;
  if (fault.kind == ServiceFault::Kind::kError) {
    modem.faults.callback_send = fault.code;
    modem.faults.dci_send = fault.code;
  }
  if (fault.kind != ServiceFault::Kind::kSilent) {
    modem.processor =
        [fault, size = static_cast<size_t>(conf.diag_response_size),
         delay = std::chrono::milliseconds(conf.diag_delay_ms)](std::span<const uint8_t> command) {
          DiagAnswer answer{.bytes = answer_command(fault, command), .delay = delay};
          if (size != 0) {
            set_size(answer.bytes, size);
          }
          return std::vector<DiagAnswer>{std::move(answer)};
        };
  }
  return modem;
}

DiagModem make_diag_modem() {
  return make_diag_modem(load_modem_conf());
}

}  // namespace kiv::platform
