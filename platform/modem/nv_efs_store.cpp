#include "platform/modem/nv_efs_store.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace kiv::platform {
namespace {

// Subscriptions 0 and 1, and 2 for items that belong to the handset as a whole.
constexpr uint32_t kSubMax = 2;
constexpr uint16_t kTransferIdMax = 254;
constexpr size_t kTransfersMax = 4;

// Item 550, the IMEI: a length, then BCD digits, the low half of the first one its type.
constexpr std::array<uint8_t, 9> kImeiSub0{0x08, 0x0A, 0x10, 0x10, 0x07, 0x00, 0x00, 0x00, 0x30};
constexpr std::array<uint8_t, 9> kImeiSub1{0x08, 0x0A, 0x10, 0x10, 0x07, 0x00, 0x00, 0x00, 0x11};

// Item 6853, the hardware variant: the 32-bit word at byte 16 tells that an eSIM is fitted.
constexpr std::array<uint8_t, 124> kHardwareWithEsim = [] {
  std::array<uint8_t, 124> item{};
  item[16] = 1;
  return item;
}();

struct FactoryItem {
  uint32_t sub;
  uint32_t id;
  std::span<const uint8_t> value;
};

constexpr std::array<FactoryItem, 3> kFactoryItems{{
    {0, 550, kImeiSub0},
    {1, 550, kImeiSub1},
    {0, 6853, kHardwareWithEsim},
}};

const FactoryItem* find_factory_item(uint32_t sub, uint32_t id) {
  const auto item =
      std::find_if(kFactoryItems.begin(), kFactoryItems.end(),
                   [sub, id](const FactoryItem& row) { return row.sub == sub && row.id == id; });
  return item == kFactoryItems.end() ? nullptr : &*item;
}

std::string nv_state_file(uint32_t sub, uint32_t id) {
  return "nv/" + std::to_string(sub) + "/" + std::to_string(id);
}

}  // namespace

int read_nv_item(uint32_t sub, uint32_t id, std::vector<uint8_t>& value) {
  value.clear();
  if (sub > kSubMax) {
    return EINVAL;
  }
  if (auto stored = read_state_file_part(nv_state_file(sub, id), 0, kNvItemMax)) {
    value = std::move(stored->bytes);
  } else if (errno != ENOENT) {
    return errno;
  } else if (const FactoryItem* const factory = find_factory_item(sub, id)) {
    value.assign(factory->value.begin(), factory->value.end());
  }
  return value.empty() ? kNvNotActive : 0;
}

int write_nv_item(uint32_t sub, uint32_t id, std::span<const uint8_t> value) {
  if (sub > kSubMax || value.empty() || value.size() > kNvItemMax) {
    return EINVAL;
  }
  return write_state_file(nv_state_file(sub, id), value);
}

int delete_nv_item(uint32_t sub, uint32_t id) {
  std::vector<uint8_t> value;
  const int error = read_nv_item(sub, id, value);
  if (error != 0) {
    return error;
  }
  // Without its file the item would show the factory's value again.
  const std::string name = nv_state_file(sub, id);
  return find_factory_item(sub, id) != nullptr ? write_state_file(name, {})
                                               : remove_state_file(name);
}

int efs_state_file(uint32_t sub, std::string_view path, std::string& name) {
  if (sub > kSubMax) {
    return EINVAL;
  }
  path = path.substr(0, path.find('\0'));
  const std::string folder = "efs/" + std::to_string(sub);
  name = folder;
  while (!path.empty()) {
    const size_t slash = path.find('/');
    const std::string_view component = path.substr(0, slash);
    if (component == "..") {
      return EACCES;
    }
    if (!component.empty() && component != ".") {
      name.append(1, '/').append(component);
    }
    path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
  }
  return name.size() > folder.size() ? 0 : EINVAL;
}

std::optional<EfsReadTransfer::Chunk> EfsReadTransfer::read_chunk(const std::string& state_file,
                                                                  uint32_t offset) {
  const bool held =
      state_file == state_file_ && offset >= start_ && offset - start_ < part_.bytes.size();
  if (offset == 0 || !held) {
    auto part = read_state_file_part(state_file, offset, kEfsFileMax);
    if (!part) {
      return std::nullopt;
    }
    state_file_ = state_file;
    start_ = offset;
    part_ = std::move(*part);
  }
  const auto rest = std::span<const uint8_t>(part_.bytes).subspan(offset - start_);
  return Chunk{.file_size = part_.file_size,
               .bytes = rest.first(std::min(rest.size(), kEfsChunkMax))};
}

EfsWriteTransfers::Position EfsWriteTransfers::find_transfer(uint16_t ins_id) {
  return std::find_if(transfers_.begin(), transfers_.end(),
                      [ins_id](const Transfer& transfer) { return transfer.ins_id == ins_id; });
}

EfsWriteTransfers::Position EfsWriteTransfers::begin_transfer(const EfsChunk& chunk) {
  if (chunk.offset != 0 || chunk.total == 0 || chunk.total > kEfsFileMax) {
    return transfers_.end();
  }
  if (transfers_.size() == kTransfersMax) {
    transfers_.pop_front();
  }
  do {
    last_ins_id_ = static_cast<uint16_t>(last_ins_id_ % kTransferIdMax + 1);
  } while (find_transfer(last_ins_id_) != transfers_.end());
  transfers_.push_back({last_ins_id_, chunk.state_file, chunk.total, {}});
  return transfers_.end() - 1;
}

int EfsWriteTransfers::add_chunk(const EfsChunk& chunk, uint16_t& ins_id) {
  const auto transfer =
      chunk.ins_id == kNewTransfer ? begin_transfer(chunk) : find_transfer(chunk.ins_id);
  if (transfer == transfers_.end()) {
    return EINVAL;
  }
  const size_t missing = transfer->total - transfer->bytes.size();
  if (chunk.state_file != transfer->state_file || chunk.total != transfer->total ||
      chunk.offset != transfer->bytes.size() || chunk.bytes.empty() ||
      chunk.bytes.size() > std::min(missing, kEfsChunkMax)) {
    transfers_.erase(transfer);
    return EINVAL;
  }
  ins_id = transfer->ins_id;
  transfer->bytes.insert(transfer->bytes.end(), chunk.bytes.begin(), chunk.bytes.end());
  if (chunk.bytes.size() < missing) {
    return 0;
  }
  const int error = write_state_file(transfer->state_file, transfer->bytes);
  transfers_.erase(transfer);
  return error;
}

}  // namespace kiv::platform
