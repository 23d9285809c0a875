#include "sdk/base/file_path.h"

#include <sstream>

#include <gtest/gtest.h>

namespace tarn_base {
namespace {

TEST(FilePathTest, ComponentsAndSuffixInsertion) {
  struct Case {
    const char* path;
    const char* extension;
    const char* with_suffix;  // InsertBeforeExtension("_1").
    const char* dir_name;
    const char* base_name;
  };
  const Case kCases[] = {
      {"out.mp4", ".mp4", "out_1.mp4", ".", "out.mp4"},
      {"/rec/out.mp4", ".mp4", "/rec/out_1.mp4", "/rec", "out.mp4"},
      {"dir.v2/out", "", "dir.v2/out_1", "dir.v2", "out"},
      {".hidden", "", ".hidden_1", ".", ".hidden"},
      {".hidden.mp4", ".mp4", ".hidden_1.mp4", ".", ".hidden.mp4"},
      {"..hidden", "", "..hidden_1", ".", "..hidden"},
      {"archive.tar.gz", ".tar.gz", "archive_1.tar.gz", ".", "archive.tar.gz"},
      {"LOGS.TAR.XZ", ".TAR.XZ", "LOGS_1.TAR.XZ", ".", "LOGS.TAR.XZ"},
      {"a.json.zst", ".json.zst", "a_1.json.zst", ".", "a.json.zst"},
      {"db.backup.gz", ".gz", "db.backup_1.gz", ".", "db.backup.gz"},
      {".tar.gz", ".gz", ".tar_1.gz", ".", ".tar.gz"},
      {"a..gz", ".gz", "a._1.gz", ".", "a..gz"},
      {"clip.v2.mp4", ".mp4", "clip.v2_1.mp4", ".", "clip.v2.mp4"},
      {"out.", ".", "out_1.", ".", "out."},
      {"...", "", "..._1", ".", "..."},
      {"a/b.c/", "", "a/b.c/", "a", "b.c"},
      {"/", "", "/", "/", "/"},
      {"/b", "", "/b_1", "/", "b"},
      {"//b", "", "//b_1", "/", "b"},
      {"a//b.mp4", ".mp4", "a//b_1.mp4", "a", "b.mp4"},
      {".", "", ".", ".", "."},
      {"x/..", "", "x/..", "x", ".."},
      {"", "", "", ".", ""},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.path);
    FilePath path = FilePath::FromUTF8Unsafe(c.path);
    EXPECT_EQ(path.Extension(), c.extension);
    EXPECT_EQ(path.InsertBeforeExtension("_1").value(), c.with_suffix);
    EXPECT_EQ(path.DirName().value(), c.dir_name);
    EXPECT_EQ(path.BaseName().value(), c.base_name);
  }
  EXPECT_EQ(FilePath("out.mp4").InsertBeforeExtension("").value(), "out.mp4");
}

TEST(FilePathTest, Append) {
  struct Case {
    const char* path;
    const char* component;
    const char* expected;
  };
  const Case kCases[] = {
      {"/rec", "out.mp4", "/rec/out.mp4"},
      {"/rec/", "out.mp4", "/rec/out.mp4"},
      {"/", "out.mp4", "/out.mp4"},
      {"", "out.mp4", "out.mp4"},
      {".", "out.mp4", "out.mp4"},
      {"a", "/b", "a/b"},
      {"a", "", "a"},
      {"a", "b/c", "a/b/c"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(std::string(c.path) + " + " + c.component);
    EXPECT_EQ(FilePath(c.path).Append(c.component).value(), c.expected);
  }
  std::ostringstream out;
  out << FilePath("/rec/out.mp4");
  EXPECT_EQ(out.str(), "/rec/out.mp4");
}

}  // namespace
}  // namespace tarn_base
