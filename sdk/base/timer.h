// Timers that fire on the thread that started them, through that thread's TaskRunner
// (no thread of their own).
//
//   tarn_base::RepeatingTimer timer;   // a member of an object living on a Thread
//   timer.Start(FROM_HERE, tarn_base::TimeDelta::FromMilliseconds(150),
//               tarn_base::BindRepeating(&Recorder::Process, tarn_base::Unretained(this)));
//
// A timer is used on one thread: Start, Stop and destruction happen on the thread that
// runs its tasks. Stop abandons the scheduled task (it is cancelled in the queue, not
// just ignored when it comes up); a timer is stopped when destroyed and can be started
// again after it stopped or fired.
#ifndef SDK_BASE_TIMER_H_
#define SDK_BASE_TIMER_H_

#include <cstdint>

#include "sdk/base/callback.h"
#include "sdk/base/location.h"
#include "sdk/base/task_runner.h"
#include "sdk/base/time.h"

namespace tarn_base {

// Calls its callback every period. Tick n (n = 1, 2, ...) is due at start + n * period,
// so ticks do not drift however long each callback takes; ticks missed while the thread
// was busy run back to back, in order, each behind the tasks posted before it fell due.
class RepeatingTimer {
 public:
  RepeatingTimer() = default;
  ~RepeatingTimer();
  RepeatingTimer(const RepeatingTimer&) = delete;
  RepeatingTimer& operator=(const RepeatingTimer&) = delete;

  // (Re)starts the timer; a running schedule is replaced. Returns false, and leaves the
  // timer stopped, when `period` is not positive or the calling thread runs no
  // TaskRunner. The callback may stop or restart the timer, or destroy its owner if it
  // returns at once.
  bool Start(const Location& from_here, TimeDelta period, RepeatingClosure task);
  void Stop();
  bool IsRunning() const { return running_; }
  TimeDelta period() const { return period_; }

 private:
  void ScheduleNext();
  void OnTick();

  Location location_;
  TimeDelta period_;
  RepeatingClosure task_;
  scoped_refptr<TaskRunner> runner_;
  DelayedTaskHandle pending_;
  TimeTicks start_;
  int64_t ticks_ = 0;
  bool running_ = false;
};

// Calls its callback once, after a delay.
class OneShotTimer {
 public:
  OneShotTimer() = default;
  ~OneShotTimer();
  OneShotTimer(const OneShotTimer&) = delete;
  OneShotTimer& operator=(const OneShotTimer&) = delete;

  // (Re)starts the timer; a pending callback is destroyed unrun. A delay of zero or less
  // fires on the next turn of the thread. Returns false when the calling thread runs no
  // TaskRunner.
  bool Start(const Location& from_here, TimeDelta delay, OnceClosure task);
  // Abandons the pending callback, destroying it unrun.
  void Stop();
  bool IsRunning() const { return running_; }

 private:
  void OnFire();

  OnceClosure task_;
  DelayedTaskHandle pending_;
  bool running_ = false;
};

}  // namespace tarn_base

#endif  // SDK_BASE_TIMER_H_
