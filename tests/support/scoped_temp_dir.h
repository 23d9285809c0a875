// A fresh temporary directory, deleted with everything in it when this goes away.
//
//   tarnel_test::ScopedTempDir dir;
//   ASSERT_TRUE(dir.CreateUniqueTempDir());
//   tarn_base::FilePath out = dir.GetPath().Append("out.mp4");
#ifndef TESTS_SUPPORT_SCOPED_TEMP_DIR_H_
#define TESTS_SUPPORT_SCOPED_TEMP_DIR_H_

#include "sdk/base/file_path.h"

namespace tarnel_test {

class ScopedTempDir {
 public:
  ScopedTempDir() = default;
  ScopedTempDir(const ScopedTempDir&) = delete;
  ScopedTempDir& operator=(const ScopedTempDir&) = delete;
  ~ScopedTempDir();

  // Creates the directory under $TMPDIR (or /tmp). False when it could not, or when
  // this already holds one.
  bool CreateUniqueTempDir();
  // The directory; empty before CreateUniqueTempDir() succeeds.
  const tarn_base::FilePath& GetPath() const { return path_; }
  bool IsValid() const { return !path_.empty(); }

 private:
  tarn_base::FilePath path_;
};

}  // namespace tarnel_test

#endif  // TESTS_SUPPORT_SCOPED_TEMP_DIR_H_
