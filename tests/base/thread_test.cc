#include "sdk/base/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
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

OnceClosure Record(std::string* ran, char c) {
  return BindOnce([ran, c] { ran->push_back(c); });
}

TEST(ThreadTest, StartFailureIsLoggedAndNameIsVisibleOnceRunning) {
  tarnel_test::ScopedLogCapture logs;
  Thread thread("recording-writer-thread");
  {
    ScopedThreadStartFailureForTesting fail;
    EXPECT_FALSE(thread.Start());
  }
  EXPECT_EQ(thread.task_runner(), nullptr);
  EXPECT_TRUE(logs.Contains("recording-writer-thread"));
  EXPECT_TRUE(logs.Contains("Resource temporarily unavailable"));

  ASSERT_TRUE(thread.Start());  // Works once the failure is lifted.
  std::ifstream comm("/proc/self/task/" + std::to_string(thread.tid()) + "/comm");
  std::string os_name;
  std::getline(comm, os_name);
  EXPECT_EQ(os_name, "recording-write");  // 15 bytes, the kernel's limit.
  scoped_refptr<TaskRunner> runner = thread.task_runner();
  std::string name_inside;
  bool on_runner = false;
  runner->PostTask(FROM_HERE, BindOnce([&] {
                     name_inside = CurrentThreadName();
                     on_runner = runner->RunsTasksInCurrentSequence();
                   }));
  thread.Stop();
  // In full, unlike the kernel's copy.
  EXPECT_EQ(name_inside, "recording-writer-thread");
  EXPECT_TRUE(on_runner);
  EXPECT_FALSE(runner->RunsTasksInCurrentSequence());
}

TEST(ThreadTest, EachPostingThreadKeepsItsOrder) {
  constexpr int kPosters = 4;
  constexpr int kTasksEach = 2000;
  Thread target("target");
  ASSERT_TRUE(target.Start());
  scoped_refptr<TaskRunner> runner = target.task_runner();
  std::vector<std::pair<int, int>> ran;  // Touched only on `target`.
  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&, p] {
      for (int i = 0; i < kTasksEach; ++i) {
        runner->PostTask(FROM_HERE, BindOnce([&ran, p, i] { ran.emplace_back(p, i); }));
      }
    });
  }
  for (std::thread& poster : posters) poster.join();
  target.Stop();
  ASSERT_EQ(ran.size(), static_cast<size_t>(kPosters * kTasksEach));
  std::vector<int> next(kPosters, 0);
  for (const auto& [p, i] : ran) ASSERT_EQ(i, next[p]++) << "poster " << p;
}

TEST(ThreadTest, ReadyTimeOrderCancellationAndStop) {
  SimulatedClock clock;
  Thread thread("order", &clock);
  ASSERT_TRUE(thread.Start());
  scoped_refptr<TaskRunner> runner = thread.task_runner();
  std::string ran;
  std::atomic<pthread_t> cancelled_destroyed_on{};
  bool destroyed_by_cancel = false;
  runner->PostDelayedTask(FROM_HERE, Record(&ran, 'D'), TimeDelta::FromMilliseconds(10));
  runner->PostTask(FROM_HERE, BindOnce([&] {
                     DelayedTaskHandle doomed = runner->PostCancelableDelayedTask(
                         FROM_HERE, MustNotRun(&cancelled_destroyed_on), TimeDelta());
                     runner->PostTask(FROM_HERE, Record(&ran, 'A'));  // Ready before D.
                     clock.Advance(TimeDelta::FromMilliseconds(20));
                     runner->PostTask(FROM_HERE, Record(&ran, 'B'));  // Ready after D.
                     runner->PostDelayedTask(FROM_HERE, Record(&ran, 'C'), TimeDelta());
                     doomed.CancelTask();
                     destroyed_by_cancel = pthread_equal(cancelled_destroyed_on, pthread_self());
                   }));
  clock.RunUntilIdle();
  EXPECT_EQ(ran, "ADBC");
  EXPECT_TRUE(destroyed_by_cancel);

  // Stop runs what is due, even if posted after the clock moved, and drops the rest.
  std::atomic<pthread_t> not_due_destroyed_on{};
  runner->PostDelayedTask(FROM_HERE, Record(&ran, '1'), TimeDelta::FromMilliseconds(5));
  runner->PostDelayedTask(FROM_HERE, MustNotRun(&not_due_destroyed_on), TimeDelta::FromSeconds(9));
  clock.Advance(TimeDelta::FromMilliseconds(5));  // Task 1 is due; it may not have run yet.
  runner->PostTask(FROM_HERE, Record(&ran, '2'));
  thread.Stop();
  EXPECT_EQ(ran, "ADBC12");
  EXPECT_FALSE(pthread_equal(not_due_destroyed_on, pthread_t{}));     // Destroyed, unrun,
  EXPECT_FALSE(pthread_equal(not_due_destroyed_on, pthread_self()));  // on its thread.

  std::atomic<pthread_t> refused_destroyed_on{};
  EXPECT_FALSE(runner->PostTask(FROM_HERE, MustNotRun(&refused_destroyed_on)));
  EXPECT_TRUE(pthread_equal(refused_destroyed_on, pthread_self()));
  EXPECT_FALSE(
      runner->PostCancelableDelayedTask(FROM_HERE, Record(&ran, '3'), TimeDelta()).IsValid());
  thread.Stop();  // Idempotent.
}

