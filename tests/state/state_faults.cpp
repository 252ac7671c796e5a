// Trouble with the state directory at a system call of the test's choice: the calls that open,
// fill, move, remove and lock its files are replaced at link time. KIV_STATE_FAULT is "kill 7" (the
// process dies in place of its 7th call), "28 7" (the 7th call fails with errno 28) or "30 0" (so
// does every call that changes something). A write counts as two calls, the second one when half of
// the bytes are written: a kill leaves a torn file there, EINTR makes a short write. A call that no
// signal interrupts does not fail with EINTR. Each fault is told in a line "state fault" on
// standard error.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

extern "C" {
// The linker's names for what it replaces.
int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int descriptor, const void* bytes, size_t length);
int __real_close(int descriptor);
int __real_flock(int descriptor, int operation);
int __real_rename(const char* from, const char* to);
int __real_unlink(const char* path);
int __real_mkdir(const char* path, mode_t mode);
}

namespace {

std::atomic<int> g_calls{0};
// The descriptors of the state directory and of what is being written there.
std::array<std::atomic<bool>, 1024> g_of_state{};

enum Kind : unsigned { kMoves = 1, kWaits = 2, kWrites = kMoves | kWaits };

// Counts this call. Dies, or returns the errno of its failure, or 0 when it is to be carried out.
int fault_at_this_call(unsigned kind) {
  const char* const text = std::getenv("KIV_STATE_FAULT");
  std::array<char, 8> what{};
  int call = 0;
  if (text == nullptr || std::sscanf(text, "%7s %d", what.data(), &call) != 2) return 0;
  if (call == 0 ? (kind & kMoves) == 0 : ++g_calls != call) return 0;
  constexpr std::string_view kLine = "state fault\n";
  static_cast<void>(!__real_write(STDERR_FILENO, kLine.data(), kLine.size()));
  if (std::string_view(what.data()) == "kill") raise(SIGKILL);
  const int error = std::atoi(what.data());
  return error == EINTR && (kind & kWaits) == 0 ? 0 : error;
}

template <class Call>
int with_fault(unsigned kind, Call call) {
  const int fault = fault_at_this_call(kind);
  if (fault == 0) return call();
  errno = fault;
  return -1;
}

}  // namespace

extern "C" {

int __wrap_open(const char* path, int flags, ...) {
  va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
  va_end(more);
  const auto open = [&] { return __real_open(path, flags, mode); };
  if ((flags & (O_CREAT | O_DIRECTORY)) == 0) return open();
  const int file = with_fault((flags & O_CREAT) != 0 ? kWrites : kWaits, open);
  if (file >= 0) g_of_state.at(static_cast<size_t>(file)) = true;
  return file;
}

ssize_t __wrap_write(int file, const void* bytes, size_t length) {
  if (!g_of_state.at(static_cast<size_t>(file))) return __real_write(file, bytes, length);
  if (with_fault(kWrites, [] { return 0; }) != 0) return -1;
  const ssize_t half = __real_write(file, bytes, (length + 1) / 2);
  if (half < 0) return half;
  if (with_fault(kWrites, [] { return 0; }) != 0) return errno == EINTR ? half : -1;
  const auto* const rest = static_cast<const char*>(bytes) + half;
  const ssize_t more = __real_write(file, rest, length - static_cast<size_t>(half));
  return half + (more < 0 ? 0 : more);
}

// A descriptor is closed even when that fails.
int __wrap_close(int file) {
  if (file < 0 || !g_of_state.at(static_cast<size_t>(file)).exchange(false)) {
    return __real_close(file);
  }
  const int fault = fault_at_this_call(kWaits);
  const int closed = __real_close(file);
  errno = fault != 0 ? fault : errno;
  return fault != 0 ? -1 : closed;
}

int __wrap_flock(int file, int operation) {
  return with_fault(kWaits, [=] { return __real_flock(file, operation); });
}

int __wrap_rename(const char* from, const char* to) {
  return with_fault(kMoves, [=] { return __real_rename(from, to); });
}

int __wrap_unlink(const char* path) {
  return with_fault(kMoves, [=] { return __real_unlink(path); });
}

int __wrap_mkdir(const char* path, mode_t mode) {
  return with_fault(kMoves, [=] { return __real_mkdir(path, mode); });
}
}
