// Downloads of stored files, addFile() and storedFile(), and the redirect route, over HTTP and
// HTTPS.
#include "FileServiceTestSupport.h"

using namespace fileservice_test;

namespace {

class DownloadRoutes : public ServiceTest {};

TEST_P(DownloadRoutes, AnAddedFileIsServedWithItsLengthAndBytes) {
  const std::string bytes = randomBytes(1024 * 1024 + 17, 11);
  writeFile(data.file("local.jpg"), bytes);
  const std::string path = service->addFile("avatar-1.jpg", data.file("local.jpg"));
  EXPECT_EQ(path, "/files/avatar-1.jpg");

  const auto result = clientFor(*service)->Get(path.c_str());
  ASSERT_TRUE(result) << httplib::to_string(result.error());
  EXPECT_EQ(result->status, 200);
  EXPECT_EQ(result->get_header_value("Content-Length"), std::to_string(bytes.size()));
  EXPECT_EQ(result->get_header_value("Content-Type"), "image/jpeg");
  EXPECT_TRUE(sameBytes(result->body, bytes));
}

TEST_P(DownloadRoutes, AnEmptyFileIsServedEmpty) {
  writeFile(data.file("empty"), "");
  const std::string path = service->addFile("empty.bin", data.file("empty"));
  const auto result = clientFor(*service)->Get(path.c_str());
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 200);
  EXPECT_EQ(result->get_header_value("Content-Length"), "0");
  EXPECT_EQ(result->body, "");
}

TEST_P(DownloadRoutes, UnknownPathsAnswer404) {
  auto client = clientFor(*service);
  for (const char* path : {"/files/missing.jpg", "/objects/missing", "/vod/missing.mp4"}) {
    const auto result = client->Get(path);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 404) << path;
  }
  EXPECT_EQ(client->Get("/elsewhere")->status, 404);
}

TEST_P(DownloadRoutes, HeadGivesTheLengthWithoutTheBody) {
  writeFile(data.file("h"), randomBytes(4096));
  const std::string path = service->addFile("h.bin", data.file("h"));
  const auto result = clientFor(*service)->Head(path.c_str());
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 200);
  EXPECT_EQ(result->get_header_value("Content-Length"), "4096");
  EXPECT_TRUE(result->body.empty());
}

TEST_P(DownloadRoutes, ARangeRequestGetsThoseBytes) {
  const std::string bytes = randomBytes(200000, 13);
  writeFile(data.file("r"), bytes);
  const std::string path = service->addFile("r.bin", data.file("r"));
  const auto result =
      clientFor(*service)->Get(path.c_str(), {httplib::make_range_header({{100000, -1}})});
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 206);
  EXPECT_TRUE(sameBytes(result->body, bytes.substr(100000)));
  const auto middle =
      clientFor(*service)->Get(path.c_str(), {httplib::make_range_header({{10, 19}})});
  ASSERT_TRUE(middle);
  EXPECT_EQ(middle->status, 206);
  EXPECT_TRUE(sameBytes(middle->body, bytes.substr(10, 10)));
}

TEST_P(DownloadRoutes, StoredFileMapsEveryFormOfAPathToTheLocalFile) {
  writeFile(data.file("s"), "stored");
  ASSERT_EQ(service->addFile("s p.txt", data.file("s")), "/files/s%20p.txt");
  const std::string local = service->storedFile("/files/s%20p.txt");
  ASSERT_FALSE(local.empty());
  EXPECT_EQ(readFile(local), "stored");
  EXPECT_EQ(service->storedFile("//" + host() + "/files/s%20p.txt?x=1"), local);
  EXPECT_EQ(service->storedFile(scheme() + "://" + host() + "/files/s p.txt"), local);
  EXPECT_EQ(service->storedFile("/files/other.txt"), "");
  EXPECT_EQ(service->storedFile("/objects/s%20p.txt"), "");
  EXPECT_EQ(service->storedFile("/files/../store/files/s%20p.txt"), "");
  EXPECT_EQ(service->storedFile("/elsewhere/s%20p.txt"), "");
}

TEST_P(DownloadRoutes, AddFileRefusesBadKeysAndMissingFiles) {
  writeFile(data.file("a"), "a");
  EXPECT_EQ(service->addFile("../a", data.file("a")), "");
  EXPECT_EQ(service->addFile("x/y", data.file("a")), "");
  EXPECT_EQ(service->addFile("", data.file("a")), "");
  EXPECT_EQ(service->addFile("ok", data.file("does-not-exist")), "");
  EXPECT_EQ(service->storedFile("/files/ok"), "");
}

TEST_P(DownloadRoutes, RedirectsCountDownTheHopsAndEndAtTheTarget) {
  writeFile(data.file("t"), "target bytes");
  const std::string path = service->addFile("t.txt", data.file("t"));
  auto client = clientFor(*service);

  const auto first = client->Get(("/redirect?to=" + path + "&hops=3").c_str());
  ASSERT_TRUE(first);
  EXPECT_EQ(first->status, 302);
  // The server sends "/redirect?to=%2Ffiles%2Ft.txt&hops=2"; httplib's client decodes Location.
  EXPECT_EQ(first->get_header_value("Location"), "/redirect?to=/files/t.txt&hops=2");
  const auto last = client->Get(("/redirect?to=" + path + "&hops=1").c_str());
  ASSERT_TRUE(last);
  EXPECT_EQ(last->status, 302);
  EXPECT_EQ(last->get_header_value("Location"), path);

  const std::uint64_t before = service->requestCount();
  client->set_follow_location(true);
  const auto followed = client->Get(("/redirect?to=" + path + "&hops=3").c_str());
  ASSERT_TRUE(followed) << httplib::to_string(followed.error());
  EXPECT_EQ(followed->status, 200);
  EXPECT_EQ(followed->body, "target bytes");
  EXPECT_EQ(service->requestCount(), before + 4);

  client->set_follow_location(false);
  EXPECT_EQ(client->Get("/redirect?hops=2")->status, 400);
}

INSTANTIATE_TEST_SUITE_P(Transports, DownloadRoutes, ::testing::Bool(), transportName);

}  // namespace
