#include "sdk/base/file_path.h"

#include <gtest/gtest.h>

namespace tarn_base {
namespace {

TEST(FilePathTest, ComponentsAndSuffixInsertion) {
  // Path, Extension(), InsertBeforeExtension("_1"), DirName(), BaseName().
  const char* const kCases[][5] = {
      {"out.mp4", ".mp4", "out_1.mp4", ".", "out.mp4"},
      {"dir.v2/out", "", "dir.v2/out_1", "dir.v2", "out"},
      {".hidden", "", ".hidden_1", ".", ".hidden"},
      {".hidden.mp4", ".mp4", ".hidden_1.mp4", ".", ".hidden.mp4"},
      {"archive.tar.gz", ".tar.gz", "archive_1.tar.gz", ".", "archive.tar.gz"},
      {"LOGS.TAR.XZ", ".TAR.XZ", "LOGS_1.TAR.XZ", ".", "LOGS.TAR.XZ"},
      {"a.json.zst", ".json.zst", "a_1.json.zst", ".", "a.json.zst"},
      {"db.backup.gz", ".gz", "db.backup_1.gz", ".", "db.backup.gz"},
      {".tar.gz", ".gz", ".tar_1.gz", ".", ".tar.gz"},
      {"a..gz", ".gz", "a._1.gz", ".", "a..gz"},
      {"out.", ".", "out_1.", ".", "out."},
      {"a/b.c/", "", "a/b.c/", "a", "b.c"},
      {"/", "", "/", "/", "/"},
      {"/b", "", "/b_1", "/", "b"},
      {"a//b.mp4", ".mp4", "a//b_1.mp4", "a", "b.mp4"},
      {".", "", ".", ".", "."},
      {"x/..", "", "x/..", "x", ".."},
      {"", "", "", ".", ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c[0]);
    FilePath path = FilePath::FromUTF8Unsafe(c[0]);
    EXPECT_EQ(path.Extension(), c[1]);
    EXPECT_EQ(path.InsertBeforeExtension("_1").value(), c[2]);
    EXPECT_EQ(path.DirName().value(), c[3]);
    EXPECT_EQ(path.BaseName().value(), c[4]);
  }
}

TEST(FilePathTest, Append) {
  // Path, component, result.
  const char* const kCases[][3] = {
      {"/rec/", "out.mp4", "/rec/out.mp4"},
      {"/", "out.mp4", "/out.mp4"},
      {"", "out.mp4", "out.mp4"},
      {".", "out.mp4", "out.mp4"},
      {"a", "/b", "a/b"},
      {"a", "", "a"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(FilePath(c[0]).Append(c[1]).value(), c[2]) << c[0] << " + " << c[1];
  }
}

}  // namespace
}  // namespace tarn_base
