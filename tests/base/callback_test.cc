#include "sdk/base/callback.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace tarn_base {
namespace {

// Copyable, but counts copies and moves, to prove that callbacks move their arguments.
struct Counted {
  static int copies;
  static int moves;
  Counted() = default;
  Counted(const Counted&) { ++copies; }
  Counted(Counted&&) noexcept { ++moves; }
};
int Counted::copies = 0;
int Counted::moves = 0;

struct DestroyFlag {
  explicit DestroyFlag(bool* destroyed) : destroyed(destroyed) {}
  ~DestroyFlag() { *destroyed = true; }
  bool* destroyed;
};

struct Sink {
  void Take(std::unique_ptr<std::vector<uint8_t>> frame, Counted) { frame_ = std::move(frame); }
  int Add(int x) const { return base_ + x; }
  std::unique_ptr<std::vector<uint8_t>> frame_;
  int base_ = 40;
};

TEST(CallbackTest, OnceMovesArgumentsAndResetReleasesThem) {
  Sink sink;
  auto frame = std::make_unique<std::vector<uint8_t>>(4096);
  const uint8_t* bytes = frame->data();
  Counted::copies = Counted::moves = 0;
  OnceClosure once = BindOnce(&Sink::Take, Unretained(&sink), std::move(frame), Counted());
  OnceClosure moved = std::move(once);
  std::move(moved).Run();
  EXPECT_TRUE(once.is_null() && moved.is_null());
  EXPECT_EQ(Counted::copies, 0);
  EXPECT_GT(Counted::moves, 0);
  ASSERT_NE(sink.frame_, nullptr);
  EXPECT_EQ(sink.frame_->data(), bytes);  // The same buffer arrived.

  bool reset_destroyed = false;
  OnceClosure reset = BindOnce([](std::unique_ptr<DestroyFlag>) {},
                               std::make_unique<DestroyFlag>(&reset_destroyed));
  reset.Reset();
  EXPECT_TRUE(reset_destroyed);
}

TEST(CallbackTest, RepeatingCopiesShareBoundState) {
  Sink sink;
  RepeatingCallback<int(int)> add = BindRepeating(&Sink::Add, Unretained(&sink));
  sink.base_ = 100;  // Unretained binds the object itself.
  EXPECT_EQ(add.Run(2), 102);

  Counted::copies = 0;
  int runs = 0;
  bool destroyed = false;
  RepeatingClosure count =
      BindRepeating([](int* n, const Counted&, const std::shared_ptr<DestroyFlag>&) { ++*n; },
                    &runs, Counted(), std::make_shared<DestroyFlag>(&destroyed));
  RepeatingClosure copy = count;
  count.Run();
  copy.Run();
  OnceClosure once = copy;  // A repeating callback serves where a once one is wanted.
  std::move(once).Run();
  EXPECT_EQ(runs, 3);
  EXPECT_EQ(Counted::copies, 0);  // Neither copying the callback nor running it copies.
  count.Reset();
  EXPECT_FALSE(destroyed);  // The copy still holds the state.
  copy.Reset();
  EXPECT_TRUE(destroyed);
}

}  // namespace
}  // namespace tarn_base
