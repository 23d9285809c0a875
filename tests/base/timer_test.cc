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

// `alive` expires when the returned callback is destroyed.
OnceClosure MustNotRun(std::weak_ptr<int>* alive) {
  auto state = std::make_shared<int>();
  *alive = state;
  return BindOnce([](std::shared_ptr<int>) { ADD_FAILURE() << "ran"; }, std::move(state));
}

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
  int64_t Since(TimeTicks start) const { return (clock_.NowTicks() - start).InMilliseconds(); }

  SimulatedClock clock_;
  Thread thread_;
};

TEST_F(TimerTest, RepeatingTicksWithoutDriftUntilStopped) {
  RepeatingTimer timer;
  TimeTicks start = clock_.NowTicks();
  std::vector<int64_t> ticks;
  std::vector<std::string> threads;
  std::weak_ptr<int> alive;
  OnThread([&] {
    auto state = std::make_shared<int>();
    alive = state;
    EXPECT_TRUE(timer.Start(FROM_HERE, kPeriod, BindRepeating([&, state] {
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
  OnThread([&] { timer.Stop(); });
  EXPECT_TRUE(alive.expired());
  clock_.FastForwardBy(TimeDelta::FromMilliseconds(500));
  EXPECT_EQ(ticks.size(), 5u);

  // Restarted off the old grid, by a callback that stops the timer on its 2nd tick.
  OnThread([&] {
    start = clock_.NowTicks();
    ticks.clear();
    timer.Start(FROM_HERE, kPeriod, BindRepeating([&] {
                  ticks.push_back(Since(start));
                  if (ticks.size() == 2) timer.Stop();
                }));
  });
  clock_.FastForwardBy(kPeriod * 4);
  EXPECT_EQ(ticks, (std::vector<int64_t>{150, 300}));
  OnThread([&] { EXPECT_FALSE(timer.Start(FROM_HERE, TimeDelta(), BindRepeating([] {}))); });
  EXPECT_FALSE(timer.Start(FROM_HERE, kPeriod, BindRepeating([] {})));  // No runner here.
  EXPECT_FALSE(timer.IsRunning());
}

TEST_F(TimerTest, OneShotFiresOnceAndStopOrRestartDropsThePendingCallback) {
  OneShotTimer timer;
  const TimeTicks start = clock_.NowTicks();
  std::vector<int64_t> fired;
  std::weak_ptr<int> replaced;
  std::weak_ptr<int> stopped;
  OnThread([&] {
    timer.Start(FROM_HERE, TimeDelta::FromMilliseconds(100), MustNotRun(&replaced));
    timer.Start(FROM_HERE, TimeDelta::FromMilliseconds(70),
                BindOnce([&] { fired.push_back(Since(start)); }));
  });
  EXPECT_TRUE(replaced.expired());
  clock_.FastForwardBy(TimeDelta::FromMilliseconds(300));
  EXPECT_EQ(fired, std::vector<int64_t>{70});
  EXPECT_FALSE(timer.IsRunning());
  OnThread([&] {
    timer.Start(FROM_HERE, TimeDelta(), MustNotRun(&stopped));
    timer.Stop();
  });
  EXPECT_TRUE(stopped.expired());
}

TEST_F(TimerTest, CallbackMayDestroyTheTimer) {
  int ticks = 0;
  OnThread([&] {
    auto* timer = new RepeatingTimer;
    timer->Start(FROM_HERE, kPeriod, BindRepeating([timer, &ticks] {
                   ++ticks;
                   delete timer;
                 }));
  });
  clock_.FastForwardBy(kPeriod * 4);
  EXPECT_EQ(ticks, 1);
}

}  // namespace
}  // namespace tarn_base
