// A stand-in for libFuzzer where the compiler has none: replays the inputs
// named on the command line (files), then runs -runs=N inputs of random bytes
// (default 10000) from a fixed -seed=S (default 1), so a failure reproduces.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  unsigned long runs = 10000, seed = 1;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "-runs=", 6) == 0) {
      runs = std::strtoul(argv[i] + 6, nullptr, 10);
    } else if (std::strncmp(argv[i], "-seed=", 6) == 0) {
      seed = std::strtoul(argv[i] + 6, nullptr, 10);
    } else {
      std::ifstream f(argv[i], std::ios::binary);
      std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(f)), {});
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
  }
  std::mt19937_64 rng(seed);
  std::vector<uint8_t> buf;
  for (unsigned long r = 0; r < runs; ++r) {
    buf.resize(rng() % 512);
    for (uint8_t &b : buf) b = static_cast<uint8_t>(rng());
    LLVMFuzzerTestOneInput(buf.data(), buf.size());
  }
  std::printf("fuzz_hostcm: %lu random inputs, seed %lu: no finding\n", runs, seed);
  return 0;
}
