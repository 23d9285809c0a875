#include "sdk/base/file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace tarn_base {

namespace {

constexpr uint32_t kOpenModeFlags = File::FLAG_OPEN | File::FLAG_CREATE | File::FLAG_OPEN_ALWAYS |
                                    File::FLAG_CREATE_ALWAYS | File::FLAG_OPEN_TRUNCATED;
constexpr uint32_t kAccessFlags = File::FLAG_READ | File::FLAG_WRITE | File::FLAG_APPEND;

// New files get 0666 before the umask, the same as files made by shell redirection,
// so recordings are readable by the tools the user expects.
constexpr mode_t kNewFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;

// FLAG_OPEN_ALWAYS and FLAG_CREATE_ALWAYS alternate between "create exclusively" and
// "open the existing file" so that created() is exact. Another process may delete or
// create the file between the two calls; after this many rounds we give up and report
// the last error. A dangling symbolic link also ends here: creating its target through
// it is refused, the way O_EXCL refuses it.
constexpr int kMaxOpenAttempts = 3;

bool HasSingleBit(uint32_t value) { return value != 0 && (value & (value - 1)) == 0; }

int OpenRetryingOnEintr(const char* path, int flags) {
  int fd;
  do {
    fd = open(path, flags, kNewFileMode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

}  // namespace

File::File(const FilePath& path, uint32_t flags) {
  uint32_t open_mode = flags & kOpenModeFlags;
  bool writes = (flags & (FLAG_WRITE | FLAG_APPEND)) != 0;
  bool truncates = open_mode == FLAG_CREATE_ALWAYS || open_mode == FLAG_OPEN_TRUNCATED;
  if (!HasSingleBit(open_mode) || (flags & kAccessFlags) == 0 ||
      (flags & ~(kOpenModeFlags | kAccessFlags)) != 0 || (truncates && !writes)) {
    error_ = FILE_ERROR_INVALID_OPERATION;
    return;
  }

  int access = O_CLOEXEC;
  if (writes) {
    access |= (flags & FLAG_READ) ? O_RDWR : O_WRONLY;
  } else {
    access |= O_RDONLY;
  }
  if (flags & FLAG_APPEND) access |= O_APPEND;

  const char* name = path.value().c_str();
  int fd = -1;
  bool created = false;
  switch (open_mode) {
    case FLAG_OPEN:
      fd = OpenRetryingOnEintr(name, access);
      break;
    case FLAG_CREATE:
      fd = OpenRetryingOnEintr(name, access | O_CREAT | O_EXCL);
      created = fd >= 0;
      break;
    case FLAG_OPEN_TRUNCATED:
      fd = OpenRetryingOnEintr(name, access | O_TRUNC);
      break;
    case FLAG_OPEN_ALWAYS:
    case FLAG_CREATE_ALWAYS: {
      int existing = access | (open_mode == FLAG_CREATE_ALWAYS ? O_TRUNC : 0);
      for (int attempt = 0; attempt < kMaxOpenAttempts; ++attempt) {
        fd = OpenRetryingOnEintr(name, access | O_CREAT | O_EXCL);
        if (fd >= 0) {
          created = true;
          break;
        }
        if (errno != EEXIST) break;
        fd = OpenRetryingOnEintr(name, existing);
        if (fd >= 0 || errno != ENOENT) break;
      }
      break;
    }
  }

  if (fd < 0) {
    error_ = OSErrorToFileError(errno);
    return;
  }
  fd_ = fd;
  error_ = FILE_OK;
  created_ = created;
  append_ = (flags & FLAG_APPEND) != 0;
}

File::File(File&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      error_(std::exchange(other.error_, FILE_ERROR_FAILED)),
      created_(std::exchange(other.created_, false)),
      append_(std::exchange(other.append_, false)) {}

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = std::exchange(other.fd_, -1);
    error_ = std::exchange(other.error_, FILE_ERROR_FAILED);
    created_ = std::exchange(other.created_, false);
    append_ = std::exchange(other.append_, false);
  }
  return *this;
}

File::~File() { Close(); }

void File::Close() {
  if (fd_ < 0) return;
  // No retry on EINTR: Linux releases the descriptor even then, and a second close
  // could hit a descriptor another thread has just been given.
  close(fd_);
  fd_ = -1;
}

int File::Write(int64_t offset, const char* data, int size) {
  if (fd_ < 0 || size < 0 || offset < 0 || (data == nullptr && size > 0)) {
    errno = fd_ < 0 ? EBADF : EINVAL;
    return -1;
  }
  int written = 0;
  while (written < size) {
    // pwrite() on an O_APPEND descriptor appends on Linux but writes at the offset on
    // other systems; write() appends everywhere.
    ssize_t rv = append_ ? write(fd_, data + written, size - written)
                         : pwrite(fd_, data + written, size - written, offset + written);
    if (rv < 0) {
      if (errno == EINTR) continue;
      return written > 0 ? written : -1;
    }
    if (rv == 0) break;  // Nothing more will go out; report the short count.
    written += static_cast<int>(rv);
  }
  return written;
}

int File::Read(int64_t offset, char* data, int size) {
  if (fd_ < 0 || size < 0 || offset < 0 || (data == nullptr && size > 0)) {
    errno = fd_ < 0 ? EBADF : EINVAL;
    return -1;
  }
  int read_bytes = 0;
  while (read_bytes < size) {
    ssize_t rv = pread(fd_, data + read_bytes, size - read_bytes, offset + read_bytes);
    if (rv < 0) {
      if (errno == EINTR) continue;
      return read_bytes > 0 ? read_bytes : -1;
    }
    if (rv == 0) break;  // End of file.
    read_bytes += static_cast<int>(rv);
  }
  return read_bytes;
}

int64_t File::GetLength() const {
  struct stat info;
  if (fd_ < 0 || fstat(fd_, &info) != 0) return -1;
  return static_cast<int64_t>(info.st_size);
}

// static
std::string File::ErrorToString(Error error) {
  switch (error) {
    case FILE_OK:
      return "FILE_OK";
    case FILE_ERROR_FAILED:
      return "FILE_ERROR_FAILED";
    case FILE_ERROR_IN_USE:
      return "FILE_ERROR_IN_USE";
    case FILE_ERROR_EXISTS:
      return "FILE_ERROR_EXISTS";
    case FILE_ERROR_NOT_FOUND:
      return "FILE_ERROR_NOT_FOUND";
    case FILE_ERROR_ACCESS_DENIED:
      return "FILE_ERROR_ACCESS_DENIED";
    case FILE_ERROR_TOO_MANY_OPENED:
      return "FILE_ERROR_TOO_MANY_OPENED";
    case FILE_ERROR_NO_MEMORY:
      return "FILE_ERROR_NO_MEMORY";
    case FILE_ERROR_NO_SPACE:
      return "FILE_ERROR_NO_SPACE";
    case FILE_ERROR_NOT_A_DIRECTORY:
      return "FILE_ERROR_NOT_A_DIRECTORY";
    case FILE_ERROR_INVALID_OPERATION:
      return "FILE_ERROR_INVALID_OPERATION";
    case FILE_ERROR_SECURITY:
      return "FILE_ERROR_SECURITY";
    case FILE_ERROR_ABORT:
      return "FILE_ERROR_ABORT";
    case FILE_ERROR_NOT_A_FILE:
      return "FILE_ERROR_NOT_A_FILE";
    case FILE_ERROR_NOT_EMPTY:
      return "FILE_ERROR_NOT_EMPTY";
    case FILE_ERROR_INVALID_URL:
      return "FILE_ERROR_INVALID_URL";
    case FILE_ERROR_IO:
      return "FILE_ERROR_IO";
  }
  return "FILE_ERROR_UNKNOWN(" + std::to_string(static_cast<int>(error)) + ")";
}

// static
File::Error File::OSErrorToFileError(int saved_errno) {
  switch (saved_errno) {
    case ENOENT:
      return FILE_ERROR_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS:
      return FILE_ERROR_ACCESS_DENIED;
    case EEXIST:
      return FILE_ERROR_EXISTS;
    case ENOSPC:
    case EDQUOT:
      return FILE_ERROR_NO_SPACE;
    case ENOTDIR:
      return FILE_ERROR_NOT_A_DIRECTORY;
    case EMFILE:
    case ENFILE:
      return FILE_ERROR_TOO_MANY_OPENED;
    case ENOMEM:
      return FILE_ERROR_NO_MEMORY;
    case EISDIR:
      return FILE_ERROR_NOT_A_FILE;
    case EIO:
      return FILE_ERROR_IO;
    case ETXTBSY:
    case EBUSY:
      return FILE_ERROR_IN_USE;
    case ENOTEMPTY:
      return FILE_ERROR_NOT_EMPTY;
    default:
      return FILE_ERROR_FAILED;
  }
}

}  // namespace tarn_base
