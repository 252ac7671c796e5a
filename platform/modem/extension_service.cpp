#include "platform/modem/extension_service.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "platform/android/state_directory.h"
#include "platform/modem/modem.h"
#include "platform/modem/nv_efs_store.h"
#include "platform/modem/service_messages.h"
#include "platform/modem/stats_debug.h"

namespace kiv::platform {
namespace {

constexpr uint16_t kMessageId = 0x0002;
constexpr qmi_result kUnknownClass{.result = 1, .error = 1};
constexpr int32_t kCommonNotSupported = 1;  // a common request that the modem does not know
constexpr uint32_t kCommonMessage = 2;      // first word of a common request that has a type
constexpr uint32_t kTwoSims = 2;            // card type: 1 would be a handset for one card
constexpr uint32_t kItemRead = 1;           // first word of an NV item request
constexpr size_t kEfsPathMax = 100;

// The message, request and response alike.
struct ExtensionMessage {
  uint32_t id;  // request class; in the response 0 or the service's error
  uint32_t len;
  uint8_t payload_valid;
  std::array<uint8_t, 550> payload;
};
static_assert(sizeof(ExtensionMessage) == 560);

constexpr std::array<qmi_idl_field, 3> kExtensionFields{{
    {.tlv = 0x01, .wire_width = 4, .memory_width = 4, .offset = offsetof(ExtensionMessage, id)},
    {.tlv = 0x02, .wire_width = 4, .memory_width = 4, .offset = offsetof(ExtensionMessage, len)},
    {.tlv = 0x10,
     .wire_width = 1,
     .memory_width = 1,
     .shape = QMI_IDL_FIXED,
     .offset = offsetof(ExtensionMessage, payload),
     .presence_offset = offsetof(ExtensionMessage, payload_valid),
     .max_count = 550},
}};

// What lies beyond the length is cleared, as it is on the wire. False also when the length claims
// more than there is.
bool decode_body(const qmi_idl_message& description, std::span<const uint8_t> encoded,
                 ExtensionMessage& request) {
  if (!platform::decode_body(description, encoded, request) ||
      request.len > (request.payload_valid != 0 ? request.payload.size() : 0)) {
    return false;
  }
  std::fill(request.payload.begin() + request.len, request.payload.end(), uint8_t{0});
  return true;
}

void set_outcome(ExtensionMessage& response, qmi_result outcome) {
  response.id = static_cast<uint32_t>(outcome.error);
}

// Class 1: one NV item.
struct NvItemRequest {
  uint32_t operation;
  uint32_t nv_id;
  uint32_t sub;
  std::array<uint8_t, 416> reserved;
};
static_assert(sizeof(NvItemRequest) == 428);

struct NvItemResponse {
  uint32_t operation;
  uint32_t status;
  uint32_t nv_id;
  uint32_t sub;
  uint32_t item_length;
  std::array<uint8_t, 412> item;
};
static_assert(sizeof(NvItemResponse) == 432 && offsetof(NvItemResponse, item) == 20);

// Class 2: NV items and EFS files.
enum NvEfsOperation : uint8_t { kNvRead = 1, kNvWrite, kNvDelete, kEfsRead, kEfsWrite, kEfsDelete };

struct NvEfsRequest {
  uint8_t operation;
  uint8_t sub;
  uint16_t id;  // NV item, or the transfer of an EFS write
  uint8_t path_len;
  std::array<char, kEfsPathMax> path;
  std::array<uint8_t, 3> reserved;
  uint32_t data_len_all;
  uint32_t data_len_send;
  uint32_t data_len_cur;
  std::array<uint8_t, kNvItemMax> data;
};
static_assert(sizeof(NvEfsRequest) == 544 && offsetof(NvEfsRequest, data_len_all) == 108 &&
              offsetof(NvEfsRequest, data) == 120);

struct NvEfsResponse {
  uint16_t reserved;
  uint16_t ins_id;
  uint32_t data_len_all;
  uint32_t data_len_send;
  uint32_t reserved_word;
  int32_t result;
  std::array<uint8_t, kNvItemMax> data;
};
static_assert(sizeof(NvEfsResponse) == 444 && offsetof(NvEfsResponse, result) == 16 &&
              offsetof(NvEfsResponse, data) == 20);

// Class 4: common requests. Only the common message has a type and a data length of its own.
struct CommonRequest {
  uint32_t kind;
  uint32_t reserved;
  uint32_t type;
  uint32_t data_length;
  std::array<uint8_t, 496> data;
};
static_assert(sizeof(CommonRequest) == 512);

struct CommonResponse {
  uint32_t reserved;
  int32_t result;
  uint32_t type;
  uint32_t data_length;
  std::array<uint8_t, 492> data;
};
static_assert(sizeof(CommonResponse) == 508 && offsetof(CommonResponse, data) == 16);

// The RF settings among the common requests, and the EFS files that keep them.
struct GpioSetting {
  uint32_t kind;
  uint32_t reserved;
  uint32_t count;
  std::array<int32_t, 50> values;
};

struct TxSetting {
  uint32_t kind;
  uint32_t reserved;
  uint32_t antenna;
  uint32_t system;
  uint64_t band_list;
};
static_assert(sizeof(TxSetting) == 24 && offsetof(TxSetting, band_list) == 16);

constexpr const char* kGpioSettingFile = "efs/0/oem/debug/rf_ant_port_config";
constexpr const char* kTxSettingFile = "efs/0/oem/debug/ant_tx_config";

struct ExtensionState : ServiceState {
  EfsReadTransfer read_transfer{};
  EfsWriteTransfers write_transfers{};
};

// The record that `source` begins with.
template <class Record, class Source>
Record record_in(const Source& source) {
  static_assert(sizeof(Record) <= sizeof source);
  Record record{};
  std::memcpy(&record, &source, sizeof record);
  return record;
}

NvItemResponse answer_nv_item(const NvItemRequest& request) {
  NvItemResponse answer{};
  answer.operation = request.operation;
  answer.nv_id = request.nv_id;
  answer.sub = request.sub;
  std::vector<uint8_t> item;
  answer.status = static_cast<uint32_t>(
      request.operation == kItemRead ? read_nv_item(request.sub, request.nv_id, item) : EINVAL);
  const size_t length = std::min(item.size(), answer.item.size());
  std::copy_n(item.begin(), length, answer.item.begin());
  answer.item_length = static_cast<uint32_t>(length);
  return answer;
}

// Class 2. The operations return 0, kNvNotActive or errno.

int nv_read(const NvEfsRequest& request, NvEfsResponse& response) {
  std::vector<uint8_t> item;
  const int error = read_nv_item(request.sub, request.id, item);
  std::copy(item.begin(), item.end(), response.data.begin());
  response.data_len_all = static_cast<uint32_t>(item.size());
  return error;
}

int nv_write(const NvEfsRequest& request) {
  if (request.data_len_all > request.data.size()) {
    return EINVAL;
  }
  return write_nv_item(request.sub, request.id,
                       std::span(request.data).first(request.data_len_all));
}

int efs_read(ExtensionState& modem, const std::string& file, const NvEfsRequest& request,
             NvEfsResponse& response) {
  const auto chunk = modem.read_transfer.read_chunk(file, request.data_len_cur);
  if (!chunk) {
    return errno;
  }
  std::copy(chunk->bytes.begin(), chunk->bytes.end(), response.data.begin());
  response.data_len_all = static_cast<uint32_t>(std::min<uint64_t>(chunk->file_size, UINT32_MAX));
  response.data_len_send = static_cast<uint32_t>(chunk->bytes.size());
  return 0;
}

int efs_write(ExtensionState& modem, const std::string& file, const NvEfsRequest& request,
              NvEfsResponse& response) {
  if (request.data_len_send > request.data.size()) {
    return EINVAL;
  }
  return modem.write_transfers.add_chunk(
      {.state_file = file,
       .ins_id = request.id,
       .total = request.data_len_all,
       .offset = request.data_len_cur,
       .bytes = std::span(request.data).first(request.data_len_send)},
      response.ins_id);
}

int work_on_efs(ExtensionState& modem, const NvEfsRequest& request, NvEfsResponse& response) {
  if (request.path_len > request.path.size()) {
    return EINVAL;
  }
  std::string file;
  const int error = efs_state_file(request.sub, {request.path.data(), request.path_len}, file);
  if (error != 0) {
    return error;
  }
  switch (request.operation) {
    case kEfsRead:
      return efs_read(modem, file, request, response);
    case kEfsWrite:
      return efs_write(modem, file, request, response);
    default:
      return remove_state_file(file);
  }
}

int32_t carry_out(ExtensionState& modem, const NvEfsRequest& request, NvEfsResponse& response) {
  switch (request.operation) {
    case kNvRead:
      return nv_read(request, response);
    case kNvWrite:
      return nv_write(request);
    case kNvDelete:
      return delete_nv_item(request.sub, request.id);
    case kEfsRead:
    case kEfsDelete:
      return work_on_efs(modem, request, response);
    case kEfsWrite:
      // Clients take a positive result of a write for a good one.
      return -work_on_efs(modem, request, response);
    default:
      return EINVAL;
  }
}

NvEfsResponse answer_nv_efs(ExtensionState& modem, const NvEfsRequest& request) {
  NvEfsResponse answer{};
  const int32_t forced = modem.conf.extension_rsp_result;
  answer.result = forced != 0 ? forced : carry_out(modem, request, answer);
  return answer;
}

// The common requests. Each returns the answer's result word.

// The data of a common message as words; false when it has not this many.
template <size_t count>
bool read_words(const CommonRequest& request, std::array<uint32_t, count>& words) {
  words = record_in<std::array<uint32_t, count>>(request.data);
  return request.data_length == sizeof words;
}

template <size_t count>
void set_words(CommonResponse& answer, const std::array<uint32_t, count>& words) {
  static_assert(sizeof words <= sizeof answer.data);
  answer.data_length = sizeof words;
  std::memcpy(answer.data.data(), words.data(), sizeof words);
}

// A restart of the subsystem and a crash look the same from here: the services go down and come
// back.
int32_t restart(ExtensionState& modem, const CommonRequest& request, CommonResponse&) {
  if (request.data_length != sizeof(uint32_t)) {
    return EINVAL;
  }
  modem.afterwards = restart_modem;
  return 0;
}

// Everything is in the state directory as soon as it is written.
int32_t nv_sync(ExtensionState&, const CommonRequest&, CommonResponse&) {
  return 0;
}

// Every test passes, and its answer repeats the test's number.
int32_t modem_test(ExtensionState&, const CommonRequest& request, CommonResponse& answer) {
  std::array<uint32_t, 1> test{};
  if (!read_words(request, test)) {
    return EINVAL;
  }
  set_words(answer, test);
  return 0;
}

uint32_t presence_of(CardState state) {
  return state == CardState::kPresent ? 1 : 0;
}

int32_t card_presence(ExtensionState& modem, const CommonRequest&, CommonResponse& answer) {
  const auto& cards = modem.conf.card_states;
  set_words(answer, std::array{presence_of(cards[0]), presence_of(cards[1])});
  return 0;
}

int32_t card_status(ExtensionState& modem, const CommonRequest& request, CommonResponse& answer) {
  std::array<uint32_t, 1> slot{};
  if (!read_words(request, slot) || slot[0] >= kCardSlots) {
    return EINVAL;
  }
  set_words(answer, std::array{presence_of(modem.conf.card_states[slot[0]])});
  return 0;
}

int32_t card_type(ExtensionState&, const CommonRequest&, CommonResponse& answer) {
  set_words(answer, std::array{kTwoSims});
  return 0;
}

// Slot, mode and level of the card detection, each 0 or 1. Nothing here depends on the level.
int32_t set_card_status(ExtensionState&, const CommonRequest& request, CommonResponse&) {
  std::array<uint32_t, 3> setting{};
  const bool good = read_words(request, setting) &&
                    std::all_of(setting.begin(), setting.end(), [](uint32_t w) { return w <= 1; });
  return good ? 0 : EINVAL;
}

// A start has the waits and the count behind its first word, a stop has that word alone, 0. No
// card moves here.
int32_t hot_swap_test(ExtensionState&, const CommonRequest& request, CommonResponse&) {
  std::array<uint32_t, 4> start{};
  std::array<uint32_t, 1> stop{};
  const bool good =
      read_words(request, start) ? start[0] != 0 : read_words(request, stop) && stop[0] == 0;
  return good ? 0 : EINVAL;
}

int32_t set_gpio(ExtensionState&, const CommonRequest& request, CommonResponse&) {
  const auto setting = record_in<GpioSetting>(request);
  const size_t values = std::min<size_t>(setting.count, setting.values.size());
  return write_state_file(kGpioSettingFile,
                          bytes_of(setting)
                              .first(offsetof(GpioSetting, values) + values * sizeof(int32_t))
                              .subspan(offsetof(GpioSetting, count)));
}

int32_t set_tx(ExtensionState&, const CommonRequest& request, CommonResponse&) {
  const auto setting = record_in<TxSetting>(request);
  return write_state_file(kTxSettingFile, bytes_of(setting).subspan(offsetof(TxSetting, antenna)));
}

// The statistics requests know no type: their block begins where the others have it.
template <auto make_block>
int32_t answer_block(ExtensionState& modem, const CommonRequest&, CommonResponse& answer) {
  const auto room = bytes_of(answer).subspan(offsetof(CommonResponse, type));
  const std::vector<uint8_t> block = make_block(modem.conf);
  answer.type = 0;
  std::copy_n(block.begin(), std::min(block.size(), room.size()), room.begin());
  return 0;
}

struct CommonRow {
  uint32_t kind;
  uint32_t type;  // of a common message; 0 for the others
  int32_t (*answer)(ExtensionState& modem, const CommonRequest& request, CommonResponse& answer);
};

constexpr std::array<CommonRow, 13> kCommonRequests{{
    {kCommonMessage, 31, restart},
    {kCommonMessage, 99, restart},
    {kCommonMessage, 35, nv_sync},
    {kCommonMessage, 73, modem_test},
    {kCommonMessage, 39, card_presence},
    {kCommonMessage, 55, card_status},
    {kCommonMessage, 56, card_type},
    {kCommonMessage, 57, set_card_status},
    {kCommonMessage, 80, hot_swap_test},
    {0, 0, set_gpio},
    {1, 0, set_tx},
    {20, 0, answer_block<make_stats_debug_block>},
    {27, 0, answer_block<make_stats_log_ids_block>},
}};

CommonResponse answer_common(ExtensionState& modem, const CommonRequest& request) {
  CommonResponse answer{};
  const bool typed = request.kind == kCommonMessage;
  answer.type = typed ? request.type : request.kind;
  answer.result = kCommonNotSupported;
  if (modem.conf.extension_rsp_result != 0) {
    answer.result = modem.conf.extension_rsp_result;
    return answer;
  }
  for (const CommonRow& row : kCommonRequests) {
    if (row.kind == request.kind && (!typed || row.type == request.type)) {
      answer.result = row.answer(modem, request, answer);
    }
  }
  return answer;
}

template <class Answer>
qmi_result answer_with(const Answer& answer, ExtensionMessage& response) {
  static_assert(sizeof answer <= sizeof response.payload);
  std::memcpy(response.payload.data(), &answer, sizeof answer);
  response.len = sizeof answer;
  response.payload_valid = 1;
  return kDone;
}

qmi_result answer_request(ExtensionState& modem, const ExtensionMessage& request,
                          ExtensionMessage& response) {
  switch (request.id) {
    case 1:
      return answer_with(answer_nv_item(record_in<NvItemRequest>(request.payload)), response);
    case 2:
      return answer_with(answer_nv_efs(modem, record_in<NvEfsRequest>(request.payload)), response);
    case 4:
      return answer_with(answer_common(modem, record_in<CommonRequest>(request.payload)), response);
    default:
      return kUnknownClass;
  }
}

constexpr std::tuple kMessages{
    Message{kMessageId, answer_request, kExtensionFields, kExtensionFields},
};

}  // namespace

Service make_extension_service(const ModemConf& conf) {
  return make_service<kMessages, ExtensionState>(kExtensionServiceId, conf);
}

}  // namespace kiv::platform
