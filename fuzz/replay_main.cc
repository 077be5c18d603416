// Runs a fuzz target without libFuzzer: every file named on the command line,
// and every file of every directory named there, in name order, once each
// through LLVMFuzzerTestOneInput. A failed check aborts as under the fuzzer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> InputsOf(const fs::path& path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(path)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool Replay(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", file.c_str());
    return false;
  }
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
  // A copy of exactly the file's size, so that ASan sees reads past it.
  std::vector<uint8_t> data(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(data.data(), data.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const fs::path& file : InputsOf(argv[i])) {
      if (!Replay(file)) return 1;
      ++replayed;
    }
  }
  std::printf("replayed %zu inputs\n", replayed);
  // An empty corpus would pass without testing anything.
  return replayed > 0 ? 0 : 1;
}
