// What a client resuming a download relies on: validators on every download (ETag, Last-Modified),
// If-Range deciding whether a Range is honoured, and the faults that test resuming: cuts at fixed
// offsets of the file, a Range ignored, an ETag that changes between requests.
#include "FileServiceTestSupport.h"

#include "detail/Validators.h"

using namespace fileservice_test;

namespace {

class ResumeFaults : public ServiceTest {
protected:
  void SetUp() override {
    ServiceTest::SetUp();
    if (HasFatalFailure()) {
      return;
    }
    bytes = randomBytes(100000, 5);
    writeFile(data.file("r.bin"), bytes);
    path = service->addFile("r.bin", data.file("r.bin"));
    ASSERT_EQ(path, "/files/r.bin");
  }

  struct Download {
    bool complete = false;
    int status = 0;
    std::string etag;
    std::string contentRange;
    std::string body;
  };
  Download get(const std::string& target, const httplib::Headers& headers = {}) {
    Download result;
    auto client = clientFor(*service);
    const auto reply =
        client->Get(target.c_str(), headers, [&](const char* data, std::size_t size) {
          result.body.append(data, size);
          return true;
        });
    result.complete = reply.error() == httplib::Error::Success;
    if (reply) {
      result.status = reply->status;
      result.etag = reply->get_header_value("ETag");
      result.contentRange = reply->get_header_value("Content-Range");
    }
    return result;
  }