TEST(ThreadTest, TaskPostedWithoutWakeUpKeepsItsPlaceAndRunsAtTheNextWakeUp) {
  // Real clock: the sleeping thread is left asleep, and the task runs when a later post
  // or a due timer wakes it, before them, as its earlier ready time says.
  {
    Thread thread("lazy");
    ASSERT_TRUE(thread.Start());
    scoped_refptr<TaskRunner> runner = thread.task_runner();
    std::string ran;  // Read once the thread stopped.
    std::atomic<bool> posted{false};
    std::atomic<bool> done{false};
    runner->PostTaskWithoutWakeUp(FROM_HERE, Record(&ran, 'L'));
    runner->PostTask(FROM_HERE, BindOnce([&] {
                       ran.push_back('P');
                       posted = true;
                       runner->PostDelayedTask(FROM_HERE, BindOnce([&] {
                                                 ran.push_back('T');
                                                 done = true;
                                               }),
                                               TimeDelta::FromMilliseconds(20));
                     }));
    while (!posted) std::this_thread::yield();
    runner->PostTaskWithoutWakeUp(FROM_HERE, Record(&ran, 'M'));
    while (!done) std::this_thread::yield();
    thread.Stop();
    EXPECT_EQ(ran, "LPMT");
  }
  // Simulated clock: the queue must look busy until the task ran, or time could not move.
  SimulatedClock clock;
  Thread thread("lazy-sim", &clock);
  ASSERT_TRUE(thread.Start());
  std::string ran;
  thread.task_runner()->PostTaskWithoutWakeUp(FROM_HERE, Record(&ran, 'L'));
  clock.RunUntilIdle();
  EXPECT_EQ(ran, "L");
  thread.Stop();
}

TEST(ThreadTest, ThreadOwnedByAnotherClockThreadStopsWhileTimeMoves) {
  SimulatedClock clock;
  ScopedTickClockOverrideForTesting use_clock(&clock);
  Thread owner("owner");
  ASSERT_TRUE(owner.Start());
  std::unique_ptr<Thread> child;
  std::string ran;
  owner.task_runner()->PostTask(
      FROM_HERE, BindOnce([&] {
        child = std::make_unique<Thread>("child");
        ASSERT_TRUE(child->Start());
        child->task_runner()->PostDelayedTask(FROM_HERE, Record(&ran, 'c'),
                                              TimeDelta::FromMilliseconds(30));
        TaskRunner::GetCurrentDefault()->PostDelayedTask(
            FROM_HERE, BindOnce([&] { child.reset(); }), TimeDelta::FromMilliseconds(50));
      }));
  clock.FastForwardBy(TimeDelta::FromMilliseconds(100));
  EXPECT_EQ(child, nullptr);
  EXPECT_EQ(ran, "c");
}

}  // namespace
}  // namespace tarn_base
