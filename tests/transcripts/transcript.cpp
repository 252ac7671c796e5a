#include "tests/transcripts/transcript.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <utility>

#include "tervik_kiv_at_cmd.h"
#include "tervik_kiv_smart_test.h"
#include "tervik_kiv_test_main.h"
#include "tervik_utils_cmn.h"
#include "tervik_utils_outcome.h"
#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/virtual_time.h"

namespace kiv::test {

Strings split(std::string_view text, std::string_view mark) {
  Strings parts;
  while (!text.empty()) {
    const size_t end = std::min(text.find(mark), text.size());
    parts.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + mark.size(), text.size()));
  }
  return parts;
}

namespace {

namespace fs = std::filesystem;

#ifdef __SANITIZE_THREAD__
// A recorder that all threads use would hide from ThreadSanitizer what their own locks leave open.
constexpr bool kRecords = false;
#else
constexpr bool kRecords = true;
#endif

// ---- the recorder, in the run's own process ----

// One of the two standard streams: what was written to it since it was last looked at.
class Stream {
 public:
  explicit Stream(int descriptor) : file_(memfd_create("stream", MFD_CLOEXEC)) {
    dup2(file_, descriptor);
  }
  std::string take() {
    fflush(stdout);
    std::string text(static_cast<size_t>(lseek(file_, 0, SEEK_END) - seen_), '\0');
    const ssize_t length = pread(file_, text.data(), text.size(), seen_);
    text.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
    seen_ += length;
    return text;
  }

 private:
  int file_;
  off_t seen_ = 0;
};

class Recorder {
 public:
  // A statement comes here before it goes to its sinks: where it showed is known at the next call.
  void statement(const tervik_log_place& place, uint32_t log_class, uint32_t sub,
                 const char* text) {
    take_output();
    time_passes();
    const std::string prefix = std::string(place.file) + ":" + std::to_string(place.line) + "] " +
                               place.func + ": " + text;
    const bool has_sub = tervik_check_sub_id(sub);
    pending_ = {.printed = (log_class == LOG_CLASS_HELP ? text : "RIL[" + prefix) + "\n",
                .logged = (has_sub ? "SUB[" + std::to_string(sub) + "][" : "[") + prefix,
                .priority = log_class == LOG_CLASS_ERROR    ? 3
                            : log_class == LOG_CLASS_NOTICE ? 5
                                                            : 7,
                .heading = {log_class == LOG_CLASS_ERROR    ? 'E'
                            : log_class == LOG_CLASS_NOTICE ? 'N'
                            : log_class == LOG_CLASS_DEBUG  ? 'D'
                                                            : 'H',
                            has_sub ? static_cast<char>('0' + sub) : '-'},
                .rest = std::string(" ") + place.func + ": " + text,
                .thread = thread_number()};
  }

  // The last statement, by where it showed, and what was printed or logged past the statements.
  void take_output() {
    std::string out = output_.take();
    std::vector<LogLine> log = log_.lines();
    log_.clear();
    if (!pending_.heading.empty()) {
      // Bookkeeping of the masks may come before the statement that has them loaded.
      const auto logged = std::find_if(log.begin(), log.end(), [this](const LogLine& each) {
        return each.text == pending_.logged && each.priority == pending_.priority;
      });
      const bool in_log = logged != log.end();
      const auto before = in_log ? logged : log.begin();
      for (auto each = log.begin(); each != before; ++each) log_line(*each, pending_.thread);
      log.erase(log.begin(), in_log ? logged + 1 : before);
      const bool printed = out.starts_with(pending_.printed);
      if (printed) out.erase(0, pending_.printed.size());
      if (printed || in_log) {
        line(pending_.heading +
                 (printed && in_log ? ' '
                  : printed         ? 's'
                                    : 'l') +
                 pending_.rest,
             pending_.thread);
      }
      pending_ = {};
    }
    const std::string err = error_.take();
    if (!out.empty() || !err.empty() || !log.empty()) time_passes();
    for (const std::string& each : split(out, "\n")) line(" > " + each, thread_number());
    for (const std::string& each : split(err, "\n")) line(" 2> " + each, thread_number());
    for (const LogLine& each : log) log_line(each, thread_number());
  }

  // The first failure counts.
  void failure(int code, const char* said) {
    if (!verdict_.empty()) return;
    verdict_ = " => " + std::to_string(code);
    if (said != nullptr) verdict_ += std::string(", ") + said;
  }

  void finish(const std::string& result) {
    take_output();
    if (!verdict_.empty()) lines_ += verdict_ + "\n";
    time_passes();
    std::ofstream(result, std::ios::binary) << lines_ << "took " << virtual_now().count() << '\n';
  }

 private:
  struct Statement {
    std::string printed;
    std::string logged;
    int priority;
    std::string heading;  // empty for no statement
    std::string rest;
    int thread;
  };

  void log_line(const LogLine& each, int thread) {
    line(" log" + std::to_string(each.priority) + " " + each.text, thread);
  }

  void time_passes() {
    const auto passed = virtual_now() - std::exchange(seen_, virtual_now());
    if (passed.count() == 0) return;
    std::ostringstream text;
    text << " +" << std::chrono::duration<double>(passed).count() << " s\n";
    lines_ += text.str();
  }

