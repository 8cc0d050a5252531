// The service's building blocks on their own: key rules, URL paths, percent coding, forms,
// signatures and tokens, fault parsing and fault rules, staged files.
#include "TestSupport.h"

#include "detail/Faults.h"
#include "detail/Forms.h"
#include "detail/Signer.h"
#include "detail/Storage.h"
#include "detail/WorkerPool.h"

#include <quill_base/JSONUtils.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

using namespace quill_fileservice::detail;

namespace {

TEST(Keys, PlainNamesAreValid) {
  for (const char* key :
       {"a", "0f4c-11.jpg", "my file.txt", "a.b.c", "\xc3\xa9t\xc3\xa9", "x~y+z"}) {
    EXPECT_TRUE(isValidKey(key)) << key;
  }
  EXPECT_FALSE(isValidKey("a..b"));  // ".." anywhere is refused, even inside a name
}

TEST(Keys, KeysThatCouldLeaveTheirDirectoryAreRefused) {
  for (const std::string& key :
       {std::string(), std::string("."), std::string(".."), std::string("../x"),
        std::string("x/.."), std::string("a/b"), std::string("/abs"), std::string("a\\b"),
        std::string("a\0b", 3), std::string("tab\there"), std::string(".staging-x"),
        std::string(256, 'k')}) {
    EXPECT_FALSE(isValidKey(key)) << key;
  }
  EXPECT_TRUE(isValidKey(std::string(255, 'k')));
}

TEST(Keys, PlainExtensionsAreKept) {
  EXPECT_EQ(plainExtension("photo.jpg"), ".jpg");
  EXPECT_EQ(plainExtension("archive.tar.GZ"), ".GZ");
  EXPECT_EQ(plainExtension("dir/photo.png"), ".png");
  EXPECT_EQ(plainExtension("README"), "");
  EXPECT_EQ(plainExtension(".bashrc"), "");
  EXPECT_EQ(plainExtension("a."), "");
  EXPECT_EQ(plainExtension("a.j/pg"), "");
  EXPECT_EQ(plainExtension("a.ex%2e"), "");
  EXPECT_EQ(plainExtension("a.abcdefghijklmnopq"), "");
}

TEST(UrlPaths, ParseSplitsAreaAndDecodedKey) {
  Area area = Area::Files;
  std::string key;
  ASSERT_TRUE(Storage::parseUrlPath("/objects/a%20b.txt", area, key));
  EXPECT_EQ(area, Area::Objects);
  EXPECT_EQ(key, "a b.txt");
  ASSERT_TRUE(Storage::parseUrlPath("https://h:1/vod/x.mp4?token=1", area, key));
  EXPECT_EQ(area, Area::Vod);
  EXPECT_EQ(key, "x.mp4");
  ASSERT_TRUE(Storage::parseUrlPath("//h/files/k#frag", area, key));
  EXPECT_EQ(area, Area::Files);
  EXPECT_EQ(key, "k");
  for (const char* path : {"/files/", "/files/%2e%2e", "/files/a/b", "/files/a%2fb", "/other/k",
                           "files/k", "//h", "/files/..%5cx"}) {
    EXPECT_FALSE(Storage::parseUrlPath(path, area, key)) << path;
  }
}

TEST(UrlPaths, UrlPathEncodesTheKeyAsOneSegment) {
  EXPECT_EQ(Storage::urlPath(Area::Files, "a b+c.jpg"), "/files/a%20b%2Bc.jpg");
  EXPECT_EQ(Storage::urlPath(Area::Vod, "id.mp4"), "/vod/id.mp4");
}

TEST(PercentCoding, RoundTripsEveryByte) {
  std::string all;
  for (int c = 0; c < 256; ++c) {
    all.push_back(static_cast<char>(c));
  }
  const std::string encoded = percentEncode(all);
  EXPECT_EQ(encoded.find_first_not_of(
                "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~%"),
            std::string::npos);
  EXPECT_EQ(percentDecode(encoded, false), all);
}

TEST(PercentCoding, DecodingLeavesBrokenEscapesAndPlusAsTheyAre) {
  EXPECT_EQ(percentDecode("a%2", false), "a%2");
  EXPECT_EQ(percentDecode("a%zz", false), "a%zz");
  EXPECT_EQ(percentDecode("a+b", false), "a+b");
  EXPECT_EQ(percentDecode("a+b", true), "a b");
  EXPECT_EQ(percentDecode("%41%6a", false), "Aj");
}

TEST(Forms, UrlEncodedFieldsAreDecodedAndTheFirstValueWins) {
  const auto form = parseUrlEncoded("appId=a%20b&key=x+y&empty=&flag&key=second&&pin=%2B1");
  EXPECT_EQ(form.at("appId"), "a b");
  EXPECT_EQ(form.at("key"), "x y");
  EXPECT_EQ(form.at("empty"), "");
  EXPECT_EQ(form.at("flag"), "");
  EXPECT_EQ(form.at("pin"), "+1");
  EXPECT_EQ(form.size(), 5u);
  EXPECT_TRUE(parseUrlEncoded("").empty());
}

TEST(Signatures, AGrantChecksOutForItsKeyOnly) {
  const Signer signer("secret", 60);
  const Signer::ObjectGrant grant = signer.grantObject("k.bin");
  const std::string expires = std::to_string(grant.expires);
  EXPECT_EQ(grant.signature, Signer::hmacHex("secret", "k.bin\n" + expires));
  EXPECT_EQ(signer.checkObject("k.bin", expires, grant.signature), Signer::Verdict::Valid);
  EXPECT_EQ(signer.checkObject("k2.bin", expires, grant.signature), Signer::Verdict::BadSignature);
  EXPECT_EQ(signer.checkObject("k.bin", std::to_string(grant.expires + 1), grant.signature),
            Signer::Verdict::BadSignature);
  EXPECT_EQ(signer.checkObject("k.bin", expires + " ", grant.signature),
            Signer::Verdict::BadSignature);
  EXPECT_EQ(signer.checkObject("k.bin", expires, ""), Signer::Verdict::BadSignature);
  EXPECT_EQ(Signer("other", 60).checkObject("k.bin", expires, grant.signature),
            Signer::Verdict::BadSignature);
}

TEST(Signatures, HmacMatchesAKnownVector) {
  // RFC 4231, test case 2.
  EXPECT_EQ(Signer::hmacHex("Jefe", "what do ya want for nothing?"),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

TEST(Signatures, AStaleGrantIsExpiredNotBad) {
  const Signer signer("secret", -2);
  const Signer::ObjectGrant grant = signer.grantObject("k");
  EXPECT_EQ(signer.checkObject("k", std::to_string(grant.expires), grant.signature),
            Signer::Verdict::Expired);
}

TEST(Signatures, RandomSecretsDifferBetweenSigners) {
  const Signer first("", 60);
  const Signer second("", 60);
  const auto grant = first.grantObject("k");
  EXPECT_EQ(first.checkObject("k", std::to_string(grant.expires), grant.signature),
            Signer::Verdict::Valid);
  EXPECT_EQ(second.checkObject("k", std::to_string(grant.expires), grant.signature),
            Signer::Verdict::BadSignature);
}

TEST(VideoTokens, ATokenNamesItsIdAndResistsTampering) {
  const Signer signer("secret", 60);
  const std::string token = signer.videoToken("0b1c-id");
  std::string id;
  EXPECT_EQ(signer.checkVideoToken(token, id), Signer::Verdict::Valid);
  EXPECT_EQ(id, "0b1c-id");

  std::string otherId = token;
  otherId[0] = '1';
  std::string later = token;
  const auto dot = later.find('.');
  later[dot + 1] = later[dot + 1] == '9' ? '8' : '9';
  for (const std::string& bad : {otherId, later, std::string(), std::string("a.b"),
                                 std::string("..."), token + "0", token.substr(1)}) {
    std::string unchanged = "untouched";
    EXPECT_EQ(signer.checkVideoToken(bad, unchanged), Signer::Verdict::BadSignature) << bad;
    EXPECT_EQ(unchanged, "untouched");
  }
  std::string staleId;
  EXPECT_EQ(Signer("secret", -2).checkVideoToken(Signer("secret", -2).videoToken("v"), staleId),
            Signer::Verdict::Expired);
}

TEST(FaultParsing, QueryParametersMakeAFault) {
  EXPECT_FALSE(faultFromQuery({}).has_value());
  EXPECT_FALSE(faultFromQuery({{"expires", "1"}, {"quill_status", "abc"}}).has_value());
  const auto fault = faultFromQuery({{"quill_status", "503"},
                                     {"quill_body", "x y"},
                                     {"quill_delay_ms", "20"},
                                     {"quill_rate", "1000"},
                                     {"quill_drop_after", "10"},
                                     {"quill_stall_after", "0"},
                                     {"quill_cut_every", "7"},
                                     {"quill_ignore_range", "1"},
                                     {"quill_change_etag", "0"}});
  ASSERT_TRUE(fault.has_value());
  EXPECT_EQ(fault->status, 503);
  EXPECT_TRUE(fault->hasBody);
  EXPECT_EQ(fault->body, "x y");
  EXPECT_EQ(fault->delayMs, 20);
  EXPECT_EQ(fault->bytesPerSecond, 1000);
  EXPECT_EQ(fault->dropAfterBytes, 10);
  EXPECT_EQ(fault->stallAfterBytes, 0);
  EXPECT_EQ(fault->cutEveryBytes, 7);
  EXPECT_TRUE(fault->ignoreRange);
  EXPECT_FALSE(fault->changeEtag);
  EXPECT_TRUE(replacesReply(*fault));
  EXPECT_TRUE(shapesBody(*fault));
  const auto empty = faultFromQuery({{"quill_body", ""}});
  ASSERT_TRUE(empty.has_value());
  EXPECT_TRUE(empty->hasBody);
  EXPECT_TRUE(replacesReply(*empty));
  EXPECT_FALSE(shapesBody(*empty));
}

TEST(FaultParsing, JsonRoundTrips) {
  Json::Value json;
  ASSERT_TRUE(JSONUtils::parseJSON(
      R"({"pathPrefix":"/f","host":"h:1","times":2,"status":500,"body":"b","delayMs":3,)"
      R"("bytesPerSecond":4,"dropAfterBytes":5,"stallAfterBytes":6,"cutEveryBytes":7,)"
      R"("ignoreRange":true,"changeEtag":true})",
      json));
  quill_fileservice::Fault fault;
  std::string error;
  ASSERT_TRUE(faultFromJson(json, fault, error)) << error;
  EXPECT_EQ(fault.pathPrefix, "/f");
  EXPECT_EQ(fault.host, "h:1");
  EXPECT_EQ(fault.times, 2);
  EXPECT_EQ(fault.status, 500);
  EXPECT_TRUE(fault.hasBody);
  EXPECT_EQ(fault.body, "b");
  EXPECT_EQ(fault.delayMs, 3);
  EXPECT_EQ(fault.bytesPerSecond, 4);
  EXPECT_EQ(fault.dropAfterBytes, 5);
  EXPECT_EQ(fault.stallAfterBytes, 6);
  EXPECT_EQ(fault.cutEveryBytes, 7);
  EXPECT_TRUE(fault.ignoreRange);
  EXPECT_TRUE(fault.changeEtag);
  EXPECT_EQ(faultToJson(fault), json);

  Json::Value minimal(Json::objectValue);
  quill_fileservice::Fault defaults;
  ASSERT_TRUE(faultFromJson(minimal, defaults, error));
  EXPECT_EQ(defaults.times, -1);
  EXPECT_FALSE(defaults.hasBody);
  EXPECT_EQ(defaults.dropAfterBytes, -1);
  EXPECT_EQ(defaults.cutEveryBytes, -1);
  EXPECT_FALSE(defaults.ignoreRange);
  EXPECT_FALSE(defaults.changeEtag);
  EXPECT_FALSE(replacesReply(defaults));
  EXPECT_FALSE(shapesBody(defaults));
}

TEST(FaultRules, TheFirstMatchIsTakenAndUsedUp) {
  FaultRules rules;
  quill_fileservice::Fault once;
  once.pathPrefix = "/files/";
  once.status = 500;
  once.times = 1;
  quill_fileservice::Fault hostOnly;
  hostOnly.host = "LocalHost:80";
  hostOnly.status = 502;
  rules.add(once);
  rules.add(hostOnly);
  quill_fileservice::Fault never;
  never.times = 0;
  rules.add(never);
  EXPECT_EQ(rules.list().size(), 2u);

  EXPECT_EQ(rules.take("/files/a", "127.0.0.1:80")->status, 500);
  EXPECT_FALSE(rules.take("/files/a", "127.0.0.1:80").has_value());
  EXPECT_EQ(rules.take("/files/a", "localhost:80")->status, 502);
  EXPECT_EQ(rules.take("/anything", "localhost:80")->status, 502);
  EXPECT_FALSE(rules.take("/anything", "localhost:81").has_value());
  EXPECT_EQ(rules.list().size(), 1u);
  rules.clear();
  EXPECT_FALSE(rules.take("/anything", "localhost:80").has_value());
}

TEST(StagedFiles, AppearOnlyWhenCommitted) {
  quill_test::TempDir dir;
  const Storage storage(dir.path());
  std::string error;
  ASSERT_TRUE(storage.prepare(error)) << error;
  {
    StagedFile staged(storage, Area::Objects);
    ASSERT_TRUE(staged.open());
    ASSERT_TRUE(staged.write("abc", 3));
    EXPECT_EQ(storage.existingFile(Area::Objects, "k"), "");
    ASSERT_TRUE(staged.commit("k"));
    EXPECT_EQ(staged.size(), 3u);
  }
  const std::string path = storage.existingFile(Area::Objects, "k");
  ASSERT_FALSE(path.empty());
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(), "abc");
  {
    StagedFile abandoned(storage, Area::Objects);
    ASSERT_TRUE(abandoned.open());
    ASSERT_TRUE(abandoned.write("zzz", 3));
  }
  {
    StagedFile refused(storage, Area::Objects);
    ASSERT_TRUE(refused.open());
    EXPECT_FALSE(refused.commit("../k"));
  }
  std::size_t entries = 0;
  for (const auto& entry : std::filesystem::directory_iterator(storage.directory(Area::Objects))) {
    (void)entry;
    ++entries;
  }
  EXPECT_EQ(entries, 1u);  // no staging file left behind
}

// A gate that jobs wait at until the test opens it.
class Gate {
public:
  void wait() {
    std::unique_lock<std::mutex> lock(mutex);
    opened.wait(lock, [this] { return isOpen; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(mutex);
    isOpen = true;
    opened.notify_all();
  }

private:
  std::mutex mutex;
  std::condition_variable opened;
  bool isOpen = false;
};

TEST(WorkerPool, StartsWorkersAsJobsNeedThemUpToItsLimit) {
  WorkerPool pool(3);
  EXPECT_EQ(pool.threadCount(), 0u);
  Gate gate;
  quill_test::EventCounter started;
  quill_test::EventCounter finished;
  for (int i = 0; i < 5; ++i) {
    pool.enqueue([&] {
      started.add();
      gate.wait();
      finished.add();
    });
  }
  ASSERT_TRUE(started.waitFor(3));
  EXPECT_EQ(pool.threadCount(), 3u);
  EXPECT_EQ(started.value(), 3);  // the other two wait for a free worker
  gate.open();
  ASSERT_TRUE(finished.waitFor(5));
  pool.shutdown();
  EXPECT_EQ(pool.threadCount(), 0u);
}

TEST(WorkerPool, ShutdownRunsTheQueuedJobsFirst) {
  WorkerPool pool(1);
  Gate gate;
  quill_test::EventCounter started;
  int ran = 0;  // touched by the one worker only, read after the join
  pool.enqueue([&] {
    started.add();
    gate.wait();
    ++ran;
  });
  for (int i = 0; i < 3; ++i) {
    pool.enqueue([&] { ++ran; });
  }
  ASSERT_TRUE(started.waitFor(1));
  gate.open();
  pool.shutdown();
  EXPECT_EQ(ran, 4);
}

}  // namespace
