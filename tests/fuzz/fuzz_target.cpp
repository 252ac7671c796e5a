// The fuzz target of all decoders: the environment's KIV_DECODER names the one to feed. With
// `--write-seeds DIRECTORY` it writes the bytes of a healthy run there instead.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "tests/fuzz/stage.h"

namespace {

const kiv::fuzz::Decoder& decoder() {
  const char* const name = getenv("KIV_DECODER");
  for (const auto& row : kiv::fuzz::decoders()) {
    if (name != nullptr && row.name == name) return row;
  }
  fprintf(stderr, "KIV_DECODER names no decoder\n");
  exit(1);
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

constexpr unsigned kHangSeconds = 5;

}  // namespace

extern "C" int LLVMFuzzerInitialize(const int* argc, char*** argv) {
  if (*argc == 3 && std::strcmp((*argv)[1], "--write-seeds") == 0) {
    write_seeds((*argv)[2]);
    exit(0);
  }
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
