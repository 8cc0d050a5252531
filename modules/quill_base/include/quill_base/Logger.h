#pragma once

#include <quill_base/quill_base_export.h>

#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/tstring.h>

#include <cstddef>
#include <cstring>
#include <sstream>
#include <string>

// The one logger of the project. Console (stderr) output at INFO by default; the environment
// variables QUILL_LOG_LEVEL (TRACE, DEBUG, INFO, WARN, ERROR, FATAL or OFF) and QUILL_LOG_FILE (a
// file to append to instead of the console) override that when the library loads. Every line
// carries the module path of the source ("modules/quill_base/SerialQueue"), the line and the full
// function signature.
class QUILL_BASE_EXPORT Logger {
public:
  static log4cplus::Logger m_logger;

  // Replaces the logger's output with the console (stderr).
  static void logToConsole();
  // Replaces the logger's output with a file that is appended to; false (and `error`, when given,
  // says why) when it cannot be opened. The file is made 0600 and opened without following a
  // symbolic link; it must be a regular file of the calling user.
  static bool logToFile(const std::string& path, std::string* error = nullptr);
  // As logToFile, but once the file holds `maxBytes` (at least log4cplus' minimum, 200 KiB) it is
  // renamed "<path>.1" (older ones shifted up to "<path>.<backups>", the oldest dropped) and a new
  // one is started.
  static bool logToRollingFile(const std::string& path, long maxBytes, int backups,
                               std::string* error = nullptr);
  // Makes `path` if missing (0600) without following a symbolic link, and checks that it is a
  // regular file owned by the calling user. False, with the reason in `error`, otherwise.
  static bool openLogFile(const std::string& path, std::string* error = nullptr);
  // Sets the threshold by name (as QUILL_LOG_LEVEL); false and no change for an unknown name.
  static bool setLevel(const std::string& levelName);

  // "modules/quill_cloud/task/UploadTask" from a source path such as
  // "modules/quill_cloud/task/UploadTask.cpp" or
  // "/src/quill/modules/quill_cloud/task/UploadTask.cpp".
  static std::string modulePath(const char* sourceFile);
};

#if defined(_MSC_VER)
#define QUILL_FUNCTION_SIGNATURE __FUNCSIG__
#else
#define QUILL_FUNCTION_SIGNATURE __PRETTY_FUNCTION__
#endif

// The source named in log lines. A file that is one of several parts of one module may name the
// module instead, by defining QUILL_LOG_SOURCE before it includes this header.
#ifndef QUILL_LOG_SOURCE
#define QUILL_LOG_SOURCE __FILE__
#endif

// The module path of a log site, held in the object itself. Trivially destructible, so that the
// static one of each site is never destroyed: a thread that logs while the process exits (the
// network thread ending its transfers) may make it after the exit handlers began, and a static
// std::string would then be freed under it.
class LogSource {
public:
  explicit LogSource(const char* sourceFile) {
    const std::string path = ::Logger::modulePath(sourceFile);
    const std::size_t length = path.size() < sizeof text ? path.size() : sizeof text - 1;
    std::memcpy(text, path.data(), length);
    text[length] = '\0';
  }
  const char* c_str() const { return text; }

private:
  char text[128];
};

// Tests the level first, so that a disabled level costs one comparison and builds no message.
#define QUILL_LOG_AT(level, message)                                                       \
  do {                                                                                     \
    if (::Logger::m_logger.isEnabledFor(level)) {                                          \
      static const ::LogSource quillModulePath_(QUILL_LOG_SOURCE);                         \
      ::log4cplus::tostringstream quillLogStream_;                                         \
      quillLogStream_ << message;                                                          \
      ::Logger::m_logger.forcedLog(level, quillLogStream_.str(), quillModulePath_.c_str(), \
                                   __LINE__, QUILL_FUNCTION_SIGNATURE);                    \
    }                                                                                      \
  } while (false)

#define QLOG_DEBUG(message) QUILL_LOG_AT(::log4cplus::DEBUG_LOG_LEVEL, message)
#define QLOG_INFO(message) QUILL_LOG_AT(::log4cplus::INFO_LOG_LEVEL, message)
#define QLOG_WARN(message) QUILL_LOG_AT(::log4cplus::WARN_LOG_LEVEL, message)
#define QLOG_ERROR(message) QUILL_LOG_AT(::log4cplus::ERROR_LOG_LEVEL, message)