  std::string bytes;
  std::string path;
};

TEST_P(ResumeFaults, DownloadsCarryAStableStrongETagAndLastModified) {
  auto client = clientFor(*service);
  const auto first = client->Get(path.c_str());
  const auto second = client->Get(path.c_str());
  ASSERT_TRUE(first && second);
  const std::string etag = first->get_header_value("ETag");
  EXPECT_THAT(etag, MatchesPattern("\"[0-9a-f]+-[0-9a-f]+\""));
  EXPECT_EQ(second->get_header_value("ETag"), etag);
  EXPECT_THAT(first->get_header_value("Last-Modified"),
              MatchesPattern("[A-Z][a-z]{2}, [0-9]{2} [A-Z][a-z]{2} [0-9]{4} "
                             "[0-9]{2}:[0-9]{2}:[0-9]{2} GMT"));
}

TEST_P(ResumeFaults, AMatchingIfRangeGetsTheRange) {
  const auto whole = get(path);
  ASSERT_TRUE(whole.complete);
  const auto byEtag = get(path, {{"Range", "bytes=60000-"}, {"If-Range", whole.etag}});
  EXPECT_EQ(byEtag.status, 206);
  EXPECT_EQ(byEtag.contentRange, "bytes 60000-99999/100000");
  EXPECT_TRUE(sameBytes(byEtag.body, bytes.substr(60000)));

  auto client = clientFor(*service);
  const auto head = client->Get(path.c_str());
  ASSERT_TRUE(head);
  const auto byDate =
      get(path, {{"Range", "bytes=99000-"}, {"If-Range", head->get_header_value("Last-Modified")}});
  EXPECT_EQ(byDate.status, 206);
  EXPECT_TRUE(sameBytes(byDate.body, bytes.substr(99000)));
}

TEST_P(ResumeFaults, AnIfRangeOfAnotherVersionGetsTheWholeFile) {
  for (const char* other : {"\"0-0\"", "W/\"1\"", "Thu, 01 Jan 1970 00:00:00 GMT"}) {
    const auto result = get(path, {{"Range", "bytes=60000-"}, {"If-Range", other}});
    EXPECT_EQ(result.status, 200) << other;
    EXPECT_EQ(result.contentRange, "") << other;
    EXPECT_TRUE(sameBytes(result.body, bytes)) << other;
  }
  // A weak form of the current ETag does not validate a range either.
  const auto whole = get(path);
  const auto weak = get(path, {{"Range", "bytes=60000-"}, {"If-Range", "W/" + whole.etag}});
  EXPECT_EQ(weak.status, 200);
}

TEST_P(ResumeFaults, IgnoringTheRangeSendsTheWholeFile) {
  const auto result = get(path + "?quill_ignore_range=1", {{"Range", "bytes=60000-"}});
  EXPECT_TRUE(result.complete);
  EXPECT_EQ(result.status, 200);
  EXPECT_TRUE(sameBytes(result.body, bytes));
}

TEST_P(ResumeFaults, AChangedETagIsNewForEveryRequestAndFailsTheOldIfRange) {
  const auto whole = get(path);
  quill_fileservice::Fault changing;
  changing.pathPrefix = "/files/";
  changing.changeEtag = true;
  service->addFault(changing);
  const auto first = get(path, {{"Range", "bytes=60000-"}, {"If-Range", whole.etag}});
  const auto second = get(path, {{"Range", "bytes=60000-"}, {"If-Range", first.etag}});
  EXPECT_EQ(first.status, 200);
  EXPECT_EQ(second.status, 200);
  EXPECT_NE(first.etag, whole.etag);
  EXPECT_NE(second.etag, first.etag);
  EXPECT_TRUE(sameBytes(second.body, bytes));
  service->clearFaults();
  EXPECT_EQ(get(path).etag, whole.etag) << "without the fault the file's own ETag is back";
}

TEST_P(ResumeFaults, CutsFallAtMultiplesCountedFromTheFilesStart) {
  const std::string cut = path + "?quill_cut_every=30000";
  const auto first = get(cut);
  EXPECT_FALSE(first.complete);
  EXPECT_TRUE(sameBytes(first.body, bytes.substr(0, 30000)));
  // Resumed at a multiple: up to the next one.
  const auto second = get(cut, {{"Range", "bytes=30000-"}});
  EXPECT_FALSE(second.complete);
  EXPECT_TRUE(sameBytes(second.body, bytes.substr(30000, 30000)));
  // Resumed between multiples: up to the next one as well.
  const auto third = get(cut, {{"Range", "bytes=65000-"}});
  EXPECT_FALSE(third.complete);
  EXPECT_TRUE(sameBytes(third.body, bytes.substr(65000, 25000)));
  // The last piece ends with the file.
  const auto last = get(cut, {{"Range", "bytes=90000-"}});
  EXPECT_TRUE(last.complete);
  EXPECT_EQ(last.status, 206);
  EXPECT_TRUE(sameBytes(last.body, bytes.substr(90000)));
}

TEST_P(ResumeFaults, DropsAndStallsCountFromTheFilesStart) {
  const std::string drop = path + "?quill_drop_after=30000";
  const auto partly = get(drop, {{"Range", "bytes=10000-"}});
  EXPECT_FALSE(partly.complete);
  EXPECT_TRUE(sameBytes(partly.body, bytes.substr(10000, 20000)));
  const auto beyond = get(drop, {{"Range", "bytes=30000-"}});
  EXPECT_FALSE(beyond.complete);
  EXPECT_EQ(beyond.body.size(), 0u);

  auto client = clientFor(*service);
  client->set_read_timeout(std::chrono::milliseconds(300));
  std::string stalled;
  const auto reply =
      client->Get((path + "?quill_stall_after=30000").c_str(), {{"Range", "bytes=20000-"}},
                  [&](const char* data, std::size_t size) {
                    stalled.append(data, size);
                    return true;
                  });
  EXPECT_NE(reply.error(), httplib::Error::Success);
  EXPECT_TRUE(sameBytes(stalled, bytes.substr(20000, 10000)));
}

TEST_P(ResumeFaults, CutsComeAsRulesFromTheControlEndpoint) {
  auto client = clientFor(*service);
  const auto added =
      client->Post("/_control/faults",
                   R"([{"pathPrefix":"/files/","cutEveryBytes":40000,"times":1},)"
                   R"({"pathPrefix":"/files/","ignoreRange":true,"changeEtag":true,"times":1}])",
                   "application/json");
  ASSERT_TRUE(added);
  ASSERT_EQ(added->status, 200) << added->body;
  const auto cut = get(path);
  EXPECT_FALSE(cut.complete);
  EXPECT_EQ(cut.body.size(), 40000u);
  const auto whole = get(path, {{"Range", "bytes=40000-"}, {"If-Range", cut.etag}});
  EXPECT_EQ(whole.status, 200);
  EXPECT_NE(whole.etag, cut.etag);
  EXPECT_TRUE(sameBytes(whole.body, bytes));
}

INSTANTIATE_TEST_SUITE_P(Transports, ResumeFaults, ::testing::Bool(), transportName);

TEST(Validators, HttpDatesAreInTheFixedFormat) {
  EXPECT_EQ(quill_fileservice::detail::httpDate(0), "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(quill_fileservice::detail::httpDate(784111777), "Sun, 06 Nov 1994 08:49:37 GMT");
}

}  // namespace
