// Ending the process, or unloading the library, while a transfer is in flight: no hang, no crash,
// and no partial download left behind. Each case runs in a probe process of its own. On Windows the
// unload case loads quill_cloud.dll at run time, downloads through it, and frees it again.

#include <quill_base/FileUtils.h>

#include "NetworkTestSupport.h"
#include "OverBothSchemes.h"
#include "ProbeRun.h"
#include "TestFiles.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace quill_test;

namespace {

class Shutdown : public OverBothSchemes {
protected:
  void SetUp() override {
    writePatternFile(dir.file("source"), 4 * 1024 * 1024);
    const auto urlPath = service().addFile("shutdown.bin", dir.file("source"));
    ASSERT_FALSE(urlPath.empty());
    // 64 KiB a second: the download is still running for a minute after its first bytes.
    slowUrl = url(urlPath + "?quill_rate=65536");
  }

  // Runs a probe under a time limit; its exit status, or -1 when it did not exit normally.
  static int run(const std::string& probe, const std::vector<std::string>& arguments) {
    return runProbe(probe, arguments, std::chrono::seconds(60));
  }

  std::string slowUrl;
};

}  // namespace

TEST_P(Shutdown, ReturningFromMainWithATransferInFlight) {
  const auto path = dir.file("partial.bin");
  EXPECT_EQ(run(QUILL_SHUTDOWN_PROBE, {"return", slowUrl, path}), 0);
  EXPECT_FALSE(FileUtils::fileExists(path)) << "the abandoned download was not removed";
}

TEST_P(Shutdown, ExitingFromTheNetworkThread) {
  const auto path = dir.file("partial.bin");
  EXPECT_EQ(run(QUILL_SHUTDOWN_PROBE, {"exit-network", slowUrl, path}), 7);
}

#if defined(_WIN32)
// quill_cloud.dll loaded with LoadLibraryW (the probe is not linked to it) through a plug-in that
// downloads a file with CloudStorageService and destroys the service; the probe then frees both
// and checks that quill_cloud.dll left the process. Exit status 0 for all that, within the limit
// (a loader-lock deadlock would hang).
TEST_P(Shutdown, UnloadingTheCloudLibraryAfterADownload) {
  const auto urlPath = service().addFile("unload.bin", dir.file("source"));
  ASSERT_FALSE(urlPath.empty());
  const auto user = dir.file("user");
  const auto downloads = dir.file("downloads");
  ASSERT_TRUE(FileUtils::makeDirectory(user));
  ASSERT_TRUE(FileUtils::makeDirectory(downloads));
  EXPECT_EQ(run(QUILL_CLOUD_UNLOAD_PROBE, {QUILL_CLOUD_LIBRARY, QUILL_CLOUD_UNLOAD_PLUGIN,
                                           url(urlPath), user, downloads, "unload.bin"}),
            0);
  EXPECT_EQ(readFile(FileUtils::appendComponent(downloads, "unload.bin")),
            readFile(dir.file("source")))
      << "the download did not arrive whole";
}
#else
TEST_P(Shutdown, UnloadingTheLibraryWithATransferInFlight) {
  const auto path = dir.file("partial.bin");
  EXPECT_EQ(run(QUILL_UNLOAD_PROBE, {QUILL_UNLOAD_PLUGIN, QUILL_NETWORK_LIBRARY, slowUrl, path}),
            0);
  EXPECT_FALSE(FileUtils::fileExists(path)) << "the abandoned download was not removed";
}
#endif

INSTANTIATE_TEST_SUITE_P(Schemes, Shutdown, ::testing::Values(Scheme::Http, Scheme::Https),
                         schemeName);
