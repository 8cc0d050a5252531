// The Content-Range parser behind resumed downloads.
#include <quill_network/detail/HttpTransport.h>

#include <gtest/gtest.h>

#include <string>

using quill_network_detail::ContentRange;

namespace {

::testing::AssertionResult parses(const std::string& value, std::int64_t first, std::int64_t last,
                                  std::int64_t complete) {
  ContentRange range;
  if (!quill_network_detail::testing::parseContentRange(value, range)) {
    return ::testing::AssertionFailure() << "\"" << value << "\" was refused";
  }
  if (range.first != first || range.last != last || range.complete != complete) {
    return ::testing::AssertionFailure() << "\"" << value << "\" gave " << range.first << "-"
                                         << range.last << "/" << range.complete;
  }
  return ::testing::AssertionSuccess();
}

bool refused(const std::string& value) {
  ContentRange range;
  range.first = 42;
  const bool accepted = quill_network_detail::testing::parseContentRange(value, range);
  return !accepted && range.first == 42 && range.last == -1 && range.complete == -1;
}

}  // namespace

TEST(ContentRange, ARangeOfAKnownLength) {
  EXPECT_TRUE(parses("bytes 0-499/1234", 0, 499, 1234));
  EXPECT_TRUE(parses("bytes 1233-1233/1234", 1233, 1233, 1234));
  EXPECT_TRUE(parses("bytes 8589934592-17179869183/17179869184", 8589934592LL, 17179869183LL,
                     17179869184LL))
      << "beyond 4 GiB";
}

TEST(ContentRange, ARangeOfAnUnknownLength) {
  EXPECT_TRUE(parses("bytes 100-199/*", 100, 199, -1));
}

TEST(ContentRange, AnUnsatisfiableRangeNamesTheLengthOnly) {
  EXPECT_TRUE(parses("bytes */1234", -1, -1, 1234));
}

TEST(ContentRange, TheUnitIsReadWithoutCaseAndBlanksAroundAreAllowed) {
  EXPECT_TRUE(parses("Bytes 5-9/10", 5, 9, 10));
  EXPECT_TRUE(parses("  BYTES 5-9/10\t ", 5, 9, 10));
}

TEST(ContentRange, AnythingElseIsRefused) {
  for (const char* value :
       {"", "bytes", "bytes ", "bytes 5-9", "bytes 5-/10", "bytes -9/10", "bytes 9-5/10",
        "bytes 5-10/10", "bytes 5-9/9", "bytes */*", "bytes 5-9/10 x", "bytes  5-9/10",
        "items 5-9/10", "bytes=5-9/10", "bytes +5-9/10", "bytes 0x5-9/10", "bytes 5-9/-1",
        "bytes 5-9, 20-29/100", "bytes 0-9223372036854775808/9223372036854775809"}) {
    EXPECT_TRUE(refused(value)) << "\"" << value << "\" was accepted";
  }
}
