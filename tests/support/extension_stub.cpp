#include "tests/support/extension_stub.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <span>
#include <utility>

#include "qmi_client.h"

namespace kiv::test {
namespace {

constexpr uint32_t kExtensionService = 0xFFE4;
constexpr uint16_t kSendMessage = 0x0002;
constexpr size_t kTlvHeader = 3;

uint32_t little_endian(std::span<const uint8_t> bytes) {
  uint32_t value = 0;
  for (size_t i = bytes.size(); i > 0; --i) value = value << 8 | bytes[i - 1];
  return value;
}

// The value of the TLV at the front of `rest`, which loses it; nothing, and `rest` unchanged, when
// there is no TLV of that type and length.
std::optional<std::span<const uint8_t>> take_tlv(std::span<const uint8_t>& rest, uint8_t type,
                                                 size_t length) {
  if (rest.size() < kTlvHeader + length || rest[0] != type ||
      little_endian(rest.subspan(1, 2)) != length) {
    return std::nullopt;
  }
  const auto value = rest.subspan(kTlvHeader, length);
  rest = rest.subspan(kTlvHeader + length);
  return value;
}

std::optional<ExtensionRequest> decode(std::span<const uint8_t> encoded) {
  const auto id = take_tlv(encoded, 0x01, 4);
  const auto len = take_tlv(encoded, 0x02, 4);
  const auto payload = take_tlv(encoded, 0x10, kExtensionPayloadSize);
  if (!id || !len || !encoded.empty()) return std::nullopt;
  ExtensionRequest request{.id = little_endian(*id), .len = little_endian(*len), .payload = {}};
  if (payload) request.payload.assign(payload->begin(), payload->end());
  return request;
}

void append_little_endian(std::vector<uint8_t>& bytes, size_t value, size_t width) {
  for (size_t i = 0; i < width; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void append_tlv_u32(std::vector<uint8_t>& bytes, uint8_t type, uint32_t value) {
  bytes.push_back(type);
  append_little_endian(bytes, sizeof value, 2);
  append_little_endian(bytes, value, sizeof value);
}

// The bus publishes the modem's own services when somebody first looks for one; after that it
// leaves the stub alone.
void have_modem_published() {
  const qmi_idl_service_object service{.library_version = 0,
                                       .idl_version = 0,
                                       .service_id = kExtensionService,
                                       .idl_minor_version = 0,
                                       .max_message_len = 0,
                                       .requests = {},
                                       .responses = {},
                                       .indications = {}};
  unsigned int entries = 0;
  unsigned int services = 0;
  static_cast<void>(qmi_client_get_service_list(&service, nullptr, &entries, &services));
}

}  // namespace

std::vector<uint8_t> encode_extension_answer(const ExtensionAnswer& answer) {
  std::vector<uint8_t> bytes;
  append_tlv_u32(bytes, 0x01, answer.result);
  append_tlv_u32(bytes, 0x02, answer.len);
  if (answer.payload) {
    std::vector<uint8_t> payload = *answer.payload;
    payload.resize(std::max(payload.size(), kExtensionPayloadSize));
    bytes.push_back(0x10);
    append_little_endian(bytes, payload.size(), 2);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
  }
  return bytes;
}

// Shared with the bus, which may still be calling when the stub is gone.
struct ExtensionStub::State {
  explicit State(AnswerFunction function) : answer(std::move(function)) {}

  platform::ServiceReply reply(uint16_t msg_id, std::span<const uint8_t> encoded) {
    const std::optional<ExtensionRequest> request = decode(encoded);
    if (msg_id != kSendMessage || !request) {
      ADD_FAILURE() << "malformed request: message " << msg_id << ", " << encoded.size()
                    << " bytes";
      return platform::ServiceReply::transport_error(QMI_INTERNAL_ERR);
    }
    {
      const std::lock_guard lock(mutex);
      requests.push_back(*request);
    }
    const Answer said = answer(*request);
    if (const auto* raw = std::get_if<platform::ServiceReply>(&said)) return *raw;
    return platform::ServiceReply::response(
        encode_extension_answer(std::get<ExtensionAnswer>(said)));
  }

  const AnswerFunction answer;
  std::mutex mutex;
  std::vector<ExtensionRequest> requests;
};

ExtensionStub::ExtensionStub(AnswerFunction answer)
    : state_(std::make_shared<State>(std::move(answer))) {
  have_modem_published();
  restart();
}

ExtensionStub::~ExtensionStub() {
  platform::withdraw_service(kExtensionService);
}

void ExtensionStub::restart() const {
  platform::publish_service(kExtensionService,
                            [state = state_](uint16_t msg_id, std::span<const uint8_t> encoded) {
                              return state->reply(msg_id, encoded);
                            });
}

std::vector<ExtensionRequest> ExtensionStub::requests() const {
  const std::lock_guard lock(state_->mutex);
  return state_->requests;
}

}  // namespace kiv::test
