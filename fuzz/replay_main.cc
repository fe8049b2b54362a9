// Replays a fuzz target's corpus and a run of seeded random inputs, so every
// fuzz target is also a test under the sanitizers of the build.
//   replay_NAME [corpus-dir-or-file ...] [--random COUNT] [--seed SEED]

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int ReplayFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t randomCount = 0;
  uint64_t seed = 740;
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--random" && i + 1 < argc) {
      randomCount = std::strtoull(argv[++i], nullptr, 10);
    } else if (arg == "--seed" && i + 1 < argc) {
      seed = std::strtoull(argv[++i], nullptr, 10);
    } else if (std::filesystem::is_directory(arg)) {
      for (const auto& entry : std::filesystem::directory_iterator(arg)) {
        if (entry.is_regular_file()) replayed += ReplayFile(entry.path());
      }
    } else if (std::filesystem::is_regular_file(arg)) {
      replayed += ReplayFile(arg);
    }
  }
  std::printf("replay: seed %llu\n", static_cast<unsigned long long>(seed));
  std::fflush(stdout);
  std::mt19937_64 generator(seed);
  std::vector<uint8_t> input;
  for (uint64_t n = 0; n < randomCount; ++n) {
    // Mostly short inputs, now and then a long one.
    size_t size = (n % 16 == 15) ? generator() % 65536 : generator() % 512;
    input.resize(size);
    for (auto& byte : input) byte = static_cast<uint8_t>(generator());
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  std::printf("replay: %d corpus inputs, %llu random inputs\n", replayed,
              static_cast<unsigned long long>(randomCount));
  return 0;
}
