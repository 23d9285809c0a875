// A process-wide value that tests replace for a scope: the mechanism behind the
// Scoped...ForTesting seams through which unit tests put fakes behind the recorder (the
// writer backend, the AAC encoder factory, the resampler factory). Production code reads
// the slot; an empty value means "the built-in one".
//
//   // In the seam's .cc:
//   tarn_base::OverrideSlot<Factory>& FactorySlot() {
//     static auto* const slot = new tarn_base::OverrideSlot<Factory>();
//     return *slot;
//   }
//   if (Factory factory = FactorySlot().Get()) return factory(type);
//
//   // The seam's Scoped...ForTesting class holds a
//   // tarn_base::ScopedOverride<Factory> override_{&FactorySlot(), std::move(factory)};
//
// Thread-safe: recorders' worker threads read the slot while the test's thread
// installs and restores values.
#ifndef SDK_BASE_SCOPED_OVERRIDE_H_
#define SDK_BASE_SCOPED_OVERRIDE_H_

#include <mutex>
#include <utility>

namespace tarn_base {

template <typename T>
class OverrideSlot {
 public:
  // A copy of the value installed now; T() when none is.
  T Get() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }

  // Installs `value` and returns the one it replaces.
  T Exchange(T value) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::swap(value_, value);
    return value;
  }

 private:
  mutable std::mutex mutex_;
  T value_{};
};

// Installs a value in a slot for its lifetime and puts back the one that was there
// before, so that scopes nest (destroyed in reverse order of creation).
template <typename T>
class ScopedOverride {
 public:
  ScopedOverride(OverrideSlot<T>* slot, T value)
      : slot_(slot), previous_(slot->Exchange(std::move(value))) {}
  ~ScopedOverride() { slot_->Exchange(std::move(previous_)); }
  ScopedOverride(const ScopedOverride&) = delete;
  ScopedOverride& operator=(const ScopedOverride&) = delete;

 private:
  OverrideSlot<T>* const slot_;
  T previous_;
};

}  // namespace tarn_base

#endif  // SDK_BASE_SCOPED_OVERRIDE_H_
