#include "detail/ProgressThrottle.h"

#include <gtest/gtest.h>

using quill_network_detail::ProgressThrottle;
using std::chrono::milliseconds;

namespace {

const ProgressThrottle::Clock::time_point t0{};

}  // namespace

TEST(ProgressThrottle, FirstMovementPassesAtOnce) {
  ProgressThrottle throttle(milliseconds(50));
  EXPECT_FALSE(throttle.admit(0, t0)) << "nothing moved yet";
  EXPECT_TRUE(throttle.admit(10, t0));
}

TEST(ProgressThrottle, ReportsInsideTheIntervalAreDropped) {
  ProgressThrottle throttle(milliseconds(50));
  ASSERT_TRUE(throttle.admit(10, t0));
  EXPECT_FALSE(throttle.admit(20, t0 + milliseconds(49)));
  EXPECT_TRUE(throttle.admit(30, t0 + milliseconds(50)));
  EXPECT_FALSE(throttle.admit(40, t0 + milliseconds(60)));
  EXPECT_TRUE(throttle.admit(40, t0 + milliseconds(100)));
}

TEST(ProgressThrottle, NeverGoesBackwardsOrRepeats) {
  ProgressThrottle throttle(milliseconds(50));
  ASSERT_TRUE(throttle.admit(100, t0));
  EXPECT_FALSE(throttle.admit(100, t0 + milliseconds(200)));
  EXPECT_FALSE(throttle.admit(50, t0 + milliseconds(400)));
  EXPECT_TRUE(throttle.admit(101, t0 + milliseconds(600)));
}

TEST(ProgressThrottle, AtMostTwentyReportsASecond) {
  ProgressThrottle throttle(milliseconds(50));
  int admitted = 0;
  for (int ms = 0; ms < 1000; ++ms) {
    admitted += throttle.admit(ms + 1, t0 + milliseconds(ms)) ? 1 : 0;
  }
  EXPECT_EQ(admitted, 20);
}

TEST(ProgressThrottle, FinalReportIsNeverBelowAnEarlierOne) {
  ProgressThrottle throttle(milliseconds(50));
  ASSERT_TRUE(throttle.admit(100, t0));
  EXPECT_EQ(throttle.finalDone(80), 100) << "an upload sent again after a redirect";
  EXPECT_EQ(throttle.finalDone(120), 120);
}
