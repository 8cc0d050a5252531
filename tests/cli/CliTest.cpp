// quill-cloud run as a process: each kind of upload, downloads, avatars, the --json records, the
// exit statuses and messages of failures, Ctrl-C during a slow transfer (on Windows Ctrl-Break, the
// console control event a process group of its own can be sent), and the demo to its end.
#include "CliFixture.h"

#include <quill_cloud/CloudStorageCodes.h>

#include <algorithm>

using cli_test::CliTest;
using cli_test::ToolProcess;
using quill_test::CloudEnvironment;

namespace {

TEST_F(CliTest, UploadsEachKindAndPrintsTheStoredUrl) {
  const auto image = work.file("photo.jpg");
  ASSERT_TRUE(quill_cli::writeJpegPicture(image, 320, 240));
  const auto file = work.file("notes.bin");
  ASSERT_TRUE(quill_cli::writePatternFile(file, 300 * 1024 + 3, 1));
  const auto video = work.file("clip.mp4");
  ASSERT_TRUE(quill_cli::writePatternFile(video, 700 * 1024 + 9, 2));

  const struct {
    std::string flag;
    std::string path;
    std::string route;
  } kinds[] = {
      {"--image", image, "/files/"}, {"--file", file, "/objects/"}, {"--video", video, "/vod/"}};
  for (const auto& kind : kinds) {
    const auto outcome = run(withIdentity({"upload", kind.flag, kind.path}));
    ASSERT_EQ(outcome.status, 0) << kind.flag << "\n" << outcome.errors;
    const auto printed = lines(outcome.output);
    ASSERT_EQ(printed.size(), 1u) << outcome.output;
    EXPECT_TRUE(TextUtils::hasPrefix(printed[0], CloudEnvironment::url(kind.route)))
        << kind.flag << ": " << printed[0];
    const auto stored = CloudEnvironment::server().storedFile(urlPath(printed[0]));
    ASSERT_FALSE(stored.empty()) << printed[0];
    EXPECT_TRUE(FileUtils::sameContent(stored, kind.path)) << kind.flag;
  }
}

TEST_F(CliTest, DownloadsSeveralUrlsIntoADirectory) {
  const auto [firstLocal, firstPath] = serve("first.bin", 1024 * 1024 + 1);
  const auto [secondLocal, secondPath] = serve("second.bin", 20 * 1024);
  const auto destination = work.file("out/nested");
  const auto outcome = run(withIdentity({"download", CloudEnvironment::url(firstPath),
                                         CloudEnvironment::url(secondPath), "--dir", destination}));
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  // Each path is printed when its download ends, so in the order they end.
  auto printed = lines(outcome.output);
  ASSERT_EQ(printed.size(), 2u) << outcome.output;
  std::sort(printed.begin(), printed.end());
  const auto firstSaved = FileUtils::appendComponent(destination, FileUtils::fileName(firstPath));
  const auto secondSaved = FileUtils::appendComponent(destination, FileUtils::fileName(secondPath));
  EXPECT_EQ(normalPaths(printed),
            normalPaths({std::min(firstSaved, secondSaved), std::max(firstSaved, secondSaved)}));
  EXPECT_TRUE(FileUtils::sameContent(firstSaved, firstLocal));
  EXPECT_TRUE(FileUtils::sameContent(secondSaved, secondLocal));

  const auto named = run(withIdentity({"download", CloudEnvironment::url(secondPath), "--dir",
                                       destination, "--name", "renamed.dat"}));
  ASSERT_EQ(named.status, 0) << named.errors;
  EXPECT_TRUE(
      FileUtils::sameContent(FileUtils::appendComponent(destination, "renamed.dat"), secondLocal));
}

TEST_F(CliTest, JsonGivesOneRecordPerRequest) {
  const auto [local, path] = serve("data.bin", 256 * 1024 + 5);
  const auto outcome = run(
      withIdentity({"--json", "download", CloudEnvironment::url(path),
                    CloudEnvironment::url("/files/" + TextUtils::UUID_String() + "-missing.bin"),
                    "--dir", work.file("json")}));
  EXPECT_EQ(outcome.status, 1) << outcome.errors;
  ASSERT_EQ(lines(outcome.output).size(), 2u) << outcome.output;
  auto records = recordsBySource(outcome.output);
  ASSERT_EQ(records.size(), 2u) << outcome.output;

  auto good = records[CloudEnvironment::url(path)];
  EXPECT_EQ(good["operation"].asString(), "download");
  EXPECT_EQ(good["code"].asInt(), CloudStorageResult::kSuccess);
  EXPECT_TRUE(good["ok"].asBool());
  EXPECT_EQ(good["url"].asString(), CloudEnvironment::url(path));
  EXPECT_EQ(good["bytes"].asInt64(), 256 * 1024 + 5);
  EXPECT_GE(good["seconds"].asDouble(), 0.0);
  EXPECT_TRUE(FileUtils::sameContent(good["path"].asString(), local));
  // Where the transfer's time went, as the library measured it.
  const auto timeline = good["timeline"];
  EXPECT_EQ(timeline["method"].asString(), "GET");
  EXPECT_EQ(timeline["host"].asString(), "127.0.0.1");
  EXPECT_EQ(timeline["status"].asInt(), 200);
  EXPECT_EQ(timeline["bytes"].asInt64(), 256 * 1024 + 5);
  EXPECT_EQ(timeline["resumes"].asInt(), 0);
  EXPECT_FALSE(timeline["httpVersion"].asString().empty());
  EXPECT_GT(timeline["firstByteMs"].asDouble(), 0.0);
  EXPECT_GE(timeline["endMs"].asDouble(), timeline["firstByteMs"].asDouble());
  EXPECT_GT(timeline["bytesPerSecond"].asDouble(), 0.0);
  EXPECT_EQ(timeline["cause"].asString(), "");

  records.erase(CloudEnvironment::url(path));
  const auto missing = records.begin()->second;
  EXPECT_EQ(missing["code"].asInt(), CloudStorageResult::kNotFound);
  EXPECT_FALSE(missing["ok"].asBool());
  EXPECT_FALSE(missing["message"].asString().empty());
  EXPECT_EQ(missing["bytes"].asInt64(), 0);
  EXPECT_FALSE(FileUtils::fileExists(missing["path"].asString()));
  EXPECT_EQ(missing["timeline"]["status"].asInt(), 404);
  EXPECT_EQ(missing["timeline"]["cause"].asString(), "HTTP 404");

  const auto image = work.file("up.jpg");
  ASSERT_TRUE(quill_cli::writeJpegPicture(image, 64, 64));
  const auto upload = run(withIdentity({"upload", "--image", image, "--json"}));
  ASSERT_EQ(upload.status, 0) << upload.errors;
  const auto uploaded = parse(lines(upload.output).at(0));
  EXPECT_EQ(uploaded["code"].asInt(), CloudStorageResult::kSuccess);
  EXPECT_EQ(uploaded["route"].asString(), "file service");
  EXPECT_EQ(uploaded["bytes"].asInt64(), static_cast<Json::Int64>(FileUtils::fileSize(image)));
  EXPECT_TRUE(TextUtils::hasPrefix(uploaded["url"].asString(), CloudEnvironment::url("/files/")));
  EXPECT_EQ(uploaded["timeline"]["method"].asString(), "POST");
  EXPECT_GT(uploaded["timeline"]["bytes"].asInt64(),
            static_cast<Json::Int64>(FileUtils::fileSize(image)));
}

TEST_F(CliTest, FailuresGiveTheirExitStatusAndMessage) {
  const auto notFound = run(withIdentity(
      {"download", CloudEnvironment::url("/files/nothing-here.bin"), "--dir", work.path()}));
  EXPECT_EQ(notFound.status, 1);
  EXPECT_NE(notFound.errors.find("result -2 (not found (404))"), std::string::npos)
      << notFound.errors;
  EXPECT_TRUE(notFound.output.empty()) << notFound.output;

  const auto serverError = run(withIdentity(
      {"download", CloudEnvironment::url("/files/x.bin?quill_status=500"), "--dir", work.path()}));
  EXPECT_EQ(serverError.status, 1);
  EXPECT_NE(serverError.errors.find("result -100"), std::string::npos) << serverError.errors;

  const auto missingFile = run(withIdentity({"upload", "--file", work.file("does-not-exist.bin")}));
  EXPECT_EQ(missingFile.status, 1);
  EXPECT_NE(missingFile.errors.find("upload " + work.file("does-not-exist.bin") + " failed"),
            std::string::npos)
      << missingFile.errors;

  // Usage errors: no identity for an upload, an unknown option, no command, clashing flags.
  const auto file = work.file("some.bin");
  ASSERT_TRUE(quill_cli::writePatternFile(file, 10, 1));
  const auto anonymous = run({"upload", file, "--user-dir", user.path()});
  EXPECT_EQ(anonymous.status, 2);
  EXPECT_NE(anonymous.errors.find("QUILL_APP_ID"), std::string::npos) << anonymous.errors;
  EXPECT_EQ(run({"download", "https://127.0.0.1/x", "--bogus"}).status, 2);
  EXPECT_EQ(run({}).status, 2);
  EXPECT_EQ(run(withIdentity({"upload", "--image", "--video", file})).status, 2);
  EXPECT_EQ(run({"download", "https://127.0.0.1/a", "https://127.0.0.1/b", "--name", "n"}).status,
            2);
  EXPECT_EQ(run({"--help"}).status, 0);
}

TEST_F(CliTest, AvatarIsCachedScaledAndPrinted) {
  const auto image = work.file("face.jpg");
  ASSERT_TRUE(quill_cli::writeJpegPicture(image, 640, 480));
  const auto path = CloudEnvironment::server().addFile("face-" + TextUtils::UUID_String(), image);
  const auto url = CloudEnvironment::staticUrl(path);
  const auto root = work.file("avatars");

  const auto first = run(withIdentity({"avatar", url, "--root", root, "--user", "u1"}));
  ASSERT_EQ(first.status, 0) << first.errors;
  const auto printed = lines(first.output);
  ASSERT_EQ(printed.size(), 1u) << first.output;
  EXPECT_EQ(normalPath(FileUtils::fileDir(printed[0])),
            normalPath(FileUtils::appendComponent(root, "u1/avatars")));
  int width = 0;
  int height = 0;
  ASSERT_TRUE(quill_cli::jpegSize(printed[0], width, height)) << printed[0];
  EXPECT_EQ(width, 200);
  EXPECT_EQ(height, 150);

  // The second time it comes from the cache, with the same path.
  const auto requests = CloudEnvironment::server().requestCount();
  const auto again = run(withIdentity({"avatar", url, "--root", root, "--user", "u1", "--json"}));
  ASSERT_EQ(again.status, 0) << again.errors;
  const auto record = parse(lines(again.output).at(0));
  EXPECT_EQ(record["path"].asString(), printed[0]);
  EXPECT_EQ(record["route"].asString(), "cache");
  EXPECT_EQ(CloudEnvironment::server().requestCount(), requests);

  // A failure is never announced by the avatar manager: the tool gives up after its timeout.
  const auto missing =
      run(withIdentity({"avatar", CloudEnvironment::staticUrl("/files/no-face.jpg"), "--root", root,
                        "--timeout", "1.5"}));
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.errors.find("no avatar in time"), std::string::npos) << missing.errors;
}

