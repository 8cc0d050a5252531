#include <quill_base/Logger.h>

#include "LogCapture.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#if defined(_WIN32)
#include <io.h>
#else
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

using quill_test::LogCapture;

TEST(Logger, CapturesTextLevelModulePathLineAndSignature) {
  LogCapture logs;
  const int line = __LINE__ + 1;
  QLOG_WARN("retry download image " << -100 << ","
                                    << "http://host/a.png");

  const auto lines = logs.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, log4cplus::WARN_LOG_LEVEL);
  EXPECT_EQ(lines[0].message, "retry download image -100,http://host/a.png");
  EXPECT_EQ(lines[0].file, "tests/base/LoggerTest");
  EXPECT_EQ(lines[0].line, line);
  EXPECT_NE(lines[0].function.find("TestBody"), std::string::npos) << lines[0].function;
}

TEST(Logger, EachMacroLogsAtItsLevel) {
  LogCapture logs;
  QLOG_DEBUG("d");
  QLOG_INFO("i");
  QLOG_WARN("w");
  QLOG_ERROR("e");
  EXPECT_TRUE(logs.contains(log4cplus::DEBUG_LOG_LEVEL, "d"));
  EXPECT_TRUE(logs.contains(log4cplus::INFO_LOG_LEVEL, "i"));
  EXPECT_TRUE(logs.contains(log4cplus::WARN_LOG_LEVEL, "w"));
  EXPECT_TRUE(logs.contains(log4cplus::ERROR_LOG_LEVEL, "e"));
}

TEST(Logger, DisabledLevelsBuildNoMessage) {
  LogCapture logs(log4cplus::WARN_LOG_LEVEL);
  int evaluated = 0;
  auto expensive = [&] {
    ++evaluated;
    return "x";
  };
  QLOG_DEBUG(expensive());
  QLOG_INFO(expensive());
  QLOG_ERROR(expensive());
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(logs.lines().size(), 1u);
}

TEST(Logger, SetLevelByName) {
  LogCapture logs;
  EXPECT_TRUE(Logger::setLevel("error"));
  QLOG_WARN("hidden");
  QLOG_ERROR("shown");
  EXPECT_FALSE(Logger::setLevel("loud"));
  EXPECT_EQ(Logger::m_logger.getLogLevel(), log4cplus::ERROR_LOG_LEVEL);
  EXPECT_EQ(logs.count("hidden"), 0);
  EXPECT_EQ(logs.count("shown"), 1);
}

TEST(Logger, ModulePathDropsTheExtensionAndTheCheckoutPrefix) {
  EXPECT_EQ(Logger::modulePath("modules/quill_cloud/task/UploadTask.cpp"),
            "modules/quill_cloud/task/UploadTask");
  EXPECT_EQ(Logger::modulePath("/home/me/src/quill/modules/quill_base/SerialQueue.cpp"),
            "modules/quill_base/SerialQueue");
  EXPECT_EQ(Logger::modulePath("C:\\src\\quill\\modules\\quill_cloud\\AvatarManager.cpp"),
            "modules/quill_cloud/AvatarManager");
  EXPECT_EQ(Logger::modulePath("tools/x.dir/main.cc"), "tools/x.dir/main");
  EXPECT_EQ(Logger::modulePath(nullptr), "");
}

TEST(Logger, WritesToAFileWhenAsked) {
  quill_test::TempDir dir;
  const auto path = dir.file("quill.log");
  ASSERT_TRUE(Logger::logToFile(path));
  QLOG_ERROR("to the file");
  Logger::logToConsole();
  std::ifstream in(path);
  const std::string text((std::istreambuf_iterator<char>(in)), {});
  EXPECT_NE(text.find("ERROR"), std::string::npos) << text;
  EXPECT_NE(text.find("tests/base/LoggerTest:"), std::string::npos) << text;
  EXPECT_NE(text.find(" - to the file"), std::string::npos) << text;
  EXPECT_FALSE(Logger::logToFile(dir.file("no/such/dir/quill.log")));
}

TEST(Logger, FileIsMadePrivateAndItsOpenFailureExplained) {
  quill_test::TempDir dir;
  const auto path = dir.file("private.log");
  std::string error;
  ASSERT_TRUE(Logger::logToFile(path, &error)) << error;
  Logger::logToConsole();
#if !defined(_WIN32)  // POSIX permission bits; Windows files take their directory's access list
  struct stat info {};
  ASSERT_EQ(::lstat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
#endif

  EXPECT_FALSE(Logger::logToFile(dir.path(), &error));
  EXPECT_FALSE(error.empty());
}

TEST(Logger, SymbolicLinkAtTheLogPathIsNotFollowed) {
  quill_test::TempDir dir;
  const auto target = dir.file("elsewhere.txt");
  const auto link = dir.file("quill.log");
  std::error_code linkError;
  std::filesystem::create_symlink(std::filesystem::u8path(target), std::filesystem::u8path(link),
                                  linkError);
  if (linkError) {
    GTEST_SKIP() << "cannot make a symbolic link here: " << linkError.message();
  }
  std::string error;
  EXPECT_FALSE(Logger::logToRollingFile(link, 5 * 1024 * 1024, 3, &error));
  EXPECT_NE(error.find("symbolic link"), std::string::npos) << error;
  EXPECT_FALSE(Logger::logToFile(link, &error));
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::u8path(target)))
      << "the link was followed and its target made";
}

