// Downloads and uploads through a FaultProxy in front of the reference file service: with latency
// and with occasional retransmission-like stalls they finish byte for byte; with connection resets
// and with a connection that stops moving, downloads ask for their rest on a new connection and
// arrive whole, while uploads end with the codes and messages of a failed transfer, promptly, and
// leave nothing behind.

#include "NetFaultsEnvironment.h"

#include <gtest/gtest.h>

#include <quill_base/FileUtils.h>
#include <quill_cloud/CloudStorageService.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace quill_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t kDownloadBytes = 2 * 1024 * 1024 + 17;
constexpr std::size_t kUploadBytes = 1024 * 1024 + 5;
// Resets and freezes come well before any transfer's body is through: the signature exchanges of
// the signed routes (a few kB with the TLS handshake) stay below the smallest of these.
constexpr std::int64_t kResetAfterMin = 32 * 1024;
constexpr std::int64_t kResetAfterMax = 768 * 1024;
constexpr std::int64_t kFreezeAfter = 64 * 1024;
// Through two frozen connections at most: more than the first carries, less than two.
constexpr std::size_t kSmallDownloadBytes = 100 * 1024;
// Far longer than any transfer here needs, even under a sanitizer: the bound on a hang.
constexpr seconds kEndWithin{60};

struct Sources {
  std::string directory;
  std::string download;      // local copy of what the server serves at downloadPath
  std::string downloadPath;  // "/files/..."
};
Sources* sources = nullptr;

