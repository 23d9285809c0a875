#include "sdk/media_stream_writer/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "sdk/base/errno_text.h"
#include "sdk/base/logging.h"

namespace tarnel {
namespace media_stream_writer {
namespace {

constexpr tarn_logging::LogConfig kLogConfig{"media_stream_writer"};

}  // namespace

std::unique_ptr<OutputFile> OutputFile::Create(const std::string& path) {
  // O_EXCL first, to know whether the file is ours to remove if it stays empty.
  bool created = true;
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0 && errno == EEXIST) {
    created = false;
    fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  }
  if (fd < 0) {
    const int error = errno;
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, nullptr)
        << "cannot create " << path << ": " << tarn_base::ErrnoText(error);
    return nullptr;
  }
  return std::unique_ptr<OutputFile>(new OutputFile(path, fd, created));
}

OutputFile::OutputFile(std::string path, int fd, bool created)
    : path_(std::move(path)), fd_(fd), created_(created) {}

OutputFile::~OutputFile() { Close(/*remove_if_empty=*/false); }

size_t OutputFile::WriteAt(int64_t offset, const uint8_t* data, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = pwrite(fd_, data + done, size - done, static_cast<off_t>(offset + done));
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    last_errno_ = n < 0 ? errno : ENOSPC;
    break;
  }
  return done;
}

void OutputFile::LogFailure(const char* what) {
  TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
      << what << " " << path_ << ": " << tarn_base::ErrnoText(last_errno_);
}

int OutputFile::Write(const uint8_t* data, size_t size) {
  if (broken_ || fd_ < 0) return -(last_errno_ ? last_errno_ : EIO);
  if (!backlog_.empty()) {
    // A seek drains the backlog first, so with bytes outstanding every write appends.
    backlog_.insert(backlog_.end(), data, data + size);
    position_ += static_cast<int64_t>(size);
    end_ = position_;
    if (!Drain() && backlog_.size() > kMaxBacklogBytes) {
      TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
          << "more than " << kMaxBacklogBytes << " bytes refused by the disk, giving up on "
          << path_;
      Break();
      return -last_errno_;
    }
    return static_cast<int>(size);
  }
  const bool append = position_ == end_;
  const size_t done = WriteAt(position_, data, size);
  if (done < size) {
    if (!append) {
      LogFailure("cannot rewrite");
      Break();
      return -last_errno_;
    }
    if (!logged_failure_) {
      logged_failure_ = true;
      LogFailure("write failed, holding the data to retry:");
    }
    backlog_.assign(data + done, data + size);
    backlog_offset_ = position_ + static_cast<int64_t>(done);
  }
  position_ += static_cast<int64_t>(size);
  if (position_ > end_) end_ = position_;
  return static_cast<int>(size);
}

bool OutputFile::Drain() {
  if (backlog_.empty()) return true;
  if (broken_ || fd_ < 0) return false;
  const size_t done = WriteAt(backlog_offset_, backlog_.data(), backlog_.size());
  backlog_.erase(backlog_.begin(), backlog_.begin() + static_cast<std::ptrdiff_t>(done));
  backlog_offset_ += static_cast<int64_t>(done);
  if (backlog_.empty() && logged_failure_) {
    logged_failure_ = false;
    TARN_LOG(tarn_logging::LS_INFO, kLogConfig, this) << "writes to " << path_ << " resumed";
  }
  return backlog_.empty();
}

int64_t OutputFile::Seek(int64_t offset, int whence) {
  if (broken_ || fd_ < 0 || !Drain()) return -(last_errno_ ? last_errno_ : EIO);
  int64_t target;
  switch (whence) {
    case SEEK_SET:
      target = offset;
      break;
    case SEEK_CUR:
      target = position_ + offset;
      break;
    case SEEK_END:
      target = end_ + offset;
      break;
    default:
      return -EINVAL;
  }
  if (target < 0) return -EINVAL;
  position_ = target;
  return position_;
}

void OutputFile::Commit() {
  if (backlog_.empty() && !broken_) committed_ = end_;
}

bool OutputFile::Sync() {
  if (broken_ || fd_ < 0 || !backlog_.empty()) return false;
  if (fdatasync(fd_) == 0) return true;
  last_errno_ = errno;
  LogFailure("cannot sync");
  return false;
}

void OutputFile::Break() {
  if (broken_) return;
  broken_ = true;
  backlog_.clear();
  backlog_.shrink_to_fit();
  if (!last_errno_) last_errno_ = EIO;
  if (fd_ >= 0 && ftruncate(fd_, static_cast<off_t>(committed_)) != 0) {
    const int error = errno;
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot cut " << path_ << " back to " << committed_
        << " bytes: " << tarn_base::ErrnoText(error);
    return;
  }
  TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
      << path_ << " cut back to its last complete " << committed_ << " bytes";
}

int64_t OutputFile::Close(bool remove_if_empty) {
  if (fd_ < 0) return -1;
  struct stat info;
  const int64_t size = fstat(fd_, &info) == 0 ? static_cast<int64_t>(info.st_size) : -1;
  if (close(fd_) != 0) {
    const int error = errno;
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "closing " << path_ << " failed: " << tarn_base::ErrnoText(error);
  }
  fd_ = -1;
  if (remove_if_empty && created_ && end_ == 0 && size == 0) unlink(path_.c_str());
  return size;
}

}  // namespace media_stream_writer
}  // namespace tarnel
