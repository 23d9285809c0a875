#include "sdk/base/simulated_clock.h"

#include <algorithm>

namespace tarn_base {

namespace {
// Virtual time starts away from zero, so that a default-constructed TimeTicks (often
// used as "never") stays strictly before every time this clock reports.
constexpr TimeTicks kOrigin = TimeTicks::FromMicroseconds(1000 * 1000);
}  // namespace

SimulatedClock::SimulatedClock() : now_(kOrigin) {}

SimulatedClock::~SimulatedClock() = default;

TimeTicks SimulatedClock::NowTicks() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return now_;
}

void SimulatedClock::RunUntilIdle() {
  // A waiter reports work when it waited or ran tasks since it was last asked, and such
  // work may have posted to waiters asked earlier in the round; only a round in which
  // nobody reports work proves that all of them are idle together.
  bool worked = true;
  while (worked) {
    worked = false;
    ForEachWaiter([&worked](ClockWaiter* waiter) {
      if (waiter->WaitUntilIdle()) worked = true;
    });
  }
}

void SimulatedClock::FastForwardBy(TimeDelta delta) {
  const TimeTicks target = NowTicks() + delta;
  RunUntilIdle();
  for (;;) {
    TimeTicks next = TimeTicks::Max();
    ForEachWaiter(
        [&next](ClockWaiter* waiter) { next = std::min(next, waiter->NextDelayedRunTime()); });
    if (next > target) break;
    AdvanceTo(next);
    RunUntilIdle();
  }
  AdvanceTo(target);
  RunUntilIdle();
}

void SimulatedClock::Advance(TimeDelta delta) {
  TimeTicks time;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    time = now_ + delta;
  }
  AdvanceTo(time);
}

void SimulatedClock::AdvanceTo(TimeTicks time) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (time > now_) now_ = time;
  }
  ForEachWaiter([](ClockWaiter* waiter) { waiter->OnClockAdvanced(); });
}

bool SimulatedClock::AddWaiter(ClockWaiter* waiter) const {
  std::lock_guard<std::mutex> lock(mutex_);
  waiters_.push_back(waiter);
  return true;
}

void SimulatedClock::RemoveWaiter(ClockWaiter* waiter) const {
  std::unique_lock<std::mutex> lock(mutex_);
  waiters_.erase(std::remove(waiters_.begin(), waiters_.end(), waiter), waiters_.end());
  busy_cv_.wait(lock, [&] { return std::find(busy_.begin(), busy_.end(), waiter) == busy_.end(); });
}

void SimulatedClock::ForEachWaiter(const std::function<void(ClockWaiter*)>& fn) const {
  std::vector<ClockWaiter*> snapshot;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    snapshot = waiters_;
  }
  for (ClockWaiter* waiter : snapshot) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      // Skip waiters removed since the snapshot; they may be gone.
      if (std::find(waiters_.begin(), waiters_.end(), waiter) == waiters_.end()) continue;
      busy_.push_back(waiter);
    }
    fn(waiter);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      busy_.erase(std::find(busy_.begin(), busy_.end(), waiter));
    }
    busy_cv_.notify_all();
  }
}

}  // namespace tarn_base
