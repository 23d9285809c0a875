// The TaskRunner behind every Thread: a locked queue of immediate tasks plus an ordered
// map of delayed ones, drained by one thread that calls Run().
#ifndef SDK_BASE_TASK_QUEUE_H_
#define SDK_BASE_TASK_QUEUE_H_

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "sdk/base/callback.h"
#include "sdk/base/location.h"
#include "sdk/base/task_runner.h"
#include "sdk/base/time.h"

namespace tarn_base {
namespace internal {

// Sets or clears the runner that TaskRunner::GetCurrentDefault() returns on the calling
// thread. Called by TaskQueue::Run on its own thread.
void SetCurrentTaskRunner(TaskRunner* runner);
TaskRunner* CurrentTaskRunner();

// A TaskRunner whose tasks are run by whichever thread calls Run() (the Thread that owns
// it). Shared by reference count between the owning Thread and everyone that posts.
//
// Every task gets a ready time (post time for immediate tasks, due time for delayed
// ones) and a sequence number from one counter; Run always takes the runnable task with
// the smallest (ready time, sequence), one at a time under mutex_, and runs it with
// mutex_ released. Ready times are read under mutex_, so within the immediate queue they
// never decrease, and the earliest runnable task is always the front of the immediate
// queue or the first entry of the delayed map.
//
// On a clock that accepts waiters (a SimulatedClock), the thread sleeps until the clock
// calls OnClockAdvanced; on a real clock it sleeps until the earliest due time.
//
// Posting, cancelling and the ClockWaiter methods are thread-safe. Tasks and their bound
// arguments are never destroyed with mutex_ held, since their destructors may post.
class TaskQueue final : public TaskRunner, public ClockWaiter {
 public:
  explicit TaskQueue(const TickClock* clock);

  // Registers with the clock as a waiter. Called by the owner before the running thread
  // starts, so that a simulated clock waits for the queue from the first post on.
  void AttachToClock();
  // Unregisters from the clock; after it returns the clock no longer calls the queue.
  // Called by the owner once Run has returned, or instead of Run when the thread could
  // not be started (then the queue refuses tasks and counts as idle from now on).
  void DetachFromClock();

  // Runs tasks until Shutdown() was called and everything posted before it has run.
  // Called once, on the queue's own thread.
  void Run();

  // Refuses further posts and makes Run return once the tasks posted before this call
  // (and delayed tasks due by now) have run; delayed tasks that are not due are destroyed
  // unrun on the queue's thread. Called from another thread than the queue's.
  void Shutdown();

  // TaskRunner:
  bool PostTask(const Location& from_here, OnceClosure task) override;
  // On a simulated clock this wakes the thread like PostTask: virtual time only moves
  // when the queue is idle, so a task left waiting would stall it.
  bool PostTaskWithoutWakeUp(const Location& from_here, OnceClosure task) override;
  bool PostDelayedTask(const Location& from_here, OnceClosure task, TimeDelta delay) override;
  DelayedTaskHandle PostCancelableDelayedTask(const Location& from_here, OnceClosure task,
                                              TimeDelta delay) override;
  bool RunsTasksInCurrentSequence() const override;
  const TickClock* clock() const override { return clock_; }

  // ClockWaiter:
  void OnClockAdvanced() override;
  TimeTicks NextDelayedRunTime() override;
  bool WaitUntilIdle() override;

 protected:
  void CancelDelayedTask(uint64_t task_id) override;

 private:
  struct ImmediateTask {
    OnceClosure closure;
    Location from_here;
    TimeTicks ready;
    uint64_t sequence;
  };
  struct DelayedTask {
    OnceClosure closure;
    Location from_here;
    bool cancelable;
  };
  // (due time in microseconds, sequence): unique, and ordered as tasks must run.
  using DelayedKey = std::pair<int64_t, uint64_t>;
  using DelayedMap = std::map<DelayedKey, DelayedTask>;
  // Where a cancelable task sits in delayed_; kept sorted by sequence.
  struct CancelableEntry {
    uint64_t sequence;
    int64_t due_us;
    bool live;
  };

  ~TaskQueue() override;

  // Queues a task; `delayed` selects the delayed map; `wake_thread` false leaves a sleeping
  // thread asleep. Returns the sequence, or 0 when the queue no longer accepts tasks
  // (the task is then left in `task` for the caller to destroy after the lock is
  // released).
  uint64_t Enqueue(const Location& from_here, OnceClosure& task, bool delayed, TimeDelta delay,
                   bool cancelable, bool wake_thread = true);

  // The latest ready time that may run now: the clock's now, or the shutdown time.
  TimeTicks RunLimitLocked() const;
  bool HasRunnableLocked(TimeTicks limit) const;
  // Moves the next runnable task with ready time <= limit into `out`.
  bool TakeNextLocked(TimeTicks limit, OnceClosure* out);
  // Removes `it` from delayed_, moving its closure into `out` and recycling the node.
  void TakeDelayedLocked(DelayedMap::iterator it, OnceClosure* out);
  CancelableEntry* FindCancelableLocked(uint64_t sequence);
  void ForgetCancelableLocked(CancelableEntry* entry);

  const TickClock* const clock_;
  bool simulated_clock_ = false;  // Set before Run starts, constant afterwards.
  bool attached_ = false;         // Owner thread only.

  mutable std::mutex mutex_;
  std::condition_variable work_cv_;  // Wakes the running thread.
  std::condition_variable idle_cv_;  // Wakes WaitUntilIdle callers.

  // All guarded by mutex_.
  std::deque<ImmediateTask> immediate_;
  DelayedMap delayed_;
  std::vector<DelayedMap::node_type> spare_nodes_;  // Recycled map nodes.
  std::vector<CancelableEntry> cancelable_;
  size_t dead_cancelable_ = 0;
  uint64_t next_sequence_ = 1;
  bool accepting_ = true;
  bool quitting_ = false;
  TimeTicks quit_time_;
  bool thread_waiting_ = false;  // Run sleeps on work_cv_.
  bool running_task_ = false;
  bool finished_ = false;  // Run returned or is about to.
  int idle_waiters_ = 0;
  uint64_t tasks_run_ = 0;
  uint64_t tasks_run_at_idle_check_ = 0;
};

}  // namespace internal
}  // namespace tarn_base

#endif  // SDK_BASE_TASK_QUEUE_H_
