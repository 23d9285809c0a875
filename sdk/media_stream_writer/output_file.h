// The file under one container: a POSIX file written at explicit offsets, which keeps
// what the disk refused and retries it, so that a transient failure (disk full, then
// space freed) loses nothing and the bytes on disk are always a prefix of the stream.
//
// The muxer writes through Write/Seek (its AVIOContext callbacks). The owner calls
// Commit after each packet once everything is on disk: that offset ends a complete
// muxer unit (fragment, cluster, frame), so a file cut back to it plays. When the
// backlog of refused bytes outgrows kMaxBacklogBytes, or a rewrite inside the file
// fails, the file is broken: it is cut back to the last commit and takes no more bytes.
//
// Single-threaded, like the writer that owns it.
#ifndef SDK_MEDIA_STREAM_WRITER_OUTPUT_FILE_H_
#define SDK_MEDIA_STREAM_WRITER_OUTPUT_FILE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarnel {
namespace media_stream_writer {

class OutputFile {
 public:
  static constexpr size_t kMaxBacklogBytes = 8 * 1024 * 1024;

  // Creates the file, or truncates one that exists. Null (logged) when it cannot.
  static std::unique_ptr<OutputFile> Create(const std::string& path);

  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Takes all `size` bytes at the current position, or returns -errno once broken.
  int Write(const uint8_t* data, size_t size);
  // lseek semantics on the stream position; drains the backlog first (a seek with
  // refused bytes outstanding fails with -errno). Returns the new position.
  int64_t Seek(int64_t offset, int whence);
  // The stream's size: everything written, on disk or not.
  int64_t size() const { return end_; }

  // Retries the refused bytes. True when none are left.
  bool Drain();
  bool has_backlog() const { return !backlog_.empty(); }
  // Records the current end as a point the file can be cut back to. Only meaningful
  // without backlog; ignored otherwise.
  void Commit();
  // Cuts the file back to the last commit and refuses all further bytes.
  void Break();
  bool broken() const { return broken_; }
  // Asks the OS to put everything written so far on the storage device, so that a
  // later rewrite inside the file cannot reach the disk before it. False on failure.
  bool Sync();

  // Closes the file. Returns its size on disk, -1 when that cannot be told. When
  // `remove_if_empty` and this object created the file and nothing was ever written,
  // the file is removed.
  int64_t Close(bool remove_if_empty);

  const std::string& path() const { return path_; }

 private:
  OutputFile(std::string path, int fd, bool created);
  // Writes at `offset` until done or an error; returns the bytes written, errno in
  // last_errno_.
  size_t WriteAt(int64_t offset, const uint8_t* data, size_t size);
  void LogFailure(const char* what);

  const std::string path_;
  int fd_;
  const bool created_;
  int64_t position_ = 0;
  int64_t end_ = 0;
  int64_t committed_ = 0;
  // Bytes for [backlog_offset_, end_) that the disk refused so far.
  std::vector<uint8_t> backlog_;
  int64_t backlog_offset_ = 0;
  bool broken_ = false;
  bool logged_failure_ = false;
  int last_errno_ = 0;
};

}  // namespace media_stream_writer
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_OUTPUT_FILE_H_
