// File-system helpers.
#ifndef SDK_BASE_FILE_UTIL_H_
#define SDK_BASE_FILE_UTIL_H_

#include <string>

#include "sdk/base/file_path.h"

namespace tarn_base {

// True when something (file, directory, special file) exists at `path`. A dangling
// symbolic link counts as existing, since creating a file there would follow it.
bool PathExists(const FilePath& path);
bool DirectoryExists(const FilePath& path);

// Deletes a file, or a directory: an empty one when `recursive` is false, with all its
// contents when true. Returns true when nothing is left at `path`, including when
// there was nothing to begin with.
bool DeleteFile(const FilePath& path, bool recursive);

// Creates the directory and its missing parents. True when it exists afterwards.
bool CreateDirectory(const FilePath& path);

// Creates a fresh directory under $TMPDIR (or /tmp) whose name starts with `prefix`.
bool CreateNewTempDirectory(const std::string& prefix, FilePath* new_dir);

// Replaces the contents of `path` with `data` / reads all of `path` into `data`.
bool WriteFile(const FilePath& path, const std::string& data);
bool ReadFileToString(const FilePath& path, std::string* data);

}  // namespace tarn_base

#endif  // SDK_BASE_FILE_UTIL_H_
