// Runs the target over every file of the directories named, for builds without clang's fuzzer.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "tests/fuzz/target.h"

namespace {

std::string read(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

int replay(const char* directory) {
  const std::filesystem::directory_iterator all(directory);
  const std::set<std::filesystem::path> sorted(begin(all), end(all));
  for (const auto& path : sorted) {
    const std::string text = read(path);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  }
  return static_cast<int>(sorted.size());
}

}  // namespace

int main(int argc, char** argv) {
  int inputs = 0;
  for (int i = 1; i < argc; ++i) inputs += replay(argv[i]);
  std::printf("%d inputs\n", inputs);
  return inputs == 0 ? 1 : 0;
}
