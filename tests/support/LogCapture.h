#pragma once

#include <quill_base/Logger.h>

#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace quill_test {

struct CapturedLog {
  log4cplus::LogLevel level;
  std::string message;
  std::string file;
  int line;
  std::string function;
};

// Attaches an in-memory appender to the project's logger for the life of the object, with the
// logger's threshold lowered to `level`; both are restored afterwards.
class LogCapture {
public:
  explicit LogCapture(log4cplus::LogLevel level = log4cplus::TRACE_LOG_LEVEL)
      : appender(new MemoryAppender), previousLevel(Logger::m_logger.getLogLevel()) {
    Logger::m_logger.addAppender(appender);
    Logger::m_logger.setLogLevel(level);
  }
  ~LogCapture() {
    Logger::m_logger.removeAppender(appender);
    Logger::m_logger.setLogLevel(previousLevel);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<CapturedLog> lines() const { return memory().snapshot(); }

  bool contains(log4cplus::LogLevel level, const std::string& message) const {
    const auto all = lines();
    return std::any_of(all.begin(), all.end(), [&](const CapturedLog& log) {
      return log.level == level && log.message == message;
    });
  }

  // Lines of that level whose message holds `fragment` somewhere.
  int countContaining(log4cplus::LogLevel level, const std::string& fragment) const {
    const auto all = lines();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const CapturedLog& log) {
      return log.level == level && log.message.find(fragment) != std::string::npos;
    }));
  }

  int count(const std::string& message) const {
    const auto all = lines();
    return static_cast<int>(std::count_if(
        all.begin(), all.end(), [&](const CapturedLog& log) { return log.message == message; }));
  }

private:
  class MemoryAppender : public log4cplus::Appender {
  public:
    ~MemoryAppender() override { destructorImpl(); }
    void close() override {}
    std::vector<CapturedLog> snapshot() const {
      std::lock_guard<std::mutex> lock(mutex);
      return logs;
    }

  protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
      std::lock_guard<std::mutex> lock(mutex);
      logs.push_back({event.getLogLevel(), event.getMessage(), event.getFile(), event.getLine(),
                      event.getFunction()});
    }

  private:
    mutable std::mutex mutex;
    std::vector<CapturedLog> logs;
  };

  const MemoryAppender& memory() const { return static_cast<const MemoryAppender&>(*appender); }

  log4cplus::SharedAppenderPtr appender;
  log4cplus::LogLevel previousLevel;
};

}  // namespace quill_test
