// A file path as a UTF-8 string with '/' separators (POSIX).
//
//   FilePath path = FilePath::FromUTF8Unsafe("/rec/out.mp4");
//   path.InsertBeforeExtension("_1").value();   // "/rec/out_1.mp4"
#ifndef SDK_BASE_FILE_PATH_H_
#define SDK_BASE_FILE_PATH_H_

#include <ostream>
#include <string>
#include <string_view>

namespace tarn_base {

class FilePath {
 public:
  static constexpr char kSeparator = '/';
  static constexpr char kExtensionSeparator = '.';

  FilePath() = default;
  explicit FilePath(std::string path) : path_(std::move(path)) {}

  // "Unsafe" because the bytes are taken as they are, without checking that they are
  // UTF-8; on POSIX a path is a byte string.
  static FilePath FromUTF8Unsafe(std::string_view utf8);

  const std::string& value() const { return path_; }
  std::string AsUTF8Unsafe() const { return path_; }
  bool empty() const { return path_.empty(); }

  // The directory part: "/a/b.mp4" -> "/a", "b.mp4" -> ".", "/b" -> "/".
  FilePath DirName() const;
  // The last component: "/a/b.mp4" -> "b.mp4".
  FilePath BaseName() const;
  // The extension of the last component with its dot, or "" when it has none:
  // "out.mp4" -> ".mp4", "dir.v2/out" -> "", ".hidden" -> "", "archive.tar.gz" -> ".tar.gz"
  // (see InsertBeforeExtension for double extensions). Leading dots belong to the
  // name; a trailing dot is an extension of its own ("out." -> "."); a path ending in
  // a separator has none.
  std::string Extension() const;
  FilePath Append(std::string_view component) const;

  // Inserts `suffix` before the extension of the last component:
  //   "out.mp4" -> "out_1.mp4", "dir.v2/out" -> "dir.v2/out_1",
  //   ".hidden" -> ".hidden_1" (a leading dot does not start an extension),
  //   "archive.tar.gz" -> "archive_1.tar.gz": an extension of 1-4 characters
  //   followed by a compression extension (gz, bz2, xz, z, zst, lz, lzma) counts as
  //   one, so that the suffix lands where users look for it.
  //   "out." -> "out_1." (the trailing dot stays last).
  // An empty path, ".", ".." or a path ending in a separator stays unchanged.
  FilePath InsertBeforeExtension(std::string_view suffix) const;

  bool operator==(const FilePath& o) const { return path_ == o.path_; }
  bool operator!=(const FilePath& o) const { return path_ != o.path_; }
  bool operator<(const FilePath& o) const { return path_ < o.path_; }

 private:
  std::string path_;
};

// Streams the path as it is.
std::ostream& operator<<(std::ostream& out, const FilePath& path);

}  // namespace tarn_base

#endif  // SDK_BASE_FILE_PATH_H_
