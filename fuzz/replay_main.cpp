// The main of a fuzz target built without libFuzzer: it feeds every file named on the command line,
// or found in a directory named there, to LLVMFuzzerTestOneInput in name order, then lets the
// target check what the whole run left behind. A target stops the run itself on any fault.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// After the last input: true when the run left nothing behind.
bool FuzzReplayFinished();

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> inputs;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path path = argv[i];
    if (std::filesystem::is_directory(path)) {
      for (const auto& entry : std::filesystem::directory_iterator(path)) {
        if (entry.is_regular_file()) inputs.push_back(entry.path());
      }
    } else {
      inputs.push_back(path);
    }
  }
  std::sort(inputs.begin(), inputs.end());
  if (inputs.empty()) {
    std::fprintf(stderr, "usage: %s <input file or directory>...\n", argv[0]);
    return 2;
  }
  for (const auto& path : inputs) {
    std::ifstream file(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // A heap block of exactly the input's size, so that the sanitizers see any read past its end.
    std::unique_ptr<uint8_t[]> input(bytes.empty() ? nullptr : new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), input.get());
    LLVMFuzzerTestOneInput(input.get(), bytes.size());
    std::printf("%s: %zu bytes\n", path.filename().string().c_str(), bytes.size());
  }
  if (!FuzzReplayFinished()) return 1;
  std::printf("%zu inputs replayed\n", inputs.size());
  return 0;
}
