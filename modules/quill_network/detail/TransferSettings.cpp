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

long stallSecondsFrom(const char* text) {
  if (text == nullptr || *text == '\0') {
    return kDefaultStallSeconds;
  }
  long value = 0;
  const char* end = text + std::strlen(text);
  const auto parsed = std::from_chars(text, end, value);
  if (parsed.ec != std::errc() || parsed.ptr != end || value <= 0) {
    QLOG_WARN("QUILL_HTTP_STALL_SECONDS=\""
              << text << "\" is not a positive number of seconds; using " << kDefaultStallSeconds);
    return kDefaultStallSeconds;
  }
  return value;
}

}  // namespace

TransferSettings TransferSettings::fromEnvironment() {
  TransferSettings settings;
  if (const char* bundle = std::getenv("QUILL_CA_BUNDLE")) {
    settings.caBundle = bundle;
  }
  settings.stallSeconds = stallSecondsFrom(std::getenv("QUILL_HTTP_STALL_SECONDS"));
  return settings;
}

const char* userAgent() {
  return "quill_cloud/" QUILL_VERSION;
}

}  // namespace quill_network_detail
