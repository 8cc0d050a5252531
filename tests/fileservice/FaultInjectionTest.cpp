// Fault injection: each kind of fault through query parameters, through addFault() rules (path
// prefix, count, host) and through the control endpoint, on downloads and uploads, over HTTP and
// HTTPS.
#include "FileServiceTestSupport.h"

#include <atomic>
#include <filesystem>
#include <thread>

using namespace fileservice_test;
using Clock = std::chrono::steady_clock;

namespace {

long long millisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class Faults : public ServiceTest {
protected:
  void SetUp() override {
    ServiceTest::SetUp();
    if (HasFatalFailure()) {
      return;
    }
    bytes = randomBytes(200000, 21);
    writeFile(data.file("f.bin"), bytes);
    path = service->addFile("f.bin", data.file("f.bin"));
    ASSERT_EQ(path, "/files/f.bin");
  }

  // A GET that counts the body bytes it received, whatever the outcome.
  struct Download {
    httplib::Error error = httplib::Error::Unknown;
    int status = 0;
    std::string body;
  };
  Download download(const std::string& target, httplib::Client& client) {
    Download result;
    const auto reply = client.Get(target.c_str(), [&](const char* data, std::size_t size) {
      result.body.append(data, size);
      return true;
    });
    result.error = reply.error();
    result.status = reply ? reply->status : 0;
    return result;
  }

  std::size_t storedFileCount() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(data.file("store/files"))) {
      count += entry.is_regular_file() ? 1 : 0;
    }
    return count;
  }

  std::string bytes;
  std::string path;
};

TEST_P(Faults, AStatusFromTheQueryReplacesTheReply) {
  const auto result = clientFor(*service)->Get((path + "?quill_status=503").c_str());
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 503);
  EXPECT_EQ(result->body, "injected fault\n");
}

TEST_P(Faults, ABodyFromTheQueryReplacesTheReply) {
  auto client = clientFor(*service);
  const auto json = client->Get((path + "?quill_body=%7B%22code%22%3A7%7D").c_str());
  ASSERT_TRUE(json);
  EXPECT_EQ(json->status, 200);
  EXPECT_EQ(json->body, "{\"code\":7}");
  EXPECT_EQ(json->get_header_value("Content-Type"), "application/json");
  const auto both = client->Get((path + "?quill_status=500&quill_body=broken").c_str());
  ASSERT_TRUE(both);
  EXPECT_EQ(both->status, 500);
  EXPECT_EQ(both->body, "broken");
}

TEST_P(Faults, ADelayFromTheQueryHoldsTheReplyBack) {
  auto client = clientFor(*service);
  ASSERT_TRUE(client->Get("/_control/stats"));  // connected and handshaken before timing
  const auto start = Clock::now();
  const auto result = client->Get((path + "?quill_delay_ms=300").c_str());
  ASSERT_TRUE(result);
  EXPECT_GE(millisecondsSince(start), 300);
  EXPECT_EQ(result->status, 200);
  EXPECT_TRUE(sameBytes(result->body, bytes));
}

TEST_P(Faults, ARateFromTheQueryThrottlesTheBody) {
  auto client = clientFor(*service);
  const auto start = Clock::now();
  // 200000 bytes at 400000 bytes a second: half a second.
  const auto result = client->Get((path + "?quill_rate=400000").c_str());
  ASSERT_TRUE(result);
  EXPECT_GE(millisecondsSince(start), 500);
  EXPECT_TRUE(sameBytes(result->body, bytes));
}

TEST_P(Faults, ADropFromTheQueryClosesTheConnectionAfterThoseBytes) {
  auto client = clientFor(*service);
  const Download result = download(path + "?quill_drop_after=1000", *client);
  EXPECT_NE(result.error, httplib::Error::Success);
  EXPECT_EQ(result.body.size(), 1000u);
  EXPECT_TRUE(sameBytes(result.body, bytes.substr(0, 1000)));
  // A fresh request is served in full.
  const Download again = download(path, *clientFor(*service));
  EXPECT_EQ(again.error, httplib::Error::Success);
  EXPECT_TRUE(sameBytes(again.body, bytes));
}

TEST_P(Faults, AStallFromTheQueryStopsSendingUntilTheClientGivesUp) {
  auto client = clientFor(*service);
  ASSERT_TRUE(client->Get("/_control/stats"));  // connected and handshaken before timing
  client->set_read_timeout(std::chrono::seconds(1));
  const auto start = Clock::now();
  const Download result = download(path + "?quill_stall_after=1000", *client);
  EXPECT_GE(millisecondsSince(start), 900);
  EXPECT_NE(result.error, httplib::Error::Success);
  EXPECT_EQ(result.body.size(), 1000u);
  EXPECT_TRUE(sameBytes(result.body, bytes.substr(0, 1000)));
}

// With one worker, a stalled reply occupies the whole service: the next request is served only if
// the stall ends when its client gives up.
class OneWorker : public Faults {
protected:
  void configure(quill_fileservice::Options& options) override { options.workerThreads = 1; }
};

