#include "tests/support/log_capture.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace kiv::test {

// Takes the place of vsyslog.
[[gnu::format(printf, 2, 0)]] void captured_vsyslog(int priority, const char* format,
                                                    va_list arguments) asm("__wrap_vsyslog");
void capture_line(int priority, const std::string& text);

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

// Cuts "[...]" off the front of `line`; false, and `line` unchanged, when it does not begin so.
bool cut_brackets(std::string_view& line, std::string_view& inside) {
  const size_t end = line.find(']');
  if (!line.starts_with('[') || end == std::string_view::npos) return false;
  inside = line.substr(1, end - 1);
  line.remove_prefix(end + 1);
  return true;
}

bool is_place(std::string_view inside) {
  const size_t colon = inside.rfind(':');
  return colon != std::string_view::npos && colon > 0 && colon + 1 < inside.size() &&
         std::all_of(inside.begin() + static_cast<std::ptrdiff_t>(colon) + 1, inside.end(),
                     [](unsigned char c) { return std::isdigit(c) != 0; });
}

}  // namespace

std::string_view message_of(std::string_view line) {
  std::string_view rest = line;
  if (rest.starts_with("SUB") || rest.starts_with("RIL")) rest.remove_prefix(3);
  std::string_view inside;
  if (!cut_brackets(rest, inside)) return line;
  if (!is_place(inside) && !(cut_brackets(rest, inside) && is_place(inside))) return line;
  const size_t colon = rest.find(": ");
  if (!rest.starts_with(' ') || colon == std::string_view::npos || colon == 1) return line;
  if (rest.find(' ', 1) != colon + 1) return line;
  return rest.substr(colon + 2);
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

std::vector<std::string> LogCapture::messages() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> messages;
  for (const LogLine& line : lines_) messages.emplace_back(message_of(line.text));
  return messages;
}

std::vector<std::string> LogCapture::messages_from(std::string_view place) const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> messages;
  for (const LogLine& line : lines_) {
    const std::string_view message = message_of(line.text);
    const std::string_view prefix(line.text.data(), line.text.size() - message.size());
    if (prefix.find(place) != std::string_view::npos) messages.emplace_back(message);
  }
  return messages;
}

size_t LogCapture::count(std::string_view message) const {
  const std::lock_guard lock(mutex_);
  return static_cast<size_t>(
      std::count_if(lines_.begin(), lines_.end(),
                    [message](const LogLine& line) { return message_of(line.text) == message; }));
}

void LogCapture::clear() {
  const std::lock_guard lock(mutex_);
  lines_.clear();
}

void capture_line(int priority, const std::string& text) {
  const std::lock_guard lock(captures().mutex);
  for (LogCapture* capture : captures().alive) {
    const std::lock_guard line_lock(capture->mutex_);
    capture->lines_.push_back({priority, text});
  }
}

void captured_vsyslog(int priority, const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) return;
  std::string text(static_cast<size_t>(length), '\0');
  vsnprintf(text.data(), text.size() + 1, format, arguments);
  capture_line(priority, text);
}

std::string captured_stdout(const std::function<void()>& run) {
  constexpr size_t kMost = size_t{16} << 20;
  const std::unique_ptr<FILE, int (*)(FILE*)> file(tmpfile(), fclose);
  const int terminal = dup(STDOUT_FILENO);
  if (!file || terminal < 0) throw std::runtime_error("standard output cannot be captured");
  fflush(stdout);
  dup2(fileno(file.get()), STDOUT_FILENO);
  const auto restore = [terminal](const void*) {
    fflush(stdout);
    dup2(terminal, STDOUT_FILENO);
    close(terminal);
  };
  {
    const std::unique_ptr<const void, decltype(restore)> restorer(&terminal, restore);
    run();
  }
  fseek(file.get(), 0, SEEK_END);
  std::string text(std::min(static_cast<size_t>(ftell(file.get())), kMost), '\0');
  rewind(file.get());
  text.resize(fread(text.data(), 1, text.size(), file.get()));
  return text;
}

}  // namespace kiv::test
