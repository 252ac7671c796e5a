#include "platform/android/state_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>

namespace kiv::platform {
namespace {

// No file of the stand-in comes near this; one that does is not followed into memory.
constexpr size_t kStateFileMax = size_t{16} << 20;
constexpr size_t kReadStep = 4096;
constexpr mode_t kFolderMode = 0755;
constexpr mode_t kFileMode = 0644;
// A FIFO in the place of a file must not block the open.
constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY;
// How long a change waits for the lock: some 2 s in all, less than a client waits for the modem.
// The pauses grow, or many who wait would keep the holder off the processor.
constexpr int kLockAttempts = 1100;
constexpr std::chrono::microseconds kLockPauseStep{25};
constexpr std::chrono::microseconds kLongestLockPause{2000};

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() {
    if (valid()) {
      const int saved_errno = errno;
      ::close(descriptor_);
      errno = saved_errno;
    }
  }

  bool valid() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }

  // Closes now, because a write may fail as late as here. 0 or errno. An interrupted close has
  // closed all the same, and what was written is with the system.
  int close() { return ::close(std::exchange(descriptor_, -1)) == 0 || errno == EINTR ? 0 : errno; }

 private:
  int descriptor_;
};

// The result of a system call that is repeated as long as a signal interrupts it.
template <typename Call>
auto without_interrupt(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) {
    result = call();
  }
  return result;
}

Descriptor open_file(const std::string& path, int flags) {
  return Descriptor(
      without_interrupt([&] { return ::open(path.c_str(), flags | O_CLOEXEC, kFileMode); }));
}

std::string path_in(const std::string& directory, std::string_view name) {
  std::string path;
  path.reserve(directory.size() + 1 + name.size());
  path.append(directory).append(1, '/').append(name);
  return path;
}

// The absolute or current-folder-relative path of the state file, empty (ENOENT) without one.
std::string state_path(std::string_view name) {
  const std::string directory = state_directory();
  if (directory.empty()) {
    errno = ENOENT;
    return {};
  }
  return path_in(directory, name);
}

// Makes every folder that the path names above its last component. 0 or errno.
int make_parent_folders(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (::mkdir(path.substr(0, slash).c_str(), kFolderMode) != 0 && errno != EEXIST) {
      return errno;
    }
  }
  return 0;
}

int write_all(int descriptor, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t written =
        without_interrupt([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
    if (written < 0) {
      return errno;
    }
    bytes = bytes.subspan(static_cast<size_t>(written));
  }
  return 0;
}

int write_new_file(const std::string& path, std::span<const uint8_t> bytes) {
  // Whatever a crash or a user left under this name is in the way.
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    return errno;
  }
  Descriptor file = open_file(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW);
  if (!file.valid()) {
    return errno;
  }
  const int error = write_all(file.get(), bytes);
  const int close_error = file.close();
  return error != 0 ? error : close_error;
}

int move_into_place(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) == 0) {
    return 0;
  }
  if (errno != ENOENT) {
    return errno;
  }
  const int error = make_parent_folders(to);
  if (error != 0) {
    return error;
  }
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

// One change of the state directory at a time, over all threads and processes: an flock belongs to
// the open file description, and each change opens the directory for itself.
class LockedDirectory {
 public:
  enum class Missing : uint8_t { kCreate, kRefuse };

  explicit LockedDirectory(Missing missing)
      : path_(state_directory()), descriptor_(open_directory(path_, missing)) {
    if (!descriptor_.valid() || !lock()) {
      error_ = errno;
    }
  }

  // 0, or the errno with which the directory could not be opened and locked.
  int error() const { return error_; }
  std::string path_of(std::string_view name) const { return path_in(path_, name); }

  // The new content is complete under a name of its own before it takes the place of the old one,
  // so a process that dies here leaves one or the other. That holds for the death of the process;
  // nothing is forced to the disk, so a loss of power may take the last changes with it.
  int replace(std::string_view name, std::span<const uint8_t> bytes) {
    const std::string temporary = path_of(".new");
    int error = write_new_file(temporary, bytes);
    if (error == 0) {
      replaced_.emplace(open_file(path_of(name), kReadFlags));
      error = move_into_place(temporary, path_of(name));
    }
    if (error != 0) {
      ::unlink(temporary.c_str());
    }
    return error;
  }

 private:
  // A holder that was stopped must not hold up everybody else for ever, so the lock is polled for.
  // Who comes while others wait lets them look first: on a busy machine the process that has just
  // released the lock would take it again and again before anybody else gets to run.
  bool lock() const {
    if (!others_wait() && try_lock()) {
      return true;
    }
    set_waiting();
    auto pause = 8 * kLockPauseStep;
    for (int attempt = 1; attempt < kLockAttempts; ++attempt) {
      std::this_thread::sleep_for(pause);
      if (try_lock()) {
        return true;
      }
      if (errno != EWOULDBLOCK && errno != EINTR) {
        return false;
      }
      pause = std::min(pause + kLockPauseStep, kLongestLockPause);
    }
    errno = EBUSY;
    return false;
  }

  bool try_lock() const { return ::flock(descriptor_.get(), LOCK_EX | LOCK_NB) == 0; }

