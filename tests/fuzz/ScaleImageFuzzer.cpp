// ImageUtils::scaleImage on arbitrary bytes: it either writes a whole JPEG at the target or returns
// false and leaves nothing behind (no target, no temporary file beside it).

#include <quill_base/ImageUtils.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

namespace {

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
  }
}

struct Scratch {
  Scratch()
      : directory(std::filesystem::temp_directory_path() /
                  ("quill-fuzz-image-" + std::to_string(static_cast<long>(::getpid())))) {
    std::filesystem::create_directories(directory);
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  std::filesystem::path directory;
};

}  // namespace

// The first byte picks the size (0 included, which must be refused); the rest is the source file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Scratch scratch;
  if (size == 0) {
    return 0;
  }
  const int side = data[0] % 65;
  const auto source = (scratch.directory / "source").string();
  const auto targetDirectory = scratch.directory / "out";
  std::filesystem::remove_all(targetDirectory);
  std::filesystem::create_directories(targetDirectory);
  const auto target = (targetDirectory / "avatar.jpg").string();
  {
    std::ofstream out(source, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data + 1), static_cast<std::streamsize>(size - 1));
  }

  const bool scaled = ImageUtils::scaleImage(side, source, target);
  std::size_t entries = 0;
  for (const auto& entry : std::filesystem::directory_iterator(targetDirectory)) {
    (void)entry;
    ++entries;
  }
  if (!scaled) {
    check(entries == 0, "a refused image leaves nothing behind");
    return 0;
  }
  check(side >= 1, "a size below 1 is refused");
  check(entries == 1, "exactly the target is written");
  std::ifstream in(target, std::ios::binary);
  unsigned char head[3] = {0, 0, 0};
  in.read(reinterpret_cast<char*>(head), 3);
  check(in.gcount() == 3 && head[0] == 0xFF && head[1] == 0xD8 && head[2] == 0xFF,
        "the target is a JPEG");
  return 0;
}
