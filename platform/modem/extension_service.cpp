#include "platform/modem/extension_service.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/android/state_directory.h"
#include "platform/modem/modem.h"
#include "platform/modem/nv_efs_store.h"
#include "platform/modem/stats_debug.h"
#include "platform/qmi/qmi_idl_codec.h"
#include "qmi_client.h"

namespace kiv::platform {
namespace {

constexpr uint16_t kMessageId = 0x0002;
constexpr uint32_t kServiceError = 1;       // a request class that the modem does not know
constexpr int32_t kCommonNotSupported = 1;  // a common request that it does not know
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
constexpr qmi_idl_message kExtensionMessage{.id = kMessageId,
                                            .c_struct_len = sizeof(ExtensionMessage),
                                            .max_encoded_len = 567,
                                            .fields = kExtensionFields};

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

template <class Body>
Body payload_as(const ExtensionMessage& message) {
  static_assert(sizeof(Body) <= sizeof message.payload);
  Body body{};
  std::memcpy(&body, message.payload.data(), sizeof body);
  return body;
}

template <class Body>
void set_payload(ExtensionMessage& message, const Body& body) {
  static_assert(sizeof(Body) <= sizeof message.payload);
  std::memcpy(message.payload.data(), &body, sizeof body);
  message.len = sizeof body;
  message.payload_valid = 1;
}

// The data of a common message as words; false when it has not this many.
template <size_t count>
bool read_words(const ExtensionMessage& message, std::array<uint32_t, count>& words) {
  const auto request = payload_as<CommonRequest>(message);
  static_assert(sizeof words <= sizeof request.data);
  if (request.data_length != sizeof words) {
    return false;
  }
  std::memcpy(words.data(), request.data.data(), sizeof words);
  return true;
}

template <size_t count>
void set_words(CommonResponse& answer, const std::array<uint32_t, count>& words) {
  static_assert(sizeof words <= sizeof answer.data);
  answer.data_length = sizeof words;
  std::memcpy(answer.data.data(), words.data(), sizeof words);
}

// The statistics requests know no type: their block begins where the others have it.
void set_block(CommonResponse& answer, const std::vector<uint8_t>& block) {
  constexpr size_t kBlockOffset = offsetof(CommonResponse, type);
  static_assert(sizeof answer - kBlockOffset == kStatsBlockMax);
  auto* const bytes = reinterpret_cast<uint8_t*>(&answer);
  std::fill(bytes + kBlockOffset, bytes + sizeof answer, uint8_t{0});
  std::copy_n(block.begin(), std::min(block.size(), kStatsBlockMax), bytes + kBlockOffset);
}

class ExtensionService {
 public:
  explicit ExtensionService(const ModemConf& conf)
      : fault_(conf.fault_of(kExtensionServiceId)),
        rsp_result_(conf.extension_rsp_result),
        card_states_(conf.card_states),
        stats_debug_block_(make_stats_debug_block(conf)),
        stats_log_ids_block_(make_stats_log_ids_block(conf)) {}

  ServiceReply handle(uint16_t msg_id, std::span<const uint8_t> encoded);

 private:
  using AnswerClass = void (ExtensionService::*)(const ExtensionMessage& message,
                                                 ExtensionMessage& response);
  using AnswerOperation = int32_t (ExtensionService::*)(const NvEfsRequest& request,
                                                        NvEfsResponse& response);
  struct ClassRow {
    uint32_t id;
    AnswerClass answer;
  };
  struct OperationRow {
    uint8_t operation;
    AnswerOperation answer;
  };
  using AnswerCommon = int32_t (ExtensionService::*)(const ExtensionMessage& message,
                                                     CommonResponse& answer);
  struct CommonRow {
    uint32_t kind;
    uint32_t type;  // of a common message; 0 for the others
    AnswerCommon answer;
  };
  static const std::array<ClassRow, 3> kClasses;
  static const std::array<CommonRow, 13> kCommonRequests;
  static const std::array<OperationRow, 6> kOperations;

  void answer_nv_item(const ExtensionMessage& message, ExtensionMessage& response);
  void answer_nv_efs(const ExtensionMessage& message, ExtensionMessage& response);
  void answer_common(const ExtensionMessage& message, ExtensionMessage& response);

  int32_t nv_read(const NvEfsRequest& request, NvEfsResponse& response);
  int32_t nv_write(const NvEfsRequest& request, NvEfsResponse& response);
  int32_t nv_delete(const NvEfsRequest& request, NvEfsResponse& response);
  int32_t efs_read(const NvEfsRequest& request, NvEfsResponse& response);
  int32_t efs_write(const NvEfsRequest& request, NvEfsResponse& response);
  int32_t efs_delete(const NvEfsRequest& request, NvEfsResponse& response);

