// UploadTask::completeUrlScheme on arbitrary text: the result keeps the input at its end, has a
// scheme whenever the input is not empty, and completing it again changes nothing.

#include "task/UploadTask.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
  }
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string url(reinterpret_cast<const char*>(data), size);
  const auto completed = cloud::UploadTask::completeUrlScheme(url);
  if (url.empty()) {
    check(completed.empty(), "empty stays empty");
    return 0;
  }
  check(startsWith(completed, "https://") || startsWith(completed, "http://"), "has a scheme");
  check(completed.size() >= url.size() &&
            completed.compare(completed.size() - url.size(), url.size(), url) == 0,
        "the input is kept at the end");
  if (startsWith(url, "https://") || startsWith(url, "http://")) {
    check(completed == url, "a URL with a scheme is kept");
  } else if (startsWith(url, "//")) {
    check(completed == "https:" + url, "a scheme-relative URL gains https:");
  } else {
    check(completed == "https://" + url, "anything else gains https://");
  }
  check(cloud::UploadTask::completeUrlScheme(completed) == completed, "completing is idempotent");
  return 0;
}
