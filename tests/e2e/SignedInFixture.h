#pragma once

#include "CloudEnvironment.h"
#include "TestFiles.h"
#include "Tracked.h"

#include <quill_base/TextUtils.h>
#include <quill_cloud/CloudStorageService.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

namespace quill_test {

// A service whose user is signed in (user directory of its own), a directory to download into,
// and a source directory for files put on the reference file service or uploaded to it.
struct SignedInFixture : ::testing::Test {
  TempDir user;
  TempDir destination;
  TempDir source;
  std::unique_ptr<CloudStorageService> service = std::make_unique<CloudStorageService>(true);

  void SetUp() override {
    service->changeUser("app", "pin", user.path());
    service->changeAid("aid");
  }

  // Starts a file download of `url` into the destination directory as `name`.
  Tracked download(const std::string& url, const std::string& name) {
    Tracked tracked(false, CloudStorageKind::kFile);
    tracked.request->url = url;
    tracked.request->directory = destination.path();
    tracked.request->fileName = name;
    EXPECT_TRUE(service->excuteRequest(tracked.request));
    return tracked;
  }

  // Stores `size` pattern bytes on the server under a fresh key; returns the local copy and the
  // URL path.
  std::pair<std::string, std::string> store(std::size_t size, unsigned seed) {
    const auto key = TextUtils::UUID_String() + ".bin";
    const auto local = writePattern(source.file(key), size, seed);
    const auto path = CloudEnvironment::server().addFile(key, local);
    EXPECT_FALSE(path.empty());
    return {local, path};
  }
};

}  // namespace quill_test
