#include "platform/modem/uim_service.h"

#include <algorithm>
#include <array>
#include <span>
#include <tuple>
#include <utility>

#include "platform/android/state_directory.h"
#include "platform/modem/service_messages.h"
#include "uim_idl.h"

namespace kiv::platform {
namespace {

constexpr const char* kSimTypeFile = "uim/sim_type";
constexpr const char* kProfilesFile = "uim/profiles";

constexpr uint32_t kEuiccSlot = 2;
constexpr uint8_t kChannelMax = 3;

// The issuer security domain root of an eUICC, GSMA SGP.22.
constexpr std::array<uint8_t, 16> kIsdrAid{0xA0, 0x00, 0x00, 0x05, 0x59, 0x10, 0x10, 0xFF,
                                           0xFF, 0xFF, 0xFF, 0x89, 0x00, 0x00, 0x01, 0x00};

// STORE DATA, last block; its first data object is eUICCMemoryReset (GSMA SGP.22).
constexpr std::array<uint8_t, 4> kStoreData{0x80, 0xE2, 0x91, 0x00};
constexpr std::array<uint8_t, 2> kMemoryResetTag{0xBF, 0x34};
constexpr size_t kApduHeaderSize = 5;  // class, instruction, P1, P2, data length
constexpr uint8_t kResetDone = 0;
constexpr uint8_t kNothingToDelete = 1;

bool is_memory_reset(std::span<const uint8_t> apdu) {
  if (apdu.size() < kApduHeaderSize || apdu.size() - kApduHeaderSize < apdu[4] ||
      !std::equal(kStoreData.begin(), kStoreData.end(), apdu.begin())) {
    return false;
  }
  const auto data = apdu.subspan(kApduHeaderSize, apdu[4]);
  return data.size() >= kMemoryResetTag.size() &&
         std::equal(kMemoryResetTag.begin(), kMemoryResetTag.end(), data.begin());
}

void set_apdu(uim_send_apdu_resp_msg_v01& response, std::span<const uint8_t> apdu) {
  response.apdu_valid = 1;
  response.apdu_len = static_cast<uint32_t>(apdu.size());
  std::copy(apdu.begin(), apdu.end(), response.apdu);
}

struct UimState : ServiceState {
  std::array<bool, kChannelMax + 1> channels{true};  // which are open; 0 is the basic one
};

uim_result_v01 set_sim_type(UimState&, const uim_set_sim_type_req_msg_v01& request,
                            uim_set_sim_type_resp_msg_v01&) {
  if (request.sim_type_len == 0 || request.sim_type_len > std::size(request.sim_type)) {
    return kInvalidArgument;
  }
  const auto values = bytes_of(request.sim_type).first(request.sim_type_len * sizeof(uint32_t));
  return write_state_file(kSimTypeFile, values) == 0 ? kDone : kInternalError;
}

uim_result_v01 get_eid(UimState& uim, const uim_get_eid_req_msg_v01& request,
                       uim_get_eid_resp_msg_v01& response) {
  if (request.slot == 0 || request.slot > kCardSlots) {
    return kInvalidArgument;
  }
  if (request.slot == kEuiccSlot && uim.conf.eid) {
    response.eid_value_valid = 1;
    response.eid_value_len = static_cast<uint32_t>(uim.conf.eid->size());
    std::copy(uim.conf.eid->begin(), uim.conf.eid->end(), response.eid_value);
  }
  return kDone;
}

uim_result_v01 get_card_status(UimState& uim, const uim_get_card_status_req_msg_v01& request,
                               uim_get_card_status_resp_msg_v01& response) {
  if (request.extended_card_status_valid == 0 || request.extended_card_status == 0) {
    return kDone;
  }
  response.card_list_valid = 1;
  response.card_list_len = kCardSlots;
  for (size_t slot = 0; slot < kCardSlots; ++slot) {
    response.card_list[slot].card_state = static_cast<uint32_t>(uim.conf.card_states[slot]);
  }
  return kDone;
}

uim_result_v01 open_channel(UimState& uim, const uim_open_logical_channel_req_msg_v01& request,
                            uim_open_logical_channel_resp_msg_v01& response) {
  if (request.slot != kEuiccSlot || request.aid_valid == 0 || request.aid_len != kIsdrAid.size() ||
      !std::equal(kIsdrAid.begin(), kIsdrAid.end(), request.aid)) {
    return kInvalidArgument;
  }
  const auto channel = std::find(uim.channels.begin(), uim.channels.end(), false);
  if (uim.conf.uim_open_channel_fails || channel == uim.channels.end()) {
    return kInternalError;
  }
  *channel = true;
  response.channel_id_valid = 1;
  response.channel_id = static_cast<uint8_t>(channel - uim.channels.begin());
  return kDone;
}

// Only channels that were opened: the basic one takes no part.
template <class Request>
bool names_open_channel(const UimState& uim, const Request& request) {
  const uint8_t channel = request.channel_id;
  return request.slot == kEuiccSlot && request.channel_id_valid != 0 && channel != 0 &&
         channel < uim.channels.size() && uim.channels[channel];
}

uim_result_v01 close_channel(UimState& uim, const uim_logical_channel_req_msg_v01& request,
                             uim_logical_channel_resp_msg_v01&) {
  if (!names_open_channel(uim, request)) {
    return kInvalidArgument;
  }
  uim.channels[request.channel_id] = false;
  return kDone;
}

uim_result_v01 reset_euicc(UimState& uim, uim_send_apdu_resp_msg_v01& response) {
  constexpr std::array<uint8_t, 2> kWrongData{0x6A, 0x80};
  if (uim.conf.uim_reset_fails) {
    set_apdu(response, kWrongData);
    return kDone;
  }
  const auto initial = static_cast<uint32_t>(uim.conf.uim_profiles);
  const bool present = read_stored_number(kProfilesFile, initial) != 0;
  if (present && write_stored_number(kProfilesFile, 0) != 0) {
    return kInternalError;
  }
  const uint8_t status = present ? kResetDone : kNothingToDelete;
  set_apdu(response, std::array<uint8_t, 8>{0xBF, 0x34, 0x03, 0x80, 0x01, status, 0x90, 0x00});
  return kDone;
}

uim_result_v01 send_apdu(UimState& uim, const uim_send_apdu_req_msg_v01& request,
                         uim_send_apdu_resp_msg_v01& response) {
  constexpr std::array<uint8_t, 2> kUnknownInstruction{0x6D, 0x00};
  const std::span<const uint8_t> buffer(request.apdu);
  if (request.apdu_len > buffer.size() || !names_open_channel(uim, request)) {
    return kInvalidArgument;
  }
  if (is_memory_reset(buffer.first(request.apdu_len))) {
    return reset_euicc(uim, response);
  }
  set_apdu(response, kUnknownInstruction);
  return kDone;
}

constexpr std::tuple kMessages{
    Message{QMI_UIM_SET_SIM_TYPE_REQ_V01, set_sim_type},
    Message{QMI_UIM_GET_EID_REQ_V01, get_eid},
    Message{QMI_UIM_GET_CARD_STATUS_REQ_V01, get_card_status},
    Message{QMI_UIM_OPEN_LOGICAL_CHANNEL_REQ_V01, open_channel},
    Message{QMI_UIM_LOGICAL_CHANNEL_REQ_V01, close_channel},
    Message{QMI_UIM_SEND_APDU_REQ_V01, send_apdu},
};
constexpr qmi_idl_service_object kServiceObject = service_object<kMessages>(kUimServiceId, 0x71);

}  // namespace

Service make_uim_service(const ModemConf& conf) {
  return make_service<kMessages, UimState>(kUimServiceId, conf);
}

}  // namespace kiv::platform

qmi_idl_service_object_type uim_get_service_object_internal_v01(uint32_t idl_major_version,
                                                                uint32_t idl_minor_version,
                                                                uint32_t library_version) {
  return kiv::platform::object_of_version(kiv::platform::kServiceObject, idl_major_version,
                                          idl_minor_version, library_version);
}