TEST_P(OneWorker, AStallEndsWhenItsClientGivesUp) {
  {
    auto stalled = clientFor(*service);
    ASSERT_TRUE(stalled->Get("/_control/stats"));
    stalled->set_read_timeout(std::chrono::milliseconds(500));
    const Download result = download(path + "?quill_stall_after=10", *stalled);
    EXPECT_NE(result.error, httplib::Error::Success);
    EXPECT_EQ(result.body.size(), 10u);
  }  // the client closes its connection here
  auto next = clientFor(*service);
  next->set_read_timeout(std::chrono::seconds(10));
  const auto start = Clock::now();
  const Download result = download(path, *next);
  EXPECT_EQ(result.error, httplib::Error::Success);
  EXPECT_TRUE(sameBytes(result.body, bytes));
  EXPECT_LT(millisecondsSince(start), 5000);
}

TEST_P(Faults, StopReturnsPromptlyWhileRepliesAreStalledOrDelayed) {
  quill_test::EventCounter stalledBytes;
  std::atomic<bool> stalledFinished{false};
  std::atomic<bool> delayedFinished{false};
  std::thread stalled([&] {
    auto client = clientFor(*service);
    client->Get((path + "?quill_stall_after=100").c_str(), [&](const char*, std::size_t size) {
      stalledBytes.add(static_cast<int>(size));
      return true;
    });
    stalledFinished = true;
  });
  std::thread delayed([&] {
    clientFor(*service)->Get((path + "?quill_delay_ms=60000").c_str());
    delayedFinished = true;
  });
  ASSERT_TRUE(stalledBytes.waitFor(100));
  // The delayed request has been received once the count says so.
  ASSERT_TRUE(quill_test::eventually([&] { return service->requestCount() >= 2; }));
  const auto start = Clock::now();
  service->stop();
  EXPECT_LT(millisecondsSince(start), 2000);
  stalled.join();
  delayed.join();
  EXPECT_TRUE(stalledFinished);
  EXPECT_TRUE(delayedFinished);
  EXPECT_EQ(stalledBytes.value(), 100);
}

TEST_P(Faults, RulesMatchByPathPrefixAndWearOutAfterTheirTimes) {
  quill_fileservice::Fault fault;
  fault.pathPrefix = "/files/";
  fault.status = 500;
  fault.times = 2;
  service->addFault(fault);
  auto client = clientFor(*service);
  EXPECT_EQ(client->Get("/_control/stats")->status, 200);
  EXPECT_EQ(client->Get("/objects/none")->status, 404);
  EXPECT_EQ(client->Get(path.c_str())->status, 500);
  EXPECT_EQ(client->Get(path.c_str())->status, 500);
  EXPECT_EQ(client->Get(path.c_str())->status, 200);
}

TEST_P(Faults, TheFirstMatchingRuleWinsAndClearFaultsRemovesThemAll) {
  quill_fileservice::Fault first;
  first.pathPrefix = "/files/f";
  first.status = 502;
  quill_fileservice::Fault second;
  second.status = 503;
  service->addFault(first);
  service->addFault(second);
  auto client = clientFor(*service);
  EXPECT_EQ(client->Get(path.c_str())->status, 502);
  EXPECT_EQ(client->Get("/objects/x")->status, 503);
  service->clearFaults();
  EXPECT_EQ(client->Get(path.c_str())->status, 200);
}

TEST_P(Faults, AHostRuleFailsOneHostNameAndServesTheOther) {
  quill_fileservice::Fault fault;
  fault.host = "localhost:" + std::to_string(service->port());
  fault.status = 500;
  service->addFault(fault);
  auto staticHost = clientFor(*service, "localhost");
  auto cdnHost = clientFor(*service, "127.0.0.1");
  for (int i = 0; i < 3; ++i) {
    const auto failed = staticHost->Get(path.c_str());
    ASSERT_TRUE(failed) << httplib::to_string(failed.error());
    EXPECT_EQ(failed->status, 500);
    const auto served = cdnHost->Get(path.c_str());
    ASSERT_TRUE(served);
    EXPECT_EQ(served->status, 200);
    EXPECT_TRUE(sameBytes(served->body, bytes));
  }
}

TEST_P(Faults, AStatusFaultOnAnUploadDiscardsTheBodyAndKeepsTheConnection) {
  auto client = clientFor(*service);
  auto form = identityForm();
  form.push_back({"upload", randomBytes(2 * 1024 * 1024), "big.jpg", "image/jpeg"});
  const auto failed = client->Post("/file/uploadImg.action?quill_status=500", form);
  ASSERT_TRUE(failed) << httplib::to_string(failed.error());
  EXPECT_EQ(failed->status, 500);
  EXPECT_EQ(storedFileCount(), 1u);  // f.bin only
  const auto next = client->Post("/file/uploadImg.action", form);
  ASSERT_TRUE(next) << httplib::to_string(next.error());
  EXPECT_EQ(next->status, 200);
  EXPECT_EQ(parseJson(next->body)["code"].asInt(), 0);
  EXPECT_EQ(storedFileCount(), 2u);
}

