#include "sdk/base/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sdk/base/logging.h"
#include "sdk/base/simulated_clock.h"

namespace tarn_base {
namespace {

// Records whether, and on which thread, it was destroyed.
struct Tracker {
  Tracker(std::atomic<bool>* destroyed, pthread_t* thread) : destroyed(destroyed), thread(thread) {}
  ~Tracker() {
    *thread = pthread_self();
    destroyed->store(true);
  }
  std::atomic<bool>* destroyed;
  pthread_t* thread;
};

class RecordingSink : public tarn_logging::LogSink {
 public:
  void OnLogMessage(const tarn_logging::LogRecord& record) override {
    messages.push_back(record.message);
  }
  std::vector<std::string> messages;
};

TEST(ThreadTest, NameAndCurrentRunnerAreVisibleOnTheThread) {
  Thread thread("recording-writer-thread");
  ASSERT_TRUE(thread.Start());
  ASSERT_NE(thread.tid(), 0);
  std::ifstream comm("/proc/self/task/" + std::to_string(thread.tid()) + "/comm");
  std::string os_name;
  std::getline(comm, os_name);
  EXPECT_EQ(os_name, "recording-write");  // 15 bytes, the kernel's limit.

  scoped_refptr<TaskRunner> runner = thread.task_runner();
  std::string name_inside;
  bool current_inside = false;
  bool in_sequence_inside = false;
  runner->PostTask(FROM_HERE, BindOnce([&] {
                     name_inside = CurrentThreadName();
                     current_inside = TaskRunner::GetCurrentDefault() == runner;
                     in_sequence_inside = runner->RunsTasksInCurrentSequence();
                   }));
  thread.Stop();  // Runs the task first.
  EXPECT_EQ(name_inside, "recording-writer-thread");
  EXPECT_TRUE(current_inside);
  EXPECT_TRUE(in_sequence_inside);
  EXPECT_EQ(TaskRunner::GetCurrentDefault(), nullptr);
  EXPECT_FALSE(runner->RunsTasksInCurrentSequence());
  EXPECT_FALSE(thread.IsRunning());
  EXPECT_EQ(thread.tid(), 0);
}

TEST(ThreadTest, EachPostingThreadKeepsItsOrder) {
  constexpr int kPosters = 4;
  constexpr int kTasksEach = 2000;
  Thread target("target");
  ASSERT_TRUE(target.Start());
  std::vector<std::pair<int, int>> ran;  // Touched only on `target`.
  std::vector<std::unique_ptr<Thread>> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.push_back(std::make_unique<Thread>("poster" + std::to_string(p)));
    ASSERT_TRUE(posters.back()->Start());
  }
  scoped_refptr<TaskRunner> runner = target.task_runner();
  for (int p = 0; p < kPosters; ++p) {
    posters[p]->task_runner()->PostTask(
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
  for (const auto& [p, i] : ran) EXPECT_EQ(i, next[p]++) << "poster " << p;
}

TEST(ThreadTest, TasksRunInReadyTimeOrder) {
  SimulatedClock clock;
  Thread thread("order", &clock);
  ASSERT_TRUE(thread.Start());
  scoped_refptr<TaskRunner> runner = thread.task_runner();
  std::vector<char> ran;
  auto record = [&ran](char c) { return BindOnce([&ran, c] { ran.push_back(c); }); };

  runner->PostDelayedTask(FROM_HERE, record('D'), TimeDelta::FromMilliseconds(10));
  runner->PostTask(FROM_HERE, BindOnce([&] {
                     runner->PostTask(FROM_HERE, record('A'));  // Ready before D.
                     clock.Advance(TimeDelta::FromMilliseconds(20));
                     runner->PostTask(FROM_HERE, record('B'));  // Ready after D.
                     runner->PostDelayedTask(FROM_HERE, record('C'), TimeDelta());
                   }));
  clock.RunUntilIdle();
  EXPECT_EQ(std::string(ran.begin(), ran.end()), "ADBC");
}

TEST(ThreadTest, StopRunsEarlierTasksAndRefusesLaterOnes) {
  SimulatedClock clock;
  Thread thread("stopping", &clock);
  ASSERT_TRUE(thread.Start());
  scoped_refptr<TaskRunner> runner = thread.task_runner();
  std::vector<int> ran;
  auto record = [&ran](int n) { return BindOnce([&ran, n] { ran.push_back(n); }); };
  std::atomic<bool> future_destroyed{false};
  pthread_t future_thread{};

  runner->PostTask(FROM_HERE, record(1));
  runner->PostDelayedTask(FROM_HERE, record(3), TimeDelta::FromMilliseconds(5));
  runner->PostDelayedTask(
      FROM_HERE,
      BindOnce([](std::unique_ptr<Tracker>) { ADD_FAILURE() << "not due, must not run"; },
               std::make_unique<Tracker>(&future_destroyed, &future_thread)),
      TimeDelta::FromSeconds(60));
  clock.Advance(TimeDelta::FromMilliseconds(5));  // Task 3 is due; it may or may not run yet.
  runner->PostTask(FROM_HERE, record(4));
  const pid_t tid = thread.tid();
  thread.Stop();
  EXPECT_EQ(ran, (std::vector<int>{1, 3, 4}));
  EXPECT_TRUE(future_destroyed.load());
  EXPECT_FALSE(pthread_equal(future_thread, pthread_self()));  // Dropped on its thread.
  EXPECT_NE(tid, 0);

  std::atomic<bool> refused_destroyed{false};
  pthread_t refused_thread{};
  EXPECT_FALSE(runner->PostTask(
      FROM_HERE, BindOnce([](std::unique_ptr<Tracker>) {},
                          std::make_unique<Tracker>(&refused_destroyed, &refused_thread))));
  EXPECT_TRUE(refused_destroyed.load());
  EXPECT_TRUE(pthread_equal(refused_thread, pthread_self()));
  EXPECT_FALSE(runner->PostCancelableDelayedTask(FROM_HERE, record(5), TimeDelta()).IsValid());
  thread.Stop();  // Idempotent.
  EXPECT_EQ(ran.size(), 3u);
}

TEST(ThreadTest, CancelledDelayedTaskIsDestroyedAtOnce) {
  SimulatedClock clock;
  Thread thread("cancel", &clock);
  ASSERT_TRUE(thread.Start());
  std::atomic<bool> destroyed{false};
  pthread_t destroyed_on{};
  bool destroyed_by_cancel = false;
  thread.task_runner()->PostTask(
      FROM_HERE, BindOnce([&] {
        DelayedTaskHandle handle = TaskRunner::GetCurrentDefault()->PostCancelableDelayedTask(
            FROM_HERE,
            BindOnce([](std::unique_ptr<Tracker>) { ADD_FAILURE() << "cancelled task ran"; },
                     std::make_unique<Tracker>(&destroyed, &destroyed_on)),
            TimeDelta::FromMilliseconds(10));
        handle.CancelTask();
        destroyed_by_cancel = destroyed.load();
        EXPECT_FALSE(handle.IsValid());
        handle.CancelTask();  // Harmless.
      }));
  clock.FastForwardBy(TimeDelta::FromMilliseconds(20));
  EXPECT_TRUE(destroyed_by_cancel);
}

TEST(ThreadTest, StartFailureIsLoggedAndLeavesNoRunner) {
  RecordingSink sink;
  tarn_logging::AddLogSink(&sink);
  Thread thread("doomed");
  {
    ScopedThreadStartFailureForTesting fail;
    EXPECT_FALSE(thread.Start());
  }
  tarn_logging::RemoveLogSink(&sink);
  EXPECT_EQ(thread.task_runner(), nullptr);
  EXPECT_FALSE(thread.IsRunning());
  ASSERT_EQ(sink.messages.size(), 1u);
  EXPECT_NE(sink.messages[0].find("doomed"), std::string::npos);
  EXPECT_NE(sink.messages[0].find("Resource temporarily unavailable"), std::string::npos);
  EXPECT_TRUE(thread.Start());  // Works once the failure is lifted.
}

}  // namespace
}  // namespace tarn_base
