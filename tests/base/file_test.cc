#include "sdk/base/file.h"

#include <errno.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "sdk/base/file_util.h"
#include "tests/support/scoped_temp_dir.h"

namespace tarn_base {
namespace {

class FileTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(temp_dir_.CreateUniqueTempDir()); }
  FilePath Path(const std::string& name) const { return temp_dir_.GetPath().Append(name); }

  tarnel_test::ScopedTempDir temp_dir_;
};

TEST_F(FileTest, OpenModesOnMissingAndExistingFiles) {
  // Open mode, whether the file exists, error, created(), length after a successful open.
  const std::tuple<uint32_t, bool, File::Error, bool, int64_t> kCases[] = {
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
  for (const auto& [mode, exists, error, created, length] : kCases) {
    SCOPED_TRACE(testing::Message() << "mode " << mode << (exists ? " existing" : " missing"));
    FilePath path = Path("f" + std::to_string(index++));
    ASSERT_TRUE(!exists || WriteFile(path, "hello"));
    File file(path, mode | File::FLAG_WRITE);
    EXPECT_EQ(file.error_details(), error);
    EXPECT_EQ(file.created(), created);
    EXPECT_EQ(file.GetLength(), file.IsValid() ? length : -1);
    EXPECT_EQ(PathExists(path), exists || created);
  }
  // Truncating without write access, or no open mode at all, is refused up front.
  EXPECT_EQ(File(Path("f0"), File::FLAG_CREATE_ALWAYS | File::FLAG_READ).error_details(),
            File::FILE_ERROR_INVALID_OPERATION);
  EXPECT_EQ(File(Path("f0"), File::FLAG_READ).error_details(), File::FILE_ERROR_INVALID_OPERATION);
}

TEST_F(FileTest, OpenForWritingFailsWhereRootFailsToo) {
  FilePath regular = Path("regular");
  ASSERT_TRUE(WriteFile(regular, "x"));
  const std::pair<FilePath, File::Error> kCases[] = {
      {Path("missing/out.mp4"), File::FILE_ERROR_NOT_FOUND},
      {regular.Append("out.mp4"), File::FILE_ERROR_NOT_A_DIRECTORY},
      {temp_dir_.GetPath(), File::FILE_ERROR_NOT_A_FILE},
  };
  for (uint32_t mode : {File::FLAG_OPEN, File::FLAG_OPEN_ALWAYS, File::FLAG_CREATE_ALWAYS}) {
    for (const auto& [path, error] : kCases) {
      EXPECT_EQ(File(path, mode | File::FLAG_WRITE).error_details(), error) << path << " " << mode;
    }
  }
  // The rarer errno values, which no path here can provoke.
  EXPECT_EQ(File::ErrorToString(File::OSErrorToFileError(EDQUOT)), "FILE_ERROR_NO_SPACE");
  EXPECT_EQ(File::ErrorToString(File::OSErrorToFileError(EROFS)), "FILE_ERROR_ACCESS_DENIED");
  EXPECT_EQ(File::ErrorToString(File::OSErrorToFileError(EINVAL)), "FILE_ERROR_FAILED");
}

TEST_F(FileTest, ReadWriteAtOffsets) {
  File file(Path("data"), File::FLAG_CREATE | File::FLAG_READ | File::FLAG_WRITE);
  EXPECT_EQ(file.Write(0, "hello world", 11), 11);
  EXPECT_EQ(file.Write(6, "there", 5), 5);
  EXPECT_EQ(file.Write(13, "!", 1), 1);  // Past the end: leaves a hole of zeros.
  File moved = std::move(file);
  EXPECT_FALSE(file.IsValid());  // NOLINT(bugprone-use-after-move)
  char buffer[32] = {};
  ASSERT_EQ(moved.Read(0, buffer, sizeof(buffer)), 14);  // Stops at the end of file.
  EXPECT_EQ(std::string(buffer, 14), std::string("hello there\0\0!", 14));
  EXPECT_EQ(moved.Read(14, buffer, 4), 0);

  File append(Path("data"), File::FLAG_OPEN | File::FLAG_APPEND);
  EXPECT_EQ(append.Write(0, "ab", 2), 2);  // The offset is ignored.
  std::string contents;
  ASSERT_TRUE(ReadFileToString(Path("data"), &contents));
  EXPECT_EQ(contents, std::string("hello there\0\0!ab", 16));
}

TEST_F(FileTest, DirectoriesWholeFilesAndDeletion) {
  EXPECT_TRUE(DeleteFile(Path("never_there/below"), true));
  FilePath tree = Path("tree");
  ASSERT_TRUE(CreateDirectory(tree.Append("a/b")));
  EXPECT_TRUE(CreateDirectory(tree.Append("a/b")));  // Already there.
  const std::string data("binary\0data\n", 12);
  FilePath file = tree.Append("a/file");
  ASSERT_TRUE(WriteFile(file, data + data));
  ASSERT_TRUE(WriteFile(file, data));  // Replaces, does not append.
  std::string read_back;
  EXPECT_TRUE(ReadFileToString(file, &read_back));
  EXPECT_EQ(read_back, data);
  EXPECT_FALSE(ReadFileToString(tree, &read_back));
  EXPECT_FALSE(CreateDirectory(file.Append("sub")));
  EXPECT_FALSE(CreateDirectory(file));

  // A recursive delete removes a link to a directory, not what it points to.
  FilePath outside = Path("outside");
  ASSERT_TRUE(CreateDirectory(outside));
  ASSERT_TRUE(WriteFile(outside.Append("kept"), "x"));
  ASSERT_EQ(symlink(outside.value().c_str(), tree.Append("a/link").value().c_str()), 0);
  EXPECT_FALSE(DeleteFile(tree, false));  // Not empty.
  EXPECT_TRUE(PathExists(tree.Append("a/file")));
  EXPECT_TRUE(DeleteFile(tree, true));
  EXPECT_FALSE(PathExists(tree));
  EXPECT_TRUE(PathExists(outside.Append("kept")));
  EXPECT_TRUE(DeleteFile(outside.Append("kept"), false) && DeleteFile(outside, false));
  EXPECT_FALSE(PathExists(outside));
}

TEST_F(FileTest, DanglingSymlinkIsNotFollowedOnOpen) {
  FilePath target = Path("target");
  FilePath link = Path("link");
  ASSERT_EQ(symlink(target.value().c_str(), link.value().c_str()), 0);
  EXPECT_TRUE(PathExists(link));
  EXPECT_EQ(File(link, File::FLAG_OPEN_ALWAYS | File::FLAG_WRITE).error_details(),
            File::FILE_ERROR_NOT_FOUND);
  EXPECT_FALSE(PathExists(target));
  EXPECT_TRUE(DeleteFile(link, false));
  EXPECT_FALSE(PathExists(link));
}

}  // namespace
}  // namespace tarn_base
