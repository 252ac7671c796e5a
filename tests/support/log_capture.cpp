#include "tests/support/log_capture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace kiv::test {

// Takes the place of vsyslog.
[[gnu::format(printf, 2, 0)]] void captured_vsyslog(int priority, const char* format,
                                                    va_list arguments) asm("__wrap_vsyslog");

namespace {

// Never destroyed: detached threads may log after main has returned.
struct Captures {
  std::mutex mutex;
  std::vector<LogCapture*> alive;
};

Captures& captures() {
  static Captures& all = *new Captures;
  return all;
}

}  // namespace

std::string_view message_of(std::string_view line) {
  const size_t place_end = line.find("] ");
  const size_t name_end = line.find(": ", place_end);
  const bool has_prefix =
      line.starts_with('[') || line.starts_with("SUB[") || line.starts_with("RIL[");
  if (!has_prefix || name_end == std::string_view::npos) return line;
  return line.find(' ', place_end + 2) == name_end + 1 ? line.substr(name_end + 2) : line;
}

LogCapture::LogCapture() {
  const std::lock_guard lock(captures().mutex);
  captures().alive.push_back(this);
}

LogCapture::~LogCapture() {
  const std::lock_guard lock(captures().mutex);
  std::erase(captures().alive, this);
}

std::vector<LogLine> LogCapture::lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

size_t LogCapture::count(std::string_view message) const {
  const std::lock_guard lock(mutex_);
  return static_cast<size_t>(std::ranges::count(
      lines_, message, [](const LogLine& line) { return message_of(line.text); }));
}

void LogCapture::clear() {
  const std::lock_guard lock(mutex_);
  lines_.clear();
}

void captured_vsyslog(int priority, const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) return;
  std::string text(static_cast<size_t>(length), '\0');
  vsnprintf(text.data(), text.size() + 1, format, arguments);
  const std::lock_guard lock(captures().mutex);
  for (LogCapture* capture : captures().alive) {
    const std::lock_guard line_lock(capture->mutex_);
    capture->lines_.push_back({priority, text});
  }
}

std::string captured_stdout(const std::function<void()>& run) {
  constexpr size_t kMost = size_t{16} << 20;
  const int file = memfd_create("output", MFD_CLOEXEC);
  const int terminal = dup(STDOUT_FILENO);
  const auto put_in_place = [](int output) {
    fflush(stdout);
    dup2(output, STDOUT_FILENO);
  };
  put_in_place(file);
  run();
  put_in_place(terminal);
  std::string text(std::min(static_cast<size_t>(lseek(file, 0, SEEK_END)), kMost), '\0');
  const ssize_t length = pread(file, text.data(), text.size(), 0);
  close(terminal);
  close(file);
  if (length < 0) throw std::runtime_error("standard output cannot be captured");
  text.resize(static_cast<size_t>(length));
  return text;
}

}  // namespace kiv::test
