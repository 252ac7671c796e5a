// The system log and standard output under the tests' control. vsyslog is replaced at link time in
// every object of the test binary: lines go to the LogCaptures that are alive, and nowhere when
// there is none. Any thread may log; a capture is made and ended by the test.
#pragma once

#include <cstdarg>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kiv::test {

// The text of a log line after its prefix, which is one of "SUB[0][file:line] func: ",
// "[process][file:line] func: ", "[file:line] func: " and, on standard output,
// "RIL[file:line] func: ". A line without prefix is returned as it is.
std::string_view message_of(std::string_view line);

struct LogLine {
  int priority;
  std::string text;
};

// Holds what the process wrote to the system log since the capture was made.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const;
  // The number of lines whose whole message is `message`.
  size_t count(std::string_view message) const;
  void clear();

 private:
  friend void captured_vsyslog(int priority, const char* format, va_list arguments);

  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
};

// What the process writes to standard output while `run` runs, at most 16 MiB of it.
std::string captured_stdout(const std::function<void()>& run);

}  // namespace kiv::test
