#include "sdk/base/file_util.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "sdk/base/file.h"

namespace tarn_base {

namespace {

// Directories get 0777 before the umask, like mkdir(1).
constexpr mode_t kNewDirectoryMode = S_IRWXU | S_IRWXG | S_IRWXO;

// Reads and writes go through File in pieces that fit its int sizes.
constexpr int kChunkSize = 1 << 20;

// A path at which nothing can exist: absent, or below something that is not a
// directory.
bool IsAbsentError(int error) { return error == ENOENT || error == ENOTDIR; }

// Removes the entry `name` of the directory `parent_fd`, with everything below it.
// Works on descriptors and never follows a symbolic link, so a link inside the tree
// is removed itself and whatever it points to is left alone, even when the link is
// swapped in while the walk runs.
bool DeleteTreeAt(int parent_fd, const char* name) {
  int dir_fd = openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dir_fd < 0) {
    if (errno == ENOENT) return true;
    // ENOTDIR or ELOOP: a file or a symbolic link, removed as it is.
    if (errno != ENOTDIR && errno != ELOOP) return false;
    return unlinkat(parent_fd, name, 0) == 0 || errno == ENOENT;
  }
  DIR* dir = fdopendir(dir_fd);
  if (dir == nullptr) {
    close(dir_fd);
    return false;
  }

  // Names are collected before anything is removed: whether readdir() still reports
  // entries removed during the walk differs between file systems.
  std::vector<std::string> subdirectories;
  std::vector<std::string> others;
  while (true) {
    errno = 0;
    struct dirent* entry = readdir(dir);
    if (entry == nullptr) break;
    std::string entry_name = entry->d_name;
    if (entry_name == "." || entry_name == "..") continue;
    // DT_UNKNOWN (some file systems) goes the descriptor way, which sorts it out.
    if (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) {
      subdirectories.push_back(std::move(entry_name));
    } else {
      others.push_back(std::move(entry_name));
    }
  }
  bool ok = errno == 0;

  for (const std::string& other : others) {
    if (unlinkat(dir_fd, other.c_str(), 0) != 0 && errno != ENOENT) ok = false;
  }
  for (const std::string& subdirectory : subdirectories) {
    if (!DeleteTreeAt(dir_fd, subdirectory.c_str())) ok = false;
  }
  closedir(dir);  // Closes dir_fd too.

  if (unlinkat(parent_fd, name, AT_REMOVEDIR) != 0 && errno != ENOENT) ok = false;
  return ok;
}

}  // namespace

bool PathExists(const FilePath& path) {
  struct stat info;
  return lstat(path.value().c_str(), &info) == 0;
}

bool DirectoryExists(const FilePath& path) {
  struct stat info;
  return stat(path.value().c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool DeleteFile(const FilePath& path, bool recursive) {
  if (path.empty()) return false;
  const char* name = path.value().c_str();
  struct stat info;
  if (lstat(name, &info) != 0) return IsAbsentError(errno);

  if (!S_ISDIR(info.st_mode)) return unlink(name) == 0 || errno == ENOENT;
  if (!recursive) return rmdir(name) == 0 || errno == ENOENT;
  return DeleteTreeAt(AT_FDCWD, name);
}

bool CreateDirectory(const FilePath& path) {
  const std::string& value = path.value();
  if (value.empty()) return false;
  if (DirectoryExists(path)) return true;

  // Create every prefix ending before a separator, then the path itself. Failures on
  // the way are not final: a prefix may exist already, or exist but refuse mkdir()
  // with EACCES on some file systems; the check at the end decides.
  for (size_t i = 1; i < value.size(); ++i) {
    if (value[i] == FilePath::kSeparator && value[i - 1] != FilePath::kSeparator) {
      mkdir(value.substr(0, i).c_str(), kNewDirectoryMode);
    }
  }
  mkdir(value.c_str(), kNewDirectoryMode);
  return DirectoryExists(path);
}

bool CreateNewTempDirectory(const std::string& prefix, FilePath* new_dir) {
  if (new_dir == nullptr) return false;
  const char* tmp = getenv("TMPDIR");
  FilePath base = FilePath::FromUTF8Unsafe(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp");
  std::string name_template = base.Append(prefix + "XXXXXX").value();
  if (mkdtemp(name_template.data()) == nullptr) return false;
  *new_dir = FilePath(std::move(name_template));
  return true;
}

bool WriteFile(const FilePath& path, const std::string& data) {
  File file(path, File::FLAG_CREATE_ALWAYS | File::FLAG_WRITE);
  if (!file.IsValid()) return false;
  size_t offset = 0;
  while (offset < data.size()) {
    int chunk = static_cast<int>(std::min<size_t>(data.size() - offset, kChunkSize));
    if (file.Write(static_cast<int64_t>(offset), data.data() + offset, chunk) != chunk) {
      return false;
    }
    offset += static_cast<size_t>(chunk);
  }
  return true;
}

bool ReadFileToString(const FilePath& path, std::string* data) {
  if (data != nullptr) data->clear();
  File file(path, File::FLAG_OPEN | File::FLAG_READ);
  if (!file.IsValid()) return false;
  // Read to the end rather than trusting the size: the file may grow meanwhile, and
  // some special files report 0.
  std::string buffer(kChunkSize, '\0');
  int64_t offset = 0;
  while (true) {
    int rv = file.Read(offset, buffer.data(), kChunkSize);
    if (rv < 0) return false;
    if (rv == 0) return true;
    if (data != nullptr) data->append(buffer.data(), static_cast<size_t>(rv));
    offset += rv;
  }
}

}  // namespace tarn_base
