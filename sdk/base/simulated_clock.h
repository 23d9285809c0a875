// Virtual time for tests of timer-driven code: time moves only when the test moves it,
// and moving it runs, on their own threads, exactly the tasks that fall due.
//
//   tarn_base::SimulatedClock clock;
//   tarn_base::ScopedTickClockOverrideForTesting use_clock(&clock);  // before the threads
//   auto recorder = LocalRecording::Create(&client);   // its thread now runs on `clock`
//   recorder->Start(params);
//   clock.RunUntilIdle();                                // Start has run
//   clock.FastForwardBy(tarn_base::TimeDelta::FromMilliseconds(450));  // three 150 ms ticks
//
// The clock must outlive every thread that uses it. RunUntilIdle and FastForwardBy are
// called from the test's thread, never from a thread that runs on this clock.
#ifndef SDK_BASE_SIMULATED_CLOCK_H_
#define SDK_BASE_SIMULATED_CLOCK_H_

#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "sdk/base/time.h"

namespace tarn_base {

class SimulatedClock : public TickClock {
 public:
  SimulatedClock();
  ~SimulatedClock() override;
  SimulatedClock(const SimulatedClock&) = delete;
  SimulatedClock& operator=(const SimulatedClock&) = delete;

  TimeTicks NowTicks() const override;

  // Waits until every thread on this clock has run all tasks that are ready at the
  // current time, including tasks those tasks post, and is idle.
  void RunUntilIdle();

  // Moves time forward by `delta`, stopping at the due time of every delayed task that
  // falls inside it (also ones posted on the way) and running what is due there before
  // moving on, so a callback reads exactly its due time from NowTicks(). Ends idle at
  // old now + delta.
  void FastForwardBy(TimeDelta delta);

  // Moves time without running anything; threads are woken and run what fell due on
  // their own schedule.
  void Advance(TimeDelta delta);

  bool AddWaiter(ClockWaiter* waiter) const override;
  void RemoveWaiter(ClockWaiter* waiter) const override;

 private:
  // Calls `fn` on each registered waiter in turn, without holding mutex_. A waiter is
  // marked busy during its call, and RemoveWaiter waits for that call to end, so a task
  // queue that is shutting down cannot be destroyed under the caller.
  void ForEachWaiter(const std::function<void(ClockWaiter*)>& fn) const;
  // Moves now_ to `time` (never backwards) and wakes every waiter.
  void AdvanceTo(TimeTicks time);

  mutable std::mutex mutex_;
  mutable std::condition_variable busy_cv_;    // Signalled when busy_ shrinks.
  TimeTicks now_;                              // Guarded by mutex_.
  mutable std::vector<ClockWaiter*> waiters_;  // Guarded by mutex_.
  mutable std::vector<ClockWaiter*> busy_;     // Guarded by mutex_; one entry per call.
};

}  // namespace tarn_base

#endif  // SDK_BASE_SIMULATED_CLOCK_H_
