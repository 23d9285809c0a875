#include "sdk/base/scoped_override.h"

#include <functional>
#include <thread>

#include "gtest/gtest.h"

namespace tarn_base {
namespace {

using Factory = std::function<int()>;

// Scopes nest: each installs its value, and its end brings back the one before, down to
// the empty value; another thread reads what is installed.
TEST(ScopedOverrideTest, NestedScopesRestoreThePreviousValue) {
  OverrideSlot<Factory> slot;
  EXPECT_FALSE(slot.Get());
  {
    ScopedOverride<Factory> outer(&slot, [] { return 1; });
    EXPECT_EQ(slot.Get()(), 1);
    {
      ScopedOverride<Factory> inner(&slot, [] { return 2; });
      int seen = 0;
      std::thread([&slot, &seen] { seen = slot.Get()(); }).join();
      EXPECT_EQ(seen, 2);
      {
        ScopedOverride<Factory> empty(&slot, Factory());
        EXPECT_FALSE(slot.Get());
      }
      EXPECT_EQ(slot.Get()(), 2);
    }
    EXPECT_EQ(slot.Get()(), 1);
  }
  EXPECT_FALSE(slot.Get());
}

}  // namespace
}  // namespace tarn_base
