// Time deltas, monotonic time points and the clock that task queues and timers read.
//
// All arithmetic saturates at the int64 limits instead of overflowing: a delay of
// TimeDelta::FromMilliseconds(INT64_MAX) is TimeDelta::Max(), and Max() added to any
// time point stays at the far future.
//
//   tarn_base::TimeDelta period = tarn_base::TimeDelta::FromMilliseconds(150);
//   timer.Start(FROM_HERE, period, callback);   // period.InMicroseconds() == 150000
#ifndef SDK_BASE_TIME_H_
#define SDK_BASE_TIME_H_

#include <cstdint>
#include <limits>

namespace tarn_base {

namespace internal {

constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();
constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();

constexpr int64_t SaturatedAdd(int64_t a, int64_t b) {
  int64_t result = 0;
  if (__builtin_add_overflow(a, b, &result)) return b > 0 ? kInt64Max : kInt64Min;
  return result;
}

constexpr int64_t SaturatedSub(int64_t a, int64_t b) {
  int64_t result = 0;
  if (__builtin_sub_overflow(a, b, &result)) return b < 0 ? kInt64Max : kInt64Min;
  return result;
}

constexpr int64_t SaturatedMul(int64_t a, int64_t b) {
  int64_t result = 0;
  if (__builtin_mul_overflow(a, b, &result)) return (a < 0) != (b < 0) ? kInt64Min : kInt64Max;
  return result;
}

}  // namespace internal

// A signed span of time with microsecond resolution.
class TimeDelta {
 public:
  constexpr TimeDelta() = default;

  static constexpr TimeDelta FromMicroseconds(int64_t us) { return TimeDelta(us); }
  // Saturates: values beyond +-9.2e15 ms become Max() / Min().
  static constexpr TimeDelta FromMilliseconds(int64_t ms) {
    return TimeDelta(internal::SaturatedMul(ms, 1000));
  }
  static constexpr TimeDelta FromSeconds(int64_t s) {
    return TimeDelta(internal::SaturatedMul(s, 1000 * 1000));
  }
  static constexpr TimeDelta Max() { return TimeDelta(internal::kInt64Max); }
  static constexpr TimeDelta Min() { return TimeDelta(internal::kInt64Min); }

  constexpr int64_t InMicroseconds() const { return us_; }
  // Truncates toward zero.
  constexpr int64_t InMilliseconds() const { return us_ / 1000; }
  constexpr bool is_zero() const { return us_ == 0; }
  constexpr bool is_positive() const { return us_ > 0; }
  constexpr bool is_max() const { return us_ == internal::kInt64Max; }

  constexpr TimeDelta operator+(TimeDelta o) const {
    return TimeDelta(internal::SaturatedAdd(us_, o.us_));
  }
  constexpr TimeDelta operator-(TimeDelta o) const {
    return TimeDelta(internal::SaturatedSub(us_, o.us_));
  }
  constexpr TimeDelta operator*(int64_t n) const {
    return TimeDelta(internal::SaturatedMul(us_, n));
  }
  TimeDelta& operator+=(TimeDelta o) { return *this = *this + o; }
  TimeDelta& operator-=(TimeDelta o) { return *this = *this - o; }

  constexpr bool operator==(TimeDelta o) const { return us_ == o.us_; }
  constexpr bool operator!=(TimeDelta o) const { return us_ != o.us_; }
  constexpr bool operator<(TimeDelta o) const { return us_ < o.us_; }
  constexpr bool operator<=(TimeDelta o) const { return us_ <= o.us_; }
  constexpr bool operator>(TimeDelta o) const { return us_ > o.us_; }
  constexpr bool operator>=(TimeDelta o) const { return us_ >= o.us_; }

