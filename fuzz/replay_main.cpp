// Replays a fuzz target's inputs as a plain program, so the seed corpus and every crash
// found later run as ordinary tests under any compiler. Arguments are files or folders.
#include "fuzz.hpp"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> inputs;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path given(argv[i]);
    if (std::filesystem::is_directory(given)) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(given)) {
        if (entry.is_regular_file()) {
          inputs.push_back(entry.path());
        }
      }
    } else {
      inputs.push_back(given);
    }
  }
  if (inputs.empty()) {
    std::cerr << "no inputs to replay\n";
    return 2;
  }
  for (const auto& path : inputs) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::cout << "replayed " << inputs.size() << " input(s)\n";
  return 0;
}
