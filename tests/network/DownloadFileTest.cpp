// The file a download writes into, on its own: whichever way the pieces arrive (gathered into
// chunks, large ones written as they come, the body's last piece), the file holds them in order.

#include "detail/DownloadFile.h"

#include "TestFiles.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <string>

using quill_network_detail::DownloadFile;
using quill_test::readFile;
using quill_test::TempDir;

namespace {

constexpr std::size_t kChunk = 64 * 1024;

std::string pattern(std::size_t size, char first) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>(first + static_cast<char>(i % 61));
  }
  return bytes;
}

}  // namespace

TEST(DownloadFile, AWholeSmallBodyInOnePieceIsTheFile) {
  TempDir dir;
  const auto path = dir.file("small.bin");
  const auto body = pattern(16 * 1024, 'a');
  DownloadFile file(path, kChunk);
  ASSERT_TRUE(file.open());
  ASSERT_TRUE(file.write(body.data(), body.size(), true));
  EXPECT_EQ(file.bytesWritten(), body.size());
  ASSERT_TRUE(file.commit());
  EXPECT_EQ(readFile(path), body);
}

TEST(DownloadFile, PiecesOfEverySizeLandInOrder) {
  TempDir dir;
  const auto path = dir.file("pieces.bin");
  // Small pieces gathered, one large enough to go straight to the file, more small ones, and a
  // last piece that ends the body while others still wait to be written.
  const std::size_t sizes[] = {100, 3000, 7, kChunk / 16, 5, 9000, kChunk + 3, 11, 700};
  std::string expected;
  DownloadFile file(path, kChunk);
  ASSERT_TRUE(file.open());
  for (std::size_t i = 0; i < sizeof sizes / sizeof sizes[0]; ++i) {
    const auto piece = pattern(sizes[i], static_cast<char>('A' + i));
    const bool last = i + 1 == sizeof sizes / sizeof sizes[0];
    ASSERT_TRUE(file.write(piece.data(), piece.size(), last)) << file.error();
    expected += piece;
  }
  EXPECT_EQ(file.bytesWritten(), expected.size());
  ASSERT_TRUE(file.commit());
  EXPECT_EQ(readFile(path), expected);
}

TEST(DownloadFile, AFileNotCommittedIsRemoved) {
  TempDir dir;
  const auto path = dir.file("dropped.bin");
  {
    DownloadFile file(path, kChunk);
    ASSERT_TRUE(file.open());
    const auto body = pattern(1000, 'x');
    ASSERT_TRUE(file.write(body.data(), body.size(), true));
  }
  EXPECT_FALSE(FileUtils::fileExists(path));
}
