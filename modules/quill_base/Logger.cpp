#include <quill_base/Logger.h>

#include <log4cplus/consoleappender.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
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
  if (file != nullptr && *file != '\0') {
    useAppender(logger, log4cplus::SharedAppenderPtr(
                            new log4cplus::FileAppender(file, std::ios_base::app, true, true)));
  } else {
    useAppender(logger, log4cplus::SharedAppenderPtr(new log4cplus::ConsoleAppender(true, true)));
  }
  return logger;
}

}  // namespace

log4cplus::Logger Logger::m_logger = makeLogger();

void Logger::logToConsole() {
  useAppender(m_logger, log4cplus::SharedAppenderPtr(new log4cplus::ConsoleAppender(true, true)));
}

bool Logger::logToFile(const std::string& path) {
  // FileAppender reports an unopenable file only through log4cplus's own error handler: check
  // first.
  std::FILE* probe = std::fopen(path.c_str(), "a");
  if (probe == nullptr) {
    return false;
  }
  std::fclose(probe);
  useAppender(m_logger, log4cplus::SharedAppenderPtr(
                            new log4cplus::FileAppender(path, std::ios_base::app, true, true)));
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
