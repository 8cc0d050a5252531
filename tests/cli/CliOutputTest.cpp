// quill-cloud's results: each printed as its transfer ends, the JSON record's fields, and
// --no-clobber against replacing a file that is already there.
#include "CliFixture.h"

#include <quill_cloud/CloudStorageCodes.h>

#include <filesystem>
#include <fstream>
#include <regex>

using cli_test::CliTest;
using quill_test::CloudEnvironment;

namespace {

std::string readAll(const std::string& path) {
  std::ifstream in(std::filesystem::u8path(path), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST_F(CliTest, EachResultIsPrintedWhenItsTransferEnds) {
  const auto [slowLocal, slowPath] = serve("slow-first.bin", 128 * 1024);
  const auto [quickLocal, quickPath] = serve("quick-second.bin", 1000);
  const auto destination = work.file("order");
  // The slow one is named first and ends last (about two seconds at 64 KiB/s).
  const auto outcome =
      run(withIdentity({"download", CloudEnvironment::url(slowPath + "?quill_rate=65536"),
                        CloudEnvironment::url(quickPath), "--dir", destination}));
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  const auto printed = lines(outcome.output);
  ASSERT_EQ(printed.size(), 2u) << outcome.output;
  EXPECT_EQ(normalPath(printed[0]),
            normalPath(FileUtils::appendComponent(destination, FileUtils::fileName(quickPath))));
  EXPECT_EQ(normalPath(printed[1]),
            normalPath(FileUtils::appendComponent(destination, FileUtils::fileName(slowPath))));
}

TEST_F(CliTest, JsonRecordsHaveABooleanOkMillisecondsACauseAndARealPath) {
  const auto [local, path] = serve("record.bin", 40 * 1024);
  const auto missingUrl = CloudEnvironment::url("/files/" + TextUtils::UUID_String() + "-none.bin");
  const auto destination = work.file("records");
  const auto outcome = run(withIdentity(
      {"--json", "download", CloudEnvironment::url(path), missingUrl, "--dir", destination}));
  EXPECT_EQ(outcome.status, 1) << outcome.errors;
  const auto printed = lines(outcome.output);
  ASSERT_EQ(printed.size(), 2u) << outcome.output;
  // "seconds" is written with at most three decimals.
  const std::regex seconds("\"seconds\":[0-9]+(\\.[0-9]{1,3})?[,}]");
  for (const auto& line : printed) {
    EXPECT_TRUE(std::regex_search(line, seconds)) << line;
  }

  auto records = recordsBySource(outcome.output);
  const auto good = records[CloudEnvironment::url(path)];
  ASSERT_TRUE(good["ok"].isBool()) << printed[0];
  EXPECT_TRUE(good["ok"].asBool());
  ASSERT_TRUE(good["cause"].isString());
  EXPECT_EQ(good["cause"].asString(), "");
  ASSERT_TRUE(good.isMember("path"));
  EXPECT_TRUE(FileUtils::sameContent(good["path"].asString(), local));

  const auto missing = records[missingUrl];
  ASSERT_TRUE(missing["ok"].isBool());
  EXPECT_FALSE(missing["ok"].asBool());
  EXPECT_EQ(missing["code"].asInt(), CloudStorageResult::kNotFound);
  ASSERT_TRUE(missing["cause"].isString());
  EXPECT_FALSE(missing["cause"].asString().empty());
  // Nothing was saved, so there is no path to give.
  EXPECT_FALSE(missing.isMember("path")) << missing.toStyledString();
}

TEST_F(CliTest, NoClobberLeavesAnExistingFileAndFailsThatUrlOnly) {
  const auto [local, path] = serve("clobber.bin", 5000);
  const auto [otherLocal, otherPath] = serve("fresh.bin", 3000);
  const auto destination = work.file("clobber");
  ASSERT_TRUE(FileUtils::makeDirectory(destination));
  const auto existing = FileUtils::appendComponent(destination, FileUtils::fileName(path));
  {
    std::ofstream out(std::filesystem::u8path(existing), std::ios::binary);
    out << "keep me";
  }

  const auto refused =
      run(withIdentity({"download", CloudEnvironment::url(path), CloudEnvironment::url(otherPath),
                        "--dir", destination, "--no-clobber"}));
  EXPECT_EQ(refused.status, 1) << refused.errors;
  EXPECT_EQ(readAll(existing), "keep me");
  EXPECT_NE(refused.errors.find(CloudEnvironment::url(path) + " failed: result -1"),
            std::string::npos)
      << refused.errors;
  EXPECT_NE(refused.errors.find(normalPath(existing) + " exists (--no-clobber)"), std::string::npos)
      << refused.errors;
  // The other URL went ahead.
  EXPECT_TRUE(FileUtils::sameContent(
      FileUtils::appendComponent(destination, FileUtils::fileName(otherPath)), otherLocal));

  // Without it the file is replaced, as the help says.
  const auto replaced =
      run(withIdentity({"download", CloudEnvironment::url(path), "--dir", destination}));
  EXPECT_EQ(replaced.status, 0) << replaced.errors;
  EXPECT_TRUE(FileUtils::sameContent(existing, local));

  const auto help = run({"download", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.output.find("is replaced"), std::string::npos) << help.output;
  EXPECT_NE(help.output.find("--no-clobber"), std::string::npos) << help.output;
}

}  // namespace
