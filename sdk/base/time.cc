#include "sdk/base/time.h"

#include <time.h>

#include <atomic>

namespace tarn_base {

namespace {

// Reads CLOCK_MONOTONIC. Stateless, so one instance serves every thread.
class MonotonicTickClock final : public TickClock {
 public:
  TimeTicks NowTicks() const override {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return TimeTicks::FromMicroseconds(
        internal::SaturatedAdd(internal::SaturatedMul(static_cast<int64_t>(ts.tv_sec), 1000 * 1000),
                               static_cast<int64_t>(ts.tv_nsec) / 1000));
  }
};

// The clock installed by ScopedTickClockOverrideForTesting, or null.
std::atomic<const TickClock*> g_clock_override{nullptr};

}  // namespace

const TickClock* SystemTickClock() {
  // Trivially destructible, so it stays usable during static destruction.
  static const MonotonicTickClock* const clock = new MonotonicTickClock();
  return clock;
}

const TickClock* DefaultTickClock() {
  const TickClock* clock = g_clock_override.load(std::memory_order_acquire);
  return clock ? clock : SystemTickClock();
}

ScopedTickClockOverrideForTesting::ScopedTickClockOverrideForTesting(const TickClock* clock)
    : previous_(g_clock_override.exchange(clock, std::memory_order_acq_rel)) {}

ScopedTickClockOverrideForTesting::~ScopedTickClockOverrideForTesting() {
  g_clock_override.store(previous_, std::memory_order_release);
}

}  // namespace tarn_base
