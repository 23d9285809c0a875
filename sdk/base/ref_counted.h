// Thread-safe intrusive reference counting.
//
//   class Foo : public tarn_base::RefCountedThreadSafe<Foo> { ... };
//   tarn_base::scoped_refptr<Foo> foo = tarn_base::MakeRefCounted<Foo>();
//
// The count is one atomic 32-bit integer. The last Release() deletes the object as a
// T, so a T with subclasses needs a virtual destructor. Give T a protected or private
// destructor and befriend RefCountedThreadSafe<T> so only Release() can delete it.
#ifndef SDK_BASE_REF_COUNTED_H_
#define SDK_BASE_REF_COUNTED_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace tarn_base {

template <class T>
class RefCountedThreadSafe {
 public:
  RefCountedThreadSafe(const RefCountedThreadSafe&) = delete;
  RefCountedThreadSafe& operator=(const RefCountedThreadSafe&) = delete;

  void AddRef() const { ref_count_.fetch_add(1, std::memory_order_relaxed); }

  // Acquire-release so that every write made through other references happens
  // before the destructor runs.
  void Release() const {
    if (ref_count_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      delete static_cast<const T*>(this);
    }
  }

  bool HasOneRef() const { return ref_count_.load(std::memory_order_acquire) == 1; }

 protected:
  RefCountedThreadSafe() = default;
  ~RefCountedThreadSafe() = default;

 private:
  mutable std::atomic<int32_t> ref_count_{0};
};

// Holds one reference on a T for as long as it lives.
template <class T>
class scoped_refptr {
 public:
  using element_type = T;

  constexpr scoped_refptr() = default;
  constexpr scoped_refptr(std::nullptr_t) {}  // NOLINT(runtime/explicit)
  scoped_refptr(T* p) : ptr_(p) {             // NOLINT(runtime/explicit)
    if (ptr_) ptr_->AddRef();
  }
  scoped_refptr(const scoped_refptr& r) : scoped_refptr(r.ptr_) {}
  template <typename U>
  scoped_refptr(const scoped_refptr<U>& r) : scoped_refptr(r.get()) {}  // NOLINT
  scoped_refptr(scoped_refptr&& r) noexcept : ptr_(std::exchange(r.ptr_, nullptr)) {}
  template <typename U>
  scoped_refptr(scoped_refptr<U>&& r) noexcept : ptr_(r.release()) {}  // NOLINT

  ~scoped_refptr() {
    if (ptr_) ptr_->Release();
  }

  scoped_refptr& operator=(scoped_refptr r) noexcept {
    std::swap(ptr_, r.ptr_);
    return *this;
  }

  T* get() const { return ptr_; }
  T& operator*() const { return *ptr_; }
  T* operator->() const { return ptr_; }
  explicit operator bool() const { return ptr_ != nullptr; }

  // Gives up the reference without releasing it.
  T* release() { return std::exchange(ptr_, nullptr); }
  void reset() { scoped_refptr().swap(*this); }
  void swap(scoped_refptr& r) noexcept { std::swap(ptr_, r.ptr_); }

  template <typename U>
  bool operator==(const scoped_refptr<U>& r) const {
    return ptr_ == r.get();
  }
  template <typename U>
  bool operator!=(const scoped_refptr<U>& r) const {
    return ptr_ != r.get();
  }
  bool operator==(std::nullptr_t) const { return ptr_ == nullptr; }
  bool operator!=(std::nullptr_t) const { return ptr_ != nullptr; }

 private:
  T* ptr_ = nullptr;
};

template <typename T, typename... Args>
scoped_refptr<T> MakeRefCounted(Args&&... args) {
  return scoped_refptr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace tarn_base

#endif  // SDK_BASE_REF_COUNTED_H_
