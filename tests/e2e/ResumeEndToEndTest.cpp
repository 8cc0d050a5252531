// Downloads through the service that survive cuts (one stateCallback, the resumes counted in the
// timeline), restart from zero when the file changed or the server ignores Range, and fail with
// -100 and no partial file when the rest never comes; and what the host learns of a request's
// transfer through its endCause: the timeline of a success and of failures, with their cause in
// words.
#include "CloudEnvironment.h"
#include "Environment.h"
#include "SignedInFixture.h"
#include "Tracked.h"

#include <quill_base/FileUtils.h>
#include <quill_base/LockedFile.h>
#include <quill_base/TextUtils.h>

#include <json/json.h>

#include <gtest/gtest.h>

#include <filesystem>

using quill_test::CloudEnvironment;
using quill_test::readFile;
using quill_test::TempDir;
using quill_test::Tracked;

namespace {

struct ResumeAndTimeline : quill_test::SignedInFixture {
  void TearDown() override {
    CloudEnvironment::server().clearFaults();
    quill_test::unsetEnvironment("QUILL_HTTP_RESUME_WAIT_MS");
  }

  quill_fileservice::Fault faultOn(const std::string& path, int times) {
    quill_fileservice::Fault fault;
    fault.pathPrefix = path;
    fault.times = times;
    return fault;
  }
};

// What a download finds left by an earlier one in the cache directory.
struct LeftBehind : ResumeAndTimeline {
  void SetUp() override {
    ResumeAndTimeline::SetUp();
    // Made by the service on its queue once the user signed in.
    ASSERT_TRUE(quill_test::eventually([&] { return FileUtils::directoryExists(cache()); }));
  }

  std::string cache() const {
    return FileUtils::appendComponent(user.path(), "cloud_storage_caches");
  }
  // Where the service keeps the record of a download of `url` to `finalPath` (the format is the
  // library's own, written out here as the test's account of it).
  std::string recordPath(const std::string& url, const std::string& finalPath) const {
    return FileUtils::appendComponent(
        cache(), "." + TextUtils::hashString(url + '\0' + finalPath).substr(0, 32) + ".resume");
  }
  // Leaves `bytes` as a partial file with a record naming it; returns the record's path.
  std::string leave(const std::string& url, const std::string& finalPath, const std::string& bytes,
                    const std::string& validator, const std::string& recordedUrl = "") {
    Json::Value record(Json::objectValue);
    record["url"] = recordedUrl.empty() ? url : recordedUrl;
    record["finalPath"] = finalPath;
    record["partial"] = ".left.bin.1234.part";
    record["validator"] = validator;
    record["bytes"] = static_cast<Json::Int64>(bytes.size());
    record["time"] = 1;
    const std::string text = Json::writeString(Json::StreamWriterBuilder(), record);
    EXPECT_TRUE(FileUtils::writeNewFile(FileUtils::appendComponent(cache(), ".left.bin.1234.part"),
                                        bytes.data(), bytes.size()));
    const auto path = recordPath(url, finalPath);
    EXPECT_TRUE(FileUtils::writeNewFile(path, text.data(), text.size()));
    return path;
  }
};

// The suites' names say what they are about; the fixture is the same.
using Resume = ResumeAndTimeline;
using Timeline = ResumeAndTimeline;

}  // namespace

TEST_F(Timeline, ASuccessTellsWhereItsTimeWent) {
  const auto [local, path] = store(300 * 1024, 3);
  auto done = download(CloudEnvironment::url(path), "done.bin");
  ASSERT_TRUE(done.waitEnded());
  ASSERT_EQ(done.code(), CloudStorageResult::kSuccess) << done.cause().text;
  const CloudStorageTimeline timeline = done.cause().timeline;
  EXPECT_EQ(done.cause().text, "") << "a success has no cause";
  EXPECT_EQ(timeline.method, "GET");
  EXPECT_EQ(timeline.host, "127.0.0.1");
  EXPECT_FALSE(timeline.httpVersion.empty());
  EXPECT_EQ(timeline.httpStatus, 200);
  EXPECT_EQ(timeline.bytes, 300 * 1024);
  EXPECT_EQ(timeline.resumes, 0);
  EXPECT_GT(timeline.firstByteMs, 0);
  EXPECT_GE(timeline.endMs, timeline.firstByteMs);
  EXPECT_GT(timeline.bytesPerSecond, 0);
  EXPECT_EQ(timeline.cause, "");
}

