#include "Display.h"

#include "Platform.h"

#include <quill_cloud/CloudStorageCodes.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace quill_cli {
namespace {

// The service runs at most this many of each at once and keeps the rest waiting, oldest first
// (CloudStorageService.h); avatars are downloads. This tells a queued transfer from one that is
// connecting before its first byte.
constexpr int kDownloadsAtOnce = 4;
constexpr int kUploadsAtOnce = 2;

int terminalWidth() {
  const auto size = errorTerminalSize();
  return size.columns > 20 ? size.columns : 80;
}

int terminalRows() {
  const auto size = errorTerminalSize();
  return size.rows > 0 ? size.rows : 24;
}

std::string fit(const std::string& text, std::size_t width) {
  if (text.size() <= width) {
    return text + std::string(width - text.size(), ' ');
  }
  if (width <= 3) {
    return text.substr(0, width);
  }
  return text.substr(0, width - 3) + "...";
}

std::string clip(const std::string& text, int width) {
  return text.substr(0, static_cast<std::size_t>(std::max(width - 1, 1)));
}

std::string formatPrintf(const char* format, double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, format, value);
  return buffer;
}

bool isUpload(const TransferState& state) {
  return state.operation == "upload";
}

}  // namespace

std::string formatBytes(std::int64_t bytes) {
  if (bytes < 1024) {
    return std::to_string(bytes) + " B";
  }
  const char* units[] = {"KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes) / 1024.0;
  std::size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < std::size(units)) {
    value /= 1024.0;
    ++unit;
  }
  return formatPrintf(value < 10    ? "%.2f"
                      : value < 100 ? "%.1f"
                                    : "%.0f",
                      value) +
         " " + units[unit];
}

std::string formatRate(std::int64_t bytes, double seconds) {
  if (bytes <= 0 || seconds <= 0.0) {
    return "-";
  }
  return formatBytes(static_cast<std::int64_t>(static_cast<double>(bytes) / seconds)) + "/s";
}

std::string formatSeconds(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) {
    return "-";
  }
  if (seconds < 60) {
    return formatPrintf(seconds < 10 ? "%.2f s" : "%.1f s", seconds);
  }
  const auto whole = static_cast<long>(seconds);
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%ld:%02ld", whole / 60, whole % 60);
  return buffer;
}

std::string describeCode(int code) {
  switch (code) {
    case CloudStorageResult::kPending:
      return "not ended";
    case CloudStorageResult::kSuccess:
      return "success";
    case CloudStorageResult::kCancelled:
      return "cancelled";
    case CloudStorageResult::kFailed:
      return "local failure, before or after the transfer";
    case CloudStorageResult::kNotFound:
      return "not found (404)";
    case CloudStorageResult::kForbidden:
      return "forbidden (403)";
    case CloudStorageResult::kBadRequest:
      return "bad request (400)";
    case CloudStorageResult::kTransferFailed:
      return "transfer or server failure";
    default:
      return "failure";
  }
}

bool terminalUnderstandsEscapes(const char* term) {
  return term != nullptr && *term != '\0' && std::strcmp(term, "dumb") != 0;
}

Display::Mode Display::chooseMode(bool quiet) {
  if (quiet) {
    return Mode::Silent;
  }
  return errorTerminalTakesEscapes() ? Mode::Bars : Mode::Lines;
}

Display::Display(Mode mode) : displayMode(mode) {}

void Display::follow(const TransferList& transfers) {
  group = transfers;
  drawnLines = 0;
  announced.assign(group.size(), false);
  printedQuarter.assign(group.size(), -1);
}

void Display::note(const std::string& text) {
  if (displayMode == Mode::Silent) {
    return;
  }
  // A note closes the group: its block is not redrawn after it.
  group.clear();
  drawnLines = 0;
  std::fprintf(stderr, "%s\n", text.c_str());
  std::fflush(stderr);
}

void Display::refresh(const Announce& announce) {
  if (group.empty()) {
    return;
  }
  std::vector<TransferState> states;
  states.reserve(group.size());
  for (const auto& transfer : group) {
    states.push_back(transfer->snapshot());
  }
  std::vector<std::size_t> newlyEnded;
  for (std::size_t i = 0; i < states.size(); ++i) {
    if (states[i].ended && !announced[i]) {
      newlyEnded.push_back(i);
    }
  }
  const bool bars = displayMode == Mode::Bars;
  const int width = bars ? terminalWidth() : 0;

  // Back to the top of the block; it is erased only when lines are to be printed above it.
  std::string out;
  if (bars && drawnLines > 0) {
    out += "\r\x1b[" + std::to_string(drawnLines) + "A";
  }
  if (!newlyEnded.empty()) {
    if (bars) {
      out += "\x1b[J";
      drawnLines = 0;
    }
    std::fputs(out.c_str(), stderr);
    std::fflush(stderr);
    out.clear();
    for (const auto i : newlyEnded) {
      announced[i] = true;
      const bool printed = announce ? announce(states[i]) : false;
      if (displayMode != Mode::Silent && !printed) {
        const auto line = finishedLine(states[i]);
        std::fprintf(stderr, "%s\n", (bars ? clip(line, width) : line).c_str());
      }
    }
    std::fflush(stdout);
  }

  if (bars) {
    ++spinner;
    std::vector<TransferState> live;
    for (const auto& state : states) {
      if (!state.ended) {
        live.push_back(state);
      }
    }
    // The block leaves the terminal's last row for the cursor, so that moving back up over it never
    // runs into the top of the screen.
    const int rows = std::max(terminalRows() - 1, 1);
    const auto lines = blockLines(live, rows, width);
    for (const auto& line : lines) {
      out += "\x1b[2K" + line + "\n";
    }
    // Whatever the previous, taller block left below.
    out += "\x1b[J";
    drawnLines = static_cast<int>(lines.size());
    std::fputs(out.c_str(), stderr);
  } else if (displayMode == Mode::Lines) {
    for (std::size_t i = 0; i < states.size(); ++i) {
      const auto& state = states[i];
      if (state.ended) {
        continue;
      }
      const int quarter = state.percent < 0 ? -1 : state.percent / 25;
      if (quarter > printedQuarter[i]) {
        printedQuarter[i] = quarter;
        std::fprintf(stderr, "%s\n", plainLine(state).c_str());
      }
    }
  }
  std::fflush(stderr);
}

