// kiv-check: runs a command of kiv as a process of its own and tells by the exit status how it
// ended. The verdict comes from the places in the tool's code that know it, through a socket; what
// the command prints goes where kiv-check's own output goes and is not looked at.
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "document_rows.h"
#include "program.h"
#include "tervik_kiv_argument_check.h"
#include "tervik_kiv_test_main.h"
#include "tervik_utils_cmn.h"
#include "tervik_utils_outcome.h"

namespace {

using monotonic = std::chrono::steady_clock;
using strings = std::vector<std::string>;

// Tells the command's own process the number of its socket.
constexpr const char* CHANNEL_VARIABLE = "KIV_CHECK_CHANNEL";

// ---- the command's own process ----

// What it tells: the first byte of each message.
enum message : char { FAILED = 'F', READ = 'R', RESULT = 'L', OUTPUT_LOST = 'O', ENDED = 'E' };

int g_channel = -1;
std::atomic<bool> g_has_failed{false};
thread_local std::string g_last_statement;

void tell(message type, const std::string& text) {
  const std::string packet = static_cast<char>(type) + text;
  static_cast<void>(send(g_channel, packet.data(), packet.size(), MSG_NOSIGNAL));
}

void see_statement(const tervik_log_place& place, uint32_t log_class, uint32_t /*sub*/,
                   const char* /*format*/, const char* text) {
  g_last_statement = std::string(place.func) + ": " + text;
  // The help that follows a failure is no result.
  if (log_class == LOG_CLASS_HELP && !g_has_failed) {
    tell(RESULT, text);
  }
}

void see_failure(int code, const char* said) {
  g_has_failed = true;
  tell(FAILED, std::to_string(code) + ' ' + (said != nullptr ? said : g_last_statement));
}

void see_bytes(const char* name, std::span<const uint8_t> bytes) {
  std::string text = std::string(name) + '\n';
  for (const uint8_t byte : bytes) {
    char digits[4];
    snprintf(digits, sizeof(digits), "%02X ", byte);
    text += digits;
  }
  tell(READ, text.substr(0, text.size() - (bytes.empty() ? 0 : 1)));
}

// A reader that went away wants no output; any other stream that failed has lost some.
bool has_lost_output(FILE* stream) {
  struct stat status = {};
  const bool failed = fflush(stream) != 0 || ferror(stream) != 0;
  return failed && (fstat(fileno(stream), &status) != 0 ||
                    (!S_ISFIFO(status.st_mode) && !S_ISSOCK(status.st_mode)));
}

[[noreturn]] void run_command(const char* channel, int argc, char** argv) {
  g_channel = atoi(channel);
  unsetenv(CHANNEL_VARIABLE);
  fcntl(g_channel, F_SETFD, FD_CLOEXEC);
  tervik_set_log_observer(see_statement);
  tervik_set_outcome_observer({.failed = see_failure, .read = see_bytes});
  const int status = tervik_kiv_test_main(argc, argv);
  if (has_lost_output(stdout) || has_lost_output(stderr)) {
    tell(OUTPUT_LOST, "");
  }
  tell(ENDED, "");
  exit(status);
}

// ---- the run, as its watcher sees it ----

struct run_result {
  bool has_ended = false;  // as a command ends
  bool has_lost_output = false;
  bool has_failed = false;
  bool timed_out = false;
  int stopped_by = 0;  // the signal that ended kiv-check
  int code = 0;
  std::string statement;
  std::vector<std::pair<std::string, std::string>> read;  // names and bytes
  strings results;                                        // lines of the help class
  std::chrono::milliseconds took{};
};

void let_signals_through() {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Starts kiv-check anew as the command's process, which is called kiv as the tool must be, and
// leads a process group of its own. However kiv-check ends, the command ends with it.
pid_t start_command(std::vector<char*> words, int channel) {
  const pid_t pid = fork();
  if (pid != 0) {
    return pid;
  }
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  let_signals_through();
  fcntl(channel, F_SETFD, 0);
  setenv(CHANNEL_VARIABLE, std::to_string(channel).c_str(), 1);
  static char name[] = "kiv";
  words.insert(words.begin(), name);
  words.push_back(nullptr);
  execv("/proc/self/exe", words.data());
  _exit(NO_VERDICT);
}

void take_message(const std::string& packet, run_result& run) {
  const std::string text = packet.substr(1);
  const size_t name_end = text.find('\n');
  switch (packet[0]) {
    case FAILED:
      if (!std::exchange(run.has_failed, true)) {
        run.code = atoi(text.c_str());
        run.statement = text.substr(text.find(' ') + 1);
      }
      break;
    case READ:
      run.read.emplace_back(text.substr(0, name_end), text.substr(name_end + 1));
      break;
    case RESULT:
      run.results.push_back(text);
      break;
    case OUTPUT_LOST:
      run.has_lost_output = true;
      break;
    default:
      run.has_ended = true;
  }
}

// Takes what the command tells until it has ended; ends it, with all that it started, when its time
// is over or a signal ends kiv-check.
void watch(pid_t pid, int channel, int signals, monotonic::time_point deadline, run_result& run) {
  static char packet[65536];
  while (true) {
    pollfd ready[] = {{.fd = channel, .events = POLLIN, .revents = 0},
                      {.fd = signals, .events = POLLIN, .revents = 0}};
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - monotonic::now()).count();
    const long wait_ms = std::clamp(left, 0L, 1'000'000L);
    if (poll(ready, 2, static_cast<int>(wait_ms)) == 0 && left <= wait_ms) {
      run.timed_out = true;
      deadline = monotonic::time_point::max();
      kill(-pid, SIGKILL);
    } else if ((ready[0].revents & (POLLIN | POLLHUP)) != 0) {
      const ssize_t length = recv(channel, packet, sizeof(packet), 0);
      if (length <= 0) {
        return;
      }
      take_message({packet, static_cast<size_t>(length)}, run);
    } else if (signalfd_siginfo info = {};
               ready[1].revents != 0 && read(signals, &info, sizeof(info)) == sizeof(info)) {
      run.stopped_by = static_cast<int>(info.ssi_signo);
      kill(-pid, SIGKILL);
    }
  }
}

run_result run_and_watch(const std::vector<char*>& words, double limit_s) {
  const auto start = monotonic::now();
  const auto limit =
      std::chrono::duration_cast<monotonic::duration>(std::chrono::duration<double>(limit_s));
  sigset_t handled;
  sigemptyset(&handled);
  for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
    sigaddset(&handled, signal);
  }
  sigprocmask(SIG_BLOCK, &handled, nullptr);
  const int signals = signalfd(-1, &handled, SFD_CLOEXEC);
  int channel[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, channel) != 0 || signals < 0) {
    end_program(NO_VERDICT, strerror(errno));
  }
  const pid_t pid = start_command(words, channel[1]);
  if (pid < 0) {
    end_program(NO_VERDICT, strerror(errno));
  }
  setpgid(pid, pid);
  close(channel[1]);
  run_result run;
  watch(pid, channel[0], signals, start + limit, run);
  // The group stays the command's until the command's process is waited for.
  siginfo_t ended = {};
  waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT);
  kill(-pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  run.took = std::chrono::duration_cast<std::chrono::milliseconds>(monotonic::now() - start);
  const bool exited = ended.si_code == CLD_EXITED;
  if (exited && ended.si_status == NO_VERDICT) {
    end_program(NO_VERDICT, "the command could not be started");
  }
  if (!run.has_failed && !run.timed_out && !(run.has_ended && exited && ended.si_status == 0)) {
    run.has_failed = true;
    run.code = -1;
    run.statement = std::string("the command ended ") + (exited ? "with status " : "by signal ") +
                    std::to_string(ended.si_status);
  }
  return run;
}

