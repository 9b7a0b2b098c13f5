// Runs the session fuzzer's entry point over seed files without libFuzzer,
// so the committed corpus is replayed by ctest in every build (GCC, the
// sanitizer build, the armhf build under qemu).
//
// Usage: session_fuzz_replay <file or directory>...
// Directories contribute their regular files in name order. A failed check
// aborts, as under libFuzzer; the name of the seed is printed first.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  LLVMFuzzerInitialize(&argc, &argv);
  std::vector<fs::path> seeds;
  for (int i = 1; i < argc; ++i) {
    const fs::path arg(argv[i]);
    std::error_code error;
    if (fs::is_directory(arg, error)) {
      std::vector<fs::path> inDir;
      for (const fs::directory_entry& e : fs::directory_iterator(arg, error))
        if (e.is_regular_file()) inDir.push_back(e.path());
      std::sort(inDir.begin(), inDir.end());
      seeds.insert(seeds.end(), inDir.begin(), inDir.end());
    } else if (fs::is_regular_file(arg, error)) {
      seeds.push_back(arg);
    } else {
      std::fprintf(stderr, "session_fuzz_replay: no such file or directory: %s\n", argv[i]);
      return 2;
    }
  }
  if (seeds.empty()) {
    // An empty corpus would pass without testing anything.
    std::fprintf(stderr, "session_fuzz_replay: no seeds given\n");
    return 2;
  }
  const auto all = std::chrono::steady_clock::now();
  for (const fs::path& seed : seeds) {
    std::ifstream file(seed, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "%s (%zu bytes) ...", seed.filename().c_str(), bytes.size());
    std::fflush(stderr);
    const auto started = std::chrono::steady_clock::now();
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    std::fprintf(stderr, " %.0f ms\n",
                 std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count());
  }
  std::fprintf(stderr, "%zu seeds in %.1f s\n", seeds.size(),
               std::chrono::duration<double>(std::chrono::steady_clock::now() - all).count());
  return 0;
}
