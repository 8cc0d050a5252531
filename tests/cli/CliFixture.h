#pragma once

// What the tests of quill-cloud as a process share: temporary directories, an identity, files put
// on the reference file service, and the tool run with its log kept inside the test's directories.
#include "CloudEnvironment.h"
#include "DemoFiles.h"
#include "TerminalProcess.h"
#include "ToolProcess.h"

#include <quill_base/FileUtils.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <map>
#include <sstream>

namespace cli_test {

using quill_test::CloudEnvironment;
using quill_test::TempDir;

struct CliTest : ::testing::Test {
  TempDir user;
  TempDir work;
  // XDG_STATE_HOME (Windows: LOCALAPPDATA) of every run: the tool's log goes below it, not into
  // the real home.
  TempDir state;

  Environment environment(std::vector<std::pair<std::string, std::string>> extra = {}) const {
    Environment result;
#if defined(_WIN32)
    result.set = {{ "LOCALAPPDATA", state.path() }};
#else
    result.set = {{"XDG_STATE_HOME", state.path()}};
#endif
    result.set.insert(result.set.end(), extra.begin(), extra.end());
    return result;
  }
  std::string logFile() const {
#if defined(_WIN32)
    return normalPath(FileUtils::appendComponent(state.path(), "quill-cloud/log/quill-cloud.log"));
#else
    return FileUtils::appendComponent(state.path(), "quill-cloud/quill-cloud.log");
#endif
  }

  // A path as the tool prints the paths it made absolute: in normal form, which on Windows also
  // turns every '/' into '\\'. The tests' POSIX paths are normal already and left as they are.
  static std::string normalPath(const std::string& path) {
#if defined(_WIN32)
    return std::filesystem::u8path(path).lexically_normal().u8string();
#else
    return path;
#endif
  }
  static std::vector<std::string> normalPaths(std::vector<std::string> paths) {
    for (auto& path : paths) {
      path = normalPath(path);
    }
    return paths;
  }

  Outcome run(const std::vector<std::string>& arguments,
              std::chrono::milliseconds timeout = std::chrono::seconds(60)) const {
    return runTool(arguments, timeout, environment());
  }

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
#if defined(_WIN32)
      // The tool's text-mode standard streams end each line with "\r\n" there.
      if (!line.empty() && line.back() == '\r') {
        line.pop_back();
      }
#endif
      if (!line.empty()) {
        result.push_back(line);
      }
    }
    return result;
  }

  // The JSON records of an output, by their "source".
  static std::map<std::string, Json::Value> recordsBySource(const std::string& output) {
    std::map<std::string, Json::Value> result;
    for (const auto& line : lines(output)) {
      auto record = parse(line);
      result[record["source"].asString()] = record;
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
    for (auto it = std::filesystem::directory_iterator(std::filesystem::u8path(directory), error);
         !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
      ++count;
    }
    return count;
  }
};

}  // namespace cli_test
