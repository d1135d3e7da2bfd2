#include <vexupnpcp/file_utils.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include <boost/filesystem/operations.hpp>

#include <vexupnpcp/result_codes.h>

#include "tests/support/log_capture.h"
#include "tests/support/scoped_folder.h"

namespace vex_upnp {
namespace utils {
namespace {

class FileUtils : public testing::Test {
 protected:
  std::string Path(const std::string& name) const { return folder_ + name; }
  std::string Make(const std::string& name, const std::string& content) const {
    std::ofstream(Path(name), std::ios::binary) << content;
    return Path(name);
  }
  static std::string Content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }

  const vex_test::ScopedFolder temporary_;
  const std::string folder_ = temporary_.path() + "/";
};

TEST_F(FileUtils, OpenToReadGivesTheContent) {
  VEXFileStream stream;
  ASSERT_EQ(result::kOk, stream.Open(Make("a", "hello"), VEXFileStream::OPEN_READ));
  EXPECT_TRUE(stream.IsOpen());
  char buffer[16] = {};
  EXPECT_EQ(5, stream.ReadBuffer(16, buffer));
  EXPECT_STREQ("hello", buffer);
  EXPECT_EQ(0, stream.Close());
  EXPECT_FALSE(stream.IsOpen());
  EXPECT_EQ(0, stream.Close());
}

TEST_F(FileUtils, OpenOfAMissingFileFailsWithoutThrowing) {
  vex_test::LogCapture log;
  VEXFileStream stream;
  const std::string path = Path("missing");
  EXPECT_EQ(result::kFailure, stream.Open(path, VEXFileStream::OPEN_READ));
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_UTILS", "Can not open physical file " + path));
}

TEST_F(FileUtils, OpenToWriteInAMissingFolderFailsWithoutThrowing) {
  vex_test::LogCapture log;
  VEXFileStream stream;
  EXPECT_EQ(result::kFailure, stream.Open(Path("no/file"), VEXFileStream::OPEN_WRITE));
  EXPECT_EQ(1, log.Count("file_stream.open failed!"));
}

TEST_F(FileUtils, KeptReadWriteModeEmptiesTheFile) {
  const std::string path = Make("a", "old content");
  VEXFileStream stream;
  ASSERT_EQ(result::kOk, stream.Open(path, VEXFileStream::OPEN_READ_WRITE));
  EXPECT_EQ(0, stream.Close());
  EXPECT_EQ("", Content(path));
}

TEST_F(FileUtils, WriteReplacesAndAppendKeeps) {
  const std::string path = Make("a", "old");
  {
    VEXFileStream stream;
    ASSERT_EQ(result::kOk, stream.Open(path, VEXFileStream::OPEN_WRITE));
    EXPECT_EQ(result::kOk, stream.WriteBuffer(3, "new"));
    EXPECT_EQ(0, stream.Close());
  }
  EXPECT_EQ("new", Content(path));
  VEXFileStream stream;
  ASSERT_EQ(result::kOk, stream.Open(path, VEXFileStream::OPEN_APPEND));
  EXPECT_EQ(result::kOk, stream.WriteBuffer(4, "more"));
  EXPECT_EQ(0, stream.Close());
  EXPECT_EQ("newmore", Content(path));
}

TEST_F(FileUtils, AnUnknownModeOpensNothing) {
  VEXFileStream stream;
  EXPECT_EQ(result::kFailure,
            stream.Open(Make("a", "x"), static_cast<VEXFileStream::VEXFileOpenMode>(4)));
  EXPECT_FALSE(stream.IsOpen());
}

TEST_F(FileUtils, WriteOnABadStreamIsRefused) {
  vex_test::LogCapture log;
  VEXFileStream stream;
  EXPECT_EQ(result::kFailure, stream.Open(Path("missing"), VEXFileStream::OPEN_READ));
  EXPECT_EQ(result::kFailure, stream.WriteBuffer(1, "x"));
  EXPECT_EQ(1, log.Count("UploadCrash fstream is not good to handle"));
}

TEST_F(FileUtils, GetSizeLeavesThePositionAtTheStart) {
  VEXFileStream stream;
  ASSERT_EQ(result::kOk, stream.Open(Make("a", "0123456789"), VEXFileStream::OPEN_READ));
  long long position = 7;
  EXPECT_EQ(result::kOk, stream.SeekToPosition(position, VEXFileStream::SEEK_FROM_START));
  long long size = 0;
  EXPECT_EQ(result::kOk, stream.GetSize(size));
  EXPECT_EQ(10, size);
  char buffer[3] = {};
  EXPECT_EQ(2, stream.ReadBuffer(2, buffer));
  EXPECT_STREQ("01", buffer);
}

TEST_F(FileUtils, GetSizeOfABadStreamFails) {
  vex_test::LogCapture log;
  VEXFileStream stream;
  EXPECT_EQ(result::kFailure, stream.Open(Path("missing"), VEXFileStream::OPEN_READ));
  long long size = 77;
  EXPECT_EQ(result::kFailure, stream.GetSize(size));
  EXPECT_EQ(77, size);
  EXPECT_EQ(1, log.Count("file stream is not in good state to find file size!!"));
}

TEST_F(FileUtils, SeekFromEachOrigin) {
  VEXFileStream stream;
  ASSERT_EQ(result::kOk, stream.Open(Make("a", "0123456789"), VEXFileStream::OPEN_READ));
  char c[2] = {};
  long long position = 2;
  EXPECT_EQ(result::kOk, stream.SeekToPosition(position, VEXFileStream::SEEK_FROM_START));
  EXPECT_EQ(1, stream.ReadBuffer(1, c));
  EXPECT_STREQ("2", c);
  EXPECT_EQ(result::kOk, stream.SeekToPosition(position, VEXFileStream::SEEK_FROM_CURRENT));
  EXPECT_EQ(1, stream.ReadBuffer(1, c));
  EXPECT_STREQ("5", c);
  position = -1;
  EXPECT_EQ(result::kOk, stream.SeekToPosition(position, VEXFileStream::SEEK_FROM_END));
  EXPECT_EQ(1, stream.ReadBuffer(1, c));
  EXPECT_STREQ("9", c);
}

TEST_F(FileUtils, SeekWithAnUnknownModeTouchesNothing) {
  vex_test::LogCapture log;
  VEXFileStream stream;
  ASSERT_EQ(result::kOk, stream.Open(Make("a", "0123"), VEXFileStream::OPEN_READ));
  long long position = 2;
  EXPECT_EQ(result::kFailure,
            stream.SeekToPosition(position, static_cast<VEXFileStream::VEXFileSeekMode>(3)));
  EXPECT_EQ(1, log.Count("invalid seek mode!!!"));
  char c[2] = {};
  EXPECT_EQ(1, stream.ReadBuffer(1, c));
  EXPECT_STREQ("0", c);
}

TEST_F(FileUtils, SeekBeforeTheStartFails) {
  vex_test::LogCapture log;
  VEXFileStream stream;
  ASSERT_EQ(result::kOk, stream.Open(Make("a", "0123"), VEXFileStream::OPEN_READ));
  long long position = -9;
  EXPECT_EQ(result::kFailure, stream.SeekToPosition(position, VEXFileStream::SEEK_FROM_START));
  EXPECT_EQ(1, log.Count("Error:: seekg failed to set position"));
  EXPECT_EQ(result::kFailure, stream.SeekToPosition(position, VEXFileStream::SEEK_FROM_START));
  EXPECT_EQ(1, log.Count("file handle is not in good state"));
}

TEST_F(FileUtils, DeleteRemovesTheFileAlsoFromABadStream) {
  vex_test::LogCapture log;
  const std::string path = Make("a", "x");
  VEXFileStream stream;
  EXPECT_EQ(result::kFailure, stream.Open(Path("missing"), VEXFileStream::OPEN_READ));
  stream.Delete(path);
  EXPECT_FALSE(boost::filesystem::exists(path));
  EXPECT_EQ(1, log.Count("file_stream is not good"));
}

std::string ReadText(const std::string& path, int& code) {
  char* content = nullptr;
  code = ReadFileUTF8(path, &content);
  const std::unique_ptr<char[]> owner(content);
  return content == nullptr ? "(null)" : content;
}

TEST_F(FileUtils, ReadFileStripsTheMark) {
  int code = -1;
  EXPECT_EQ("text", ReadText(Make("a", "\xEF\xBB\xBFtext"), code));
  EXPECT_EQ(result::kOk, code);
  EXPECT_EQ("", ReadText(Make("b", "\xEF\xBB\xBF"), code));
  EXPECT_EQ(result::kOk, code);
  EXPECT_EQ("", ReadText(Make("c", ""), code));
  EXPECT_EQ(result::kOk, code);
  EXPECT_EQ("\xEF\xBB", ReadText(Make("d", "\xEF\xBB"), code));
  EXPECT_EQ("plain", ReadText(Make("e", "plain"), code));
}

TEST_F(FileUtils, ReadFileOfWhatIsNoFileFails) {
  vex_test::LogCapture log;
  int code = -1;
  EXPECT_EQ("(null)", ReadText(Path("missing"), code));
  EXPECT_EQ(result::kFailure, code);
  EXPECT_EQ(1, log.Count("Unable to open file stream!!"));
  EXPECT_EQ("(null)", ReadText(folder_, code));
  EXPECT_EQ(result::kFailure, code);
  EXPECT_EQ(1, log.Count(16, "VEX_CORE_CDDISCOVERY", "Unable to read from file stream!!"));
}

TEST_F(FileUtils, RegressionAFileThatNoBlockCanHoldIsNotCutToOne) {
  if (sizeof(std::size_t) > 4) GTEST_SKIP() << "a block can hold it here";
  const std::string path = Make("a", "x");
  boost::filesystem::resize_file(path, (1ULL << 32) + 3);
  vex_test::LogCapture log;
  int code = -1;
  EXPECT_EQ("(null)", ReadText(path, code));
  EXPECT_EQ(result::kNoMemory, code);
  EXPECT_EQ(1, log.Count("Memory allocation Failed"));
}

TEST_F(FileUtils, FindsTheFileInUpperCase) {
  Make("A.TXT", "x");
  std::string name = "before";
  std::string path = "before";
  CheckFileExistance(folder_, {"b.txt", "a.txt"}, name, path);
  EXPECT_EQ("A.TXT", name);
  EXPECT_EQ(folder_ + "A.TXT", path);
}

TEST_F(FileUtils, TheNameAsItIsComesFirst) {
  Make("A.TXT", "x");
  Make("b.txt", "x");
  std::string name;
  std::string path;
  CheckFileExistance(folder_, {"a.txt", "b.txt"}, name, path);
  EXPECT_EQ("b.txt", name);
}

TEST_F(FileUtils, NothingFoundEmptiesBoth) {
  std::string name = "before";
  std::string path = "before";
  CheckFileExistance(folder_, {"a.txt"}, name, path);
  EXPECT_EQ("", name);
  EXPECT_EQ("", path);
}

TEST_F(FileUtils, MissingArgumentsLeaveBoth) {
  vex_test::LogCapture log;
  std::string name = "before";
  std::string path = "before";
  CheckFileExistance("", {"a.txt"}, name, path);
  CheckFileExistance(folder_, {}, name, path);
  EXPECT_EQ("before", name);
  EXPECT_EQ("before", path);
  EXPECT_EQ(2, log.Count(16, "VEX_CORE_MRCP", "Invalid args!"));
}

}  // namespace
}  // namespace utils
}  // namespace vex_upnp
