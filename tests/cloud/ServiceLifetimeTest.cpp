#include "DownloadTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

using quill_test::DownloadFixture;
using quill_test::RecordedRequest;

namespace {

struct ServiceLifetimeTest : ::testing::Test, DownloadFixture {};

}  // namespace

TEST_F(ServiceLifetimeTest, RefusesNullRequestsAndUnknownKinds) {
  EXPECT_FALSE(service->excuteRequest(nullptr));
  auto video = std::make_shared<CloudStorageRequest>(false);
  video->kind = CloudStorageKind::kVideo;
  EXPECT_FALSE(service->excuteRequest(video));
  auto upload = std::make_shared<CloudStorageRequest>(true);
  upload->kind = 4;
  EXPECT_FALSE(service->excuteRequest(upload));
}

TEST_F(ServiceLifetimeTest, CancellingAnUnknownIdDoesNothing) {
  auto recorded = download(CloudStorageKind::kFile, "https://files.test/a", "a");
  ASSERT_TRUE(service->excuteRequest(recorded.request));
  ASSERT_TRUE(transport->waitForCalls(1));
  service->cancelReqestWithID("nobody");
  service->cancelReqestWithID("");
  transport->succeedDownload(transport->call(0).id, "a");
  ASSERT_TRUE(recorded.waitEnded());
  EXPECT_EQ(recorded.ended().code, CloudStorageResult::kSuccess);
  EXPECT_TRUE(transport->cancelledIds().empty());
}

TEST_F(ServiceLifetimeTest, DestroyingTheServiceMidDownloadCallsNothingAndAbandonsTheTransfer) {
  signIn();
  auto recorded = download(CloudStorageKind::kFile, "https://files.test/a", "a");
  recorded.recordProgress();
  ASSERT_TRUE(service->excuteRequest(recorded.request));
  ASSERT_TRUE(transport->waitForCalls(1));
  const auto call = transport->call(0);

  service.reset();
  EXPECT_EQ(transport->cancelledIds(), (std::vector<std::string>{call.id}))
      << "the abandoned transfer is stopped";
  // Whatever the network still delivers finds nothing to call.
  transport->progress(call.id, 50, 100);
  transport->end(call.id, 0, 200, "");
  transport->drain();
  EXPECT_EQ(recorded.endCount(), 0);
  EXPECT_TRUE(recorded.percents().empty());
  EXPECT_EQ(recorded.request->resultCode, CloudStorageResult::kPending);
}

TEST_F(ServiceLifetimeTest, ACallbackMayDestroyTheService) {
  std::vector<RecordedRequest> requests;
  std::atomic<int> calls{0};
  // Told once the callback has let go of the service, so that this thread reads `service` only
  // after that write.
  quill_test::EventCounter released;
  for (int i = 0; i < 3; ++i) {
    requests.push_back(download(CloudStorageKind::kImage, "https://files.test/" + std::to_string(i),
                                std::to_string(i)));
    requests.back().request->stateCallback = [&](std::shared_ptr<CloudStorageRequest>, int) {
      ++calls;
      service.reset();  // from the service's own queue
      released.add();
    };
    ASSERT_TRUE(service->excuteRequest(requests.back().request));
  }
  ASSERT_TRUE(transport->waitForCalls(3));
  transport->answerCancels = false;
  transport->succeedDownload(transport->call(0).id, "x");
  transport->succeedDownload(transport->call(1).id, "y");
  transport->drain();
  ASSERT_TRUE(released.waitFor(1));
  // Released from its own queue, the service is torn down there after the callback, and the third
  // task's transfer, which never ends, is cancelled then (the second's too, when its end had not
  // reached the queue yet). The test ends only after that, while its scripted transport is still
  // the one installed.
  const auto third = transport->call(2).id;
  ASSERT_TRUE(quill_test::eventually([&] {
    const auto cancelled = transport->cancelledIds();
    return std::find(cancelled.begin(), cancelled.end(), third) != cancelled.end();
  }));
  transport->drain();
  EXPECT_EQ(calls.load(), 1) << "no callback after the service is gone";
}

TEST_F(ServiceLifetimeTest, ManyServicesComeAndGoWithWorkInFlight) {
  std::vector<RecordedRequest> requests;
  for (int round = 0; round < 20; ++round) {
    auto local = std::make_unique<CloudStorageService>(false);
    local->changeUser("app", "pin", userDirectory.path());
    for (int i = 0; i < 6; ++i) {
      requests.push_back(download(1 + i % 2, "https://files.test/r" + std::to_string(i),
                                  "r" + std::to_string(round) + "_" + std::to_string(i)));
      ASSERT_TRUE(local->excuteRequest(requests.back().request));
    }
    if (round % 2 == 0) {
      local->cancelAllReqest();
    }
    local.reset();
  }
  transport->drain();
  // Every transfer that started was either cancelled or abandoned with its service; no request
  // ended twice, and those that ended were cancelled.
  EXPECT_EQ(transport->pendingCount(), 0u);
  for (auto& request : requests) {
    EXPECT_LE(request.endCount(), 1);
    if (request.endCount() == 1) {
      EXPECT_EQ(request.ended().code, CloudStorageResult::kCancelled);
    }
  }
}
