#include <quill_base/Logger.h>

#include <quill_base/FileUtils.h>
#include "detail/ConsoleLineAppender.h"

#include <log4cplus/fileappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>

#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

const char* const kPattern = "%D{%Y-%m-%d %H:%M:%S.%q} %-5p [%t] %F:%L %M - %m%n";

void useAppender(log4cplus::Logger& logger, log4cplus::SharedAppenderPtr appender) {
  appender->setLayout(std::make_unique<log4cplus::PatternLayout>(kPattern));
  logger.removeAllAppenders();
  logger.addAppender(appender);
}

bool levelFromName(std::string name, log4cplus::LogLevel& level) {
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  if (name == "TRACE") {
    level = log4cplus::TRACE_LOG_LEVEL;
  } else if (name == "DEBUG") {
    level = log4cplus::DEBUG_LOG_LEVEL;
  } else if (name == "INFO") {
    level = log4cplus::INFO_LOG_LEVEL;
  } else if (name == "WARN" || name == "WARNING") {
    level = log4cplus::WARN_LOG_LEVEL;
  } else if (name == "ERROR") {
    level = log4cplus::ERROR_LOG_LEVEL;
  } else if (name == "FATAL") {
    level = log4cplus::FATAL_LOG_LEVEL;
  } else if (name == "OFF") {
    level = log4cplus::OFF_LOG_LEVEL;
  } else {
    return false;
  }
  return true;
}

log4cplus::Logger makeLogger() {
  log4cplus::initialize();
  auto logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("quill"));
  logger.setAdditivity(false);
  logger.setLogLevel(log4cplus::INFO_LOG_LEVEL);

  log4cplus::LogLevel level;
  const char* levelName = std::getenv("QUILL_LOG_LEVEL");
  if (levelName != nullptr && levelFromName(levelName, level)) {
    logger.setLogLevel(level);
  }

  const char* file = std::getenv("QUILL_LOG_FILE");
  std::string refused;
  if (file != nullptr && *file != '\0' && !Logger::openLogFile(file, &refused)) {
    // Never written through a symbolic link or into another user's file: the console instead.
    std::fprintf(stderr, "quill: not logging to QUILL_LOG_FILE %s: %s; logging to the console\n",
                 file, refused.c_str());
    file = nullptr;
  }
  if (file != nullptr && *file != '\0') {
    useAppender(logger, log4cplus::SharedAppenderPtr(
                            new log4cplus::FileAppender(file, std::ios_base::app, true, true)));
  } else {
    useAppender(logger, log4cplus::SharedAppenderPtr(new quill_detail::ConsoleLineAppender));
  }
  return logger;
}

}  // namespace

log4cplus::Logger Logger::m_logger = makeLogger();

void Logger::logToConsole() {
  useAppender(m_logger, log4cplus::SharedAppenderPtr(new quill_detail::ConsoleLineAppender));
}

bool Logger::openLogFile(const std::string& path, std::string* error) {
  const auto fail = [&](const std::string& why) {
    if (error != nullptr) {
      *error = why;
    }
    return false;
  };
#ifdef _WIN32
  std::FILE* probe = FileUtils::openFile(path, "a");
  if (probe == nullptr) {
    return fail(std::strerror(errno));
  }
  std::fclose(probe);
  return true;
#else
  // O_NOFOLLOW: a symbolic link planted at the log's path makes the open fail (ELOOP) instead of
  // letting the log be written wherever the link points.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    const int code = errno;
    return fail(code == ELOOP ? "it is a symbolic link" : std::strerror(code));
  }
  struct stat info {};
  const bool statted = ::fstat(fd, &info) == 0;
  ::close(fd);
  if (!statted) {
    return fail(std::strerror(errno));
  }
  if (!S_ISREG(info.st_mode)) {
    return fail("it is not a regular file");
  }
  if (info.st_uid != ::geteuid()) {
    return fail("it belongs to another user");
  }
  return true;
#endif
}

bool Logger::logToFile(const std::string& path, std::string* error) {
  // FileAppender reports an unopenable file only through log4cplus's own error handler: check
  // first, and make the file ourselves so that it is never reached through a link.
  if (!openLogFile(path, error)) {
    return false;
  }
  useAppender(m_logger, log4cplus::SharedAppenderPtr(
                            new log4cplus::FileAppender(path, std::ios_base::app, true, true)));
  return true;
}

bool Logger::logToRollingFile(const std::string& path, long maxBytes, int backups,
                              std::string* error) {
  if (!openLogFile(path, error)) {
    return false;
  }
  // log4cplus raises a smaller size to its own minimum (200 KiB) and appends to what is there.
  useAppender(m_logger, log4cplus::SharedAppenderPtr(
                            new log4cplus::RollingFileAppender(path, maxBytes, backups, true)));
  return true;
}

bool Logger::setLevel(const std::string& levelName) {
  log4cplus::LogLevel level;
  if (!levelFromName(levelName, level)) {
    return false;
  }
  m_logger.setLogLevel(level);
  return true;
}

std::string Logger::modulePath(const char* sourceFile) {
  std::string path = sourceFile != nullptr ? sourceFile : "";
  std::replace(path.begin(), path.end(), '\\', '/');
  // Build trees that do not map the source prefix away still log the path from the project's top.
  for (const char* top : {"/modules/", "/tools/", "/tests/", "/bench/"}) {
    const auto at = path.rfind(top);
    if (at != std::string::npos) {
      path.erase(0, at + 1);
      break;
    }
  }
  const auto slash = path.rfind('/');
  const auto dot = path.rfind('.');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) {
    path.erase(dot);
  }
  return path;
}
