#include "sdk/base/file.h"

#include <errno.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "sdk/base/file_util.h"
#include "tests/support/scoped_temp_dir.h"

namespace tarn_base {
namespace {

class FileTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(temp_dir_.CreateUniqueTempDir()); }
  FilePath Path(const char* name) const { return temp_dir_.GetPath().Append(name); }

  tarnel_test::ScopedTempDir temp_dir_;
};

TEST_F(FileTest, OpenModesOnMissingAndExistingFiles) {
  struct Case {
    uint32_t mode;
    bool exists;
    File::Error error;
    bool created;
    int64_t length;  // After the open, when it succeeded.
  };
  const Case kCases[] = {
      {File::FLAG_OPEN, false, File::FILE_ERROR_NOT_FOUND, false, 0},
      {File::FLAG_OPEN, true, File::FILE_OK, false, 5},
      {File::FLAG_CREATE, false, File::FILE_OK, true, 0},
      {File::FLAG_CREATE, true, File::FILE_ERROR_EXISTS, false, 0},
      {File::FLAG_OPEN_ALWAYS, false, File::FILE_OK, true, 0},
      {File::FLAG_OPEN_ALWAYS, true, File::FILE_OK, false, 5},
      {File::FLAG_CREATE_ALWAYS, false, File::FILE_OK, true, 0},
      {File::FLAG_CREATE_ALWAYS, true, File::FILE_OK, false, 0},
      {File::FLAG_OPEN_TRUNCATED, false, File::FILE_ERROR_NOT_FOUND, false, 0},
      {File::FLAG_OPEN_TRUNCATED, true, File::FILE_OK, false, 0},
  };
  int index = 0;
  for (const Case& c : kCases) {
    SCOPED_TRACE(testing::Message() << "mode " << c.mode << (c.exists ? " existing" : " missing"));
    FilePath path = Path(("f" + std::to_string(index++)).c_str());
    if (c.exists) {
      ASSERT_TRUE(WriteFile(path, "hello"));
    }
    File file(path, c.mode | File::FLAG_WRITE);
    EXPECT_EQ(file.error_details(), c.error);
    EXPECT_EQ(file.IsValid(), c.error == File::FILE_OK);
    EXPECT_EQ(file.created(), c.created);
    if (file.IsValid()) {
      EXPECT_EQ(file.GetLength(), c.length);
    }
    EXPECT_EQ(PathExists(path), c.exists || c.created);
  }
  // Truncating without write access, or no open mode at all, is refused up front.
  EXPECT_EQ(File(Path("f0"), File::FLAG_CREATE_ALWAYS | File::FLAG_READ).error_details(),
            File::FILE_ERROR_INVALID_OPERATION);
  EXPECT_EQ(File(Path("f0"), File::FLAG_READ).error_details(), File::FILE_ERROR_INVALID_OPERATION);
}

TEST_F(FileTest, OpenForWritingFailsWhereRootFailsToo) {
  FilePath regular = Path("regular");
  ASSERT_TRUE(WriteFile(regular, "x"));
  struct Case {
    FilePath path;
    File::Error error;
  };
  const Case kCases[] = {
      {Path("missing/out.mp4"), File::FILE_ERROR_NOT_FOUND},
      {regular.Append("out.mp4"), File::FILE_ERROR_NOT_A_DIRECTORY},
      {temp_dir_.GetPath(), File::FILE_ERROR_NOT_A_FILE},
  };
  for (uint32_t mode : {File::FLAG_OPEN, File::FLAG_OPEN_ALWAYS, File::FLAG_CREATE_ALWAYS}) {
    for (const Case& c : kCases) {
      SCOPED_TRACE(testing::Message() << c.path << " mode " << mode);
      File file(c.path, mode | File::FLAG_WRITE);
      EXPECT_FALSE(file.IsValid());
      EXPECT_EQ(file.error_details(), c.error);
    }
  }
}

TEST_F(FileTest, ReadWriteAtOffsets) {
  File file(Path("data"), File::FLAG_CREATE | File::FLAG_READ | File::FLAG_WRITE);
  ASSERT_TRUE(file.IsValid());
  EXPECT_EQ(file.Write(0, "hello world", 11), 11);
  EXPECT_EQ(file.Write(6, "there", 5), 5);
  EXPECT_EQ(file.Write(13, "!", 1), 1);  // Past the end: leaves a hole of zeros.
  EXPECT_EQ(file.GetLength(), 14);

  File moved = std::move(file);
  EXPECT_FALSE(file.IsValid());  // NOLINT(bugprone-use-after-move)
  char buffer[32] = {};
  ASSERT_EQ(moved.Read(0, buffer, sizeof(buffer)), 14);  // Stops at the end of file.
  EXPECT_EQ(std::string(buffer, 14), std::string("hello there\0\0!", 14));
  EXPECT_EQ(moved.Read(14, buffer, 4), 0);
  moved.Close();
  EXPECT_EQ(moved.Write(0, "x", 1), -1);

  File append(Path("data"), File::FLAG_OPEN | File::FLAG_APPEND);
  ASSERT_TRUE(append.IsValid());
  EXPECT_EQ(append.Write(0, "ab", 2), 2);  // The offset is ignored.
  std::string contents;
  ASSERT_TRUE(ReadFileToString(Path("data"), &contents));
  EXPECT_EQ(contents, std::string("hello there\0\0!ab", 16));
}

