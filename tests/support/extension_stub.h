// A vendor extension service (0xFFE4) that answers as the test says, in place of the simulated
// modem's. It takes the bytes of the request apart by itself, so that a wrong encoding shows: a
// malformed request is a test failure. The answer function runs on the sender's thread, several at
// once when several send.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include "platform/qmi/service_bus.h"

namespace kiv::test {

inline constexpr size_t kExtensionPayloadSize = 550;

struct ExtensionRequest {
  uint32_t id = 0;
  uint32_t len = 0;
  std::vector<uint8_t> payload;  // all 550 bytes, or none when the request carries no payload
};

// A payload is sent as 550 bytes, filled up with zeros; a longer one as it is.
struct ExtensionAnswer {
  uint32_t result = 0;
  uint32_t len = 0;
  std::optional<std::vector<uint8_t>> payload{};
};

// The encoded response message.
std::vector<uint8_t> encode_extension_answer(const ExtensionAnswer& answer);

// The service is up as long as the stub lives, unless the test withdraws it.
class ExtensionStub {
 public:
  // What to say: a well-formed answer, or the bus's own words (any bytes, an error, silence).
  using Answer = std::variant<ExtensionAnswer, platform::ServiceReply>;
  using AnswerFunction = std::function<Answer(const ExtensionRequest&)>;

  explicit ExtensionStub(AnswerFunction answer);
  ~ExtensionStub();
  ExtensionStub(const ExtensionStub&) = delete;
  ExtensionStub& operator=(const ExtensionStub&) = delete;

  // Takes the service down and brings it up again, as a restart of the modem does.
  void restart() const;

  // What arrived so far, in order of arrival.
  std::vector<ExtensionRequest> requests() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace kiv::test