TEST_F(CliTest, InterruptCancelsAndLeavesNothingPartial) {
  const auto [local, path] = serve("slow.bin", 4 * 1024 * 1024);
  const auto destination = work.file("slow");
  // 64 KiB/s: about a minute for the whole file.
  ToolProcess tool(withIdentity({"download", CloudEnvironment::url(path + "?quill_rate=65536"),
                                 "--dir", destination}),
                   environment());
  ASSERT_TRUE(tool.started());
  if (!quill_test::ChildProcess::signalsReachChildren()) {
    // Wine without a terminal gives the test program no console and cannot make one.
    GTEST_SKIP() << "no console shared with the tool: a console control event cannot reach it";
  }
  // Without a terminal the tool prints plain progress lines; the first one says bytes are moving.
  ASSERT_TRUE(tool.waitForError("%")) << tool.errors();
  ASSERT_TRUE(tool.interrupt());
  EXPECT_EQ(tool.finish(std::chrono::seconds(30)), 130) << tool.errors();
  EXPECT_NE(tool.errors().find("result 3 (cancelled)"), std::string::npos) << tool.errors();
  EXPECT_NE(tool.errors().find("interrupted"), std::string::npos) << tool.errors();
  EXPECT_EQ(entries(destination), 0u);
  EXPECT_EQ(entries(FileUtils::appendComponent(user.path(), "cloud_storage_caches")), 0u);
}

TEST_F(CliTest, DemoRunsToItsEndAndVerifiesEverything) {
  const auto outcome = run({"demo", "--user-dir", user.path()}, std::chrono::seconds(120));
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errors;
  const std::string expected[] = {"upload image",
                                  "upload file",
                                  "upload video",
                                  "download back photo.jpg",
                                  "download back report.bin",
                                  "download back clip.mp4",
                                  "download part-6.bin",
                                  "download image (retried)",
                                  "avatar download",
                                  "avatar upload",
                                  "15 of 15 operations verified"};
  for (const auto& row : expected) {
    EXPECT_NE(outcome.output.find(row), std::string::npos) << row << "\n" << outcome.output;
  }
  EXPECT_EQ(outcome.output.find("NO:"), std::string::npos) << outcome.output;
  EXPECT_NE(outcome.errors.find("running together when the first ended: 4 of 6"), std::string::npos)
      << outcome.errors;
  // The library's log went to the state directory, not to the terminal.
  EXPECT_TRUE(FileUtils::fileExists(logFile()));
  EXPECT_EQ(outcome.errors.find("modules/quill_cloud"), std::string::npos) << outcome.errors;
}

}  // namespace
