// The libcurl engine where no server is needed: failures before any byte moves, cancelling, and
// where and how often the caller's functions are called.

#include <quill_base/FileUtils.h>
#include <quill_network/HttpClient.h>

#include "LogCapture.h"
#include "NetworkTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <stdexcept>

using quill_test::drainEngine;
using quill_test::refusedUrl;
using quill_test::TempDir;
using quill_test::TransferRecord;

TEST(EngineLocal, ConnectionRefusedFailsWithStatusZero) {
  TempDir dir;
  auto record = TransferRecord::make();
  const auto id = HttpClient::downloadFile(refusedUrl(), dir.file("out"), record->progress(),
                                           record->completion());
  EXPECT_FALSE(id.empty());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_EQ(response->status, 0);
  EXPECT_FALSE(response->text.empty()) << "the transport's error text describes the failure";
  EXPECT_FALSE(FileUtils::fileExists(dir.file("out"))) << "a failed download leaves no file";
}

TEST(EngineLocal, EveryOperationReportsARefusedConnection) {
  TempDir dir;
  quill_test::writeWholeFile(dir.file("in"), "payload");
  auto download = TransferRecord::make();
  auto multipart = TransferRecord::make();
  auto put = TransferRecord::make();
  auto post = TransferRecord::make();
  HttpClient::downloadFile(refusedUrl(), dir.file("out"), nullptr, download->completion());
  HttpClient::uploadMultipartData(refusedUrl(), {HttpPartData::makePart("f", dir.file("in"), true)},
                                  nullptr, multipart->completion());
  HttpClient::uploadFile(refusedUrl(), dir.file("in"), nullptr, put->completion());
  HttpClient::executePost(refusedUrl(), {{"a", "1"}}, nullptr, post->completion());
  for (const auto& record : {download, multipart, put, post}) {
    auto response = record->wait();
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->outcome, HttpResponse::kFailed);
    EXPECT_EQ(response->status, 0);
  }
}

TEST(EngineLocal, IdsAreDistinct) {
  auto first = TransferRecord::make();
  auto second = TransferRecord::make();
  const auto a = HttpClient::executePost(refusedUrl(), {}, nullptr, first->completion());
  const auto b = HttpClient::executePost(refusedUrl(), {}, nullptr, second->completion());
  EXPECT_NE(a, b);
  EXPECT_NE(first->wait(), nullptr);
  EXPECT_NE(second->wait(), nullptr);
}

TEST(EngineLocal, CompletionsRunOnOneNetworkThread) {
  auto first = TransferRecord::make();
  auto second = TransferRecord::make();
  HttpClient::executePost(refusedUrl(), {}, nullptr, first->completion());
  HttpClient::executePost(refusedUrl(), {}, nullptr, second->completion());
  ASSERT_NE(first->wait(), nullptr);
  ASSERT_NE(second->wait(), nullptr);
  const auto a = first->threads();
  const auto b = second->threads();
  ASSERT_EQ(a.size(), 1u);
  ASSERT_EQ(b.size(), 1u);
  EXPECT_NE(a[0], std::this_thread::get_id()) << "completion runs on the network thread";
  EXPECT_EQ(a[0], b[0]) << "one thread drives every transfer";
}

TEST(EngineLocal, CompletionIsCalledExactlyOnce) {
  auto record = TransferRecord::make();
  HttpClient::executePost(refusedUrl(), {}, nullptr, record->completion());
  ASSERT_NE(record->wait(), nullptr);
  drainEngine();
  EXPECT_EQ(record->completionCount(), 1);
}

TEST(EngineLocal, CancellingAnUnknownIdDoesNothing) {
  HttpClient::cancelRequest("");
  HttpClient::cancelRequest("no-such-transfer");
  drainEngine();  // the engine still completes transfers afterwards
}

TEST(EngineLocal, CancellingAFinishedTransferDoesNothing) {
  auto record = TransferRecord::make();
  const auto id = HttpClient::executePost(refusedUrl(), {}, nullptr, record->completion());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  HttpClient::cancelRequest(id);
  drainEngine();
  EXPECT_EQ(record->completionCount(), 1);
}

