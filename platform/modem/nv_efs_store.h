// The modem's own memory: NV items (`nv/<sub>/<id>`) and EFS files (`efs/<sub>/<path>`) in the
// state directory. Called by the modem's services, one call at a time. Subscriptions, paths and
// lengths come from requests and are untrusted; so are the files, which a user may have put there.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/android/state_directory.h"

namespace kiv::platform {

inline constexpr int kNvNotActive = 5;  // result of an item that holds no value
inline constexpr size_t kNvItemMax = 424;
inline constexpr size_t kEfsChunkMax = 414;
inline constexpr uint32_t kEfsFileMax = 102410;  // longest file that can be written
inline constexpr uint16_t kNewTransfer = 255;    // `ins_id` of a transfer's first chunk

// The item's value, as written or else as the factory left it. 0, kNvNotActive or errno.
[[nodiscard]] int read_nv_item(uint32_t sub, uint32_t id, std::vector<uint8_t>& value);

// Stores 1 to kNvItemMax bytes. 0 or errno.
[[nodiscard]] int write_nv_item(uint32_t sub, uint32_t id, std::span<const uint8_t> value);

// Makes the item not active, also where the factory left a value. 0, kNvNotActive or errno.
[[nodiscard]] int delete_nv_item(uint32_t sub, uint32_t id);

// The state file of an EFS path, which ends at a NUL if there is one. 0; EINVAL for an empty path
// or an unknown subscription; EACCES for a path that climbs ("..").
[[nodiscard]] int efs_state_file(uint32_t sub, std::string_view path, std::string& name);

// The file that a client is reading, chunk by chunk. One that is replaced meanwhile is read on as
// it was, so that no client gets a mixture of two files.
class EfsReadTransfer {
 public:
  struct Chunk {
    uint64_t file_size = 0;
    std::span<const uint8_t> bytes;  // until the next call
  };

  // At most kEfsChunkMax bytes from `offset`, none behind the end; offset 0 begins anew. Nothing
  // and errno when the file cannot be read.
  std::optional<Chunk> read_chunk(const std::string& state_file, uint32_t offset);

 private:
  std::string state_file_;
  uint32_t start_ = 0;  // where in the file the bytes begin
  StateFilePart part_;
};

// One chunk of a file that is being written.
struct EfsChunk {
  std::string state_file;
  uint16_t ins_id = 0;  // kNewTransfer, or the id that the first chunk was answered with
  uint32_t total = 0;   // of the file
  uint32_t offset = 0;  // of the chunk
  std::span<const uint8_t> bytes;
};

// Files on their way from a client, complete in memory before they reach the state directory.
class EfsWriteTransfers {
 public:
  // Takes the chunk, and writes the file with the last one. Stores the transfer's id in `ins_id`.
  // 0; EINVAL for a chunk that is not the next one of a transfer (which ends it); errno.
  [[nodiscard]] int add_chunk(const EfsChunk& chunk, uint16_t& ins_id);

 private:
  struct Transfer {
    uint16_t ins_id;
    std::string state_file;
    uint32_t total;
    std::vector<uint8_t> bytes;
  };
  using Position = std::deque<Transfer>::iterator;

  Position begin_transfer(const EfsChunk& chunk);
  Position find_transfer(uint16_t ins_id);

  std::deque<Transfer> transfers_;  // oldest first
  uint16_t last_ins_id_ = 0;
};

}  // namespace kiv::platform
