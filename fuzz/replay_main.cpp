// replay_TOPIC DIRECTORY: runs a fuzz target on the files of the directory, each whole and cut at
// every length, without libFuzzer.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz_input.h"

int main(int argc, char** argv) {
  long executions = 0;
  if (argc < 2) return 1;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
    for (;; bytes.pop_back(), ++executions) {
      // An exact copy, so that a sanitizer sees a read behind the end.
      const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
      LLVMFuzzerTestOneInput(input.data(), input.size());
      if (bytes.empty()) break;
    }
  }
  std::printf("%ld executions\n", executions);
  return executions > 0 ? 0 : 1;
}
