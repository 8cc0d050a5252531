// Two quill-cloud processes of one user at once, each downloading a different file under the same
// name into its own directory: each directory ends up with its own bytes.
#include "CliFixture.h"

#include <quill_base/FileUtils.h>

using cli_test::CliTest;
using cli_test::ToolProcess;
using quill_test::CloudEnvironment;

TEST_F(CliTest, TwoProcessesDownloadingOneNameKeepTheirOwnBytes) {
  const auto [firstLocal, firstPath] = serve("first.bin", 768 * 1024);
  // Another pattern seed than serve()'s, so that the two files differ in every block.
  const auto secondLocal = work.file("served-second.bin");
  ASSERT_TRUE(quill_cli::writePatternFile(secondLocal, 640 * 1024, 9));
  const auto secondPath =
      CloudEnvironment::server().addFile("second-" + TextUtils::UUID_String(), secondLocal);
  ASSERT_FALSE(FileUtils::sameContent(firstLocal, secondLocal));
  const auto collA = work.file("collA");
  const auto collB = work.file("collB");
  // Slowed down so that both are on the wire together, growing in the one cache directory.
  ToolProcess first(
      withIdentity({"--quiet", "download", CloudEnvironment::url(firstPath + "?quill_rate=1048576"),
                    "--dir", collA, "--name", "same.bin"}),
      environment());
  ToolProcess second(withIdentity({"--quiet", "download",
                                   CloudEnvironment::url(secondPath + "?quill_rate=1048576"),
                                   "--dir", collB, "--name", "same.bin"}),
                     environment());
  ASSERT_TRUE(first.started());
  ASSERT_TRUE(second.started());
  EXPECT_EQ(first.finish(), 0) << first.errors();
  EXPECT_EQ(second.finish(), 0) << second.errors();
  EXPECT_TRUE(FileUtils::sameContent(FileUtils::appendComponent(collA, "same.bin"), firstLocal));
  EXPECT_TRUE(FileUtils::sameContent(FileUtils::appendComponent(collB, "same.bin"), secondLocal));
  EXPECT_EQ(entries(FileUtils::appendComponent(user.path(), "cloud_storage_caches")), 0u);
}
