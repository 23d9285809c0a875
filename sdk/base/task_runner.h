// A sequence of tasks run one at a time, in order, on one thread.
//
//   scoped_refptr<TaskRunner> runner = thread.task_runner();
//   runner->PostTask(FROM_HERE, BindOnce(&Foo::Bar, Unretained(foo), std::move(frame)));
//
// Ordering: every task has a ready time, its posting time for PostTask and its due time
// for delayed tasks; tasks run in ready-time order, ties in posting order. Tasks posted
// by one thread with PostTask therefore run in the order of the calls, and a delayed task
// that falls due waits behind the tasks that were posted before it fell due (a busy timer
// cannot starve posted work).
//
// Posting is thread-safe. A task that is refused (its runner has stopped) is destroyed
// on the posting thread before the post returns, so whatever it bound is freed.
#ifndef SDK_BASE_TASK_RUNNER_H_
#define SDK_BASE_TASK_RUNNER_H_

#include <cstdint>
#include <utility>

#include "sdk/base/callback.h"
#include "sdk/base/location.h"
#include "sdk/base/ref_counted.h"
#include "sdk/base/time.h"

namespace tarn_base {

class TaskRunner;

// Refers to one delayed task posted with PostCancelableDelayedTask. Move-only.
// Destroying the handle does not cancel the task.
class DelayedTaskHandle {
 public:
  DelayedTaskHandle() = default;
  DelayedTaskHandle(scoped_refptr<TaskRunner> runner, uint64_t task_id);
  DelayedTaskHandle(DelayedTaskHandle&&) noexcept = default;
  DelayedTaskHandle& operator=(DelayedTaskHandle&&) noexcept = default;
  DelayedTaskHandle(const DelayedTaskHandle&) = delete;
  DelayedTaskHandle& operator=(const DelayedTaskHandle&) = delete;
  ~DelayedTaskHandle();

  // True until CancelTask() was called or the handle was moved from.
  bool IsValid() const { return static_cast<bool>(runner_); }

  // Called on the runner's own thread: the task will not run; if it has not run yet it
  // is destroyed now. Harmless when the task already ran or was dropped.
  void CancelTask();

 private:
  scoped_refptr<TaskRunner> runner_;
  uint64_t task_id_ = 0;
};

class TaskRunner : public RefCountedThreadSafe<TaskRunner> {
 public:
  TaskRunner(const TaskRunner&) = delete;
  TaskRunner& operator=(const TaskRunner&) = delete;

  // Queues `task` to run as soon as the tasks before it have run. Returns false, and
  // destroys the task at once, when the runner no longer accepts tasks.
  virtual bool PostTask(const Location& from_here, OnceClosure task) = 0;

  // As PostTask, in the same order, but a thread that sleeps is not woken for it: the
  // task runs when the thread next wakes, for a delayed task that falls due or another
  // post. For a steady flow of small tasks that may wait for a timer the poster knows to
  // be running, saving a wake-up per task. Runners that cannot tell the difference post
  // normally.
  virtual bool PostTaskWithoutWakeUp(const Location& from_here, OnceClosure task) {
    return PostTask(from_here, std::move(task));
  }

  // Queues `task` to run once `delay` has passed on clock(). A delay of zero or less
  // makes it ready at once. Delayed tasks that are not due when the runner stops are
  // destroyed without running.
  virtual bool PostDelayedTask(const Location& from_here, OnceClosure task, TimeDelta delay) = 0;

  // As PostDelayedTask, and returns a handle that can cancel the task. The handle is
  // invalid when the post was refused.
  virtual DelayedTaskHandle PostCancelableDelayedTask(const Location& from_here, OnceClosure task,
                                                      TimeDelta delay) = 0;

  // True when called from inside a task of this runner.
  virtual bool RunsTasksInCurrentSequence() const = 0;

  // The clock that delayed tasks are measured on. Constant for the runner's life.
  virtual const TickClock* clock() const = 0;

  // The runner whose task is running on the calling thread, or null when the calling
  // thread runs none. Timers use it to post to their own thread.
  static scoped_refptr<TaskRunner> GetCurrentDefault();

 protected:
  friend class RefCountedThreadSafe<TaskRunner>;
  friend class DelayedTaskHandle;

  TaskRunner() = default;
  virtual ~TaskRunner() = default;

  // See DelayedTaskHandle::CancelTask.
  virtual void CancelDelayedTask(uint64_t task_id) = 0;
};

}  // namespace tarn_base

#endif  // SDK_BASE_TASK_RUNNER_H_
