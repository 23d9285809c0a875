#include "sdk/base/callback.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace tarn_base {
namespace {

// Copyable, but counts every copy and move, so a test can prove that binding and
// running move arguments instead of copying them.
struct Counted {
  static int copies;
  static int moves;
  Counted() = default;
  Counted(const Counted&) { ++copies; }
  Counted(Counted&&) noexcept { ++moves; }
};
int Counted::copies = 0;
int Counted::moves = 0;

struct Frame {
  std::vector<uint8_t> data = std::vector<uint8_t>(4096);
};

// Sets a flag when destroyed, to tell when a callback lets go of its bound state.
struct DestroyFlag {
  explicit DestroyFlag(bool* destroyed) : destroyed(destroyed) {}
  ~DestroyFlag() { *destroyed = true; }
  bool* destroyed;
};

class Sink {
 public:
  void Take(std::unique_ptr<Frame> frame, Counted /*tag*/) { frames_.push_back(std::move(frame)); }
  int Add(int x) const { return base_ + x; }
  std::vector<std::unique_ptr<Frame>> frames_;
  int base_ = 40;
};

TEST(CallbackTest, OnceMovesBoundArgumentsWithoutCopying) {
  Sink sink;
  auto frame = std::make_unique<Frame>();
  const uint8_t* bytes = frame->data.data();
  Counted::copies = Counted::moves = 0;

  OnceClosure once = BindOnce(&Sink::Take, Unretained(&sink), std::move(frame), Counted());
  OnceClosure moved = std::move(once);
  EXPECT_TRUE(once.is_null());
  std::move(moved).Run();

  EXPECT_TRUE(moved.is_null());
  EXPECT_EQ(Counted::copies, 0);
  EXPECT_GT(Counted::moves, 0);
  ASSERT_EQ(sink.frames_.size(), 1u);
  EXPECT_EQ(sink.frames_[0]->data.data(), bytes);  // The same buffer, not a copy.
}

TEST(CallbackTest, RepeatingSharesBoundStateAcrossCopiesAndRuns) {
  Sink sink;
  Counted::copies = 0;
  int runs = 0;
  RepeatingCallback<int(int)> add = BindRepeating(&Sink::Add, Unretained(&sink));
  RepeatingClosure count = BindRepeating([](int* n, const Counted&) { ++*n; }, &runs, Counted());
  RepeatingClosure copy = count;
  count.Run();
  copy.Run();
  copy.Run();
  EXPECT_EQ(runs, 3);
  EXPECT_EQ(Counted::copies, 0);  // Neither copying the callback nor running it copies.
  sink.base_ = 100;               // Unretained binds the object itself.
  EXPECT_EQ(add.Run(2), 102);

  // A repeating callback serves where a once callback is wanted.
  OnceClosure once = copy;
  std::move(once).Run();
  EXPECT_EQ(runs, 4);
}

TEST(CallbackTest, ResetAndRunReleaseBoundState) {
  bool reset_destroyed = false;
  OnceClosure reset = BindOnce([](std::unique_ptr<DestroyFlag>) {},
                               std::make_unique<DestroyFlag>(&reset_destroyed));
  reset.Reset();
  EXPECT_TRUE(reset_destroyed);

  bool run_destroyed = false;
  bool destroyed_during_run = true;
  OnceClosure run = BindOnce(
      [](bool* seen, const bool* flag, const std::unique_ptr<DestroyFlag>&) { *seen = *flag; },
      &destroyed_during_run, &run_destroyed, std::make_unique<DestroyFlag>(&run_destroyed));
  std::move(run).Run();
  EXPECT_FALSE(destroyed_during_run);
  EXPECT_TRUE(run_destroyed);

  bool repeating_destroyed = false;
  RepeatingClosure repeating = BindRepeating([](const std::shared_ptr<DestroyFlag>&) {},
                                             std::make_shared<DestroyFlag>(&repeating_destroyed));
  RepeatingClosure copy = repeating;
  repeating.Reset();
  EXPECT_FALSE(repeating_destroyed);  // The copy still holds the shared state.
  copy.Reset();
  EXPECT_TRUE(repeating_destroyed);
}

}  // namespace
}  // namespace tarn_base
