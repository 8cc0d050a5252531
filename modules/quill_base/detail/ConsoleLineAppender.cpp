#include "detail/ConsoleLineAppender.h"

#include <cstdio>

namespace quill_detail {

ConsoleLineAppender::~ConsoleLineAppender() {
  destructorImpl();
}

void ConsoleLineAppender::close() {
  closed = true;
}

void ConsoleLineAppender::append(const log4cplus::spi::InternalLoggingEvent& event) {
  // The appender's own lock is held here (Appender::syncDoAppend); stderr is unbuffered, so the
  // whole line leaves in one write.
  const log4cplus::tstring& line = formatEvent(event);
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace quill_detail
