// The record kept beside a partial download, and the cleaning of old partial downloads.
#include "inner/StalePartials.h"
#include "task/ResumeRecord.h"

#include "TestSupport.h"

#include <quill_base/FileUtils.h>
#include <quill_base/JSONUtils.h>
#include <quill_base/LockedFile.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>

using cloud::ResumeRecord;
using quill_test::TempDir;

namespace {

ResumeRecord sample() {
  ResumeRecord record;
  record.url = "https://files.example/files/a.bin?x=1";
  record.finalPath = "/home/zoë/文件/a.bin";
  record.partialName = ".a.bin.0123.part";
  record.validator = "\"abc-123\"";
  record.bytes = 5368709120;  // beyond 4 GiB
  record.time = 1795000000;
  return record;
}

void writeText(const std::string& path, const std::string& text) {
  std::ofstream(std::filesystem::u8path(path), std::ios::binary) << text;
}

// Sets a file's modification time `days` before now.
void ageBy(const std::string& path, int days) {
  std::error_code error;
  std::filesystem::last_write_time(
      std::filesystem::u8path(path),
      std::filesystem::file_time_type::clock::now() - std::chrono::hours(24 * days), error);
  ASSERT_FALSE(error) << error.message();
}

std::int64_t now() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

TEST(ResumeRecord, ARecordReadsBackAsItWasWritten) {
  const auto parsed = ResumeRecord::parse(sample().toJson());
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(parsed->url, sample().url);
  EXPECT_EQ(parsed->finalPath, sample().finalPath);
  EXPECT_EQ(parsed->partialName, sample().partialName);
  EXPECT_EQ(parsed->validator, sample().validator);
  EXPECT_EQ(parsed->bytes, sample().bytes);
  EXPECT_EQ(parsed->time, sample().time);
  auto unknown = sample();
  unknown.validator.clear();
  ASSERT_TRUE(ResumeRecord::parse(unknown.toJson()).has_value())
      << "a record written before the first reply has no validator yet";
}

TEST(ResumeRecord, AnythingButAWholeRecordIsRefused) {
  const std::string whole = sample().toJson();
  EXPECT_FALSE(ResumeRecord::parse("").has_value());
  EXPECT_FALSE(ResumeRecord::parse(whole.substr(0, whole.size() / 2)).has_value()) << "torn";
  EXPECT_FALSE(ResumeRecord::parse("[]").has_value());
  for (const char* member : {"url", "finalPath", "partial", "validator", "bytes", "time"}) {
    Json::Value value;
    ASSERT_TRUE(JSONUtils::parseJSON(whole, value));
    value.removeMember(member);
    EXPECT_FALSE(
        ResumeRecord::parse(Json::writeString(Json::StreamWriterBuilder(), value)).has_value())
        << "without " << member;
  }
  auto bad = [](const std::function<void(ResumeRecord&)>& change) {
    auto record = sample();
    change(record);
    return !ResumeRecord::parse(record.toJson()).has_value();
  };
  EXPECT_TRUE(bad([](ResumeRecord& r) { r.partialName = "../escape.part"; }));
  EXPECT_TRUE(bad([](ResumeRecord& r) { r.partialName = "sub/dir.part"; }));
  EXPECT_TRUE(bad([](ResumeRecord& r) { r.partialName = "a.bin"; })) << "not a partial file";
  EXPECT_TRUE(bad([](ResumeRecord& r) { r.bytes = -1; }));
  EXPECT_TRUE(bad([](ResumeRecord& r) { r.url.clear(); }));
  EXPECT_FALSE(
      ResumeRecord::parse(R"({"url":"u","finalPath":"f","partial":".p.part","validator":"v",)"
                          R"("bytes":"7","time":1})")
          .has_value())
      << "a number as text";
}

TEST(ResumeRecord, TheRecordsNameComesFromTheUrlAndTheFinalPath) {
  const auto path = ResumeRecord::pathFor("/cache", "https://h/a", "/d/a.bin");
  EXPECT_EQ(path, ResumeRecord::pathFor("/cache", "https://h/a", "/d/a.bin"));
  EXPECT_NE(path, ResumeRecord::pathFor("/cache", "https://h/b", "/d/a.bin"));
  EXPECT_NE(path, ResumeRecord::pathFor("/cache", "https://h/a", "/d/b.bin"));
  EXPECT_NE(ResumeRecord::pathFor("/cache", "ab", "c"), ResumeRecord::pathFor("/cache", "a", "bc"));
  const auto name = FileUtils::fileName(path);
  EXPECT_EQ(name.size(), 1u + 32u + 7u) << name;
  EXPECT_EQ(name.front(), '.');
  EXPECT_EQ(name.substr(name.size() - 7), ".resume");
}

TEST(StalePartials, OnlyWhatIsOlderThanAWeekGoes) {
  TempDir cache;
  const auto oldPartial = cache.file(".old.bin.1.part");
  const auto newPartial = cache.file(".new.bin.2.part");
  const auto named = cache.file(".named.bin.3.part");
  const auto oldRecord = cache.file(".aaaa.resume");
  const auto newRecord = cache.file(".bbbb.resume");
  const auto someoneElses = cache.file("notes.txt");
  for (const auto& path : {oldPartial, newPartial, someoneElses}) {
    writeText(path, "x");
  }
  writeText(named, "recent bytes");
  auto record = sample();
  record.partialName = FileUtils::fileName(named);
  writeText(oldRecord, record.toJson());
  writeText(newRecord, sample().toJson());
  ageBy(oldPartial, 8);
  ageBy(oldRecord, 8);
  ageBy(someoneElses, 30);

  EXPECT_EQ(cloud::removeStalePartials(cache.path(), now()), 3u);
  EXPECT_FALSE(FileUtils::fileExists(oldPartial));
  EXPECT_FALSE(FileUtils::fileExists(oldRecord));
  EXPECT_FALSE(FileUtils::fileExists(named)) << "an old record takes its partial file with it";
  EXPECT_TRUE(FileUtils::fileExists(newPartial));
  EXPECT_TRUE(FileUtils::fileExists(newRecord));
  EXPECT_TRUE(FileUtils::fileExists(someoneElses)) << "not a partial download";
}

TEST(StalePartials, ARecordADownloadHoldsStays) {
  TempDir cache;
  const auto path = cache.file(".cccc.resume");
  writeText(path, sample().toJson());
  // Aged before it is held: Windows lets nobody touch a file its holder opened without sharing.
  ageBy(path, 9);
  auto held = LockedFile::tryLock(path);
  ASSERT_NE(held, nullptr);
  EXPECT_EQ(cloud::removeStalePartials(cache.path(), now()), 0u);
  EXPECT_TRUE(FileUtils::fileExists(path));
  EXPECT_EQ(cloud::removeStalePartials(TempDir().file("missing"), now()), 0u);
}
