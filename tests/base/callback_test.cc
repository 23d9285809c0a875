#include "sdk/base/callback.h"

#include <gtest/gtest.h>

#include <memory>

namespace tarn_base {
namespace {

// Copyable, but counts copies, to prove that callbacks move their arguments.
struct Counted {
  static int copies;
  Counted() = default;
  Counted(const Counted&) { ++copies; }
  Counted(Counted&&) noexcept = default;
};
int Counted::copies = 0;

struct Adder {
  int Add(int x) const { return base + x; }
  int base = 0;
};

TEST(CallbackTest, OnceMovesArgumentsAndResetReleasesThem) {
  Counted::copies = 0;
  std::unique_ptr<int> got;
  OnceClosure once = BindOnce([&got](std::unique_ptr<int> p, Counted) { got = std::move(p); },
                              std::make_unique<int>(7), Counted());
  OnceClosure moved = std::move(once);
  std::move(moved).Run();
  EXPECT_TRUE(once.is_null() && moved.is_null());
  EXPECT_EQ(Counted::copies, 0);
  EXPECT_NE(got, nullptr);

  auto state = std::make_shared<int>();
  std::weak_ptr<int> alive = state;
  OnceClosure reset = BindOnce([](std::shared_ptr<int>) {}, std::move(state));
  reset.Reset();
  EXPECT_TRUE(alive.expired());
}

TEST(CallbackTest, RepeatingCopiesShareBoundState) {
  Adder adder;
  RepeatingCallback<int(int)> add = BindRepeating(&Adder::Add, Unretained(&adder));
  adder.base = 100;  // Unretained binds the object itself, not a copy.
  EXPECT_EQ(add.Run(2), 102);

  Counted::copies = 0;
  int runs = 0;
  auto state = std::make_shared<int>();
  std::weak_ptr<int> alive = state;
  RepeatingClosure count =
      BindRepeating([](int* n, const Counted&, const std::shared_ptr<int>&) { ++*n; }, &runs,
                    Counted(), std::move(state));
  RepeatingClosure copy = count;
  count.Run();
  OnceClosure once = copy;  // A repeating callback serves where a once one is wanted.
  std::move(once).Run();
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(Counted::copies, 0);  // Neither copying the callback nor running it copies.
  count.Reset();
  EXPECT_FALSE(alive.expired());  // The copy still holds the state.
  copy.Reset();
  EXPECT_TRUE(alive.expired());
}

}  // namespace
}  // namespace tarn_base
