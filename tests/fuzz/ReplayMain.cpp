// Replays a fuzz target's corpus without libFuzzer: every file of the directories (or the files)
// given is fed once to LLVMFuzzerTestOneInput. The ordinary builds run this over the seed corpora,
// so the targets' checks and every input once found run under the sanitizers with the other tests.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> inputs;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path path(argv[i]);
    if (std::filesystem::is_directory(path)) {
      for (const auto& entry : std::filesystem::directory_iterator(path)) {
        if (entry.is_regular_file()) {
          inputs.push_back(entry.path());
        }
      }
    } else {
      inputs.push_back(path);
    }
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "no inputs to replay\n");
    return 1;
  }
  for (const auto& input : inputs) {
    std::ifstream in(input, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), {});
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("replayed %zu inputs\n", inputs.size());
  return 0;
}
