#include "sdk/base/time.h"

#include <gtest/gtest.h>

namespace tarn_base {
namespace {

constexpr int64_t kMax = internal::kInt64Max;
constexpr int64_t kMin = internal::kInt64Min;

TEST(TimeTest, ConversionsAndArithmeticSaturate) {
  EXPECT_EQ(TimeDelta::FromMilliseconds(kMax), TimeDelta::Max());
  EXPECT_EQ(TimeDelta::FromMilliseconds(kMin), TimeDelta::Min());
  EXPECT_EQ(TimeDelta::FromSeconds(kMax / 1000), TimeDelta::Max());
  EXPECT_EQ(TimeDelta::FromMilliseconds(kMax / 1000).InMicroseconds(), kMax / 1000 * 1000);
  EXPECT_EQ(TimeDelta::FromMicroseconds(-1999).InMilliseconds(), -1);

  EXPECT_EQ(TimeDelta::Max() + TimeDelta::FromMicroseconds(1), TimeDelta::Max());
  EXPECT_EQ(TimeDelta::Min() - TimeDelta::FromMicroseconds(1), TimeDelta::Min());
  EXPECT_EQ(TimeDelta::FromSeconds(1) - TimeDelta::Min(), TimeDelta::Max());
  EXPECT_EQ(TimeDelta::FromSeconds(-1) * kMax, TimeDelta::Min());

  const TimeTicks now = TimeTicks::FromMicroseconds(5);
  EXPECT_TRUE((now + TimeDelta::Max()).is_max());
  EXPECT_TRUE((TimeTicks::Max() + TimeDelta::FromSeconds(1)).is_max());
  EXPECT_EQ((now - TimeDelta::Max()).InMicroseconds(), 5 - kMax);
  EXPECT_EQ(now - TimeDelta::Min(), TimeTicks::Max());
  EXPECT_EQ(TimeTicks::Max() - TimeTicks::FromMicroseconds(-10), TimeDelta::Max());
  EXPECT_EQ(TimeTicks::FromMicroseconds(kMin) - now, TimeDelta::Min());
}

}  // namespace
}  // namespace tarn_base