std::vector<std::string> Display::blockLines(const std::vector<TransferState>& live, int rows,
                                             int width) const {
  // Running transfers first, then the waiting ones in the order they were handed over (the order
  // the library starts them in).
  std::vector<const TransferState*> ordered;
  int runningDownloads = 0;
  int runningUploads = 0;
  for (const auto& state : live) {
    if (state.started) {
      ordered.push_back(&state);
      (isUpload(state) ? runningUploads : runningDownloads) += 1;
    }
  }
  std::vector<std::string> waiting;
  int freeDownloads = std::max(kDownloadsAtOnce - runningDownloads, 0);
  int freeUploads = std::max(kUploadsAtOnce - runningUploads, 0);
  for (const auto& state : live) {
    if (state.started) {
      continue;
    }
    int& free = isUpload(state) ? freeUploads : freeDownloads;
    ordered.push_back(&state);
    waiting.push_back(free > 0 ? "starting" : "queued");
    free = std::max(free - 1, 0);
  }

  std::vector<std::string> lines;
  const auto total = static_cast<int>(ordered.size());
  const int shown = total <= rows ? total : rows - 1;
  const auto firstWaiting = static_cast<int>(ordered.size() - waiting.size());
  for (int i = 0; i < shown; ++i) {
    const auto* state = ordered[static_cast<std::size_t>(i)];
    const std::string how =
        i < firstWaiting ? std::string() : waiting[static_cast<std::size_t>(i - firstWaiting)];
    lines.push_back(barLine(*state, how, width));
  }
  if (shown < total) {
    int queued = 0;
    for (int i = std::max(shown, firstWaiting); i < total; ++i) {
      queued += waiting[static_cast<std::size_t>(i - firstWaiting)] == "queued" ? 1 : 0;
    }
    const int more = total - shown;
    lines.push_back(
        clip("+" + std::to_string(more) + " more (" + std::to_string(queued) + " queued)", width));
  }
  return lines;
}

std::string Display::finishedLine(const TransferState& state) const {
  std::ostringstream line;
  line << state.operation << " " << state.kind << " " << state.label << ": ";
  if (state.succeeded()) {
    line << "done, " << formatBytes(state.bytes) << " in " << formatSeconds(state.seconds()) << " ("
         << formatRate(state.bytes, state.seconds()) << ")";
  } else {
    line << "result " << state.code << " (" << describeCode(state.code) << ")";
    const auto reason = state.cause.empty() ? state.message : state.cause;
    if (!reason.empty()) {
      line << ": " << reason;
    }
  }
  return line.str();
}

std::string Display::plainLine(const TransferState& state) const {
  std::ostringstream line;
  line << state.operation << " " << state.kind << " " << state.label << ": ";
  if (!state.started) {
    line << "waiting";
    return line.str();
  }
  line << std::max(state.percent, 0) << "%";
  if (state.bytes > 0) {
    line << ", " << formatBytes(state.bytes) << ", " << formatRate(state.bytes, state.seconds());
  }
  return line.str();
}

std::string Display::barLine(const TransferState& state, const std::string& waiting,
                             int width) const {
  // "<operation kind> <label> [#####-----] 45% 1.20 MiB 2.50 MiB/s 0.50 s left"
  constexpr int kHead = 16;
  constexpr int kTail = 44;
  const int labelWidth = std::clamp(width - kHead - kTail - 14, 8, 32);
  std::string line = fit(state.operation + " " + state.kind, kHead - 1) + " " +
                     fit(state.label, static_cast<std::size_t>(labelWidth)) + " ";
  if (!state.started) {
    // Not moving yet: waiting in the library's queue, or connecting.
    static const char kSpin[] = "|/-\\";
    line += waiting == "queued" ? std::string("queued")
                                : waiting + " " + std::string(1, kSpin[spinner % 4]);
    return clip(line, width);
  }

  const double seconds = state.seconds();
  const int percent = std::max(state.percent, 0);
  const int barWidth = std::clamp(width - static_cast<int>(line.size()) - kTail, 10, 40);
  const int filled = barWidth * percent / 100;
  line += "[" + std::string(static_cast<std::size_t>(filled), '#') +
          std::string(static_cast<std::size_t>(barWidth - filled), '-') + "] ";
  line += formatPrintf("%3.0f%%", percent) + " ";
  const bool knownBytes = state.bytes > 0;
  line += fit(knownBytes ? formatBytes(state.bytes) : "", 10) + " " +
          fit(knownBytes ? formatRate(state.bytes, seconds) : "", 12);
  if (percent > 0) {
    const double left = seconds * (100.0 - percent) / percent;
    line += " " + formatSeconds(left) + " left";
  }
  return clip(line, width);
}

}  // namespace quill_cli
