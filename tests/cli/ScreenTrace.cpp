#include "ScreenTrace.h"

#include <algorithm>
#include <cstdlib>

namespace cli_test {

ScreenTrace traceScreen(const std::string& bytes, int rows) {
  ScreenTrace trace;
  int row = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char c = bytes[i];
    if (c == '\n') {
      ++trace.lineFeeds;
      if (row == rows - 1) {
        ++trace.scrolled;
      } else {
        ++row;
      }
      continue;
    }
    if (c != '\x1b') {
      continue;
    }
    ++trace.escapes;
    if (i + 1 >= bytes.size() || bytes[i + 1] != '[') {
      continue;
    }
    // A control sequence: parameters, then a final byte from '@' to '~'.
    std::size_t end = i + 2;
    while (end < bytes.size() && !(bytes[end] >= '@' && bytes[end] <= '~')) {
      ++end;
    }
    if (end >= bytes.size()) {
      break;
    }
    if (bytes[end] == 'A') {
      const auto parameter = bytes.substr(i + 2, end - i - 2);
      const int count = parameter.empty() ? 1 : std::atoi(parameter.c_str());
      trace.largestMoveUp = std::max(trace.largestMoveUp, count);
      row = std::max(row - count, 0);
    }
    i = end;
  }
  return trace;
}

}  // namespace cli_test