  void line(const std::string& text, int thread) {
    if (thread != 0) lines_ += "[" + std::to_string(thread) + "] ";
    for (const char c : text) {
      // A line end inside a text, and what is no text at all.
      if (c == '\n') {
        lines_ += "\\n";
      } else if (static_cast<unsigned char>(c) < ' ') {
        char escaped[8];
        snprintf(escaped, sizeof(escaped), "\\x%02X", static_cast<unsigned>(c));
        lines_ += escaped;
      } else {
        lines_ += c;
      }
    }
    lines_ += '\n';
  }

  Stream output_{STDOUT_FILENO};
  Stream error_{STDERR_FILENO};
  LogCapture log_;
  Statement pending_{};
  std::chrono::nanoseconds seen_{};
  std::string lines_;
  std::string verdict_;
};

Recorder* g_recorder = nullptr;

// ---- the runs ----

// The words of a command line, repetitions written out.
Strings arguments_of(const std::string& line) {
  Strings arguments{"kiv"};
  for (std::string word : split(line, " ")) {
    const size_t star = word.rfind('*');
    const bool repeats = star != std::string::npos && isdigit(word[star + 1]) != 0;
    const size_t times = repeats ? std::stoul(word.substr(star + 1)) : 0;
    if (const size_t open = word.find('{'); repeats && open != std::string::npos) {
      std::string text = word.substr(0, open);
      for (size_t i = 0; i < times; ++i) text += word.substr(open + 1, star - open - 1);
      arguments.push_back(text + word.substr(word.find('}', star) + 1));
    } else if (repeats) {
      arguments.insert(arguments.end(), times, word.substr(0, star));
    } else {
      std::replace(word.begin(), word.end(), '~', ' ');
      arguments.push_back(word);
    }
  }
  return arguments;
}

[[noreturn]] void run_tool(const Strings& arguments, const Scenario& scenario,
                           const std::string& folder, const std::string& result) {
  alarm(60);
  Strings copies = arguments;
  std::vector<char*> argv;
  for (std::string& argument : copies) argv.push_back(argument.data());
  argv.push_back(nullptr);
  static const std::string channel = folder + "/at";
  g_at_device_path = channel.c_str();
  static const std::string share_memory = folder + "/state/share_memory";
  g_share_memory_file_path = share_memory.c_str();
  if (kRecords) {
    g_recorder = new Recorder;
    tervik_set_log_observer(
        [](const auto& place, uint32_t log_class, uint32_t sub, const char*, const char* text) {
          g_recorder->statement(place, log_class, sub, text);
        });
    tervik_set_outcome_observer(
        {.failed = [](int code, const char* said) { g_recorder->failure(code, said); }});
  } else if (freopen("/dev/null", "w", stdout) == nullptr) {
    abort();
  }
  if (scenario.line == nullptr) tervik_modem_check_odm_white_list();
  if (scenario.scene != nullptr) scenario.scene();
  const auto open_descriptors = [] {
    const fs::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto open_before = open_descriptors();
  int status = 0;
  if (scenario.line != nullptr) {
    status = tervik_kiv_test_main(static_cast<int>(copies.size()), argv.data());
  }
  if (open_descriptors() != open_before) puts("descriptors stay open");
  if (kRecords) g_recorder->finish(result);
  _exit(status);
}

// The text without what differs from run to run.
std::string masked(std::string text, const std::string& folder) {
  const char* const kDigits = "0123456789";
  const char* const kHexDigits = "0123456789abcdef";
  const std::string own_name = program_invocation_name;
  // A text becomes the mask, with the characters that follow it as long as they are some of `more`;
  // at least one must follow, unless `more` is empty.
  const struct {
    std::string beginning;
    const char* more;
    std::string mask;
  } masks[] = {
      // The RIL logger shows line numbers, and an emulator of another processor its own name.
      {"util: [", "abcdefghijklmnopqrstuvwxyz0123456789-_", "util: [kiv"},
      {"_to_ril_result:", kDigits, "_to_ril_result:<line>"},
      {"p_id: ", kDigits, "p_id: <pid>"},
      {"/proc/", kDigits, "/proc/<pid>"},
      {"proc_pid_buf: " + own_name, "", "proc_pid_buf: <folder>/kiv"},
      {"proc_pid_buf = " + own_name, "", "proc_pid_buf = <folder>/kiv"},
      {folder, "", "<folder>"},
      {"/dev/pts/", kDigits, "<channel>"},
      {"open, fd: ", kDigits, "open, fd: <number>"},
      {"ptr_lyrax_data = 0x", kHexDigits, "ptr_lyrax_data = 0x<address>"},
      {"data_ptr: 0x", kHexDigits, "data_ptr: 0x<address>"},
      {"ind_data_ptr = 0x", kHexDigits, "ind_data_ptr = 0x<address>"},
      {"ind_buf = 0x", kHexDigits, "ind_buf = 0x<address>"},
  };
  for (const auto& [beginning, more, mask] : masks) {
    for (size_t at = 0; (at = text.find(beginning, at)) != std::string::npos; ++at) {
      const size_t begin = at + beginning.size();
      const size_t end = std::min(text.find_first_not_of(more, begin), text.size());
      if (end > begin || *more == '\0') text.replace(at, end - at, mask);
    }
  }
  return text;
}

// Runs one command line in a process of its own; its recorded lines, masked.
std::string run_line(const std::string& line, const Scenario& scenario, const std::string& folder) {
  const std::string result = folder + "/result";
  fs::remove(result);
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) run_tool(arguments_of(line), scenario, folder, result);
  int status = 0;
  waitpid(pid, &status, 0);
  std::string text = read_file_text(result);
  if (status != 0) text += "ended with wait status " + std::to_string(status) + "\n";
  return masked(text, folder);
}

// A line of thousands of characters shows its ends, and a checksum (FNV-1a) of all.
std::string shortened(const std::string& line) {
  constexpr size_t kLineMax = 500;
  if (line.size() <= kLineMax) return line;
  uint32_t sum = 2166136261U;
  for (const char c : line) sum = (sum ^ static_cast<unsigned char>(c)) * 16777619U;
  char total[64];
  snprintf(total, sizeof(total), " ... (%zu characters, checksum %08x) ... ", line.size(), sum);
  return line.substr(0, 80) + total + line.substr(line.size() - 20);
}

std::string hex_text(const std::string& bytes) {
  std::string text;
  char digits[16];
  for (size_t i = 0, same = 0; i < bytes.size(); i += same) {
    for (same = 1; i + same < bytes.size() && bytes[i + same] == bytes[i];) ++same;
    if (same < 4) same = 1;
    snprintf(digits, sizeof(digits), same == 1 ? "%02X " : "%02X*%zu ",
             static_cast<unsigned>(static_cast<unsigned char>(bytes[i])), same);
    text += digits;
  }
  if (!text.empty()) text.pop_back();
  if (bytes.size() > 40)
    return std::to_string(bytes.size()) + " bytes, " + text.substr(0, 29) + " ...";
  return text;
}

std::map<std::string, std::string> files_in(const fs::path& folder) {
  std::map<std::string, std::string> files;
  for (const auto& each : fs::recursive_directory_iterator(folder)) {
    if (each.is_regular_file()) files[fs::relative(each, folder)] = read_file_text(each);
  }
  return files;
}

void write_file(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

void lay_out(const Scenario& scenario, const fs::path& state) {
  const auto lines_of = [](const char* text) {
    std::string lines;
    for (const std::string& each : split(text, "; ")) lines += each + "\n";
    return lines;
  };
  if (*scenario.modem != '\0') write_file(state / "modem.conf", lines_of(scenario.modem));
  if (*scenario.properties != '\0') write_file(state / "properties", lines_of(scenario.properties));
  for (const std::string& each : split(scenario.files, "; ")) {
    const size_t mark = each.find(" = ");
    std::string bytes;
    for (const std::string& word : arguments_of(each.substr(mark + 3))) {
      if (word != "kiv") bytes += static_cast<char>(std::stoi(word, nullptr, 16));
    }
    write_file(state / each.substr(0, mark), bytes);
  }
}

// What a run changed in the state directory.
Strings changes(const std::map<std::string, std::string>& before,
                const std::map<std::string, std::string>& after) {
  Strings lines;
  for (const auto& [name, content] : after) {
    const auto old = before.find(name);
    if (old != before.end() && old->second == content) continue;
    if (name != "properties") {
      lines.push_back(" left " + name + " = " + hex_text(content));
      continue;
    }
    const Strings known = old == before.end() ? Strings{} : split(old->second, "\n");
    for (const std::string& each : split(content, "\n")) {
      if (std::find(known.begin(), known.end(), each) == known.end())
        lines.push_back(" left " + each);
    }
  }
  for (const auto& [name, content] : before) {
    if (!after.contains(name)) lines.push_back(" removed " + name);
  }
  return lines;
}

}  // namespace

Transcript record(const Scenario& scenario) {
  std::string folder = (fs::temp_directory_path() / "kiv-transcript-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) throw std::runtime_error("no folder");
  const fs::path state = fs::path(folder) / "state";
  fs::create_directories(state);
  lay_out(scenario, state);
  setenv("KIV_STATE_DIR", state.c_str(), 1);
  Transcript transcript;
  const Strings lines = split(scenario.line != nullptr ? scenario.line : "", " ; ");
  for (const std::string& line : lines.empty() ? Strings{""} : lines) {
    if (lines.size() > 1) transcript.lines.push_back("$ kiv " + line);
    const auto before = files_in(state);
    for (const std::string& each : split(run_line(line, scenario, folder), "\n")) {
      if (each.starts_with("took ")) {
        transcript.took = std::chrono::nanoseconds(std::stoll(each.substr(5)));
      } else {
        transcript.lines.push_back(shortened(each));
      }
    }
    for (std::string& each : changes(before, files_in(state))) transcript.lines.push_back(each);
  }
  fs::remove_all(folder);
  return transcript;
}

}  // namespace kiv::test
