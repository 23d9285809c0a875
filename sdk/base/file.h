// An open file descriptor with Chromium-style flags and error codes.
//
//   File file(path, File::FLAG_OPEN_ALWAYS | File::FLAG_WRITE);   // 4 | 64 = 68
//   if (!file.IsValid()) LOG << File::ErrorToString(file.error_details());
#ifndef SDK_BASE_FILE_H_
#define SDK_BASE_FILE_H_

#include <cstdint>
#include <string>

#include "sdk/base/file_path.h"

namespace tarn_base {

class File {
 public:
  // Exactly one of the first five flags says how to open; FLAG_READ and/or
  // FLAG_WRITE (or FLAG_APPEND) say for what. FLAG_OPEN_ALWAYS never truncates.
  // The truncating modes need FLAG_WRITE or FLAG_APPEND; other combinations fail with
  // FILE_ERROR_INVALID_OPERATION. A dangling symbolic link is not followed to create
  // its target: FLAG_OPEN_ALWAYS and FLAG_CREATE_ALWAYS fail there with NOT_FOUND.
  enum Flags : uint32_t {
    FLAG_OPEN = 1 << 0,            // Opens an existing file; fails when absent.
    FLAG_CREATE = 1 << 1,          // Creates a new file; fails when it exists.
    FLAG_OPEN_ALWAYS = 1 << 2,     // Opens, creating it when absent.
    FLAG_CREATE_ALWAYS = 1 << 3,   // Creates, truncating an existing file.
    FLAG_OPEN_TRUNCATED = 1 << 4,  // Opens an existing file and truncates it.
    FLAG_READ = 1 << 5,
    FLAG_WRITE = 1 << 6,
    FLAG_APPEND = 1 << 7,
  };

  enum Error {
    FILE_OK = 0,
    FILE_ERROR_FAILED = -1,
    FILE_ERROR_IN_USE = -2,
    FILE_ERROR_EXISTS = -3,
    FILE_ERROR_NOT_FOUND = -4,
    FILE_ERROR_ACCESS_DENIED = -5,
    FILE_ERROR_TOO_MANY_OPENED = -6,
    FILE_ERROR_NO_MEMORY = -7,
    FILE_ERROR_NO_SPACE = -8,
    FILE_ERROR_NOT_A_DIRECTORY = -9,
    FILE_ERROR_INVALID_OPERATION = -10,
    FILE_ERROR_SECURITY = -11,
    FILE_ERROR_ABORT = -12,
    FILE_ERROR_NOT_A_FILE = -13,
    FILE_ERROR_NOT_EMPTY = -14,
    FILE_ERROR_INVALID_URL = -15,
    FILE_ERROR_IO = -16,
  };

  File() = default;
  // Opens `path`; check IsValid() and error_details(). Directories are refused with
  // FILE_ERROR_NOT_A_FILE when opened for writing.
  File(const FilePath& path, uint32_t flags);
  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File();  // Close()s.

  bool IsValid() const { return fd_ >= 0; }
  // Why the last open failed; FILE_OK for a valid file.
  Error error_details() const { return error_; }
  // True when the open created the file.
  bool created() const { return created_; }
  void Close();

  // Return the bytes transferred, or -1 on error. Both loop until `size` bytes are
  // done; fewer come back when Read reaches the end of the file or an error stops
  // either part-way (errno then tells why). With FLAG_APPEND, Write ignores `offset`
  // and appends.
  int Write(int64_t offset, const char* data, int size);
  int Read(int64_t offset, char* data, int size);
  int64_t GetLength() const;

  // A stable name, e.g. "FILE_ERROR_NOT_FOUND".
  static std::string ErrorToString(Error error);
  // Maps errno values to Error.
  static Error OSErrorToFileError(int saved_errno);

 private:
  int fd_ = -1;
  Error error_ = FILE_ERROR_FAILED;
  bool created_ = false;
  bool append_ = false;
};

}  // namespace tarn_base

#endif  // SDK_BASE_FILE_H_
