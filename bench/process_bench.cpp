// Whole processes, each beside its floor: a static C program that makes the same system log calls,
// lines and file operations and nothing else. And `dd`, which moves the bytes of the largest EFS
// file in blocks as large as an EFS request's. Wall time, from the start of the process to its end;
// what the processes print goes nowhere.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tervik_extend_nvefs.h"

namespace {

using command_line = std::vector<std::string>;

// Whether the command ran to its end with status 0.
bool run(const command_line& command) {
  static const posix_spawn_file_actions_t actions = [] {
    posix_spawn_file_actions_t to_nowhere;
    posix_spawn_file_actions_init(&to_nowhere);
    posix_spawn_file_actions_addopen(&to_nowhere, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    return to_nowhere;
  }();
  std::vector<char*> argv;
  for (const std::string& word : command) {
    argv.push_back(const_cast<char*>(word.c_str()));
  }
  argv.push_back(nullptr);
  pid_t pid = -1;
  int status = -1;
  return posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0 &&
         waitpid(pid, &status, 0) == pid && status == 0;
}

void process(benchmark::State& state, const command_line& command) {
  for (auto _ : state) {
    if (!run(command)) {
      state.SkipWithError("the command failed");
      return;
    }
  }
}
BENCHMARK_CAPTURE(process, help, command_line{KIV_BINARY})->UseRealTime();
BENCHMARK_CAPTURE(process, help_floor, command_line{KIV_HELP_FLOOR})->UseRealTime();
BENCHMARK_CAPTURE(process, nv_read, command_line{KIV_BINARY, "4", "1", "0", "550"})->UseRealTime();
BENCHMARK_CAPTURE(process, nv_read_floor, command_line{KIV_NV_READ_FLOOR})->UseRealTime();

// The payload that one EFS request carries.
constexpr const char* EFS_BLOCK = "bs=414";

// Copies within the memory file system of the state directory.
void dd(benchmark::State& state) {
  const std::string folder = getenv("KIV_STATE_DIR");
  const std::string from = folder + "/dd-from";
  const int file = open(from.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const std::string bytes(TERVIK_EFS_DATA_MAX, '\xA5');
  const ssize_t written = write(file, bytes.data(), bytes.size());
  close(file);
  if (written != static_cast<ssize_t>(bytes.size())) {
    state.SkipWithError("no file to copy");
    return;
  }
  process(state, {"dd", EFS_BLOCK, "if=" + from, "of=" + folder + "/dd-to", "status=none"});
}
BENCHMARK(dd)->UseRealTime();

}  // namespace
