#include "tests/e2e/program_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace kiv::test {
namespace {

constexpr std::chrono::seconds kPatience(20);
constexpr size_t kMostOutput = size_t{16} << 20;

// The reading and the writing end of a pipe, closed on exec and at the end of the scope.
struct Pipe {
  Pipe() {
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  }
  ~Pipe() {
    for (size_t end : {0u, 1u}) close_end(end);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  void close_end(size_t end) {
    if (ends[end] >= 0) close(ends[end]);
    ends[end] = -1;
  }

  std::array<int, 2> ends{-1, -1};
};

std::string_view name_of(std::string_view variable) {
  return variable.substr(0, variable.find('='));
}

std::vector<std::string> merged_environment(const std::vector<std::string>& changes) {
  std::vector<std::string> merged = changes;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const bool replaced = std::any_of(changes.begin(), changes.end(), [&](const auto& change) {
      return name_of(change) == name_of(*variable);
    });
    if (!replaced) merged.emplace_back(*variable);
  }
  return merged;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> all;
  for (std::string& text : texts) all.push_back(text.data());
  all.push_back(nullptr);
  return all;
}

// The program's path and its argv. With KIV_EMULATOR the program is one of another processor: the
// emulator (a path) gets the name to run it under, then the program.
std::pair<std::string, std::vector<std::string>> invocation(
    const std::string& program, const std::vector<std::string>& arguments) {
  std::vector<std::string> command{"kiv"};
  const char* const emulator = getenv("KIV_EMULATOR");
  if (emulator != nullptr) command = {emulator, "-0", "kiv", program};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return {emulator != nullptr ? emulator : program, std::move(command)};
}

// -1 when the program cannot be started.
pid_t spawn(const std::string& path, std::vector<std::string> command,
            std::vector<std::string> environment, int out, int err) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  pid_t pid = -1;
  const int result = posix_spawn(&pid, path.c_str(), &actions, nullptr, pointers(command).data(),
                                 pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  return result == 0 ? pid : -1;
}

// Appends what is there to read; closes the end when nothing will come any more.
void drain(Pipe& pipe, std::string& text) {
  std::array<char, 65536> buffer;
  const ssize_t length = read(pipe.ends[0], buffer.data(), buffer.size());
  if (length <= 0 || text.size() > kMostOutput) {
    pipe.close_end(0);
  } else {
    text.append(buffer.data(), static_cast<size_t>(length));
  }
}

using Deadline = std::chrono::steady_clock::time_point;

// Reads both pipes to their ends; false when the deadline comes first.
bool collect(Pipe& out, Pipe& err, Deadline deadline, ProgramRun& run) {
  while (out.ends[0] >= 0 || err.ends[0] >= 0) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    std::array<pollfd, 2> ends{{{out.ends[0], POLLIN, 0}, {err.ends[0], POLLIN, 0}}};
    if (poll(ends.data(), ends.size(), static_cast<int>(left.count())) <= 0) continue;
    if (ends[0].revents != 0) drain(out, run.standard_output);
    if (ends[1].revents != 0) drain(err, run.standard_error);
  }
  return true;
}

// Waits for the end of the process; false when the deadline comes first.
bool reap(pid_t pid, Deadline deadline, int& status) {
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    usleep(1000);
  }
  return true;
}

}  // namespace

ProgramRun run_program(const std::string& path, const std::vector<std::string>& arguments,
                       const std::vector<std::string>& environment) {
  auto [program, command] = invocation(path, arguments);
  Pipe out;
  Pipe err;
  ProgramRun run;
  run.pid =
      spawn(program, std::move(command), merged_environment(environment), out.ends[1], err.ends[1]);
  if (run.pid < 0) throw std::runtime_error("cannot start " + path);
  out.close_end(1);
  err.close_end(1);
  const Deadline deadline = std::chrono::steady_clock::now() + kPatience;
  int status = 0;
  run.timed_out = !collect(out, err, deadline, run) || !reap(run.pid, deadline, status);
  if (run.timed_out) {
    kill(run.pid, SIGKILL);
    waitpid(run.pid, &status, 0);
  }
  if (WIFEXITED(status)) run.exit_status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
  return run;
}

}  // namespace kiv::test