  int32_t restart(const ExtensionMessage& message, CommonResponse& answer);
  int32_t nv_sync(const ExtensionMessage& message, CommonResponse& answer);
  int32_t modem_test(const ExtensionMessage& message, CommonResponse& answer);
  int32_t card_presence(const ExtensionMessage& message, CommonResponse& answer);
  int32_t card_status(const ExtensionMessage& message, CommonResponse& answer);
  int32_t card_type(const ExtensionMessage& message, CommonResponse& answer);
  int32_t set_card_status(const ExtensionMessage& message, CommonResponse& answer);
  int32_t hot_swap_test(const ExtensionMessage& message, CommonResponse& answer);
  int32_t set_gpio(const ExtensionMessage& message, CommonResponse& answer);
  int32_t set_tx(const ExtensionMessage& message, CommonResponse& answer);
  int32_t stats_debug(const ExtensionMessage& message, CommonResponse& answer);
  int32_t stats_log_ids(const ExtensionMessage& message, CommonResponse& answer);

  const ServiceFault fault_;
  const int32_t rsp_result_;
  const std::array<CardState, kCardSlots> card_states_;
  const std::vector<uint8_t> stats_debug_block_;
  const std::vector<uint8_t> stats_log_ids_block_;
  std::mutex mutex_;  // one request at a time, as the modem carries them out
  EfsReadTransfer read_transfer_;
  EfsWriteTransfers write_transfers_;
  bool restart_wanted_ = false;  // by the request at work
};

const std::array<ExtensionService::ClassRow, 3> ExtensionService::kClasses{{
    {1, &ExtensionService::answer_nv_item},
    {2, &ExtensionService::answer_nv_efs},
    {4, &ExtensionService::answer_common},
}};

const std::array<ExtensionService::OperationRow, 6> ExtensionService::kOperations{{
    {1, &ExtensionService::nv_read},
    {2, &ExtensionService::nv_write},
    {3, &ExtensionService::nv_delete},
    {4, &ExtensionService::efs_read},
    {5, &ExtensionService::efs_write},
    {6, &ExtensionService::efs_delete},
}};

const std::array<ExtensionService::CommonRow, 13> ExtensionService::kCommonRequests{{
    {kCommonMessage, 31, &ExtensionService::restart},
    {kCommonMessage, 99, &ExtensionService::restart},
    {kCommonMessage, 35, &ExtensionService::nv_sync},
    {kCommonMessage, 73, &ExtensionService::modem_test},
    {kCommonMessage, 39, &ExtensionService::card_presence},
    {kCommonMessage, 55, &ExtensionService::card_status},
    {kCommonMessage, 56, &ExtensionService::card_type},
    {kCommonMessage, 57, &ExtensionService::set_card_status},
    {kCommonMessage, 80, &ExtensionService::hot_swap_test},
    {0, 0, &ExtensionService::set_gpio},
    {1, 0, &ExtensionService::set_tx},
    {20, 0, &ExtensionService::stats_debug},
    {27, 0, &ExtensionService::stats_log_ids},
}};

// Decodes the request; what lies beyond its length is cleared, as it is on the wire. Returns false
// when the length claims more than there is.
bool decode_request(std::span<const uint8_t> encoded, ExtensionMessage& request) {
  std::array<uint8_t, sizeof(ExtensionMessage)> decoded{};
  if (!decode_message(kExtensionMessage, encoded, decoded)) {
    return false;
  }
  std::memcpy(&request, decoded.data(), sizeof request);
  if (request.len > (request.payload_valid != 0 ? request.payload.size() : 0)) {
    return false;
  }
  std::fill(request.payload.begin() + request.len, request.payload.end(), uint8_t{0});
  return true;
}

ServiceReply encode_response(const ExtensionMessage& response) {
  std::array<uint8_t, sizeof(ExtensionMessage)> bytes{};
  std::memcpy(bytes.data(), &response, sizeof response);
  auto encoded = encode_message(kExtensionMessage, bytes);
  return encoded ? ServiceReply::response(std::move(*encoded))
                 : ServiceReply::transport_error(QMI_INTERNAL_ERR);
}

ServiceReply ExtensionService::handle(uint16_t msg_id, std::span<const uint8_t> encoded) {
  ExtensionMessage request{};
  if (msg_id != kMessageId || !decode_request(encoded, request)) {
    return ServiceReply::transport_error(QMI_INTERNAL_ERR);
  }
  ExtensionMessage response{};
  bool restart_wanted = false;
  const auto row = std::find_if(kClasses.begin(), kClasses.end(),
                                [&](const ClassRow& entry) { return entry.id == request.id; });
  if (fault_.kind == ServiceFault::Kind::kResult) {
    response.id = static_cast<uint32_t>(fault_.code);
  } else if (row == kClasses.end()) {
    response.id = kServiceError;
  } else {
    const std::lock_guard lock(mutex_);
    (this->*row->answer)(request, response);
    restart_wanted = std::exchange(restart_wanted_, false);
  }
  if (restart_wanted) {
    restart_modem();  // the answer still reaches its sender
  }
  return encode_response(response);
}

void ExtensionService::answer_nv_item(const ExtensionMessage& message, ExtensionMessage& response) {
  const auto request = payload_as<NvItemRequest>(message);
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
  set_payload(response, answer);
}

void ExtensionService::answer_nv_efs(const ExtensionMessage& message, ExtensionMessage& response) {
  const auto request = payload_as<NvEfsRequest>(message);
  NvEfsResponse answer{};
  const auto row =
      std::find_if(kOperations.begin(), kOperations.end(),
                   [&](const OperationRow& entry) { return entry.operation == request.operation; });
  if (rsp_result_ != 0) {
    answer.result = rsp_result_;
  } else if (row == kOperations.end()) {
    answer.result = EINVAL;
  } else {
    answer.result = (this->*row->answer)(request, answer);
  }
  set_payload(response, answer);
}

int32_t ExtensionService::nv_read(const NvEfsRequest& request, NvEfsResponse& response) {
  std::vector<uint8_t> item;
  const int error = read_nv_item(request.sub, request.id, item);
  std::copy(item.begin(), item.end(), response.data.begin());
  response.data_len_all = static_cast<uint32_t>(item.size());
  return error;
}

int32_t ExtensionService::nv_write(const NvEfsRequest& request, NvEfsResponse&) {
  if (request.data_len_all > request.data.size()) {
    return EINVAL;
  }
  return write_nv_item(request.sub, request.id,
                       std::span(request.data).first(request.data_len_all));
}

int32_t ExtensionService::nv_delete(const NvEfsRequest& request, NvEfsResponse&) {
  return delete_nv_item(request.sub, request.id);
}

int efs_file_of(const NvEfsRequest& request, std::string& name) {
  if (request.path_len > request.path.size()) {
    return EINVAL;
  }
  return efs_state_file(request.sub, {request.path.data(), request.path_len}, name);
}

int32_t ExtensionService::efs_read(const NvEfsRequest& request, NvEfsResponse& response) {
  std::string name;
  const int error = efs_file_of(request, name);
  if (error != 0) {
    return error;
  }
  const auto chunk = read_transfer_.read_chunk(name, request.data_len_cur);
  if (!chunk) {
    return errno;
  }
  std::copy(chunk->bytes.begin(), chunk->bytes.end(), response.data.begin());
  response.data_len_all = static_cast<uint32_t>(std::min<uint64_t>(chunk->file_size, UINT32_MAX));
  response.data_len_send = static_cast<uint32_t>(chunk->bytes.size());
  return 0;
}

// Clients take a positive result of a write for a good one, so its failures are negative.
int32_t ExtensionService::efs_write(const NvEfsRequest& request, NvEfsResponse& response) {
  EfsChunk chunk{.state_file = {},
                 .ins_id = request.id,
                 .total = request.data_len_all,
                 .offset = request.data_len_cur,
                 .bytes = {}};
  const int error = efs_file_of(request, chunk.state_file);
  if (error != 0) {
    return -error;
  }
  if (request.data_len_send > request.data.size()) {
    return -EINVAL;
  }
  chunk.bytes = std::span(request.data).first(request.data_len_send);
  return -write_transfers_.add_chunk(chunk, response.ins_id);
}

int32_t ExtensionService::efs_delete(const NvEfsRequest& request, NvEfsResponse&) {
  std::string name;
  const int error = efs_file_of(request, name);
  return error != 0 ? error : remove_state_file(name);
}

void ExtensionService::answer_common(const ExtensionMessage& message, ExtensionMessage& response) {
  const auto request = payload_as<CommonRequest>(message);
  CommonResponse answer{};
  const bool typed = request.kind == kCommonMessage;
  answer.type = typed ? request.type : request.kind;
  const auto row =
      std::find_if(kCommonRequests.begin(), kCommonRequests.end(), [&](const CommonRow& entry) {
        return entry.kind == request.kind && (!typed || entry.type == request.type);
      });
  if (rsp_result_ != 0) {
    answer.result = rsp_result_;
  } else if (row == kCommonRequests.end()) {
    answer.result = kCommonNotSupported;
  } else {
    answer.result = (this->*row->answer)(message, answer);
  }
  set_payload(response, answer);
}

// A restart of the subsystem and a crash look the same from here: the services go down and come
// back.
int32_t ExtensionService::restart(const ExtensionMessage& message, CommonResponse&) {
  if (payload_as<CommonRequest>(message).data_length != sizeof(uint32_t)) {
    return EINVAL;
  }
  restart_wanted_ = true;
  return 0;
}

// Everything is in the state directory as soon as it is written.
int32_t ExtensionService::nv_sync(const ExtensionMessage&, CommonResponse&) {
  return 0;
}

// Every test passes, and its answer repeats the test's number.
int32_t ExtensionService::modem_test(const ExtensionMessage& message, CommonResponse& answer) {
  std::array<uint32_t, 1> test{};
  if (!read_words(message, test)) {
    return EINVAL;
  }
  set_words(answer, test);
  return 0;
}

uint32_t presence_of(CardState state) {
  return state == CardState::kPresent ? 1 : 0;
}

int32_t ExtensionService::card_presence(const ExtensionMessage&, CommonResponse& answer) {
  std::array<uint32_t, kCardSlots> presence{};
  std::transform(card_states_.begin(), card_states_.end(), presence.begin(), presence_of);
  set_words(answer, presence);
  return 0;
}

int32_t ExtensionService::card_status(const ExtensionMessage& message, CommonResponse& answer) {
  std::array<uint32_t, 1> slot{};
  if (!read_words(message, slot) || slot[0] >= kCardSlots) {
    return EINVAL;
  }
  set_words(answer, std::array{presence_of(card_states_[slot[0]])});
  return 0;
}

int32_t ExtensionService::card_type(const ExtensionMessage&, CommonResponse& answer) {
  set_words(answer, std::array{kTwoSims});
  return 0;
}

// Slot, mode and level of the card detection, each 0 or 1. Nothing here depends on the level.
int32_t ExtensionService::set_card_status(const ExtensionMessage& message, CommonResponse&) {
  std::array<uint32_t, 3> setting{};
  const bool good = read_words(message, setting) &&
                    std::all_of(setting.begin(), setting.end(), [](uint32_t w) { return w <= 1; });
  return good ? 0 : EINVAL;
}

// A start has the waits and the count behind its first word, a stop has that word alone, 0. No
// card moves here.
int32_t ExtensionService::hot_swap_test(const ExtensionMessage& message, CommonResponse&) {
  std::array<uint32_t, 4> start{};
  std::array<uint32_t, 1> stop{};
  const bool good =
      read_words(message, start) ? start[0] != 0 : read_words(message, stop) && stop[0] == 0;
  return good ? 0 : EINVAL;
}

int32_t ExtensionService::set_gpio(const ExtensionMessage& message, CommonResponse&) {
  const auto setting = payload_as<GpioSetting>(message);
  std::vector<uint8_t> content(sizeof setting.count + sizeof setting.values);
  std::memcpy(content.data(), &setting.count, sizeof setting.count);
  std::memcpy(content.data() + sizeof setting.count, setting.values.data(), sizeof setting.values);
  const size_t stored = std::min<size_t>(setting.count, setting.values.size());
  content.resize(sizeof setting.count + stored * sizeof setting.values[0]);
  return write_state_file(kGpioSettingFile, content);
}

int32_t ExtensionService::set_tx(const ExtensionMessage& message, CommonResponse&) {
  const auto setting = payload_as<TxSetting>(message);
  const auto* const bytes = reinterpret_cast<const uint8_t*>(&setting);
  return write_state_file(kTxSettingFile,
                          {bytes + offsetof(TxSetting, antenna), bytes + sizeof setting});
}

int32_t ExtensionService::stats_debug(const ExtensionMessage&, CommonResponse& answer) {
  set_block(answer, stats_debug_block_);
  return 0;
}

int32_t ExtensionService::stats_log_ids(const ExtensionMessage&, CommonResponse& answer) {
  set_block(answer, stats_log_ids_block_);
  return 0;
}

}  // namespace

Service make_extension_service(const ModemConf& conf) {
  return [service = std::make_shared<ExtensionService>(conf)](uint16_t msg_id,
                                                              std::span<const uint8_t> request) {
    return service->handle(msg_id, request);
  };
}

}  // namespace kiv::platform
