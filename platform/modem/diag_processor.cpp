#include "platform/modem/diag_processor.h"

#include <array>
#include <atomic>
#include <memory>
#include <string_view>
#include <utility>

namespace kiv::platform {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kVersionCommand = 0x00;
constexpr uint8_t kSubsystemCommand = 0x4B;
constexpr uint8_t kBuildIdCommand = 0x7C;
constexpr uint8_t kBadCommand = 0x13;  // the code that answers an unknown command

// Compile date and time, release date and time, folder; then station class, air interface revision,
// model, firmware revision (2 bytes), slot cycle index, major and minor version of the hardware.
Bytes version_information() {
  constexpr std::string_view kTexts = "Jan 01 202400:00:00Jan 01 202400:00:00kivmodem";
  constexpr std::array<uint8_t, 8> kNumbers{42, 6, 255, 1, 0, 0, 1, 0};
  Bytes response{kVersionCommand};
  response.insert(response.end(), kTexts.begin(), kTexts.end());
  response.insert(response.end(), kNumbers.begin(), kNumbers.end());
  return response;
}

// Layout 2: two reserved bytes, the words revision and model, then the two texts with their NULs.
Bytes build_id() {
  constexpr std::string_view kSoftware = "KIVMODEM.1.0";
  constexpr std::string_view kModel = "simulated modem";
  Bytes response{kBuildIdCommand, 2, 0, 0, 1, 0, 0, 0, 0xFF, 0, 0, 0};
  for (const std::string_view text : {kSoftware, kModel}) {
    response.insert(response.end(), text.begin(), text.end());
    response.push_back(0);
  }
  return response;
}

Bytes error_answer(uint8_t code, std::span<const uint8_t> command) {
  Bytes response{code};
  response.insert(response.end(), command.begin(), command.end());
  return response;
}

Bytes answer_command(const ServiceFault& fault, std::span<const uint8_t> command) {
  if (fault.kind == ServiceFault::Kind::kResult) {
    return error_answer(static_cast<uint8_t>(fault.code & 0xFF), command);
  }
  switch (command.front()) {
    case kVersionCommand:
      return version_information();
    case kBuildIdCommand:
      return build_id();
    case kSubsystemCommand:
      return {command.begin(), command.end()};
    default:
      return error_answer(kBadCommand, command);
  }
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
  if (fault.kind != ServiceFault::Kind::kSilent || fault.first_request > 1) {
    modem.processor =
        [fault, requests = std::make_shared<std::atomic<int32_t>>(0),
         size = static_cast<size_t>(conf.diag_response_size),
         delay = std::chrono::milliseconds(conf.diag_delay_ms)](std::span<const uint8_t> command) {
          const bool is_faulty = requests->fetch_add(1) + 1 >= fault.first_request;
          if (is_faulty && fault.kind == ServiceFault::Kind::kSilent) {
            return std::vector<DiagAnswer>{};
          }
          DiagAnswer answer{.bytes = answer_command(is_faulty ? fault : ServiceFault{}, command),
                            .delay = delay};
          if (size != 0) {
            set_size(answer.bytes, size);
          }
          return std::vector<DiagAnswer>{std::move(answer)};
        };
  }
  return modem;
}

DiagModem make_diag_modem() {
  ModemConf conf = load_modem_conf();
  conf.diag_fault = fault_of_this_run("diag", conf.diag_fault);
  return make_diag_modem(conf);
}

}  // namespace kiv::platform
