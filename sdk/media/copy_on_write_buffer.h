// A byte buffer whose copies share one reference-counted store.
//
//   tarnel::CopyOnWriteBuffer a(bytes, size);   // copies the bytes into a new store
//   tarnel::CopyOnWriteBuffer b = a;            // shares the store: no byte is copied
//   b.MutableData()[0] = 1;                     // b now gets its own store; a is unchanged
//
// A buffer is a view (offset, size) into a store. Copying and assigning buffers is
// cheap and thread-safe across threads that each own their buffer object; the bytes of
// a shared store are never written.
#ifndef SDK_MEDIA_COPY_ON_WRITE_BUFFER_H_
#define SDK_MEDIA_COPY_ON_WRITE_BUFFER_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "sdk/base/ref_counted.h"

namespace tarnel {

class CopyOnWriteBuffer {
 public:
  CopyOnWriteBuffer() = default;
  // Copies `size` bytes at `data` into a new store. A null `data` or a zero `size`
  // makes an empty buffer without storage.
  CopyOnWriteBuffer(const uint8_t* data, size_t size);
  // A new store of `size` zero bytes.
  explicit CopyOnWriteBuffer(size_t size);

  CopyOnWriteBuffer(const CopyOnWriteBuffer& other) = default;
  CopyOnWriteBuffer(CopyOnWriteBuffer&& other) noexcept;
  CopyOnWriteBuffer& operator=(const CopyOnWriteBuffer& other) = default;
  CopyOnWriteBuffer& operator=(CopyOnWriteBuffer&& other) noexcept;
  ~CopyOnWriteBuffer() = default;

  // Null when the buffer has no storage.
  const uint8_t* data() const { return store_ ? store_->bytes() + offset_ : nullptr; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // Writable bytes; copies them into a store of its own first when the store is shared.
  // Null when the buffer has no storage.
  uint8_t* MutableData();

  // A buffer sharing `length` bytes from `offset` of this one. The range must lie
  // inside [0, size()].
  CopyOnWriteBuffer Slice(size_t offset, size_t length) const;

  // True when another buffer refers to the same store.
  bool HasSharedStore() const { return store_ && !store_->HasOneRef(); }

  // Same bytes, whatever the stores.
  bool operator==(const CopyOnWriteBuffer& other) const;
  bool operator!=(const CopyOnWriteBuffer& other) const { return !(*this == other); }

 private:
  class Store : public tarn_base::RefCountedThreadSafe<Store> {
   public:
    explicit Store(size_t size) : bytes_(new uint8_t[size]()) {}
    uint8_t* bytes() const { return bytes_.get(); }

   private:
    friend class tarn_base::RefCountedThreadSafe<Store>;
    ~Store() = default;
    std::unique_ptr<uint8_t[]> bytes_;
  };

  tarn_base::scoped_refptr<Store> store_;
  uint64_t offset_ = 0;
  uint64_t size_ = 0;
};

}  // namespace tarnel

#endif  // SDK_MEDIA_COPY_ON_WRITE_BUFFER_H_
