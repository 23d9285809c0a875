#include "sdk/base/ref_counted.h"

#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace tarn_base {
namespace {

class Counted : public RefCountedThreadSafe<Counted> {
 public:
  explicit Counted(std::atomic<int>* destroyed) : destroyed_(destroyed) {}

 protected:
  friend class RefCountedThreadSafe<Counted>;
  ~Counted() { destroyed_->fetch_add(1); }

 private:
  std::atomic<int>* destroyed_;
};

TEST(RefCountedTest, LastReleaseAmongManyThreadsDeletesOnce) {
  constexpr int kThreads = 8;
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> destroyed{0};
    // Each thread owns one reference; whichever drops it last must delete.
    Counted* object = new Counted(&destroyed);
    for (int i = 0; i < kThreads; ++i) object->AddRef();
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        while (!go.load()) std::this_thread::yield();
        for (int j = 0; j < 20000; ++j) scoped_refptr<Counted> copy(object);
        object->Release();
      });
    }
    go = true;
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(destroyed.load(), 1) << "round " << round;
  }
}

TEST(RefCountedTest, ScopedRefptrKeepsCountRight) {
  std::atomic<int> destroyed_a{0};
  std::atomic<int> destroyed_b{0};
  scoped_refptr<Counted> a = MakeRefCounted<Counted>(&destroyed_a);
  scoped_refptr<Counted> copy = a;
  scoped_refptr<Counted> moved = std::move(copy);
  EXPECT_EQ(copy, nullptr);  // NOLINT(bugprone-use-after-move)
  EXPECT_FALSE(a->HasOneRef());
  moved = nullptr;
  a = a;  // Self-assignment keeps the object.
  EXPECT_TRUE(a->HasOneRef());

  scoped_refptr<Counted> b = MakeRefCounted<Counted>(&destroyed_b);
  moved = a;
  moved = b;  // Drops the reference on a, takes one on b.
  EXPECT_TRUE(a->HasOneRef());
  a = std::move(moved);  // a's object goes; a and b now share b's.
  EXPECT_EQ(destroyed_a.load(), 1);
  EXPECT_EQ(a, b);

  Counted* raw = b.release();  // Gives the reference up without releasing it.
  a.reset();
  EXPECT_EQ(destroyed_b.load(), 0);
  raw->Release();
  EXPECT_EQ(destroyed_b.load(), 1);
}

}  // namespace
}  // namespace tarn_base
