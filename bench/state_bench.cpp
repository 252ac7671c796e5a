// What it would cost to force each change of the state directory to the disk: the calls of one
// replaced file, alone, then with the file's content forced, then with its name as well. On the
// memory file system of the other benchmarks, and in KIV_BENCH_DISK (a folder on a disk) when set.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tervik_extend_nvefs.h"

namespace {

enum class Forced { NOTHING, CONTENT, CONTENT_AND_NAME };

bool replace_file(const std::string& folder, const std::string& content, Forced forced) {
  const std::string temporary = folder + "/.bench-new";
  const std::string name = folder + "/.bench";
  const int file = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  bool done = write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  if (forced != Forced::NOTHING) {
    done = fdatasync(file) == 0 && done;
  }
  done = close(file) == 0 && done && rename(temporary.c_str(), name.c_str()) == 0;
  if (forced == Forced::CONTENT_AND_NAME) {
    const int directory = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    done = fsync(directory) == 0 && done;
    close(directory);
  }
  return done;
}

void replaced_file(benchmark::State& state, const char* folder_variable) {
  const char* const folder = getenv(folder_variable);
  if (folder == nullptr) {
    state.SkipWithError("not set");
    return;
  }
  const std::string content(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    if (!replace_file(folder, content, static_cast<Forced>(state.range(1)))) {
      state.SkipWithError("the folder takes no file");
      return;
    }
  }
  unlink((std::string(folder) + "/.bench").c_str());
}

// A property file, and the longest EFS file.
const benchmark::internal::Benchmark* with_sizes(benchmark::internal::Benchmark* row) {
  return row->ArgsProduct({{200, TERVIK_EFS_DATA_MAX}, {0, 1, 2}})
      ->ArgNames({"bytes", "forced"})
      ->UseRealTime();
}

const auto* const MEMORY =
    with_sizes(benchmark::RegisterBenchmark("replaced_file/memory", [](benchmark::State& state) {
      replaced_file(state, "KIV_STATE_DIR");
    }));
const auto* const DISK = with_sizes(benchmark::RegisterBenchmark(
    "replaced_file/disk", [](benchmark::State& state) { replaced_file(state, "KIV_BENCH_DISK"); }));

}  // namespace