class ThroughTheProxy : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    sources = new Sources;
    sources->directory = NetFaultsEnvironment::scratch();
    sources->download = writePattern(sources->directory + "/source.bin", kDownloadBytes, 3);
    sources->downloadPath =
        NetFaultsEnvironment::server().addFile("netfaults.bin", sources->download);
    writePattern(sources->directory + "/photo.png", kUploadBytes, 5);
    writePattern(sources->directory + "/report.pdf", kUploadBytes, 6);
    writePattern(sources->directory + "/clip.mov", kUploadBytes, 7);
  }
  static void TearDownTestSuite() {
    delete sources;
    sources = nullptr;
  }

  void SetUp() override {
    ASSERT_FALSE(sources->downloadPath.empty());
    service = std::make_unique<CloudStorageService>(true);
    service->changeUser("netfaults-app", "netfaults-pin", user.path());
    service->changeAid("netfaults-aid");
  }

  void TearDown() override {
    // Every request ended (or the test failed already); the proxy goes back to plain forwarding.
    service.reset();
    NetFaultsEnvironment::proxy().setPlan({});
  }

  RecordedRequest& download(int kind, const std::string& url) {
    auto transfer = std::make_unique<RecordedRequest>(false, kind);
    transfer->request->url = url;
    transfer->request->directory = downloads.path();
    transfer->request->fileName = "download-" + std::to_string(transfers.size()) + ".bin";
    EXPECT_TRUE(service->excuteRequest(transfer->request));
    transfers.push_back(std::move(transfer));
    return *transfers.back();
  }

  RecordedRequest& upload(int kind, const std::string& fileName) {
    auto transfer = std::make_unique<RecordedRequest>(true, kind);
    transfer->request->directory = sources->directory;
    transfer->request->fileName = fileName;
    EXPECT_TRUE(service->excuteRequest(transfer->request));
    transfers.push_back(std::move(transfer));
    return *transfers.back();
  }

  // The usual mix: a file download and an image download (from the static-content host), and one
  // upload on each route (file-service image upload, signed object-storage upload, video upload).
  struct Mix {
    RecordedRequest* fileDownload;
    RecordedRequest* imageDownload;
    RecordedRequest* imageUpload;
    RecordedRequest* fileUpload;
    RecordedRequest* videoUpload;
  };
  Mix startMix() {
    since = NetFaultsEnvironment::proxy().stats();
    started = Clock::now();
    Mix mix{};
    mix.fileDownload =
        &download(CloudStorageKind::kFile, NetFaultsEnvironment::proxiedUrl(sources->downloadPath));
    mix.imageDownload = &download(CloudStorageKind::kImage,
                                  NetFaultsEnvironment::proxiedStaticUrl(sources->downloadPath));
    mix.imageUpload = &upload(CloudStorageKind::kImage, "photo.png");
    mix.fileUpload = &upload(CloudStorageKind::kFile, "report.pdf");
    mix.videoUpload = &upload(CloudStorageKind::kVideo, "clip.mov");
    return mix;
  }

  bool allEnded() {
    const auto deadline = Clock::now() + kEndWithin;
    for (auto& transfer : transfers) {
      const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
      if (!transfer->waitEnded(std::max(left, milliseconds(0)))) {
        return false;
      }
    }
    return true;
  }

  double secondsTo(const RecordedRequest& transfer) const {
    return std::chrono::duration<double>(transfer.ended().at - started).count();
  }

  // Files in the per-user cache directory, where downloads are written before they are moved.
  std::size_t entriesBelowCache() const {
    return filesBelow(FileUtils::appendComponent(user.path(), "cloud_storage_caches"));
  }

  // A finished download holds exactly the served bytes.
  void expectDownloaded(const RecordedRequest& transfer) {
    SCOPED_TRACE(transfer.request->url);
    EXPECT_EQ(transfer.code(), CloudStorageResult::kSuccess) << transfer.message();
    EXPECT_EQ(transfer.message(), "");
    EXPECT_TRUE(FileUtils::sameContent(finalPath(transfer), sources->download));
  }

  // A finished upload is stored on the server byte for byte.
  void expectUploaded(const RecordedRequest& transfer) {
    SCOPED_TRACE(transfer.request->fileName);
    ASSERT_EQ(transfer.code(), CloudStorageResult::kSuccess) << transfer.message();
    const auto stored = NetFaultsEnvironment::server().storedFile(urlPath(transfer.url()));
    ASSERT_FALSE(stored.empty()) << transfer.url();
    EXPECT_TRUE(
        FileUtils::sameContent(stored, sources->directory + "/" + transfer.request->fileName));
  }

  // An upload whose transfer broke off in its body: -100 with the transfer's own description, none
  // of the texts the route's reply checks give.
  static void expectBrokenUpload(const RecordedRequest& transfer) {
    SCOPED_TRACE(transfer.request->fileName);
    EXPECT_EQ(transfer.code(), CloudStorageResult::kTransferFailed);
    const auto message = transfer.message();
    EXPECT_FALSE(message.empty());
    for (const char* reply :
         {"parse response failed", "path is empty", "parse signature response failed",
          "signature response data invaild", "upload cancel", "upload request invaild"}) {
      EXPECT_NE(message, reply);
    }
    EXPECT_NE(message.rfind("request signature", 0), 0u) << message;
    EXPECT_NE(message.rfind("upload failed, ", 0), 0u) << message;
    EXPECT_EQ(transfer.url(), "");
  }

  static std::string finalPath(const RecordedRequest& transfer) {
    return FileUtils::appendComponent(transfer.request->directory, transfer.request->fileName);
  }

  // Prints what happened since startMix (or since `since` was taken): for the log of a CI run.
  void report(const char* what) {
    const auto stats = NetFaultsEnvironment::proxy().stats();
    double last = 0;
    for (const auto& transfer : transfers) {
      last = std::max(last, secondsTo(*transfer));
    }
    std::printf(
        "%s: %zu transfers, all ended after %.2f s; proxy: %llu connections, %llu bytes, "
        "%llu stalls, %llu resets, %llu freezes\n",
        what, transfers.size(), last,
        static_cast<unsigned long long>(stats.connections - since.connections),
        static_cast<unsigned long long>(stats.bytes - since.bytes),
        static_cast<unsigned long long>(stats.stalls - since.stalls),
        static_cast<unsigned long long>(stats.resets - since.resets),
        static_cast<unsigned long long>(stats.freezes - since.freezes));
    for (const auto& transfer : transfers) {
      std::printf("  %s kind %d: %d \"%s\" after %.2f s\n",
                  transfer->request->isUpload ? "upload" : "download", transfer->request->kind,
                  transfer->code(), transfer->message().c_str(), secondsTo(*transfer));
    }
  }

  TempDir user;
  TempDir downloads;
  std::unique_ptr<CloudStorageService> service;
  std::vector<std::unique_ptr<RecordedRequest>> transfers;
  Clock::time_point started;
  FaultProxy::Stats since;
};

TEST_F(ThroughTheProxy, WithLatencyEverythingArrivesByteForByte) {
  FaultProxy::Plan plan;
  plan.latency = milliseconds(100);
  NetFaultsEnvironment::proxy().setPlan(plan);
  const auto mix = startMix();
  ASSERT_TRUE(allEnded());
  report("latency 100 ms");

  expectDownloaded(*mix.fileDownload);
  expectDownloaded(*mix.imageDownload);
  expectUploaded(*mix.imageUpload);
  expectUploaded(*mix.fileUpload);
  expectUploaded(*mix.videoUpload);
  for (const auto& transfer : transfers) {
    EXPECT_EQ(transfer->endCount(), 1);
    // A request and its reply cross the proxy once each way: at least twice the added latency.
    EXPECT_GE(secondsTo(*transfer), 0.2);
  }
  const auto after = NetFaultsEnvironment::proxy().stats();
  EXPECT_GE(after.bytes - since.bytes, 2 * kDownloadBytes + 3 * kUploadBytes);
  EXPECT_EQ(entriesBelowCache(), 0u);
}

