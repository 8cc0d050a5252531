// The modes of a downloaded file: private to the user (0600) while it grows, then an ordinary file
// (0666 less the umask). POSIX file modes: Windows files do not have them.

#include <quill_base/FileUtils.h>

#include "NetworkTestSupport.h"
#include "OverBothSchemes.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

using namespace quill_test;

namespace {

class DownloadModes : public OverBothSchemes {
protected:
};

}  // namespace

TEST_P(DownloadModes, IsPrivateWhileItGrowsAndOrdinaryOnceWhole) {
  const auto urlPath = storePattern("slow.bin", 256 * 1024);
  const auto path = dir.file("slow.bin");
  auto record = TransferRecord::make();
  HttpClient::downloadFile(url(urlPath + "?quill_rate=262144"), path, record->progress(),
                           record->completion());
  ASSERT_TRUE(eventually([&] { return FileUtils::fileExists(path); }));
  const auto growing = std::filesystem::status(path).permissions();
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  ASSERT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
  EXPECT_EQ(growing & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  unsigned mask = 022;
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("Umask:", 0) == 0) {
      mask = static_cast<unsigned>(std::stoul(line.substr(6), nullptr, 8));
    }
  }
  EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(path).permissions() &
                                  std::filesystem::perms::all),
            0666u & ~mask);
}

INSTANTIATE_TEST_SUITE_P(Schemes, DownloadModes, ::testing::Values(Scheme::Http, Scheme::Https),
                         schemeName);
