// Ending the process, or unloading the library, while a transfer is in flight: no hang, no crash,
// and no partial download left behind. Each case runs in a probe process of its own.

#include <quill_base/FileUtils.h>

#include "NetworkTestSupport.h"
#include "OverBothSchemes.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>

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

  // Runs the command under a time limit; its exit status, or -1 when it did not exit normally.
  static int run(const std::string& command) {
    const int status = std::system(("timeout -s KILL 60 " + command).c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static std::string quoted(const std::string& text) { return "'" + text + "'"; }

  TempDir dir;
  std::string slowUrl;
};

}  // namespace

TEST_P(Shutdown, ReturningFromMainWithATransferInFlight) {
  const auto path = dir.file("partial.bin");
  EXPECT_EQ(run(quoted(QUILL_SHUTDOWN_PROBE) + " return " + quoted(slowUrl) + " " + quoted(path)),
            0);
  EXPECT_FALSE(FileUtils::fileExists(path)) << "the abandoned download was not removed";
}

TEST_P(Shutdown, ExitingFromTheNetworkThread) {
  const auto path = dir.file("partial.bin");
  EXPECT_EQ(
      run(quoted(QUILL_SHUTDOWN_PROBE) + " exit-network " + quoted(slowUrl) + " " + quoted(path)),
      7);
}

TEST_P(Shutdown, UnloadingTheLibraryWithATransferInFlight) {
  const auto path = dir.file("partial.bin");
  EXPECT_EQ(run(quoted(QUILL_UNLOAD_PROBE) + " " + quoted(QUILL_UNLOAD_PLUGIN) + " " +
                quoted(QUILL_NETWORK_LIBRARY) + " " + quoted(slowUrl) + " " + quoted(path)),
            0);
  EXPECT_FALSE(FileUtils::fileExists(path)) << "the abandoned download was not removed";
}

INSTANTIATE_TEST_SUITE_P(Schemes, Shutdown, ::testing::Values(Scheme::Http, Scheme::Https),
                         schemeName);