// ---- what is told of it ----

const char* verdict_of(const run_result& run) {
  return run.timed_out ? "timeout" : run.has_failed ? "failure" : "success";
}

// The text as a JSON string. A byte that is not printable ASCII is written as \u00XX, because an
// answer of a modem is bytes and not UTF-8. (A library for JSON would be one more thing that a
// build for a handset needs.)
std::string json_string(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < ' ' || byte >= 0x7F) {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(byte));
      out += escaped;
      continue;
    }
    if (c == '"' || c == '\\') {
      out += '\\';
    }
    out += c;
  }
  return out + '"';
}

std::string json_list(const strings& texts) {
  std::string out = "[";
  for (const std::string& text : texts) {
    out += (out.size() > 1 ? "," : "") + json_string(text);
  }
  return out + "]";
}

// One line of JSON.
std::string record_of(const strings& arguments, const run_result& run,
                      const error_meaning& meaning) {
  std::string record =
      "{\"arguments\":" + json_list(arguments) + ",\"verdict\":" + json_string(verdict_of(run));
  if (run.has_failed) {
    record += ",\"statement\":" + json_string(run.statement) +
              ",\"code\":" + std::to_string(run.code) + ",\"name\":" + json_string(meaning.name) +
              ",\"cause\":" + json_string(meaning.cause);
  }
  record += ",\"read\":[";
  for (const auto& [name, bytes] : run.read) {
    record += (record.back() == '[' ? "{\"name\":" : ",{\"name\":") + json_string(name) +
              ",\"bytes\":" + json_string(bytes) + '}';
  }
  return record + "],\"results\":" + json_list(run.results) +
         ",\"elapsed_ms\":" + std::to_string(run.took.count()) +
         ",\"version\":" + json_string(KIV_VERSION) + "}\n";
}

