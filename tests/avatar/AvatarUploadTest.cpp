#include "AvatarTestSupport.h"

using quill_test::AvatarFixture;
using quill_test::EventCounter;
using quill_test::ImageFormat;
using quill_test::noiseImage;
using quill_test::runOnQueue;

namespace {

// What an upload callback was given, and on which thread.
struct UploadAnswer {
  std::mutex mutex;
  std::vector<std::string> urls;
  bool onQueue = false;
  EventCounter calls;

  std::function<void(const std::string&)> callback(const std::shared_ptr<SerialQueue>& queue) {
    return [this, queue](const std::string& url) {
      {
        std::lock_guard<std::mutex> lock(mutex);
        urls.push_back(url);
        onQueue = queue->isCurrentQueue();
      }
      calls.add();
    };
  }
  std::vector<std::string> given() {
    std::lock_guard<std::mutex> lock(mutex);
    return urls;
  }
};

struct AvatarUpload : AvatarFixture {
  std::string imagePath() {
    const std::string path = root.file("me.png");
    std::ofstream(path, std::ios::binary) << noiseImage(64, 64, ImageFormat::kPng);
    return path;
  }
};

}  // namespace

TEST_F(AvatarUpload, AnEmptyCallbackDoesNothing) {
  manager->uploadAvatarImage(imagePath(), nullptr);
  manager->uploadAvatarImage(root.file("missing.png"), nullptr);
  runOnQueue(*queue, [] {});
  EXPECT_EQ(transport->startedCalls().size(), 0u);
}

TEST_F(AvatarUpload, AMissingFileIsAnsweredEmptyBeforeReturning) {
  UploadAnswer answer;
  manager->uploadAvatarImage(root.file("missing.png"), answer.callback(queue));
  EXPECT_EQ(answer.given(), std::vector<std::string>{""});
  EXPECT_FALSE(answer.onQueue) << "answered on the caller's thread";
  EXPECT_EQ(transport->startedCalls().size(), 0u);
}

TEST_F(AvatarUpload, WithoutAServiceTheCallerIsAnsweredEmptyAtOnce) {
  auto alone = std::make_shared<AvatarManager>(queue, nullptr);
  UploadAnswer answer;
  alone->uploadAvatarImage(imagePath(), answer.callback(queue));
  EXPECT_EQ(answer.given(), std::vector<std::string>{""});
}

TEST_F(AvatarUpload, ASuccessfulUploadAnswersOnceWithTheStoredUrl) {
  UploadAnswer answer;
  const std::string path = imagePath();
  manager->uploadAvatarImage(path, answer.callback(queue));
  ASSERT_TRUE(transport->waitForCalls(1));
  const auto call = transport->call(0);
  EXPECT_EQ(call.spec.kind, quill_network_detail::TransferSpec::Kind::MultipartPost)
      << "an image upload goes to the file service as a form";
  transport->end(call.id, 0, 200, R"({"code":0,"path":"//files.test/avatars/me.jpg"})");
  ASSERT_TRUE(answer.calls.waitFor(1));
  runOnQueue(*queue, [] {});
  EXPECT_EQ(answer.given(), std::vector<std::string>{"https://files.test/avatars/me.jpg"});
  EXPECT_TRUE(answer.onQueue) << "answered on the manager's queue";
}

TEST_F(AvatarUpload, AFailedUploadAnswersOnceWithAnEmptyUrl) {
  UploadAnswer answer;
  manager->uploadAvatarImage(imagePath(), answer.callback(queue));
  ASSERT_TRUE(transport->waitForCalls(1));
  transport->end(transport->call(0).id, 0, 200, R"({"code":9,"msg":"too big"})");
  ASSERT_TRUE(answer.calls.waitFor(1));
  runOnQueue(*queue, [] {});
  EXPECT_EQ(answer.given(), std::vector<std::string>{""});
  EXPECT_TRUE(answer.onQueue);
}

TEST_F(AvatarUpload, AnUploadEndingAfterTheManagerIsGoneIsNotAnswered) {
  UploadAnswer answer;
  manager->uploadAvatarImage(imagePath(), answer.callback(queue));
  ASSERT_TRUE(transport->waitForCalls(1));
  manager.reset();
  transport->end(transport->call(0).id, 0, 200, R"({"code":0,"path":"//files.test/a.jpg"})");
  transport->drain();
  // The service still ends the request; its ending must not reach the gone manager.
  flushService();
  runOnQueue(*queue, [] {});
  EXPECT_EQ(answer.calls.value(), 0);
}
