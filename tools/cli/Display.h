#pragma once

#include "Transfer.h"

#include <cstdio>
#include <string>

namespace quill_cli {

// "3.0 MiB", "512 B"
std::string formatBytes(std::int64_t bytes);
// "2.5 MiB/s"; "-" when nothing can be said
std::string formatRate(std::int64_t bytes, double seconds);
// "1.24 s", "2:05"
std::string formatSeconds(double seconds);
// What a result code means, in a few words.
std::string describeCode(int code);

// Progress of a group of transfers on standard error: live bars redrawn in place on a terminal,
// plain lines (a few per transfer) otherwise, or nothing at all.
class Display {
public:
  enum class Mode { Bars, Lines, Silent };

  // Bars when standard error is a terminal, else lines; silent when `quiet`.
  static Mode chooseMode(bool quiet);

  explicit Display(Mode mode);
  Display(const Display&) = delete;
  Display& operator=(const Display&) = delete;

  Mode mode() const { return displayMode; }

  // Starts following a new group; the previous group's lines stay as they were last drawn.
  void follow(const TransferList& transfers);
  // Redraws (bars) or prints what changed (lines). Called on the main thread only.
  void refresh();
  // A note between groups, e.g. a step title.
  void note(const std::string& text);

private:
  std::string barLine(const TransferState& state, int width) const;
  std::string plainLine(const TransferState& state) const;

  Mode displayMode;
  TransferList group;
  // Lines of the group drawn so far (bars), to move back over them.
  int drawnLines = 0;
  // Per transfer of the group: the last quarter printed (lines) and whether its end was printed.
  std::vector<int> printedQuarter;
  std::vector<bool> printedEnd;
  unsigned spinner = 0;
};

}  // namespace quill_cli