int finish(const run_result& run, const error_meaning& meaning) {
  std::string reason = verdict_of(run);
  if (run.has_failed) {
    reason += ": " + run.statement + " (" + std::to_string(run.code);
    if (!meaning.name.empty()) {
      reason += ' ' + meaning.name + ": " + meaning.cause + "; " + meaning.remedy;
    }
    reason += ')';
  }
  if (run.has_lost_output) {
    end_program(NO_VERDICT, "the output could not be delivered; the verdict is " + reason);
  }
  if (run.timed_out || run.has_failed) {
    fprintf(stderr, "kiv-check: %s\n", reason.c_str());
  }
  return run.timed_out ? TIMED_OUT : run.has_failed ? FAILURE : SUCCESS;
}

// ---- the command line ----

struct options {
  double limit_s = 1e9;  // which is none
  const char* record_file = nullptr;
  bool shows_only = false;
};

constexpr const char* USAGE =
    "usage: kiv-check [-t SECONDS] [-j FILE] [-n] CATEGORY [ARGUMENT...]\n"
    "       kiv-check help [CATEGORY [COMMAND]]\n"
    "       kiv-check -V | -h";

options read_options(int argc, char** argv) {
  options read;
  opterr = 0;
  for (int option = 0; (option = getopt(argc, argv, "+t:j:nVh")) != -1;) {
    switch (option) {
      case 't':
        read.limit_s = std::min(seconds_of(optarg), read.limit_s);
        if (read.limit_s <= 0) {
          end_program(NO_VERDICT,
                      std::string("no time limit: ") + optarg + "; wanted are seconds above 0");
        }
        break;
      case 'j':
        read.record_file = optarg;
        break;
      case 'n':
        read.shows_only = true;
        break;
      case 'V':
        end_with("kiv-check " KIV_VERSION);
      case 'h':
        end_with(USAGE);
      default:
        end_program(NO_VERDICT, USAGE);
    }
  }
  return read;
}

// Runs the command. Its record is appended in one write, so that those of runs at the same time do
// not mix.
int check(const options& wanted, const std::vector<char*>& words, const strings& arguments) {
  const int record_file =
      wanted.record_file != nullptr ? open_file(wanted.record_file, O_APPEND) : -1;
  const run_result run = run_and_watch(words, wanted.limit_s);
  if (run.stopped_by != 0) {
    static_cast<void>(signal(run.stopped_by, SIG_DFL));
    raise(run.stopped_by);
    let_signals_through();
  }
  const error_meaning meaning =
      meaning_of(run.code, arguments[0], arguments.size() > 1 ? arguments[1] : "");
  if (record_file >= 0) {
    const std::string record = record_of(arguments, run, meaning);
    if (write(record_file, record.data(), record.size()) != static_cast<ssize_t>(record.size())) {
      end_for_file(NO_VERDICT, wanted.record_file);
    }
  }
  return finish(run, meaning);
}

}  // namespace

int main(int argc, char** argv) {
  if (const char* const channel = getenv(CHANNEL_VARIABLE); channel != nullptr) {
    run_command(channel, argc, argv);
  }
  prepare_program("kiv-check");
  const options wanted = read_options(argc, argv);
  const std::vector<char*> words(argv + optind, argv + argc);
  const strings arguments(words.begin(), words.end());
  if (arguments.empty()) {
    end_program(NO_VERDICT, USAGE);
  }
  if (arguments[0] == "help") {
    const std::string text = command_text({arguments.begin() + 1, arguments.end()});
    if (text.empty()) {
      end_program(NO_VERDICT, "there is no such command; kiv-check help lists the categories");
    }
    end_with(text.substr(0, text.size() - 1));
  }
  if (const std::string wrong = tervik_kiv_what_is_wrong(arguments); !wrong.empty()) {
    end_program(NO_VERDICT, wrong);
  }
  if (wanted.shows_only) {
    std::string line = "kiv";
    for (const std::string& argument : arguments) {
      line += ' ' + shell_word(argument);
    }
    end_with(line);
  }
  return check(wanted, words, arguments);
}
