#include "detail/TransferSettings.h"

#include <quill_base/Logger.h>

#include <charconv>
#include <cstdlib>
#include <cstring>

#ifndef QUILL_VERSION
#error "QUILL_VERSION must name the project version"
#endif

namespace quill_network_detail {
namespace {

constexpr long kDefaultStallSeconds = 30;
constexpr long kDefaultResumeWaitMs = 500;

// A positive number from the environment variable `name`; `fallback` when it is unset, and with a
// warning when it holds anything else.
long positiveFromEnvironment(const char* name, const char* unit, long fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') {
    return fallback;
  }
  long value = 0;
  const char* end = text + std::strlen(text);
  const auto parsed = std::from_chars(text, end, value);
  if (parsed.ec != std::errc() || parsed.ptr != end || value <= 0) {
    QLOG_WARN(name << "=\"" << text << "\" is not a positive number of " << unit << "; using "
                   << fallback);
    return fallback;
  }
  return value;
}

}  // namespace

TransferSettings TransferSettings::fromEnvironment() {
  TransferSettings settings;
  if (const char* bundle = std::getenv("QUILL_CA_BUNDLE")) {
    settings.caBundle = bundle;
  }
  settings.stallSeconds =
      positiveFromEnvironment("QUILL_HTTP_STALL_SECONDS", "seconds", kDefaultStallSeconds);
  settings.resumeWaitMs =
      positiveFromEnvironment("QUILL_HTTP_RESUME_WAIT_MS", "milliseconds", kDefaultResumeWaitMs);
  return settings;
}

const char* userAgent() {
  return "quill_cloud/" QUILL_VERSION;
}

}  // namespace quill_network_detail
