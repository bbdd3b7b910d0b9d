// Replays seed files through a fuzzer's entry points without libFuzzer, so
// that the committed corpora are regression tests on every build. Each
// argument is a file or a folder of files; a fault aborts, as under libFuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> seeds;
  for (int i = 1; i < argc; ++i) {
    if (!fs::is_directory(argv[i])) {
      seeds.emplace_back(argv[i]);
      continue;
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(argv[i])) {
      if (entry.is_regular_file()) seeds.push_back(entry.path());
    }
  }
  if (seeds.empty()) {
    std::fprintf(stderr, "no seed files given\n");
    return 1;
  }
  std::sort(seeds.begin(), seeds.end());
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  for (const fs::path& seed : seeds) {
    std::ifstream in(seed, std::ios::binary);
    const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // Named first, so that the seed that aborts is the last one listed.
    std::printf("%s (%zu bytes)\n", seed.c_str(), data.size());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
  }
  std::printf("%zu seeds passed\n", seeds.size());
  return 0;
}
