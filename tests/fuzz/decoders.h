// The list of all that reaches the product from outside: a row for each kind of message, packet or
// text, with the commands that take it in. The fuzz target and the limits test walk this one table;
// a row that is added is fuzzed by its name alone.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kiv::fuzz {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

inline constexpr uint32_t kExtension = 0xFFE4;
inline constexpr uint32_t kSar = 0x11;
inline constexpr uint32_t kUim = 0x0B;
inline constexpr uint32_t kNas = 0x03;
inline constexpr uint32_t kPdc = 0x24;
inline constexpr uint32_t kVs = 0xE4;

// How a row's bytes get in front of the product.
enum class Inlet : uint8_t {
  kFunction,    // handed to the row's function
  kResponse,    // the encoded response to the row's messages
  kPayload,     // the payload of a well-formed response of the extension service
  kIndication,  // message id (2 bytes), then the encoded indication: sent twice before the response
  kStatsBlob,   // the index of a command, then the value of whatever parameter it asks for
  kDiag,        // the answer to a DIAG command; in DCI mode as a log and an event packet, too
};

// Which requests a row answers. Those of the extension service differ in their kind alone: class 1;
// class 2 by operation; class 4, common messages by type and common requests by sub-command.
struct MessageKey {
  uint32_t service = 0;
  uint32_t msg_id = 0;
  uint32_t kind = 0;
};
inline constexpr uint32_t kAny = 0xFFFFFFFF;  // message, or kind
constexpr MessageKey nv_item() {
  return {kExtension, 2, 1 << 16};
}
constexpr MessageKey nv_efs(uint32_t operation) {
  return {kExtension, 2, 2 << 16 | operation};
}
constexpr MessageKey common_message(uint32_t type) {
  return {kExtension, 2, 4 << 16 | type};
}
constexpr MessageKey common_request(uint32_t sub_command) {
  return {kExtension, 2, 5 << 16 | sub_command};
}

// A length or count inside the bytes, its place and the most that it can mean.
struct CountField {
  size_t offset = 0;
  size_t width = 0;
  uint64_t max = 0;
};

struct Decoder {
  std::string name;
  Inlet inlet = Inlet::kFunction;
  std::vector<MessageKey> messages{};    // that it answers or, for indications, comes before
  std::vector<std::string> commands{};   // of the tool, that take the bytes in
  std::vector<CountField> fields{};      // of its records
  void (*function)(ByteView) = nullptr;  // called with the bytes after the commands
  std::vector<Bytes> samples{};          // seeds that no healthy run brings
  std::vector<std::string> prepare{};    // commands before the healthy run
};

const std::vector<Decoder>& decoders();

// True when the row answers the request.
bool answers(const Decoder& row, const MessageKey& request);

}  // namespace kiv::fuzz