TEST_P(Faults, BodyFaultsApplyToUploadReplies) {
  quill_fileservice::Fault fault;
  fault.pathPrefix = "/file/uploadImg.action";
  fault.dropAfterBytes = 5;
  fault.times = 1;
  service->addFault(fault);
  auto form = identityForm();
  form.push_back({"upload", "content", "a.jpg", "image/jpeg"});
  const auto dropped = clientFor(*service)->Post("/file/uploadImg.action", form);
  EXPECT_FALSE(dropped);
  // The upload itself went through; only its reply was cut.
  EXPECT_EQ(storedFileCount(), 2u);
  const auto whole = clientFor(*service)->Post("/file/uploadImg.action?quill_delay_ms=50", form);
  ASSERT_TRUE(whole);
  EXPECT_EQ(parseJson(whole->body)["code"].asInt(), 0);
}

TEST_P(Faults, TheControlEndpointAddsListsAndClearsRules) {
  auto client = clientFor(*service);
  const auto added = client->Post(
      "/_control/faults", R"({"pathPrefix":"/files/","status":502,"times":1})", "application/json");
  ASSERT_TRUE(added);
  EXPECT_EQ(added->status, 200);
  EXPECT_EQ(parseJson(added->body)["added"].asInt(), 1);
  const Json::Value listed = parseJson(client->Get("/_control/faults")->body);
  ASSERT_EQ(listed["faults"].size(), 1u);
  EXPECT_EQ(listed["faults"][0]["status"].asInt(), 502);
  EXPECT_EQ(client->Get(path.c_str())->status, 502);
  EXPECT_EQ(client->Get(path.c_str())->status, 200);

  const auto two =
      client->Post("/_control/faults",
                   R"([{"host":"localhost:)" + std::to_string(service->port()) +
                       R"(","status":500},{"pathPrefix":"/objects/","body":"{\"code\":9}"}])",
                   "application/json");
  ASSERT_TRUE(two);
  EXPECT_EQ(parseJson(two->body)["added"].asInt(), 2);
  EXPECT_EQ(clientFor(*service, "localhost")->Get(path.c_str())->status, 500);
  EXPECT_EQ(client->Get("/objects/anything")->body, "{\"code\":9}");
  // Rules never touch the control endpoint itself.
  EXPECT_EQ(client->Get("/_control/stats?quill_status=500")->status, 200);

  const auto cleared = client->Delete("/_control/faults");
  ASSERT_TRUE(cleared);
  EXPECT_EQ(cleared->status, 200);
  EXPECT_EQ(parseJson(client->Get("/_control/faults")->body)["faults"].size(), 0u);
  EXPECT_EQ(client->Get("/objects/anything")->status, 404);
}

TEST_P(Faults, TheControlEndpointShapesBodiesToo) {
  auto client = clientFor(*service);
  ASSERT_EQ(
      client
          ->Post("/_control/faults", R"({"pathPrefix":"/files/","dropAfterBytes":4096,"times":1})",
                 "application/json")
          ->status,
      200);
  const Download dropped = download(path, *client);
  EXPECT_NE(dropped.error, httplib::Error::Success);
  EXPECT_EQ(dropped.body.size(), 4096u);
  EXPECT_TRUE(sameBytes(dropped.body, bytes.substr(0, 4096)));
  ASSERT_EQ(client
                ->Post("/_control/faults",
                       R"({"pathPrefix":"/files/","bytesPerSecond":1000000,"delayMs":100})",
                       "application/json")
                ->status,
            200);
  const auto start = Clock::now();
  const Download slow = download(path, *clientFor(*service));
  EXPECT_GE(millisecondsSince(start), 300);  // 100 ms delay + 200000 bytes at 1 MB/s
  EXPECT_TRUE(sameBytes(slow.body, bytes));
}

TEST_P(Faults, TheControlEndpointRefusesWhatIsNotAFault) {
  auto client = clientFor(*service);
  for (const char* body : {"not json", R"({"status":"500"})", R"({"colour":"red"})",
                           R"({"status":42})", R"([{"status":500},7])", "12"}) {
    const auto result = client->Post("/_control/faults", body, "application/json");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 400) << body;
    EXPECT_FALSE(parseJson(result->body)["msg"].asString().empty()) << body;
  }
  EXPECT_EQ(parseJson(client->Get("/_control/faults")->body)["faults"].size(), 0u);
}

TEST_P(Faults, TheControlEndpointCountsRequests) {
  auto client = clientFor(*service);
  const std::uint64_t before = service->requestCount();
  client->Get(path.c_str());
  const Json::Value stats = parseJson(client->Get("/_control/stats")->body);
  EXPECT_EQ(stats["requests"].asUInt64(), before + 2);
}

INSTANTIATE_TEST_SUITE_P(Transports, Faults, ::testing::Bool(), transportName);
INSTANTIATE_TEST_SUITE_P(Transports, OneWorker, ::testing::Bool(), transportName);

}  // namespace
