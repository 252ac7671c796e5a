#include "tests/support/extension_stub.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <span>
#include <utility>

#include "qmi_client.h"

namespace kiv::test {

std::vector<uint8_t> encode_extension_answer(const ExtensionAnswer& answer) {
  std::vector<uint8_t> bytes;
  const auto append = [&bytes](uint8_t type, const void* value, size_t size) {
    const auto* const first = static_cast<const uint8_t*>(value);
    bytes.insert(bytes.end(), {type, static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8)});
    bytes.insert(bytes.end(), first, first + size);
  };
  append(0x01, &answer.result, sizeof answer.result);
  append(0x02, &answer.len, sizeof answer.len);
  if (answer.payload) {
    std::vector<uint8_t> payload = *answer.payload;
    payload.resize(std::max(payload.size(), kExtensionPayloadSize));
    append(0x10, payload.data(), payload.size());
  }
  return bytes;
}

namespace {

constexpr uint32_t kExtensionService = 0xFFE4;
constexpr uint16_t kSendMessage = 0x0002;
// Both numbers, each behind the header of its TLV, and where the payload's bytes begin.
constexpr size_t kNumbersSize = 14;
constexpr size_t kPayloadOffset = kNumbersSize + 3;

// A request has an answer's form: what was read is encoded again, and must come out the same.
std::optional<ExtensionRequest> decode(std::span<const uint8_t> encoded) {
  const bool has_payload = encoded.size() == kPayloadOffset + kExtensionPayloadSize;
  if (!has_payload && encoded.size() != kNumbersSize) return std::nullopt;
  ExtensionRequest request;
  std::memcpy(&request.id, &encoded[3], sizeof request.id);
  std::memcpy(&request.len, &encoded[10], sizeof request.len);
  ExtensionAnswer again{.result = request.id, .len = request.len};
  if (has_payload) {
    request.payload.assign(encoded.begin() + kPayloadOffset, encoded.end());
    again.payload = request.payload;
  }
  if (!std::ranges::equal(encode_extension_answer(again), encoded)) return std::nullopt;
  return request;
}

}  // namespace

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
