#include "sdk/base/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sdk/base/simulated_clock.h"
#include "tests/support/log_capture.h"

namespace tarn_base {
namespace {

// Records on which thread it was destroyed.
struct Tracker {
  explicit Tracker(std::atomic<pthread_t>* destroyed_on) : destroyed_on(destroyed_on) {}
  ~Tracker() { destroyed_on->store(pthread_self()); }
  std::atomic<pthread_t>* destroyed_on;
};

OnceClosure MustNotRun(std::atomic<pthread_t>* destroyed_on) {
  return BindOnce([](std::unique_ptr<Tracker>) { ADD_FAILURE() << "ran"; },
                  std::make_unique<Tracker>(destroyed_on));
}

TEST(ThreadTest, NameAndCurrentRunnerAreVisibleOnTheThread) {
  Thread thread("recording-writer-thread");
  ASSERT_TRUE(thread.Start());
  std::ifstream comm("/proc/self/task/" + std::to_string(thread.tid()) + "/comm");
  std::string os_name;
  std::getline(comm, os_name);
  EXPECT_EQ(os_name, "recording-write");  // 15 bytes, the kernel's limit.

  scoped_refptr<TaskRunner> runner = thread.task_runner();
  std::string name_inside;
  bool current_inside = false;
  runner->PostTask(FROM_HERE, BindOnce([&] {
                     name_inside = CurrentThreadName();
                     current_inside = TaskRunner::GetCurrentDefault() == runner &&
                                      runner->RunsTasksInCurrentSequence();
                   }));
  thread.Stop();  // Runs the task first.
  EXPECT_EQ(name_inside, "recording-writer-thread");
  EXPECT_TRUE(current_inside);
  EXPECT_EQ(TaskRunner::GetCurrentDefault(), nullptr);
  EXPECT_FALSE(runner->RunsTasksInCurrentSequence());
  EXPECT_EQ(thread.tid(), 0);
}

TEST(ThreadTest, EachPostingThreadKeepsItsOrder) {
  constexpr int kPosters = 4;
  constexpr int kTasksEach = 2000;
  Thread target("target");
  ASSERT_TRUE(target.Start());
  scoped_refptr<TaskRunner> runner = target.task_runner();
  std::vector<std::pair<int, int>> ran;  // Touched only on `target`.
  std::vector<std::unique_ptr<Thread>> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.push_back(std::make_unique<Thread>("poster"));
    ASSERT_TRUE(posters.back()->Start());
    posters.back()->task_runner()->PostTask(
        FROM_HERE, BindOnce([&, p] {
          for (int i = 0; i < kTasksEach; ++i) {
            runner->PostTask(FROM_HERE, BindOnce([&ran, p, i] { ran.emplace_back(p, i); }));
          }
        }));
  }
  for (auto& poster : posters) poster->Stop();
  target.Stop();

