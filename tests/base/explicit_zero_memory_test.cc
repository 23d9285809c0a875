#include "sdk/base/explicit_zero_memory.h"

#include <string.h>

#include <gtest/gtest.h>

namespace tarnel {
namespace {

TEST(ExplicitZeroMemoryTest, ZeroesExactlyTheGivenRange) {
  unsigned char buffer[64];
  memset(buffer, 0xA5, sizeof(buffer));
  ExplicitZeroMemory(buffer + 8, 40);
  for (size_t i = 0; i < sizeof(buffer); ++i) {
    EXPECT_EQ(buffer[i], (i >= 8 && i < 48) ? 0 : 0xA5) << i;
  }
  ExplicitZeroMemory(nullptr, 0);
}

}  // namespace
}  // namespace tarnel
