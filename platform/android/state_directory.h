// The state directory: where the stand-in keeps what a handset keeps (properties, NV items, EFS
// files, modem.conf). Every change is atomic: a reader, or a run after a crash of the process,
// sees the old file or the new one, never a part. Changes of several processes are serialised by a
// lock on the directory itself, which the kernel drops with its holder. Names come from callers
// that checked them; file contents are untrusted. Any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kiv::platform {

// $KIV_STATE_DIR, else $XDG_STATE_HOME/kiv, else $HOME/.local/state/kiv; empty when none is set.
std::string state_directory();

// The state file `name` (a relative path), or nothing and errno.
std::optional<std::vector<uint8_t>> read_state_file(std::string_view name);

// `length` bytes at most from `offset` of the state file, and the file's size.
struct StateFilePart {
  uint64_t file_size = 0;
  std::vector<uint8_t> bytes;
};
std::optional<StateFilePart> read_state_file_part(std::string_view name, uint64_t offset,
                                                  size_t length);

// The changes below say on standard error when one was refused, but for the removal of a file that
// is not there. EBUSY: another process held the directory for some 2 s.

// Replaces the state file, creating its folders. 0 or errno.
[[nodiscard]] int write_state_file(std::string_view name, std::span<const uint8_t> bytes);

// Removes the state file. 0 or errno (ENOENT when there was none).
[[nodiscard]] int remove_state_file(std::string_view name);

// Replaces the state file by what `change` makes of its present content (empty when there is
// none), with no change of another process in between. 0 or errno.
using StateFileChange = std::function<std::string(std::string_view present)>;
[[nodiscard]] int update_state_file(std::string_view name, const StateFileChange& change);

// The text of a file without the mark (UTF-8) that some editors begin a file with.
inline std::string_view without_byte_order_mark(std::string_view text) {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  return text.starts_with(kMark) ? text.substr(kMark.size()) : text;
}

}  // namespace kiv::platform
