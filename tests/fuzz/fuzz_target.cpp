// The fuzz target of one decoder, KIV_DECODER. With `--write-seeds DIRECTORY` it writes the bytes
// of a healthy run there instead.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <span>
#include <string>
#include <string_view>

#include "tests/fuzz/stage.h"

namespace {

const kiv::fuzz::Decoder& decoder() {
  const auto& all = kiv::fuzz::decoders();
  return *std::find_if(all.begin(), all.end(),
                       [](const auto& row) { return row.name == KIV_DECODER; });
}

kiv::fuzz::Stage& stage() {
  static kiv::fuzz::Stage only(decoder());
  return only;
}

void write_seeds(const std::string& directory) {
  size_t number = 0;
  for (const kiv::fuzz::Bytes& seed : stage().record()) {
    std::ofstream file(directory + "/seed" + std::to_string(number++), std::ios::binary);
    file.write(reinterpret_cast<const char*>(seed.data()),
               static_cast<std::streamsize>(seed.size()));
    if (!file.flush()) {
      fprintf(stderr, "%s: cannot write\n", directory.c_str());
      exit(1);
    }
  }
}

// libFuzzer reads the same fast clock, which a limit of its own must be told in, and by which it
// would see no hang.
void scale_total_time(std::span<char*> arguments) {
  constexpr std::string_view kFlag = "-max_total_time=";
  for (char*& argument : arguments) {
    if (std::string_view(argument).starts_with(kFlag)) {
      static std::string scaled;
      scaled = std::string(kFlag) +
               std::to_string(atoll(argument + kFlag.size()) * decoder().time_factor);
      argument = scaled.data();
    }
  }
}

constexpr unsigned kHangSeconds = 5;

}  // namespace

extern "C" int LLVMFuzzerInitialize(const int* argc, char*** argv) {
  if (*argc == 3 && std::strcmp((*argv)[1], "--write-seeds") == 0) {
    write_seeds((*argv)[2]);
    exit(0);
  }
  scale_total_time({*argv, static_cast<size_t>(*argc)});
  signal(SIGALRM, [](int) { abort(); });
  stage();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  alarm(kHangSeconds);
  stage().feed({data, size});
  alarm(0);
  return 0;
}