TEST(EngineLocal, CancelBeforeTheTransferStartedCompletesOnceAsCancelled) {
  TempDir dir;
  const auto path = dir.file("never");
  quill_test::writeWholeFile(path, "left from before");
  quill_test::NetworkThreadHold hold;
  ASSERT_TRUE(hold.held());
  auto record = TransferRecord::make();
  quill_test::LogCapture logs(log4cplus::DEBUG_LOG_LEVEL);
  const auto id =
      HttpClient::downloadFile(refusedUrl(), path, record->progress(), record->completion());
  HttpClient::cancelRequest(id);
  hold.release();
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCancelled);
  EXPECT_EQ(response->status, 0);
  EXPECT_EQ(quill_test::readWholeFile(path), "left from before")
      << "a download that never started leaves a file it did not create alone";
  HttpClient::cancelRequest(id);
  drainEngine();
  EXPECT_EQ(record->completionCount(), 1);
  EXPECT_TRUE(record->progressReports().empty());
  EXPECT_EQ(logs.count("transfer " + id + " started"), 0) << "libcurl never saw the transfer";
}

TEST(EngineLocal, MissingUploadFileFails) {
  TempDir dir;
  const auto missing = dir.file("missing.bin");
  auto put = TransferRecord::make();
  auto multipart = TransferRecord::make();
  HttpClient::uploadFile(refusedUrl(), missing, nullptr, put->completion());
  HttpClient::uploadMultipartData(refusedUrl(), {HttpPartData::makePart("f", missing, true)},
                                  nullptr, multipart->completion());
  for (const auto& record : {put, multipart}) {
    auto response = record->wait();
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->outcome, HttpResponse::kFailed);
    EXPECT_EQ(response->status, 0);
    EXPECT_NE(response->text.find(missing), std::string::npos) << response->text;
  }
}

TEST(EngineLocal, UnwritableDownloadPathFails) {
  TempDir dir;
  const auto path = dir.file("no-such-dir/out");
  auto record = TransferRecord::make();
  HttpClient::downloadFile(refusedUrl(), path, nullptr, record->completion());
  auto response = record->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kFailed);
  EXPECT_NE(response->text.find(path), std::string::npos) << response->text;
}

TEST(EngineLocal, OnlyHttpAndHttpsAreSpoken) {
  TempDir dir;
  quill_test::writeWholeFile(dir.file("secret"), "not for the network");
  for (const std::string& url :
       {"file://" + dir.file("secret"), std::string("ftp://127.0.0.1:1/x")}) {
    auto record = TransferRecord::make();
    HttpClient::downloadFile(url, dir.file("out"), nullptr, record->completion());
    auto response = record->wait();
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->outcome, HttpResponse::kFailed) << url;
    EXPECT_EQ(response->status, 0) << url;
    EXPECT_FALSE(FileUtils::fileExists(dir.file("out"))) << url;
  }
}

TEST(EngineLocal, AThrowingCompletionDoesNotStopTheEngine) {
  quill_test::LogCapture logs(log4cplus::ERROR_LOG_LEVEL);
  auto called = std::make_shared<quill_test::EventCounter>();
  HttpClient::executePost(refusedUrl(), {}, nullptr, [called](auto) {
    called->add();
    throw std::runtime_error("thrown by the caller");
  });
  ASSERT_TRUE(called->waitFor(1));
  drainEngine();
  EXPECT_TRUE(quill_test::eventually([&] {
    const auto lines = logs.lines();
    return std::any_of(lines.begin(), lines.end(), [](const auto& line) {
      return line.message.find("thrown by the caller") != std::string::npos;
    });
  }));
}

TEST(EngineLocal, ACompletionMayStartAndCancelTransfers) {
  auto inner = TransferRecord::make();
  auto outer = TransferRecord::make();
  HttpClient::executePost(refusedUrl(), {}, nullptr, [inner, outer](auto response) {
    const auto id = HttpClient::executePost(refusedUrl(), {}, nullptr, inner->completion());
    HttpClient::cancelRequest(id);
    outer->completion()(response);
  });
  ASSERT_NE(outer->wait(), nullptr);
  auto response = inner->wait();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->outcome, HttpResponse::kCancelled)
      << "started and cancelled before the network thread looked at its queue again";
}

TEST(EngineLocal, AnInvalidStallSettingFallsBackAndIsLogged) {
  quill_test::LogCapture logs(log4cplus::WARN_LOG_LEVEL);
  quill_test::ScopedEnv stall("QUILL_HTTP_STALL_SECONDS", std::string("soon"));
  auto record = TransferRecord::make();
  HttpClient::executePost(refusedUrl(), {}, nullptr, record->completion());
  ASSERT_NE(record->wait(), nullptr);
  const auto lines = logs.lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const auto& line) {
    return line.message.find("QUILL_HTTP_STALL_SECONDS=\"soon\"") != std::string::npos;
  }));
}
