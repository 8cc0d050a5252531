// What every HttpClient operation shares, checked for each of them against the reference file
// service over HTTP and HTTPS: error statuses, replies passed through, cancelling while the server
// holds the request, and the stall guard.

#include <quill_base/FileUtils.h>
#include <quill_base/JSONUtils.h>
#include <quill_network/HttpClient.h>

#include "NetworkTestSupport.h"
#include "OverBothSchemes.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace quill_test;

namespace {

enum class Operation { Download, Multipart, Put, FormPost };

const Operation kAllOperations[] = {Operation::Download, Operation::Multipart, Operation::Put,
                                    Operation::FormPost};

const char* nameOf(Operation operation) {
  switch (operation) {
    case Operation::Download:
      return "downloadFile";
    case Operation::Multipart:
      return "uploadMultipartData";
    case Operation::Put:
      return "uploadFile";
    case Operation::FormPost:
      return "executePost";
  }
  return "?";
}

std::string withQuery(const std::string& url, const std::string& query) {
  if (query.empty()) {
    return url;
  }
  return url + (url.find('?') == std::string::npos ? "?" : "&") + query;
}

struct Started {
  Operation operation;
  std::string id;
  std::string downloadPath;
  // Requests the service had received just before this transfer started.
  std::uint64_t requestsBefore = 0;
  std::shared_ptr<TransferRecord> record = TransferRecord::make();
};

class EveryOperation : public OverBothSchemes {
protected:
  void SetUp() override {
    upload = dir.file("upload.bin");
    writePatternFile(upload, 64 * 1024);
    storedPath = service().addFile("operations.bin", upload);
    ASSERT_FALSE(storedPath.empty());
  }

  // Starts the operation with the fault query (quill_status=..., say) on its request.
  Started start(Operation operation, const std::string& query) {
    Started started;
    started.operation = operation;
    started.requestsBefore = service().requestCount();
    const int n = ++counter;
    switch (operation) {
      case Operation::Download:
        started.downloadPath = dir.file("download-" + std::to_string(n));
        started.id =
            HttpClient::downloadFile(withQuery(url(storedPath), query), started.downloadPath,
                                     started.record->progress(), started.record->completion());
        break;
      case Operation::Multipart:
        started.id = HttpClient::uploadMultipartData(
            withQuery(url("/file/uploadImg.action"), query),
            {HttpPartData::makePart("appId", "quill-test", false),
             HttpPartData::makePart("pin", "user-1", false),
             HttpPartData::makePart("aid", "account-7", false),
             HttpPartData::makePart("upload", upload, true)},
            started.record->progress(), started.record->completion());
        break;
      case Operation::Put: {
        // The signature request goes first, so that requestsBefore counts it.
        const auto putUrl = withQuery(
            presignedPut.empty() ? signedUrl("object-" + std::to_string(n)) : presignedPut, query);
        started.requestsBefore = service().requestCount();
        started.id = HttpClient::uploadFile(putUrl, upload, started.record->progress(),
                                            started.record->completion());
        break;
      }
      case Operation::FormPost:
        started.id = HttpClient::executePost(
            withQuery(url("/file/uploadBySignature.action"), query),
            {{"appId", "quill-test"}, {"aid", "account-7"}, {"pin", "user-1"}, {"key", "k.bin"}},
            nullptr, started.record->completion());
        break;
    }
    return started;
  }

  std::string signedUrl(const std::string& key) {
    const auto signedUrl = signedObjectUrl(service(), key);
    return signedUrl.empty() ? url("/objects/" + key) : signedUrl;
  }

  // When set, the URL a PUT goes to (no signature is asked for then).
  std::string presignedPut;
  std::string upload;
  std::string storedPath;
  int counter = 0;
};

}  // namespace

TEST_P(EveryOperation, ErrorStatusesFailWithTheStatusLine) {
  for (const Operation operation : kAllOperations) {
    for (const int status : {400, 403, 404, 500}) {
      SCOPED_TRACE(std::string(nameOf(operation)) + " " + std::to_string(status));
      auto started = start(operation, "quill_status=" + std::to_string(status));
      auto response = started.record->wait();
      ASSERT_NE(response, nullptr);
      EXPECT_EQ(response->outcome, HttpResponse::kFailed);
      EXPECT_EQ(response->status, status);
      EXPECT_TRUE(isStatusLine(response->text, status)) << response->text;
      if (!started.downloadPath.empty()) {
        EXPECT_FALSE(FileUtils::fileExists(started.downloadPath));
      }
    }
  }
}

TEST_P(EveryOperation, AMalformedReplyBodyIsHandedBackAsText) {
  for (const Operation operation : {Operation::Multipart, Operation::Put, Operation::FormPost}) {
    SCOPED_TRACE(nameOf(operation));
    // "{not json<&>" with the percent-encoding of the query
    auto started = start(operation, "quill_body=%7Bnot%20json%3C%26%3E");
    auto response = started.record->wait();
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->outcome, HttpResponse::kCompleted);
    EXPECT_EQ(response->status, 200);
    EXPECT_EQ(response->text, "{not json<&>");
  }
}