TEST_F(Resume, ADownloadCutThreeTimesIsOneSuccessWithThreeResumes) {
  const auto [local, path] = store(1024 * 1024 + 3, 4);
  quill_fileservice::Fault cuts;
  cuts.pathPrefix = path;
  cuts.cutEveryBytes = 300 * 1024;
  CloudEnvironment::server().addFault(cuts);
  auto cut = download(CloudEnvironment::url(path), "cut.bin");
  ASSERT_TRUE(cut.waitEnded());
  EXPECT_EQ(cut.code(), CloudStorageResult::kSuccess) << cut.cause().text;
  EXPECT_EQ(cut.endCount(), 1);
  EXPECT_EQ(readFile(FileUtils::appendComponent(destination.path(), "cut.bin")), readFile(local));
  EXPECT_EQ(cut.cause().timeline.resumes, 3);
  EXPECT_EQ(cut.cause().timeline.bytes, 1024 * 1024 + 3);
  EXPECT_EQ(cut.cause().timeline.httpStatus, 200);
}

TEST_F(Timeline, FailuresSayTheirCauseInWords) {
  const auto [local, path] = store(1000, 5);
  auto refused = download(CloudEnvironment::url(path + "?quill_status=503"), "refused.bin");
  ASSERT_TRUE(refused.waitEnded());
  EXPECT_EQ(refused.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(refused.cause().timeline.cause, "HTTP 503");
  EXPECT_EQ(refused.cause().timeline.httpStatus, 503);

  auto nowhere = download("http://127.0.0.1:1/nothing-listens-here", "nowhere.bin");
  ASSERT_TRUE(nowhere.waitEnded());
  EXPECT_EQ(nowhere.cause().timeline.cause, "connection refused");
  EXPECT_EQ(nowhere.cause().timeline.httpVersion, "") << "no reply came";
  EXPECT_EQ(nowhere.cause().timeline.httpStatus, 0);
}

TEST_F(Resume, A256MiBDownloadCutEvery32MiBArrivesWholeWithSevenResumes) {
  const std::size_t size = 256u * 1024 * 1024;
  const auto [local, path] = store(size, 6);
  auto cuts = faultOn(path, -1);
  cuts.cutEveryBytes = 32 * 1024 * 1024;
  CloudEnvironment::server().addFault(cuts);
  auto big = download(CloudEnvironment::url(path), "big.bin");
  ASSERT_TRUE(big.waitEnded(std::chrono::minutes(5)));
  EXPECT_EQ(big.code(), CloudStorageResult::kSuccess) << big.cause().text;
  EXPECT_EQ(big.endCount(), 1);
  EXPECT_EQ(big.cause().timeline.resumes, 7);
  EXPECT_EQ(big.cause().timeline.bytes, static_cast<std::int64_t>(size));
  EXPECT_TRUE(
      FileUtils::sameContent(FileUtils::appendComponent(destination.path(), "big.bin"), local));
}

TEST_F(Resume, AFileChangedMidWayOrARangeIgnoredStartsOverAndArrivesWhole) {
  for (const bool ignoreRange : {false, true}) {
    SCOPED_TRACE(ignoreRange ? "Range ignored" : "ETag changed");
    const auto [local, path] = store(3 * 1024 * 1024, ignoreRange ? 7 : 8);
    auto cut = faultOn(path, 1);
    cut.dropAfterBytes = 1024 * 1024;
    auto whole = faultOn(path, 1);
    whole.ignoreRange = ignoreRange;
    whole.changeEtag = !ignoreRange;
    CloudEnvironment::server().addFault(cut);
    CloudEnvironment::server().addFault(whole);
    const std::string name = ignoreRange ? "ignored.bin" : "changed.bin";
    auto again = download(CloudEnvironment::url(path), name);
    ASSERT_TRUE(again.waitEnded());
    EXPECT_EQ(again.code(), CloudStorageResult::kSuccess) << again.cause().text;
    EXPECT_EQ(again.endCount(), 1);
    EXPECT_EQ(again.cause().timeline.resumes, 1);
    EXPECT_EQ(again.cause().timeline.bytes, 4 * 1024 * 1024) << "1 MiB, then the whole 3 MiB";
    EXPECT_TRUE(
        FileUtils::sameContent(FileUtils::appendComponent(destination.path(), name), local));
  }
}

TEST_F(Resume, SixCutsInARowWithoutAByteFailWithMinus100AndLeaveNothing) {
  quill_test::setEnvironment("QUILL_HTTP_RESUME_WAIT_MS", "20");
  const auto [local, path] = store(2 * 1024 * 1024, 9);
  auto cut = faultOn(path, -1);
  cut.dropAfterBytes = 500 * 1024;  // counted from the file's start: the rest never comes
  CloudEnvironment::server().addFault(cut);
  auto never = download(CloudEnvironment::url(path), "never.bin");
  ASSERT_TRUE(never.waitEnded());
  EXPECT_EQ(never.code(), CloudStorageResult::kTransferFailed);
  EXPECT_EQ(never.message(), "200");
  EXPECT_EQ(never.endCount(), 1);
  EXPECT_EQ(never.cause().timeline.resumes, 6);
  EXPECT_EQ(never.cause().timeline.cause, "closed before the end of the body");
  EXPECT_EQ(quill_test::entriesIn(destination.path()), 0u) << "no file at the final path";
  EXPECT_EQ(quill_test::entriesIn(FileUtils::appendComponent(user.path(), "cloud_storage_caches")),
            0u)
      << "no partial file left";
}

TEST_F(LeftBehind, APartialFileOfAnotherVersionIsFetchedAgainWhole) {
  const auto [local, path] = store(1024 * 1024, 10);
  const auto url = CloudEnvironment::url(path);
  const auto finalPath = FileUtils::appendComponent(destination.path(), "v.bin");
  leave(url, finalPath, std::string(300 * 1024, 'x'), "\"another-version\"");
  auto again = download(url, "v.bin");
  ASSERT_TRUE(again.waitEnded());
  EXPECT_EQ(again.code(), CloudStorageResult::kSuccess) << again.cause().text;
  EXPECT_EQ(again.cause().timeline.bytes, 1024 * 1024) << "If-Range failed: the whole file came";
  EXPECT_EQ(readFile(finalPath), readFile(local));
  EXPECT_EQ(quill_test::entriesIn(cache()), 0u);
}

TEST_F(LeftBehind, ARecordOfAnotherDownloadIsNeverResumedInto) {
  const auto [local, path] = store(1024 * 1024, 11);
  const auto url = CloudEnvironment::url(path);
  const auto finalPath = FileUtils::appendComponent(destination.path(), "w.bin");
  // Where this download's record would be, one for another URL with a file of the right size.
  leave(url, finalPath, readFile(local).substr(0, 512 * 1024), "\"whatever\"", url + "?other");
  auto fresh = download(url, "w.bin");
  ASSERT_TRUE(fresh.waitEnded());
  EXPECT_EQ(fresh.code(), CloudStorageResult::kSuccess) << fresh.cause().text;
  EXPECT_EQ(fresh.cause().timeline.bytes, 1024 * 1024);
  EXPECT_EQ(readFile(finalPath), readFile(local));
  EXPECT_EQ(quill_test::entriesIn(cache()), 0u) << "the useless record and its file are gone";
}

TEST_F(LeftBehind, ARecordAnotherDownloadHoldsIsLeftAlone) {
  const auto [local, path] = store(256 * 1024, 12);
  const auto url = CloudEnvironment::url(path);
  const auto finalPath = FileUtils::appendComponent(destination.path(), "h.bin");
  auto held = LockedFile::tryLock(recordPath(url, finalPath));
  ASSERT_NE(held, nullptr);
  ASSERT_TRUE(held->replace("held elsewhere"));
  auto other = download(url, "h.bin");
  ASSERT_TRUE(other.waitEnded());
  EXPECT_EQ(other.code(), CloudStorageResult::kSuccess) << other.cause().text;
  EXPECT_EQ(readFile(finalPath), readFile(local));
  EXPECT_EQ(held->read(), "held elsewhere");
  EXPECT_EQ(quill_test::entriesIn(cache()), 1u) << "only the held record";
}

// What the cache directory holds while a download is under way: "<name>.part" files and
// ".<hash>.resume" records.
struct CacheCounts {
  std::size_t partials = 0;
  std::size_t records = 0;
};

CacheCounts countCache(const std::string& cache) {
  CacheCounts counts;
  std::error_code error;
  for (std::filesystem::directory_iterator it(std::filesystem::u8path(cache), error), end;
       !error && it != end; it.increment(error)) {
    const auto name = it->path().filename().u8string();
    const auto endsWith = [&](const std::string& ending) {
      return name.size() > ending.size() &&
             name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
    };
    counts.partials += endsWith(".part") ? 1 : 0;
    counts.records += endsWith(".resume") ? 1 : 0;
  }
  return counts;
}

TEST_F(LeftBehind, AFileOfAMebibyteOrMoreGetsARecordWhileItDownloads) {
  const auto [local, path] = store(2 * 1024 * 1024, 13);
  // Slowed, so that it is still under way while the directory is looked at.
  auto big = download(CloudEnvironment::url(path) + "?quill_rate=1000000", "big.bin");
  EXPECT_TRUE(quill_test::eventually([&] { return countCache(cache()).records == 1; }))
      << "a record beside the partial file";
  EXPECT_EQ(countCache(cache()).partials, 1u);
  ASSERT_TRUE(big.waitEnded(std::chrono::seconds(30)));
  EXPECT_EQ(big.code(), CloudStorageResult::kSuccess) << big.cause().text;
  EXPECT_EQ(quill_test::entriesIn(cache()), 0u) << "record and partial file gone with the download";
}

TEST_F(LeftBehind, ASmallFileGoesWithoutARecord) {
  const auto [local, path] = store(256 * 1024, 14);
  Tracked small(false, CloudStorageKind::kFile);
  small.request->url = CloudEnvironment::url(path) + "?quill_rate=100000";
  small.request->directory = destination.path();
  small.request->fileName = "small.bin";
  small.recordProgress();
  ASSERT_TRUE(service->excuteRequest(small.request));
  // Well into the body. Progress is reported on the service's queue after whatever the first
  // reply posted there (a record is made then or never), so the record would be there by now.
  ASSERT_TRUE(quill_test::eventually([&] {
    const auto percents = small.percents();
    return !percents.empty() && percents.back() >= 40;
  }));
  EXPECT_EQ(countCache(cache()).partials, 1u);
  EXPECT_EQ(countCache(cache()).records, 0u) << "fetching 256 KiB again costs less than a record";
  ASSERT_TRUE(small.waitEnded(std::chrono::seconds(30)));
  EXPECT_EQ(small.code(), CloudStorageResult::kSuccess) << small.cause().text;
  EXPECT_EQ(readFile(FileUtils::appendComponent(destination.path(), "small.bin")), readFile(local));
}

TEST_F(LeftBehind, SigningInRemovesPartialsOlderThanAWeek) {
  const auto old = FileUtils::appendComponent(cache(), ".old.bin.5678.part");
  const auto recent = FileUtils::appendComponent(cache(), ".recent.bin.9abc.part");
  ASSERT_TRUE(FileUtils::writeNewFile(old, "o", 1));
  ASSERT_TRUE(FileUtils::writeNewFile(recent, "r", 1));
  std::error_code error;
  std::filesystem::last_write_time(
      std::filesystem::u8path(old),
      std::filesystem::file_time_type::clock::now() - std::chrono::hours(24 * 8), error);
  ASSERT_FALSE(error) << error.message();
  TempDir other;
  service->changeUser("app", "pin", other.path());
  service->changeUser("app", "pin", user.path());
  EXPECT_TRUE(quill_test::eventually([&] { return !FileUtils::fileExists(old); }));
  EXPECT_TRUE(FileUtils::fileExists(recent));
}