TEST(Logger, RollingFileRollsOverAndKeepsTheBackupsAsked) {
  quill_test::TempDir dir;
  const auto path = dir.file("rolling.log");
  // log4cplus' smallest size for a rolling file is 200 KiB; about 1 MiB of lines fills two
  // backups and rolls over several times.
  constexpr long kMaxBytes = 200 * 1024;
  std::string error;
  ASSERT_TRUE(Logger::logToRollingFile(path, kMaxBytes, 2, &error)) << error;
  const std::string filler(200, 'x');
  for (int i = 0; i < 5000; ++i) {
    QLOG_ERROR("line " << i << " " << filler);
  }
  Logger::logToConsole();
  namespace fs = std::filesystem;
  ASSERT_TRUE(fs::exists(fs::u8path(path)));
  EXPECT_LE(fs::file_size(fs::u8path(path)), static_cast<std::uintmax_t>(kMaxBytes + 1024));
  ASSERT_TRUE(fs::exists(fs::u8path(path + ".1")));
  EXPECT_LE(fs::file_size(fs::u8path(path + ".1")), static_cast<std::uintmax_t>(kMaxBytes + 1024));
  EXPECT_TRUE(fs::exists(fs::u8path(path + ".2")));
  EXPECT_FALSE(fs::exists(fs::u8path(path + ".3")));
}

namespace {

#if defined(_WIN32)
int duplicateDescriptor(int descriptor) {
  return _dup(descriptor);
}
int replaceDescriptor(int from, int to) {
  return _dup2(from, to);
}
void closeDescriptor(int descriptor) {
  _close(descriptor);
}
int descriptorOf(std::FILE* file) {
  return _fileno(file);
}
#else
int duplicateDescriptor(int descriptor) {
  return ::dup(descriptor);
}
int replaceDescriptor(int from, int to) {
  return ::dup2(from, to) < 0 ? -1 : 0;
}
void closeDescriptor(int descriptor) {
  ::close(descriptor);
}
int descriptorOf(std::FILE* file) {
  return ::fileno(file);
}
#endif

// Sends what the process writes to standard error into `path` until destroyed.
class StandardErrorToFile {
public:
  explicit StandardErrorToFile(const std::string& path) {
    std::fflush(stderr);
    saved = duplicateDescriptor(descriptorOf(stderr));
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file != nullptr && saved >= 0) {
      redirected = replaceDescriptor(descriptorOf(file), descriptorOf(stderr)) == 0;
    }
    if (file != nullptr) {
      std::fclose(file);
    }
  }
  ~StandardErrorToFile() {
    std::fflush(stderr);
    if (saved >= 0) {
      replaceDescriptor(saved, descriptorOf(stderr));
      closeDescriptor(saved);
    }
  }
  bool ok() const { return redirected; }

private:
  int saved = -1;
  bool redirected = false;
};

}  // namespace

TEST(Logger, ConsoleLinesStayWholeBesideOtherWritersOfStandardError) {
  quill_test::TempDir dir;
  const auto path = dir.file("stderr.txt");
  constexpr int kLines = 400;
  {
    StandardErrorToFile capture(path);
    ASSERT_TRUE(capture.ok());
    Logger::logToConsole();
    // The host writing to standard error while the library logs: each log line leaves in one
    // write, so the host's lines land between log lines, never inside one. Not on Windows, whose C
    // runtime writes one fprintf to unbuffered stderr in pieces: there the host's own lines are
    // split, whatever the library does.
    std::thread host([] {
#if !defined(_WIN32)
      for (int i = 0; i < kLines; ++i) {
        std::fprintf(stderr, "host line %d\n", i);
      }
#endif
    });
    for (int i = 0; i < kLines; ++i) {
      QLOG_ERROR("library line " << i);
    }
    host.join();
  }
#if defined(_WIN32)
  constexpr int kHostLines = 0;
#else
  constexpr int kHostLines = kLines;
#endif
  std::ifstream in(path);
  std::string line;
  int library = 0;
  int host = 0;
  while (std::getline(in, line)) {
    if (line.rfind("host line ", 0) == 0) {
      ++host;
      continue;
    }
    // "<date> <time> ERROR [thread] tests/base/LoggerTest:<line> <signature> - library line <n>"
    EXPECT_EQ(line.find("ERROR "), 24u) << line;
    EXPECT_NE(line.find(" tests/base/LoggerTest:"), std::string::npos) << line;
    const auto message = line.find(" - library line ");
    ASSERT_NE(message, std::string::npos) << line;
    // Windows' C runtime writes stderr in text mode: "\r\n".
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    EXPECT_EQ(line.substr(message + 16), std::to_string(library)) << line;
    ++library;
  }
  EXPECT_EQ(library, kLines);
  EXPECT_EQ(host, kHostLines);
}
