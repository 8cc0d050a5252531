// quill-cloud on Windows: its files below the user's local application data, and a command line
// in UTF-16 that reaches it whole, non-ASCII names and spaces included.
#include "CliFixture.h"

#include <windows.h>
// After windows.h, which they need.
#include <knownfolders.h>
#include <shlobj.h>

using cli_test::CliTest;
using cli_test::Environment;
using cli_test::runTool;
using quill_test::CloudEnvironment;

namespace {

std::string localAppDataFolder() {
  PWSTR wide = nullptr;
  std::string path;
  if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_LocalAppData, KF_FLAG_DEFAULT, nullptr, &wide))) {
    path = std::filesystem::path(wide).u8string();
  }
  CoTaskMemFree(wide);
  return path;
}

TEST_F(CliTest, FilesGoBelowLocalAppData) {
  const auto appData = work.file("appdata");
  Environment given;
  given.set = {{"LOCALAPPDATA", appData}};
  const auto outcome = runTool({"paths"}, std::chrono::seconds(20), given);
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_NE(outcome.output.find("user directory: " + appData + "\\quill-cloud\\cache\r\n"),
            std::string::npos)
      << outcome.output;
  EXPECT_NE(outcome.output.find("log file: " + appData + "\\quill-cloud\\log\\quill-cloud.log\r\n"),
            std::string::npos)
      << outcome.output;

  // Without the variable, the known folder the system names.
  const auto folder = localAppDataFolder();
  ASSERT_FALSE(folder.empty());
  Environment unset;
  unset.unset = {"LOCALAPPDATA"};
  const auto known = runTool({"paths"}, std::chrono::seconds(20), unset);
  ASSERT_EQ(known.status, 0) << known.errors;
  EXPECT_NE(known.output.find("user directory: " + folder + "\\quill-cloud\\cache\r\n"),
            std::string::npos)
      << known.output;
}

TEST_F(CliTest, DownloadKeepsItsPrivateDirectoriesBelowLocalAppData) {
  const auto [local, path] = serve("appdata.bin", 1000);
  const auto outcome =
      run(withIdentity({"download", CloudEnvironment::url(path), "--dir", work.file("out")}));
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_TRUE(FileUtils::fileExists(logFile())) << logFile();
}

TEST_F(CliTest, QuotesBackslashesAndSpacesReachTheToolAsGiven) {
  // Echoed back by the refusal of its scheme: quotes, backslashes before a quote and at the end,
  // white space, and text outside the ANSI code page.
  const std::string url = "ftp://h/\"a b\" c\\\\\"d\\ \t\xce\xb1\xe6\x96\x87\\\\";
  const auto outcome = run({"download", url, "--dir", work.file("echo")});
  EXPECT_EQ(outcome.status, 2) << outcome.errors;
  EXPECT_NE(outcome.errors.find(url + ": only http:// and https://"), std::string::npos)
      << outcome.errors;
  // An empty argument stays an argument.
  EXPECT_EQ(run({"download", "", "--dir", work.file("echo")}).status, 2);
}

TEST_F(CliTest, NonAsciiNamesAndSpacesReachTheToolWhole) {
  const auto [local, path] = serve("wide.bin", 3000);
  // A French directory name, and a file name in Greek and CJK: no ANSI code page holds all of it.
  const std::string directory = FileUtils::appendComponent(work.path(), "Donn\u00e9es re\u00e7ues");
  const std::string name = "\xce\xb1\xce\xb2\xce\xb3 \xe6\x96\x87\xe4\xbb\xb6.bin";
  const auto saved = run(
      withIdentity({"download", CloudEnvironment::url(path), "--dir", directory, "--name", name}));
  ASSERT_EQ(saved.status, 0) << saved.errors;
  const auto expected = FileUtils::appendComponent(directory, name);
  EXPECT_TRUE(FileUtils::sameContent(expected, local));
  ASSERT_EQ(lines(saved.output).size(), 1u) << saved.output;
  EXPECT_EQ(normalPath(lines(saved.output)[0]), normalPath(expected));
}

}  // namespace
