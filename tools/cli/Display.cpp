#include "Display.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <sstream>

namespace quill_cli {
namespace {

int terminalWidth() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 20) {
    return size.ws_col;
  }
  return 80;
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

std::string formatPrintf(const char* format, double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, format, value);
  return buffer;
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
    case 1:
      return "not ended";
    case 2:
      return "success";
    case 3:
      return "cancelled";
    case -1:
      return "failed before the transfer";
    case -2:
      return "not found (404)";
    case -3:
      return "forbidden (403)";
    case -4:
      return "bad request (400)";
    case -100:
      return "transfer or server failure";
    default:
      return "failure";
  }
}

Display::Mode Display::chooseMode(bool quiet) {
  if (quiet) {
    return Mode::Silent;
  }
  return isatty(STDERR_FILENO) != 0 ? Mode::Bars : Mode::Lines;
}

Display::Display(Mode mode) : displayMode(mode) {}

void Display::follow(const TransferList& transfers) {
  group = transfers;
  drawnLines = 0;
  printedQuarter.assign(group.size(), -1);
  printedEnd.assign(group.size(), false);
  refresh();
}

void Display::note(const std::string& text) {
  if (displayMode == Mode::Silent) {
    return;
  }
  // A note closes the group: its lines are not redrawn after it.
  group.clear();
  drawnLines = 0;
  std::fprintf(stderr, "%s\n", text.c_str());
  std::fflush(stderr);
}

void Display::refresh() {
  if (displayMode == Mode::Silent || group.empty()) {
    return;
  }
  if (displayMode == Mode::Bars) {
    ++spinner;
    const int width = terminalWidth();
    std::string out;
    if (drawnLines > 0) {
      out += "\x1b[" + std::to_string(drawnLines) + "A";
    }
    for (const auto& transfer : group) {
      out += "\r\x1b[2K" + barLine(transfer->snapshot(), width) + "\n";
    }
    drawnLines = static_cast<int>(group.size());
    std::fputs(out.c_str(), stderr);
    std::fflush(stderr);
    return;
  }
  for (std::size_t i = 0; i < group.size(); ++i) {
    const auto state = group[i]->snapshot();
    if (state.ended) {
      if (!printedEnd[i]) {
        printedEnd[i] = true;
        std::fprintf(stderr, "%s\n", plainLine(state).c_str());
      }
      continue;
    }
    const int quarter = state.percent < 0 ? -1 : state.percent / 25;
    if (quarter > printedQuarter[i]) {
      printedQuarter[i] = quarter;
      std::fprintf(stderr, "%s\n", plainLine(state).c_str());
    }
  }
  std::fflush(stderr);
}

std::string Display::plainLine(const TransferState& state) const {
  std::ostringstream line;
  line << state.operation << " " << state.kind << " " << state.label << ": ";
  if (state.ended) {
    if (state.succeeded()) {
      line << "done, " << formatBytes(state.bytes) << " in " << formatSeconds(state.seconds())
           << " (" << formatRate(state.bytes, state.seconds()) << ")";
    } else {
      line << "result " << state.code << ", " << describeCode(state.code);
      if (!state.message.empty()) {
        line << ": " << state.message;
      }
    }
    return line.str();
  }
  line << state.percent << "%";
  // A download's byte count trails its percentage (the body reaches the disk in chunks).
  if (state.bytes > 0) {
    line << ", " << formatBytes(state.bytes) << ", " << formatRate(state.bytes, state.seconds());
  }
  return line.str();
}

std::string Display::barLine(const TransferState& state, int width) const {
  // "<operation kind> <label> [#####-----] 45% 1.20 MiB 2.50 MiB/s 0.50 s left"
  constexpr int kHead = 16;
  constexpr int kTail = 44;
  const int labelWidth = std::clamp(width - kHead - kTail - 14, 8, 32);
  std::string line = fit(state.operation + " " + state.kind, kHead - 1) + " " +
                     fit(state.label, static_cast<std::size_t>(labelWidth)) + " ";
  const double seconds = state.seconds();

  if (state.ended) {
    if (state.succeeded()) {
      line += "done  " + formatBytes(state.bytes) + " in " + formatSeconds(seconds) + "  " +
              formatRate(state.bytes, seconds);
    } else {
      line += "result " + std::to_string(state.code) + " (" + describeCode(state.code) + ")";
      if (!state.message.empty()) {
        line += ": " + state.message;
      }
    }
    return line.substr(0, static_cast<std::size_t>(width - 1));
  }

  const int percent = std::max(state.percent, 0);
  const int barWidth = std::clamp(width - static_cast<int>(line.size()) - kTail, 10, 40);
  const int filled = barWidth * percent / 100;
  line += "[" + std::string(static_cast<std::size_t>(filled), '#') +
          std::string(static_cast<std::size_t>(barWidth - filled), '-') + "] ";
  if (state.percent < 0) {
    static const char kSpin[] = "|/-\\";
    line += std::string("  ") + kSpin[spinner % 4] + "  ";
  } else {
    line += formatPrintf("%3.0f%%", percent) + " ";
  }
  // A download's byte count trails its percentage (the body reaches the disk in chunks).
  const bool knownBytes = state.bytes > 0;
  line += fit(knownBytes ? formatBytes(state.bytes) : "", 10) + " " +
          fit(knownBytes ? formatRate(state.bytes, seconds) : "", 12);
  if (percent > 0) {
    const double left = seconds * (100.0 - percent) / percent;
    line += " " + formatSeconds(left) + " left";
  }
  return line.substr(0, static_cast<std::size_t>(width - 1));
}

}  // namespace quill_cli
