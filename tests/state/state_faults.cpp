// Trouble with the state directory, at a system call of the test's choice: the calls that open,
// fill, move, remove and lock its files are replaced at link time. KIV_STATE_FAULT holds what shall
// happen and at which of these calls, the first one being 1:
//   "kill 7"   the process dies in place of its 7th call
//   "28 7"     the 7th call fails with errno 28
//   "30 0"     every call that changes something fails with errno 30
// A write counts as two calls, the second one when half of the bytes are written: the process dies
// with a torn file, EINTR gives a short write, any other error a torn file and the error. A call
// that is never interrupted is carried out instead of failing with EINTR. What happened is told in
// a line "state fault" on standard error.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace kiv::test {

// What the linker's --wrap leaves of the C library.
int real_open(const char* path, int flags, ...) asm("__real_open");
ssize_t real_write(int descriptor, const void* bytes, size_t length) asm("__real_write");
int real_close(int descriptor) asm("__real_close");
int real_flock(int descriptor, int operation) asm("__real_flock");
int real_rename(const char* from, const char* to) asm("__real_rename");
int real_unlink(const char* path) asm("__real_unlink");
int real_mkdir(const char* path, mode_t mode) asm("__real_mkdir");

// What takes its place.
int faulty_open(const char* path, int flags, ...) asm("__wrap_open");
ssize_t faulty_write(int descriptor, const void* bytes, size_t length) asm("__wrap_write");
int faulty_close(int descriptor) asm("__wrap_close");
int faulty_flock(int descriptor, int operation) asm("__wrap_flock");
int faulty_rename(const char* from, const char* to) asm("__wrap_rename");
int faulty_unlink(const char* path) asm("__wrap_unlink");
int faulty_mkdir(const char* path, mode_t mode) asm("__wrap_mkdir");

namespace {

std::atomic<int> g_calls{0};
// The descriptors of the state directory and of what is being written there.
std::array<std::atomic<bool>, 1024> g_of_state{};

bool is_of_state(int descriptor) {
  return descriptor >= 0 && static_cast<size_t>(descriptor) < g_of_state.size() &&
         g_of_state[static_cast<size_t>(descriptor)];
}

void set_of_state(int descriptor, bool of_state) {
  if (descriptor >= 0 && static_cast<size_t>(descriptor) < g_of_state.size()) {
    g_of_state[static_cast<size_t>(descriptor)] = of_state;
  }
}

constexpr int kDie = -1;
enum Kind : unsigned { kPlain = 0, kChanges = 1, kInterruptible = 2 };

// Counts this call. 0 when it shall be carried out, else the errno of its failure or kDie.
int fault_at_this_call(unsigned kind) {
  const char* const text = std::getenv("KIV_STATE_FAULT");
  std::array<char, 8> what{};
  int call = 0;
  if (text == nullptr || std::sscanf(text, "%7s %d", what.data(), &call) != 2) return 0;
  const bool due = call == 0 ? (kind & kChanges) != 0 : ++g_calls == call;
  if (!due) return 0;
  constexpr std::string_view kNote = "state fault\n";
  static_cast<void>(!real_write(STDERR_FILENO, kNote.data(), kNote.size()));
  const int error = std::string_view(what.data()) == "kill" ? kDie : std::atoi(what.data());
  return error == EINTR && (kind & kInterruptible) == 0 ? 0 : error;
}

// Carries the call out, or has it fail, or dies.
template <class Call>
int with_fault(unsigned kind, Call call) {
  const int fault = fault_at_this_call(kind);
  if (fault == kDie) raise(SIGKILL);
  if (fault == 0) return call();
  errno = fault;
  return -1;
}

}  // namespace

int faulty_open(const char* path, int flags, ...) {
  va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
  va_end(more);
  const auto open = [&] { return real_open(path, flags, mode); };
  if ((flags & (O_CREAT | O_DIRECTORY)) == 0) return open();
  const unsigned kind = (flags & O_CREAT) != 0 ? kChanges | kInterruptible : kInterruptible;
  const int descriptor = with_fault(kind, open);
  set_of_state(descriptor, true);
  return descriptor;
}

ssize_t faulty_write(int descriptor, const void* bytes, size_t length) {
  if (!is_of_state(descriptor)) return real_write(descriptor, bytes, length);
  if (with_fault(kChanges | kInterruptible, [] { return 0; }) != 0) return -1;
  const ssize_t half = real_write(descriptor, bytes, length / 2);
  if (half < 0) return half;
  if (with_fault(kChanges | kInterruptible, [] { return 0; }) != 0) {
    return errno == EINTR && half > 0 ? half : -1;
  }
  const auto* const rest = static_cast<const char*>(bytes) + half;
  const ssize_t more = real_write(descriptor, rest, length - static_cast<size_t>(half));
  return more < 0 ? more : half + more;
}

// A descriptor is closed even when that fails.
int faulty_close(int descriptor) {
  if (!is_of_state(descriptor)) return real_close(descriptor);
  set_of_state(descriptor, false);
  const int result = with_fault(kInterruptible, [] { return 0; });
  const int error = errno;
  const int closed = real_close(descriptor);
  errno = error;
  return result != 0 ? result : closed;
}

int faulty_flock(int descriptor, int operation) {
  return with_fault(kInterruptible, [=] { return real_flock(descriptor, operation); });
}

int faulty_rename(const char* from, const char* to) {
  return with_fault(kChanges, [=] { return real_rename(from, to); });
}

int faulty_unlink(const char* path) {
  return with_fault(kChanges, [=] { return real_unlink(path); });
}

int faulty_mkdir(const char* path, mode_t mode) {
  return with_fault(kChanges, [=] { return real_mkdir(path, mode); });
}

}  // namespace kiv::test
