// quill-cloud run as a process: each kind of upload, downloads, avatars, the --json records, the
// exit statuses and messages of failures, Ctrl-C during a slow transfer, and the demo to its end.
#include "CloudEnvironment.h"
#include "DemoFiles.h"
#include "ToolProcess.h"

#include <quill_base/FileUtils.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <signal.h>

#include <filesystem>
#include <sstream>

using cli_test::runTool;
using cli_test::ToolProcess;
using quill_test::CloudEnvironment;
using quill_test::TempDir;

namespace {

struct CliTest : ::testing::Test {
  TempDir user;
  TempDir work;

  // The options every run gets: an identity and a user directory of the test's own.
  std::vector<std::string> withIdentity(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--app-id", "cli-app", "--aid", "cli-aid", "--pin",
                                       "cli-pin", "--user-dir", user.path()});
    return arguments;
  }

  // Stores a file of `size` bytes on the server; returns the local original and the URL path.
  std::pair<std::string, std::string> serve(const std::string& name, std::size_t size) {
    const auto local = work.file("served-" + name);
    EXPECT_TRUE(quill_cli::writePatternFile(local, size, 5));
    const auto path = CloudEnvironment::server().addFile(TextUtils::UUID_String() + name, local);
    EXPECT_FALSE(path.empty());
    return {local, path};
  }

  static std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
      if (!line.empty()) {
        result.push_back(line);
      }
    }
    return result;
  }

  static Json::Value parse(const std::string& line) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(line);
    EXPECT_TRUE(Json::parseFromStream(builder, in, &value, &errors)) << line << ": " << errors;
    return value;
  }

  // The path part of an absolute URL ("https://host:port/files/x" -> "/files/x").
  static std::string urlPath(const std::string& url) {
    const auto host = url.find("//");
    const auto path = url.find('/', host == std::string::npos ? 0 : host + 2);
    return path == std::string::npos ? std::string() : url.substr(path);
  }

  static std::size_t entries(const std::string& directory) {
    std::error_code error;
    std::size_t count = 0;
    for (auto it = std::filesystem::directory_iterator(directory, error);
         !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
      ++count;
    }
    return count;
  }
};

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
    const auto outcome = runTool(withIdentity({"upload", kind.flag, kind.path}));
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
  const auto outcome =
      runTool(withIdentity({"download", CloudEnvironment::url(firstPath),
                            CloudEnvironment::url(secondPath), "--dir", destination}));
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  const auto printed = lines(outcome.output);
  ASSERT_EQ(printed.size(), 2u) << outcome.output;
  EXPECT_TRUE(FileUtils::sameContent(printed[0], firstLocal)) << printed[0];
  EXPECT_TRUE(FileUtils::sameContent(printed[1], secondLocal)) << printed[1];
  EXPECT_EQ(FileUtils::fileDir(printed[0]), destination);

  const auto named = runTool(withIdentity({"download", CloudEnvironment::url(secondPath), "--dir",
                                           destination, "--name", "renamed.dat"}));
  ASSERT_EQ(named.status, 0) << named.errors;
  EXPECT_TRUE(
      FileUtils::sameContent(FileUtils::appendComponent(destination, "renamed.dat"), secondLocal));
}

TEST_F(CliTest, JsonGivesOneRecordPerRequest) {
  const auto [local, path] = serve("data.bin", 256 * 1024 + 5);
  const auto outcome = runTool(
      withIdentity({"--json", "download", CloudEnvironment::url(path),
                    CloudEnvironment::url("/files/" + TextUtils::UUID_String() + "-missing.bin"),
                    "--dir", work.file("json")}));
  EXPECT_EQ(outcome.status, 1) << outcome.errors;
  const auto records = lines(outcome.output);
  ASSERT_EQ(records.size(), 2u) << outcome.output;

  const auto good = parse(records[0]);
  EXPECT_EQ(good["operation"].asString(), "download");
  EXPECT_EQ(good["code"].asInt(), 2);
  EXPECT_TRUE(good["ok"].asBool());
  EXPECT_EQ(good["url"].asString(), CloudEnvironment::url(path));
  EXPECT_EQ(good["bytes"].asInt64(), 256 * 1024 + 5);
  EXPECT_GE(good["seconds"].asDouble(), 0.0);
  EXPECT_TRUE(FileUtils::sameContent(good["path"].asString(), local));

  const auto missing = parse(records[1]);
  EXPECT_EQ(missing["code"].asInt(), -2);
  EXPECT_FALSE(missing["ok"].asBool());
  EXPECT_FALSE(missing["message"].asString().empty());
  EXPECT_EQ(missing["bytes"].asInt64(), 0);
  EXPECT_FALSE(FileUtils::fileExists(missing["path"].asString()));

  const auto image = work.file("up.jpg");
  ASSERT_TRUE(quill_cli::writeJpegPicture(image, 64, 64));
  const auto upload = runTool(withIdentity({"upload", "--image", image, "--json"}));
  ASSERT_EQ(upload.status, 0) << upload.errors;
  const auto uploaded = parse(lines(upload.output).at(0));
  EXPECT_EQ(uploaded["code"].asInt(), 2);
  EXPECT_EQ(uploaded["route"].asString(), "file service");
  EXPECT_EQ(uploaded["bytes"].asInt64(), static_cast<Json::Int64>(FileUtils::fileSize(image)));
  EXPECT_TRUE(TextUtils::hasPrefix(uploaded["url"].asString(), CloudEnvironment::url("/files/")));
}

