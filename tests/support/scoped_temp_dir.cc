#include "tests/support/scoped_temp_dir.h"

#include "sdk/base/file_util.h"

namespace tarnel_test {

ScopedTempDir::~ScopedTempDir() {
  if (IsValid()) tarn_base::DeleteFile(path_, /*recursive=*/true);
}

bool ScopedTempDir::CreateUniqueTempDir() {
  if (IsValid()) return false;
  return tarn_base::CreateNewTempDirectory("tarnel_test_", &path_);
}

}  // namespace tarnel_test
