// The Content-Range parser of resumed downloads: whatever a server sends, a range it accepts is
// consistent (first <= last < complete) and, written back in the canonical form, reads the same.

#include <quill_network/detail/HttpTransport.h>

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

std::string canonical(const quill_network_detail::ContentRange& range) {
  if (range.first < 0) {
    return "bytes */" + std::to_string(range.complete);
  }
  return "bytes " + std::to_string(range.first) + "-" + std::to_string(range.last) + "/" +
         (range.complete < 0 ? std::string("*") : std::to_string(range.complete));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  quill_network_detail::ContentRange range;
  range.first = 7;
  if (!quill_network_detail::testing::parseContentRange(input, range)) {
    check(range.first == 7 && range.last == -1 && range.complete == -1,
          "a refused value leaves the range unchanged");
    return 0;
  }
  if (range.first < 0) {
    check(range.last == -1 && range.complete >= 0, "an unsatisfied range names the length only");
  } else {
    check(range.first <= range.last, "first <= last");
    check(range.complete == -1 || range.last < range.complete, "last < complete");
  }
  quill_network_detail::ContentRange again;
  check(quill_network_detail::testing::parseContentRange(canonical(range), again),
        "the canonical form is accepted");
  check(again.first == range.first && again.last == range.last && again.complete == range.complete,
        "the canonical form reads the same");
  return 0;
}
