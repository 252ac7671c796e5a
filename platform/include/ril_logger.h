// The platform RIL's logger, which the two small RIL utilities of kiv write to. Any thread.
#pragma once

namespace qti::ril::logger {

// Writes one line of a system-log priority under a tag, for the calling source place.
class Logger {
 public:
  static void log(int level, const char* tag, const char* thread_name, const char* function,
                  int line, const char* text);
};

// The calling thread's name, in a buffer of that thread.
const char* qcril_get_thread_name();

}  // namespace qti::ril::logger
