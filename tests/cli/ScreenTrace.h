#pragma once

#include <string>

namespace cli_test {

// What a terminal of `rows` rows does with the cursor-moving part of `bytes`: a line feed on the
// last row scrolls the screen, cursor-up stops at the top row. Other escape sequences and text are
// skipped (lines are assumed not to wrap).
struct ScreenTrace {
  // Lines scrolled off the top of the screen.
  int scrolled = 0;
  // The largest single cursor-up movement asked for.
  int largestMoveUp = 0;
  // Line feeds and escape sequences seen.
  int lineFeeds = 0;
  int escapes = 0;
};
ScreenTrace traceScreen(const std::string& bytes, int rows);

}  // namespace cli_test
