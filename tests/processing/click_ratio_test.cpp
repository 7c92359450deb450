#include "click_ratio.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace kv::test {
namespace {

TEST(ClickRatio, SeamlessLoopStaysLowAndAJumpStandsOut) {
  // 441 Hz at 44.1 kHz: 100 frames a period, so a loop of 1000 frames joins
  // without a seam; one of 1050 frames joins half a period off.
  std::vector<float> x(2 * 4000);
  for (int n = 0; n < 4000; ++n) {
    x[2 * n] = static_cast<float>(0.5 * std::sin(2 * M_PI * 441.0 * n / 44100.0));
    x[2 * n + 1] = static_cast<float>(0.25 * std::sin(2 * M_PI * 882.0 * n / 44100.0));
  }
  EXPECT_LE(ClickRatioDb(x, 2, 1000, 2000), 0.1);
  EXPECT_GT(ClickRatioDb(x, 2, 1000, 2050), 20.0);
  // The worst channel counts: a seam in the right channel alone shows.
  std::vector<float> y = x;
  for (int n = 0; n < 4000; ++n) y[2 * n + 1] = static_cast<float>(0.25 * std::sin(2 * M_PI * 300.0 * n / 44100.0));
  EXPECT_GT(ClickRatioDb(y, 2, 1000, 2000), 20.0);
  EXPECT_TRUE(std::isnan(ClickRatioDb(x, 2, 1000, 1019)));
  EXPECT_TRUE(std::isnan(ClickRatioDb(x, 2, 3000, 4001)));
  std::vector<float> silence(100);
  EXPECT_EQ(ClickRatioDb(silence, 1, 10, 90), -INFINITY);
}

}  // namespace
}  // namespace kv::test