TEST_F(CliTest, FailuresGiveTheirExitStatusAndMessage) {
  const auto notFound = runTool(withIdentity(
      {"download", CloudEnvironment::url("/files/nothing-here.bin"), "--dir", work.path()}));
  EXPECT_EQ(notFound.status, 1);
  EXPECT_NE(notFound.errors.find("result -2 (not found (404))"), std::string::npos)
      << notFound.errors;
  EXPECT_TRUE(notFound.output.empty()) << notFound.output;

  const auto serverError = runTool(withIdentity(
      {"download", CloudEnvironment::url("/files/x.bin?quill_status=500"), "--dir", work.path()}));
  EXPECT_EQ(serverError.status, 1);
  EXPECT_NE(serverError.errors.find("result -100"), std::string::npos) << serverError.errors;

  const auto missingFile =
      runTool(withIdentity({"upload", "--file", work.file("does-not-exist.bin")}));
  EXPECT_EQ(missingFile.status, 1);
  EXPECT_NE(missingFile.errors.find("upload " + work.file("does-not-exist.bin") + " failed"),
            std::string::npos)
      << missingFile.errors;

  // Usage errors: no identity for an upload, an unknown option, no command, clashing flags.
  const auto file = work.file("some.bin");
  ASSERT_TRUE(quill_cli::writePatternFile(file, 10, 1));
  const auto anonymous = runTool({"upload", file, "--user-dir", user.path()});
  EXPECT_EQ(anonymous.status, 2);
  EXPECT_NE(anonymous.errors.find("QUILL_APP_ID"), std::string::npos) << anonymous.errors;
  EXPECT_EQ(runTool({"download", "https://127.0.0.1/x", "--bogus"}).status, 2);
  EXPECT_EQ(runTool({}).status, 2);
  EXPECT_EQ(runTool(withIdentity({"upload", "--image", "--video", file})).status, 2);
  EXPECT_EQ(
      runTool({"download", "https://127.0.0.1/a", "https://127.0.0.1/b", "--name", "n"}).status, 2);
  EXPECT_EQ(runTool({"--help"}).status, 0);
}

TEST_F(CliTest, AvatarIsCachedScaledAndPrinted) {
  const auto image = work.file("face.jpg");
  ASSERT_TRUE(quill_cli::writeJpegPicture(image, 640, 480));
  const auto path = CloudEnvironment::server().addFile("face-" + TextUtils::UUID_String(), image);
  const auto url = CloudEnvironment::staticUrl(path);
  const auto root = work.file("avatars");

  const auto first = runTool(withIdentity({"avatar", url, "--root", root, "--user", "u1"}));
  ASSERT_EQ(first.status, 0) << first.errors;
  const auto printed = lines(first.output);
  ASSERT_EQ(printed.size(), 1u) << first.output;
  EXPECT_EQ(FileUtils::fileDir(printed[0]), FileUtils::appendComponent(root, "u1/avatars"));
  int width = 0;
  int height = 0;
  ASSERT_TRUE(quill_cli::jpegSize(printed[0], width, height)) << printed[0];
  EXPECT_EQ(width, 200);
  EXPECT_EQ(height, 150);

  // The second time it comes from the cache, with the same path.
  const auto requests = CloudEnvironment::server().requestCount();
  const auto again =
      runTool(withIdentity({"avatar", url, "--root", root, "--user", "u1", "--json"}));
  ASSERT_EQ(again.status, 0) << again.errors;
  const auto record = parse(lines(again.output).at(0));
  EXPECT_EQ(record["path"].asString(), printed[0]);
  EXPECT_EQ(record["route"].asString(), "cache");
  EXPECT_EQ(CloudEnvironment::server().requestCount(), requests);

  // A failure is never announced by the avatar manager: the tool gives up after its timeout.
  const auto missing =
      runTool(withIdentity({"avatar", CloudEnvironment::staticUrl("/files/no-face.jpg"), "--root",
                            root, "--timeout", "1.5"}));
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.errors.find("no avatar in time"), std::string::npos) << missing.errors;
}

TEST_F(CliTest, InterruptCancelsAndLeavesNothingPartial) {
  const auto [local, path] = serve("slow.bin", 4 * 1024 * 1024);
  const auto destination = work.file("slow");
  // 64 KiB/s: about a minute for the whole file.
  ToolProcess tool(withIdentity(
      {"download", CloudEnvironment::url(path + "?quill_rate=65536"), "--dir", destination}));
  ASSERT_TRUE(tool.started());
  // Without a terminal the tool prints plain progress lines; the first one says bytes are moving.
  ASSERT_TRUE(tool.waitForError("%")) << tool.errors();
  ASSERT_EQ(kill(tool.processId(), SIGINT), 0);
  EXPECT_EQ(tool.finish(std::chrono::seconds(30)), 130) << tool.errors();
  EXPECT_NE(tool.errors().find("result 3 (cancelled)"), std::string::npos) << tool.errors();
  EXPECT_NE(tool.errors().find("interrupted"), std::string::npos) << tool.errors();
  EXPECT_EQ(entries(destination), 0u);
  EXPECT_EQ(entries(FileUtils::appendComponent(user.path(), "cloud_storage_caches")), 0u);
}

TEST_F(CliTest, DemoRunsToItsEndAndVerifiesEverything) {
  const auto outcome = runTool({"demo", "--user-dir", user.path()}, std::chrono::seconds(120));
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
  // The library's log went to the user directory, not to the terminal.
  EXPECT_TRUE(FileUtils::fileExists(FileUtils::appendComponent(user.path(), "quill-cloud.log")));
  EXPECT_EQ(outcome.errors.find("modules/quill_cloud"), std::string::npos) << outcome.errors;
}

}  // namespace