TEST(FileErrorTest, ErrnoMapsToNamedError) {
  struct Case {
    int os_error;
    const char* name;
  };
  const Case kCases[] = {
      {ENOENT, "FILE_ERROR_NOT_FOUND"},
      {EACCES, "FILE_ERROR_ACCESS_DENIED"},
      {EPERM, "FILE_ERROR_ACCESS_DENIED"},
      {EROFS, "FILE_ERROR_ACCESS_DENIED"},
      {EEXIST, "FILE_ERROR_EXISTS"},
      {ENOSPC, "FILE_ERROR_NO_SPACE"},
      {EDQUOT, "FILE_ERROR_NO_SPACE"},
      {ENOTDIR, "FILE_ERROR_NOT_A_DIRECTORY"},
      {EMFILE, "FILE_ERROR_TOO_MANY_OPENED"},
      {ENFILE, "FILE_ERROR_TOO_MANY_OPENED"},
      {ENOMEM, "FILE_ERROR_NO_MEMORY"},
      {EISDIR, "FILE_ERROR_NOT_A_FILE"},
      {EIO, "FILE_ERROR_IO"},
      {EINVAL, "FILE_ERROR_FAILED"},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(File::ErrorToString(File::OSErrorToFileError(c.os_error)), c.name) << c.os_error;
  }
  EXPECT_EQ(File::ErrorToString(File::FILE_OK), "FILE_OK");
}

TEST_F(FileTest, DeleteFile) {
  EXPECT_TRUE(DeleteFile(Path("never_there"), false));
  EXPECT_TRUE(DeleteFile(Path("never_there/below"), true));

  FilePath tree = Path("tree");
  FilePath outside = Path("outside");
  ASSERT_TRUE(CreateDirectory(tree.Append("a/b/c")));
  ASSERT_TRUE(CreateDirectory(outside));
  ASSERT_TRUE(WriteFile(tree.Append("a/b/file"), "x"));
  ASSERT_TRUE(WriteFile(outside.Append("kept"), "x"));
  ASSERT_EQ(symlink(outside.value().c_str(), tree.Append("a/link").value().c_str()), 0);

  EXPECT_FALSE(DeleteFile(tree, false));  // Not empty.
  EXPECT_TRUE(DirectoryExists(tree));
  EXPECT_TRUE(DeleteFile(tree, true));
  EXPECT_FALSE(PathExists(tree));
  // The link went, not what it points to.
  EXPECT_TRUE(PathExists(outside.Append("kept")));

  EXPECT_TRUE(DeleteFile(outside.Append("kept"), false));
  EXPECT_TRUE(DeleteFile(outside, false));
  EXPECT_FALSE(PathExists(outside));
}

TEST_F(FileTest, DanglingSymlink) {
  FilePath target = Path("target");
  FilePath link = Path("link");
  ASSERT_EQ(symlink(target.value().c_str(), link.value().c_str()), 0);
  EXPECT_TRUE(PathExists(link));
  EXPECT_FALSE(DirectoryExists(link));

  // Opening the link must not create the file it points to.
  File file(link, File::FLAG_OPEN_ALWAYS | File::FLAG_WRITE);
  EXPECT_EQ(file.error_details(), File::FILE_ERROR_NOT_FOUND);
  EXPECT_FALSE(PathExists(target));

  EXPECT_TRUE(DeleteFile(link, false));
  EXPECT_FALSE(PathExists(link));
}

TEST_F(FileTest, DirectoriesAndWholeFiles) {
  FilePath nested = Path("x/y/z");
  EXPECT_TRUE(CreateDirectory(nested));
  EXPECT_TRUE(CreateDirectory(nested));  // Already there.
  EXPECT_TRUE(DirectoryExists(nested));
  ASSERT_TRUE(WriteFile(Path("x/file"), "x"));
  EXPECT_FALSE(CreateDirectory(Path("x/file/sub")));
  EXPECT_FALSE(CreateDirectory(Path("x/file")));

  const std::string data("binary\0data\n", 12);
  FilePath path = nested.Append("blob");
  ASSERT_TRUE(WriteFile(path, data + data));
  ASSERT_TRUE(WriteFile(path, data));  // Replaces, does not append.
  std::string read_back = "stale";
  EXPECT_TRUE(ReadFileToString(path, &read_back));
  EXPECT_EQ(read_back, data);
  EXPECT_FALSE(ReadFileToString(Path("missing"), &read_back));
  EXPECT_FALSE(ReadFileToString(nested, &read_back));
}

}  // namespace
}  // namespace tarn_base