 private:
  constexpr explicit TimeDelta(int64_t us) : us_(us) {}
  int64_t us_ = 0;
};

// A point on a monotonic clock, in microseconds since an arbitrary origin.
class TimeTicks {
 public:
  constexpr TimeTicks() = default;
  static constexpr TimeTicks FromMicroseconds(int64_t us) { return TimeTicks(us); }
  static constexpr TimeTicks Max() { return TimeTicks(internal::kInt64Max); }

  constexpr int64_t InMicroseconds() const { return us_; }
  constexpr bool is_max() const { return us_ == internal::kInt64Max; }

  constexpr TimeTicks operator+(TimeDelta d) const {
    return TimeTicks(internal::SaturatedAdd(us_, d.InMicroseconds()));
  }
  constexpr TimeTicks operator-(TimeDelta d) const {
    return TimeTicks(internal::SaturatedSub(us_, d.InMicroseconds()));
  }
  constexpr TimeDelta operator-(TimeTicks o) const {
    return TimeDelta::FromMicroseconds(internal::SaturatedSub(us_, o.us_));
  }
  TimeTicks& operator+=(TimeDelta d) { return *this = *this + d; }

  constexpr bool operator==(TimeTicks o) const { return us_ == o.us_; }
  constexpr bool operator!=(TimeTicks o) const { return us_ != o.us_; }
  constexpr bool operator<(TimeTicks o) const { return us_ < o.us_; }
  constexpr bool operator<=(TimeTicks o) const { return us_ <= o.us_; }
  constexpr bool operator>(TimeTicks o) const { return us_ > o.us_; }
  constexpr bool operator>=(TimeTicks o) const { return us_ >= o.us_; }

 private:
  constexpr explicit TimeTicks(int64_t us) : us_(us) {}
  int64_t us_ = 0;
};

class ClockWaiter;

// The source of "now" for task queues and timers. The production clock is the
// monotonic system clock; tests substitute a SimulatedClock (simulated_clock.h).
// Implementations are thread-safe.
class TickClock {
 public:
  virtual ~TickClock() = default;
  virtual TimeTicks NowTicks() const = 0;

  // A clock whose time moves only when a test moves it accepts waiters: task queues
  // that then sleep until they are woken instead of until a wall-clock deadline.
  // Returns false for real clocks, whose waiters use deadlines.
  virtual bool AddWaiter(ClockWaiter* waiter) const {
    (void)waiter;
    return false;
  }
  virtual void RemoveWaiter(ClockWaiter* waiter) const { (void)waiter; }
};

// A task queue that waits on a simulated clock. Called from the thread that moves time.
class ClockWaiter {
 public:
  virtual ~ClockWaiter() = default;
  // Time has moved: re-check delayed tasks.
  virtual void OnClockAdvanced() = 0;
  // The due time of the earliest delayed task, or TimeTicks::Max() when there is none.
  virtual TimeTicks NextDelayedRunTime() = 0;
  // Blocks until nothing is runnable at the current time and no task is running.
  // Returns true when it had to wait for any work to finish.
  virtual bool WaitUntilIdle() = 0;
};

// The monotonic system clock (CLOCK_MONOTONIC).
const TickClock* SystemTickClock();

// The clock that newly created threads use: SystemTickClock(), unless a test
// installed another one with ScopedTickClockOverrideForTesting.
const TickClock* DefaultTickClock();

// While alive, DefaultTickClock() returns `clock`. Threads created in that time keep
// using it for their whole life. Not thread-safe against concurrent thread creation;
// create one at the top of a test.
class ScopedTickClockOverrideForTesting {
 public:
  explicit ScopedTickClockOverrideForTesting(const TickClock* clock);
  ~ScopedTickClockOverrideForTesting();
  ScopedTickClockOverrideForTesting(const ScopedTickClockOverrideForTesting&) = delete;
  ScopedTickClockOverrideForTesting& operator=(const ScopedTickClockOverrideForTesting&) = delete;

 private:
  const TickClock* previous_;
};

}  // namespace tarn_base

#endif  // SDK_BASE_TIME_H_