  // A process that waits holds a read lock on the directory's first byte, so that the holder of the
  // flock can see it. This lock is independent of flock and ends with the descriptor too. On file
  // systems without such locks the order of those who wait is not defined.
  static struct flock first_byte(int16_t type) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_len = 1;
    return range;
  }

  void set_waiting() const {
    struct flock waiting = first_byte(F_RDLCK);
    static_cast<void>(::fcntl(descriptor_.get(), F_OFD_SETLK, &waiting));
  }

  bool others_wait() const {
    struct flock wanted = first_byte(F_WRLCK);
    return ::fcntl(descriptor_.get(), F_OFD_GETLK, &wanted) == 0 && wanted.l_type != F_UNLCK;
  }

  static Descriptor open_directory(const std::string& path, Missing missing) {
    if (path.empty()) {
      errno = ENOENT;
      return Descriptor(-1);
    }
    Descriptor directory = open_file(path, O_RDONLY | O_DIRECTORY);
    if (directory.valid() || errno != ENOENT || missing == Missing::kRefuse) {
      return directory;
    }
    const int error = make_parent_folders(path + "/");
    if (error != 0) {
      errno = error;
      return Descriptor(-1);
    }
    return open_file(path, O_RDONLY | O_DIRECTORY);
  }

  const std::string path_;
  // The file that was replaced, closed after the lock is gone: its end may have to wait for the
  // disk.
  std::optional<Descriptor> replaced_;
  const Descriptor descriptor_;
  int error_ = 0;
};

std::optional<std::vector<uint8_t>> read_file(const std::string& path) {
  const Descriptor file = open_file(path, kReadFlags);
  if (!file.valid()) {
    return std::nullopt;
  }
  std::vector<uint8_t> content;
  size_t length = 0;
  for (;;) {
    content.resize(length + kReadStep);
    const ssize_t received = without_interrupt(
        [&] { return ::read(file.get(), content.data() + length, content.size() - length); });
    if (received < 0) {
      return std::nullopt;
    }
    if (received == 0) {
      break;
    }
    length += static_cast<size_t>(received);
    if (length > kStateFileMax) {
      errno = EFBIG;
      return std::nullopt;
    }
  }
  content.resize(length);
  return content;
}

// Passes the result of a change on. Several commands end alike whatever became of it; then the line
// is the only sign that nothing was stored.
int tell_refusal(std::string_view name, int error) {
  if (error != 0) {
    std::fprintf(stderr, "state directory: not stored: %s (%d): %s/%.*s\n", std::strerror(error),
                 error, state_directory().c_str(), static_cast<int>(name.size()), name.data());
  }
  return error;
}

std::string environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

}  // namespace

std::string state_directory() {
  std::string directory = environment("KIV_STATE_DIR");
  if (!directory.empty()) {
    return directory;
  }
  directory = environment("XDG_STATE_HOME");
  if (!directory.empty()) {
    return directory + "/kiv";
  }
  directory = environment("HOME");
  return directory.empty() ? directory : directory + "/.local/state/kiv";
}

std::optional<std::vector<uint8_t>> read_state_file(std::string_view name) {
  const std::string path = state_path(name);
  if (path.empty()) {
    return std::nullopt;
  }
  return read_file(path);
}

std::optional<StateFilePart> read_state_file_part(std::string_view name, uint64_t offset,
                                                  size_t length) {
  const std::string path = state_path(name);
  if (path.empty()) {
    return std::nullopt;
  }
  const Descriptor file = open_file(path, kReadFlags);
  struct stat status {};
  if (!file.valid() || ::fstat(file.get(), &status) != 0) {
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return std::nullopt;
  }
  StateFilePart part{.file_size = static_cast<uint64_t>(status.st_size), .bytes = {}};
  if (offset >= part.file_size) {
    return part;
  }
  part.bytes.resize(static_cast<size_t>(std::min<uint64_t>(length, part.file_size - offset)));
  size_t filled = 0;
  while (filled < part.bytes.size()) {
    const ssize_t received = without_interrupt([&] {
      return ::pread(file.get(), part.bytes.data() + filled, part.bytes.size() - filled,
                     static_cast<off_t>(offset + filled));
    });
    if (received < 0) {
      return std::nullopt;
    }
    if (received == 0) {
      break;
    }
    filled += static_cast<size_t>(received);
  }
  part.bytes.resize(filled);
  return part;
}

int write_state_file(std::string_view name, std::span<const uint8_t> bytes) {
  LockedDirectory directory(LockedDirectory::Missing::kCreate);
  return tell_refusal(name,
                      directory.error() != 0 ? directory.error() : directory.replace(name, bytes));
}

int remove_state_file(std::string_view name) {
  const LockedDirectory directory(LockedDirectory::Missing::kRefuse);
  int error = directory.error();
  if (error == 0 && ::unlink(directory.path_of(name).c_str()) != 0) {
    error = errno;
  }
  return error == ENOENT ? error : tell_refusal(name, error);
}

int update_state_file(std::string_view name, const StateFileChange& change) {
  LockedDirectory directory(LockedDirectory::Missing::kCreate);
  if (directory.error() != 0) {
    return tell_refusal(name, directory.error());
  }
  const auto present = read_file(directory.path_of(name));
  if (!present && errno != ENOENT) {
    return tell_refusal(name, errno);
  }
  std::string_view text;
  if (present) {
    text = {reinterpret_cast<const char*>(present->data()), present->size()};
  }
  const std::string changed = change(text);
  if (present && changed == text) {
    return 0;
  }
  return tell_refusal(
      name,
      directory.replace(name, {reinterpret_cast<const uint8_t*>(changed.data()), changed.size()}));
}

}  // namespace kiv::platform
