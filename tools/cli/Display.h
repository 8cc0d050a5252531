#pragma once

#include "Transfer.h"

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace quill_cli {

// "3.0 MiB", "512 B"
std::string formatBytes(std::int64_t bytes);
// "2.5 MiB/s"; "-" when nothing can be said
std::string formatRate(std::int64_t bytes, double seconds);
// "1.24 s", "2:05"
std::string formatSeconds(double seconds);
// What a result code means, in a few words.
std::string describeCode(int code);

// Whether the terminal named by TERM understands cursor movement: set, and not "dumb".
bool terminalUnderstandsEscapes(const char* term);

// Progress of a group of transfers on standard error, and the moment each one ends.
//
// Bars: a live block of one row per running transfer, redrawn in place and never taller than the
// terminal (what does not fit is summed up in its last row); a transfer that ends leaves the block
// and its line is printed once above it, scrolling as ordinary output does. Lines: a few plain
// lines per transfer, no escape codes. Silent: nothing.
class Display {
public:
  enum class Mode { Bars, Lines, Silent };

  // Bars when standard error is a terminal that takes cursor control (POSIX: TERM set and not
  // "dumb"; Windows: a console with escape-sequence processing); else lines; silent when `quiet`.
  static Mode chooseMode(bool quiet);

  // Told of each transfer once it has ended, with the live block erased, so that it may print.
  // Returns true when it printed the failure of that transfer itself (the display then does not).
  using Announce = std::function<bool(const TransferState&)>;

  explicit Display(Mode mode);
  Display(const Display&) = delete;
  Display& operator=(const Display&) = delete;

  Mode mode() const { return displayMode; }

  // Starts following a new group; the previous group's block is left as it was last drawn.
  void follow(const TransferList& transfers);
  // Announces the transfers that ended since the last call, then redraws (bars) or prints what
  // changed (lines). Called on the main thread only.
  void refresh(const Announce& announce = nullptr);
  // A note between groups, e.g. a step title.
  void note(const std::string& text);

  // The rows of the live block for these transfers, at most `rows` of them (the last one then
  // says how many more there are), each at most `width` - 1 columns wide.
  std::vector<std::string> blockLines(const std::vector<TransferState>& live, int rows,
                                      int width) const;

private:
  std::string barLine(const TransferState& state, const std::string& waiting, int width) const;
  std::string plainLine(const TransferState& state) const;
  std::string finishedLine(const TransferState& state) const;

  Mode displayMode;
  TransferList group;
  // Rows of the live block on the screen now (bars), to move back over them.
  int drawnLines = 0;
  // Per transfer of the group: whether its end was announced, the last quarter printed (lines).
  std::vector<bool> announced;
  std::vector<int> printedQuarter;
  unsigned spinner = 0;
};

}  // namespace quill_cli