TEST_P(EveryOperation, CancelBeforeTheTransferStartedCompletesOnceAsCancelled) {
  presignedPut = signedUrl("never-sent");
  for (const Operation operation : kAllOperations) {
    SCOPED_TRACE(nameOf(operation));
    Started started;
    {
      NetworkThreadHold hold;
      ASSERT_TRUE(hold.held());
      started = start(operation, "");
      HttpClient::cancelRequest(started.id);
    }
    auto response = started.record->wait();
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->outcome, HttpResponse::kCancelled);
    EXPECT_EQ(response->status, 0);
    if (!started.downloadPath.empty()) {
      EXPECT_FALSE(FileUtils::fileExists(started.downloadPath));
    }
    HttpClient::cancelRequest(started.id);
    drainEngine();
    EXPECT_EQ(started.record->completionCount(), 1);
    EXPECT_TRUE(started.record->progressReports().empty());
    EXPECT_EQ(service().requestCount(), started.requestsBefore) << "nothing reached the service";
  }
  EXPECT_TRUE(service().storedFile("/objects/never-sent").empty());
}

// Ended transfers hand their libcurl handles on to the next ones: what one set up (its method, a
// body, a file to send, the receive buffer of one that libcurl refused early) must not reach the
// next. Every operation twice in turn, after a transfer refused for its protocol.
TEST_P(EveryOperation, TransfersInTurnEachSendTheirOwnRequest) {
  auto refused = TransferRecord::make();
  HttpClient::downloadFile("file:///etc/hosts", dir.file("refused"), nullptr,
                           refused->completion());
  auto refusal = refused->wait();
  ASSERT_NE(refusal, nullptr);
  EXPECT_EQ(refusal->outcome, HttpResponse::kFailed);
  for (int round = 0; round < 2; ++round) {
    for (const Operation operation : kAllOperations) {
      SCOPED_TRACE(::testing::Message() << nameOf(operation) << " in round " << round);
      const auto started = start(operation, "");
      const auto response = started.record->wait();
      ASSERT_NE(response, nullptr);
      EXPECT_EQ(response->outcome, HttpResponse::kCompleted) << response->text;
      EXPECT_EQ(response->status, 200);
      if (operation == Operation::Download) {
        EXPECT_TRUE(FileUtils::sameContent(started.downloadPath, upload));
      }
      if (operation == Operation::Put) {
        const auto stored = service().storedFile("/objects/object-" + std::to_string(counter));
        EXPECT_TRUE(holdsPattern(stored, 64 * 1024));
      }
      if (operation == Operation::Multipart || operation == Operation::FormPost) {
        // The service's answers to a whole upload (code 0) and to a signature request (code 1,
        // with the address to send the file to).
        Json::Value reply;
        ASSERT_TRUE(JSONUtils::parseJSON(response->text, reply)) << response->text;
        if (operation == Operation::Multipart) {
          EXPECT_EQ(JSONUtils::optInt("code", reply, -1), 0) << response->text;
        } else {
          EXPECT_EQ(JSONUtils::optInt("code", reply, -1), 1) << response->text;
          EXPECT_FALSE(JSONUtils::optString("uploadPath", reply, "").empty()) << response->text;
        }
      }
    }
  }
}

TEST_P(EveryOperation, CancelWhileTheServerHoldsTheRequest) {
  for (const Operation operation : kAllOperations) {
    SCOPED_TRACE(nameOf(operation));
    auto started = start(operation, "quill_delay_ms=30000");
    ASSERT_TRUE(eventually([&] { return service().requestCount() > started.requestsBefore; }))
        << "the request never reached the service";
    const auto cancelledAt = std::chrono::steady_clock::now();
    HttpClient::cancelRequest(started.id);
    auto response = started.record->wait(std::chrono::seconds(5));
    ASSERT_NE(response, nullptr) << "cancel did not end the transfer";
    EXPECT_LT(std::chrono::steady_clock::now() - cancelledAt, std::chrono::seconds(2));
    EXPECT_EQ(response->outcome, HttpResponse::kCancelled);
    if (!started.downloadPath.empty()) {
      EXPECT_FALSE(FileUtils::fileExists(started.downloadPath));
    }
    HttpClient::cancelRequest(started.id);
    drainEngine();
    EXPECT_EQ(started.record->completionCount(), 1);
  }
}

TEST_P(EveryOperation, ASilentServerTripsTheStallGuard) {
  ScopedEnv stall("QUILL_HTTP_STALL_SECONDS", std::string("2"));
  const auto began = std::chrono::steady_clock::now();
  std::vector<Started> all;
  for (const Operation operation : kAllOperations) {
    all.push_back(start(operation, "quill_delay_ms=30000"));
  }
  for (auto& started : all) {
    SCOPED_TRACE(nameOf(started.operation));
    auto response = started.record->wait(std::chrono::seconds(15));
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->outcome, HttpResponse::kFailed);
    EXPECT_EQ(response->status, 0) << "no reply had begun";
    EXPECT_EQ(response->text, "the transfer stalled: no byte moved for 2 seconds");
  }
  const auto elapsed = std::chrono::steady_clock::now() - began;
  EXPECT_GE(elapsed, std::chrono::milliseconds(1500));
  EXPECT_LT(elapsed, std::chrono::seconds(10)) << "the guard is 2 seconds, not the server's 30";
}

INSTANTIATE_TEST_SUITE_P(Schemes, EveryOperation, ::testing::Values(Scheme::Http, Scheme::Https),
                         schemeName);
