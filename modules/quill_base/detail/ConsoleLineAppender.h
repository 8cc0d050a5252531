#pragma once

#include <log4cplus/appender.h>

namespace quill_detail {

// Writes each log line to standard error whole, in one write. log4cplus's ConsoleAppender streams
// the layout's pieces into std::cerr, which flushes after every piece: about fifteen system calls a
// line, which made the default console log cost more per download than the download's own file
// work, and let the host's own writes to standard error land inside a log line.
class ConsoleLineAppender : public log4cplus::Appender {
public:
  ConsoleLineAppender() = default;
  ~ConsoleLineAppender() override;

  void close() override;

protected:
  void append(const log4cplus::spi::InternalLoggingEvent& event) override;
};

}  // namespace quill_detail
