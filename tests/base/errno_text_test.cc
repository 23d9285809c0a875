#include "sdk/base/errno_text.h"

#include <cstring>
#include <string>

#include "gtest/gtest.h"

namespace tarn_base {
namespace {

// The text is the C library's own for every errno value (whichever strerror_r it
// declares), and an unknown value still gets a message rather than an empty string.
// std::strerror is the reference: no other thread calls it in this test.
TEST(ErrnoTextTest, GivesTheLibraryText) {
  for (int error = 1; error < 134; ++error) {
    EXPECT_EQ(ErrnoText(error), std::string(std::strerror(error))) << error;
  }
  EXPECT_FALSE(ErrnoText(123456).empty());
}

}  // namespace
}  // namespace tarn_base
