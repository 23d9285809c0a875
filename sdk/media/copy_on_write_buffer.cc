#include "sdk/media/copy_on_write_buffer.h"

#include <cstring>
#include <utility>

namespace tarnel {

CopyOnWriteBuffer::CopyOnWriteBuffer(const uint8_t* data, size_t size) {
  if (data == nullptr || size == 0) return;
  store_ = tarn_base::MakeRefCounted<Store>(size);
  std::memcpy(store_->bytes(), data, size);
  size_ = size;
}

CopyOnWriteBuffer::CopyOnWriteBuffer(size_t size) {
  if (size == 0) return;
  store_ = tarn_base::MakeRefCounted<Store>(size);
  size_ = size;
}

CopyOnWriteBuffer::CopyOnWriteBuffer(CopyOnWriteBuffer&& other) noexcept
    : store_(std::move(other.store_)),
      offset_(std::exchange(other.offset_, 0)),
      size_(std::exchange(other.size_, 0)) {}

CopyOnWriteBuffer& CopyOnWriteBuffer::operator=(CopyOnWriteBuffer&& other) noexcept {
  if (this != &other) {
    store_ = std::move(other.store_);
    offset_ = std::exchange(other.offset_, 0);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

uint8_t* CopyOnWriteBuffer::MutableData() {
  if (!store_) return nullptr;
  if (!store_->HasOneRef()) {
    auto own = tarn_base::MakeRefCounted<Store>(size_);
    std::memcpy(own->bytes(), store_->bytes() + offset_, size_);
    store_ = std::move(own);
    offset_ = 0;
  }
  return store_->bytes() + offset_;
}

CopyOnWriteBuffer CopyOnWriteBuffer::Slice(size_t offset, size_t length) const {
  CopyOnWriteBuffer slice;
  if (offset > size_ || length > size_ - offset || length == 0) return slice;
  slice.store_ = store_;
  slice.offset_ = offset_ + offset;
  slice.size_ = length;
  return slice;
}

bool CopyOnWriteBuffer::operator==(const CopyOnWriteBuffer& other) const {
  return size_ == other.size_ && (size_ == 0 || std::memcmp(data(), other.data(), size_) == 0);
}

}  // namespace tarnel
