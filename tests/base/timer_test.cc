#include "sdk/base/timer.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "sdk/base/simulated_clock.h"
#include "sdk/base/thread.h"

namespace tarn_base {
namespace {

constexpr TimeDelta kPeriod = TimeDelta::FromMilliseconds(150);

struct DestroyFlag {
  explicit DestroyFlag(bool* destroyed) : destroyed(destroyed) {}
  ~DestroyFlag() { *destroyed = true; }
  bool* destroyed;
};

// A thread on virtual time. Timers are created, started and destroyed inside tasks on
// it, as in production code.
class TimerTest : public testing::Test {
 protected:
  TimerTest() : thread_("timer", &clock_) { EXPECT_TRUE(thread_.Start()); }
  ~TimerTest() override { thread_.Stop(); }

  // Runs `task` on the timer thread and waits for it.
  template <typename F>
  void OnThread(F task) {
    thread_.task_runner()->PostTask(FROM_HERE, BindOnce(std::move(task)));
    clock_.RunUntilIdle();
  }
  // Milliseconds since `start`.
  int64_t Since(TimeTicks start) const { return (clock_.NowTicks() - start).InMilliseconds(); }

  SimulatedClock clock_;
  Thread thread_;
};

TEST_F(TimerTest, RepeatingTicksAtDueTimesWithoutDrift) {
  RepeatingTimer timer;
  const TimeTicks start = clock_.NowTicks();
  std::vector<int64_t> ticks;
  std::vector<std::string> threads;
  OnThread([&] {
    EXPECT_TRUE(timer.Start(FROM_HERE, kPeriod, BindRepeating([&] {
                              ticks.push_back(Since(start));
                              threads.push_back(CurrentThreadName());
                              // The first callback takes 2.5 periods.
                              if (ticks.size() == 1)
                                clock_.Advance(TimeDelta::FromMilliseconds(375));
                            })));
  });
  clock_.FastForwardBy(kPeriod * 5);
  // Ticks 2 and 3 fell due while tick 1 ran and follow it at once; tick 4 is on time.
  EXPECT_EQ(ticks, (std::vector<int64_t>{150, 525, 525, 600, 750}));
  EXPECT_EQ(threads, std::vector<std::string>(5, "timer"));
  EXPECT_EQ(Since(start), 750);
  OnThread([&] { timer.Stop(); });
}

OnceClosure MustNotRun(bool* destroyed) {
  return BindOnce([](std::unique_ptr<DestroyFlag>) { ADD_FAILURE() << "ran"; },
                  std::make_unique<DestroyFlag>(destroyed));
}

TEST_F(TimerTest, StopAbandonsTheScheduleAndRestartBeginsANewOne) {
  RepeatingTimer timer;
  std::vector<int64_t> ticks;
  bool callback_destroyed = false;
  TimeTicks start = clock_.NowTicks();
  auto record = [&] { ticks.push_back(Since(start)); };
  OnThread([&] {
    timer.Start(FROM_HERE, kPeriod,
                BindRepeating([record, flag = std::make_shared<DestroyFlag>(&callback_destroyed)] {
                  record();
                }));
  });
  clock_.FastForwardBy(kPeriod * 2);
  OnThread([&] { timer.Stop(); });
  EXPECT_TRUE(callback_destroyed);
  clock_.FastForwardBy(TimeDelta::FromMilliseconds(500));
  EXPECT_EQ(ticks, (std::vector<int64_t>{150, 300}));

  // Restarted off the old grid, by a callback that stops the timer on its 2nd tick.
  OnThread([&] {
    start = clock_.NowTicks();
    ticks.clear();
    timer.Start(FROM_HERE, kPeriod, BindRepeating([&] {
                  record();
                  if (ticks.size() == 2) timer.Stop();
                }));
  });
  clock_.FastForwardBy(kPeriod * 4);
  EXPECT_EQ(ticks, (std::vector<int64_t>{150, 300}));
  OnThread([&] { EXPECT_FALSE(timer.Start(FROM_HERE, TimeDelta(), BindRepeating(record))); });
  EXPECT_FALSE(timer.Start(FROM_HERE, kPeriod, BindRepeating(record)));  // No runner here.
  EXPECT_FALSE(timer.IsRunning());
}

TEST_F(TimerTest, OneShotFiresOnceAndStopOrRestartDropsThePendingCallback) {
  OneShotTimer timer;
  const TimeTicks start = clock_.NowTicks();
  std::vector<int64_t> fired;
  bool replaced_destroyed = false;
  bool stopped_destroyed = false;
  OnThread([&] {
    timer.Start(FROM_HERE, TimeDelta::FromMilliseconds(100), MustNotRun(&replaced_destroyed));
    timer.Start(FROM_HERE, TimeDelta::FromMilliseconds(70),
                BindOnce([&] { fired.push_back(Since(start)); }));
  });
  EXPECT_TRUE(replaced_destroyed);
  clock_.FastForwardBy(TimeDelta::FromMilliseconds(300));
  EXPECT_EQ(fired, std::vector<int64_t>{70});
  EXPECT_FALSE(timer.IsRunning());

  OnThread([&] {
    timer.Start(FROM_HERE, TimeDelta(), MustNotRun(&stopped_destroyed));
    timer.Stop();
  });
  EXPECT_TRUE(stopped_destroyed);
}

// The owner pattern: an object owns its timer, and the timer's callback destroys it.
class SelfDestroying {
 public:
  explicit SelfDestroying(int* ticks) : ticks_(ticks) {
    timer_.Start(FROM_HERE, kPeriod, BindRepeating(&SelfDestroying::Tick, Unretained(this)));
  }

 private:
  void Tick() {
    ++*ticks_;
    delete this;
  }
  int* ticks_;
  RepeatingTimer timer_;
};

TEST_F(TimerTest, CallbackMayDestroyTheTimersOwner) {
  int ticks = 0;
  OnThread([&] { new SelfDestroying(&ticks); });
  clock_.FastForwardBy(kPeriod * 4);
  EXPECT_EQ(ticks, 1);
}

}  // namespace
}  // namespace tarn_base