TEST_F(ThroughTheProxy, WithOnePercentOfChunksStalledEverythingArrives) {
  FaultProxy::Plan plan;
  plan.latency = milliseconds(5);
  plan.stallsPer10000 = 100;
  plan.stallMin = milliseconds(200);
  plan.stallMax = milliseconds(500);
  NetFaultsEnvironment::proxy().setPlan(plan);
  const auto mix = startMix();
  ASSERT_TRUE(allEnded());
  report("1% of chunks stalled 200-500 ms");

  expectDownloaded(*mix.fileDownload);
  expectDownloaded(*mix.imageDownload);
  expectUploaded(*mix.imageUpload);
  expectUploaded(*mix.fileUpload);
  expectUploaded(*mix.videoUpload);
  const auto after = NetFaultsEnvironment::proxy().stats();
  EXPECT_GE(after.bytes - since.bytes, 2 * kDownloadBytes + 3 * kUploadBytes);
  EXPECT_EQ(entriesBelowCache(), 0u);
}

// Every connection is reset once some bytes went through it: the downloads ask for their rest on a
// new connection each time and arrive whole; an upload cannot resume and fails.
TEST_F(ThroughTheProxy, ResetConnectionsAreResumedByDownloadsAndFailUploads) {
  FaultProxy::Plan plan;
  plan.resetAfterMin = kResetAfterMin;
  plan.resetAfterMax = kResetAfterMax;
  NetFaultsEnvironment::proxy().setPlan(plan);
  const auto storedBefore = filesBelow(NetFaultsEnvironment::server().dataDirectory());
  const auto mix = startMix();
  ASSERT_TRUE(allEnded());
  report("connections reset");

  expectDownloaded(*mix.fileDownload);
  // Resumed on the static-content host itself: no retry on the image CDN host was needed.
  expectDownloaded(*mix.imageDownload);
  EXPECT_EQ(mix.imageDownload->request->url,
            NetFaultsEnvironment::proxiedStaticUrl(sources->downloadPath));
  expectBrokenUpload(*mix.imageUpload);
  expectBrokenUpload(*mix.fileUpload);
  expectBrokenUpload(*mix.videoUpload);
  for (const auto& transfer : transfers) {
    EXPECT_EQ(transfer->endCount(), 1);
  }
  // A 2 MiB download cannot come through connections reset after 768 KiB at most without three
  // of them; each upload lost one.
  EXPECT_GE(NetFaultsEnvironment::proxy().stats().resets - since.resets, 2 * 2 + 3u);
  EXPECT_EQ(entriesBelowCache(), 0u);
  // No upload was stored, and the server kept no half of one.
  EXPECT_TRUE(eventually(
      [&] { return filesBelow(NetFaultsEnvironment::server().dataDirectory()) == storedBefore; }));
}

TEST_F(ThroughTheProxy, AConnectionThatStopsMovingIsEndedByTheStallGuard) {
  // QUILL_HTTP_STALL_SECONDS is 2 for this program (tests/netfaults/CMakeLists.txt). A download
  // small enough to come through its second connection: the first freezes, the guard ends it, and
  // the rest is asked for on a new one.
  const auto small = writePattern(sources->directory + "/small.bin", kSmallDownloadBytes, 4);
  const auto smallPath = NetFaultsEnvironment::server().addFile("netfaults-small.bin", small);
  ASSERT_FALSE(smallPath.empty());
  FaultProxy::Plan plan;
  plan.freezeAfter = kFreezeAfter;
  NetFaultsEnvironment::proxy().setPlan(plan);
  since = NetFaultsEnvironment::proxy().stats();
  started = Clock::now();
  auto& fileDownload =
      download(CloudStorageKind::kFile, NetFaultsEnvironment::proxiedUrl(smallPath));
  auto& imageUpload = upload(CloudStorageKind::kImage, "photo.png");
  auto& fileUpload = upload(CloudStorageKind::kFile, "report.pdf");
  ASSERT_TRUE(allEnded()) << "a stalled transfer did not end";
  report("connections frozen");

  EXPECT_EQ(fileDownload.code(), CloudStorageResult::kSuccess) << fileDownload.message();
  EXPECT_TRUE(FileUtils::sameContent(finalPath(fileDownload), small));
  expectBrokenUpload(imageUpload);
  expectBrokenUpload(fileUpload);
  for (const auto& transfer : transfers) {
    // Each met the guard once at least: not before it could have fired, and not long after.
    EXPECT_GE(secondsTo(*transfer), 2.0);
    EXPECT_LT(secondsTo(*transfer), 30.0);
  }
  EXPECT_GE(NetFaultsEnvironment::proxy().stats().freezes - since.freezes, 3u);
  EXPECT_EQ(entriesBelowCache(), 0u);
}

}  // namespace
}  // namespace quill_test
