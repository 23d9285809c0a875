#include "sdk/base/timer.h"

#include <utility>

namespace tarn_base {

RepeatingTimer::~RepeatingTimer() { Stop(); }

bool RepeatingTimer::Start(const Location& from_here, TimeDelta period, RepeatingClosure task) {
  Stop();
  if (!period.is_positive() || task.is_null()) return false;
  scoped_refptr<TaskRunner> runner = TaskRunner::GetCurrentDefault();
  if (!runner) return false;
  location_ = from_here;
  period_ = period;
  task_ = std::move(task);
  runner_ = std::move(runner);
  start_ = runner_->clock()->NowTicks();
  ticks_ = 0;
  running_ = true;
  ScheduleNext();
  return running_;
}

void RepeatingTimer::Stop() {
  running_ = false;
  pending_.CancelTask();
  // Released last: the callback's bound state may own objects whose destructors use
  // this timer's owner, which is in a consistent (stopped) state by now.
  RepeatingClosure task = std::move(task_);
  task_.Reset();
  runner_.reset();
}

void RepeatingTimer::ScheduleNext() {
  ++ticks_;
  // Measured from the start, not from now, so that late ticks do not shift later ones.
  const TimeTicks due = start_ + period_ * ticks_;
  pending_ = runner_->PostCancelableDelayedTask(location_,
                                                BindOnce(&RepeatingTimer::OnTick, Unretained(this)),
                                                due - runner_->clock()->NowTicks());
  if (!pending_.IsValid()) {
    // The thread is shutting down; there will be no more ticks.
    running_ = false;
    task_.Reset();
    runner_.reset();
  }
}

void RepeatingTimer::OnTick() {
  // Schedule the next tick before running this one: the callback may stop, restart or
  // destroy the timer, so nothing below may touch `this` after it runs, and it runs from
  // a local copy that stays alive even if the timer is gone.
  RepeatingClosure task = task_;
  ScheduleNext();
  task.Run();
}

OneShotTimer::~OneShotTimer() { Stop(); }

bool OneShotTimer::Start(const Location& from_here, TimeDelta delay, OnceClosure task) {
  Stop();
  if (task.is_null()) return false;
  scoped_refptr<TaskRunner> runner = TaskRunner::GetCurrentDefault();
  if (!runner) return false;
  DelayedTaskHandle pending = runner->PostCancelableDelayedTask(
      from_here, BindOnce(&OneShotTimer::OnFire, Unretained(this)), delay);
  if (!pending.IsValid()) return false;  // The thread is shutting down.
  task_ = std::move(task);
  pending_ = std::move(pending);
  running_ = true;
  return true;
}

void OneShotTimer::Stop() {
  running_ = false;
  pending_.CancelTask();
  OnceClosure task = std::move(task_);
  task_.Reset();
}

void OneShotTimer::OnFire() {
  running_ = false;
  pending_ = DelayedTaskHandle();
  OnceClosure task = std::move(task_);
  task_.Reset();
  std::move(task).Run();
}

}  // namespace tarn_base