  ASSERT_EQ(ran.size(), static_cast<size_t>(kPosters * kTasksEach));
  std::vector<int> next(kPosters, 0);
  for (const auto& [p, i] : ran) ASSERT_EQ(i, next[p]++) << "poster " << p;
}

TEST(ThreadTest, TasksRunInReadyTimeOrderAndCancelledOnesNever) {
  SimulatedClock clock;
  Thread thread("order", &clock);
  ASSERT_TRUE(thread.Start());
  scoped_refptr<TaskRunner> runner = thread.task_runner();
  std::string ran;
  auto record = [&ran](char c) { return BindOnce([&ran, c] { ran.push_back(c); }); };
  std::atomic<pthread_t> cancelled_destroyed_on{};
  bool destroyed_by_cancel = false;

  runner->PostDelayedTask(FROM_HERE, record('D'), TimeDelta::FromMilliseconds(10));
  runner->PostTask(FROM_HERE, BindOnce([&] {
                     DelayedTaskHandle doomed = runner->PostCancelableDelayedTask(
                         FROM_HERE, MustNotRun(&cancelled_destroyed_on), TimeDelta());
                     runner->PostTask(FROM_HERE, record('A'));  // Ready before D.
                     clock.Advance(TimeDelta::FromMilliseconds(20));
                     runner->PostTask(FROM_HERE, record('B'));  // Ready after D.
                     runner->PostDelayedTask(FROM_HERE, record('C'), TimeDelta());
                     doomed.CancelTask();
                     destroyed_by_cancel = pthread_equal(cancelled_destroyed_on, pthread_self());
                   }));
  clock.RunUntilIdle();
  EXPECT_EQ(ran, "ADBC");
  EXPECT_TRUE(destroyed_by_cancel);
}

TEST(ThreadTest, StopRunsEarlierTasksAndRefusesLaterOnes) {
  SimulatedClock clock;
  Thread thread("stopping", &clock);
  ASSERT_TRUE(thread.Start());
  scoped_refptr<TaskRunner> runner = thread.task_runner();
  std::vector<int> ran;
  auto record = [&ran](int n) { return BindOnce([&ran, n] { ran.push_back(n); }); };
  std::atomic<pthread_t> not_due_destroyed_on{};

  runner->PostTask(FROM_HERE, record(1));
  runner->PostDelayedTask(FROM_HERE, record(2), TimeDelta::FromMilliseconds(5));
  runner->PostDelayedTask(FROM_HERE, MustNotRun(&not_due_destroyed_on), TimeDelta::FromSeconds(9));
  clock.Advance(TimeDelta::FromMilliseconds(5));  // Task 2 is due; it may not have run yet.
  runner->PostTask(FROM_HERE, record(3));
  thread.Stop();
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
  EXPECT_FALSE(pthread_equal(not_due_destroyed_on, pthread_t{}));     // Destroyed, unrun,
  EXPECT_FALSE(pthread_equal(not_due_destroyed_on, pthread_self()));  // on its thread.

  std::atomic<pthread_t> refused_destroyed_on{};
  EXPECT_FALSE(runner->PostTask(FROM_HERE, MustNotRun(&refused_destroyed_on)));
  EXPECT_TRUE(pthread_equal(refused_destroyed_on, pthread_self()));
  EXPECT_FALSE(runner->PostCancelableDelayedTask(FROM_HERE, record(4), TimeDelta()).IsValid());
  thread.Stop();  // Idempotent.
}

TEST(ThreadTest, ThreadOwnedByAnotherClockThreadStopsWhileTimeMoves) {
  SimulatedClock clock;
  ScopedTickClockOverrideForTesting use_clock(&clock);
  Thread owner("owner");
  ASSERT_TRUE(owner.Start());
  std::unique_ptr<Thread> child;
  std::vector<int64_t> child_ran_at;
  const TimeTicks start = clock.NowTicks();
  owner.task_runner()->PostTask(
      FROM_HERE, BindOnce([&] {
        child = std::make_unique<Thread>("child");
        ASSERT_TRUE(child->Start());
        child->task_runner()->PostDelayedTask(
            FROM_HERE,
            BindOnce([&] { child_ran_at.push_back((clock.NowTicks() - start).InMilliseconds()); }),
            TimeDelta::FromMilliseconds(30));
        TaskRunner::GetCurrentDefault()->PostDelayedTask(
            FROM_HERE, BindOnce([&] { child.reset(); }), TimeDelta::FromMilliseconds(50));
      }));
  clock.FastForwardBy(TimeDelta::FromMilliseconds(100));
  EXPECT_EQ(child, nullptr);
  EXPECT_EQ(child_ran_at, std::vector<int64_t>{30});
}

TEST(ThreadTest, StartFailureIsLoggedAndLeavesNoRunner) {
  tarnel_test::ScopedLogCapture logs;
  Thread thread("doomed");
  {
    ScopedThreadStartFailureForTesting fail;
    EXPECT_FALSE(thread.Start());
  }
  EXPECT_EQ(thread.task_runner(), nullptr);
  EXPECT_TRUE(logs.Contains("doomed"));
  EXPECT_TRUE(logs.Contains("Resource temporarily unavailable"));
  EXPECT_TRUE(thread.Start());  // Works once the failure is lifted.
}

}  // namespace
}  // namespace tarn_base
