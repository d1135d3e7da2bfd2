#include <vexupnpcp/file_utils.h>

#include <cctype>
#include <cstring>
#include <ios>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include <boost/filesystem/operations.hpp>

#include <vexupnpcp/result_codes.h>

#include "base/current_exception.h"
#include "base/log.h"

namespace vex_upnp {
namespace utils {
namespace {

constexpr const char* kTag = log::kTagUtils;
// KEPT: two lines go out under tags of other modules; log filters in the field know them there.
constexpr char kReadFailureTag[] = "VEX_CORE_CDDISCOVERY";
constexpr char kSearchTag[] = "VEX_CORE_MRCP";

constexpr char kKnownException[] = "Exception: %s";
constexpr unsigned char kByteOrderMark[] = {0xEF, 0xBB, 0xBF};

std::ios::openmode FlagsOf(VEXFileStream::VEXFileOpenMode mode) {
  switch (mode) {
    case VEXFileStream::OPEN_READ:
      return std::ios::in | std::ios::binary;
    case VEXFileStream::OPEN_WRITE:
      return std::ios::out | std::ios::binary | std::ios::trunc;
    case VEXFileStream::OPEN_READ_WRITE:
      return std::ios::in | std::ios::out | std::ios::binary | std::ios::trunc;
    case VEXFileStream::OPEN_APPEND:
      return std::ios::out | std::ios::app | std::ios::binary;
  }
  return std::ios::binary;
}

// What every operation of the stream does with an exception.
int Failed(const LogSite& site, const char* unknown, int code) {
  LogCurrentException(site, kLogMajor, kTag, kKnownException, unknown);
  return code;
}

std::string UpperCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

bool CanBeRead(const std::string& path) { return std::ifstream(path, std::ios::in).is_open(); }

// The whole file with a NUL behind it; null when there is no memory for it.
std::unique_ptr<char[]> ReadAll(std::fstream& stream, std::size_t size) {
  std::unique_ptr<char[]> text(new (std::nothrow) char[size + 1]());
  if (text && size > 0) stream.read(text.get(), static_cast<std::streamsize>(size));
  return text;
}

bool BeginsWithMark(const char* text, std::size_t size) {
  return size >= sizeof(kByteOrderMark) &&
         std::memcmp(text, kByteOrderMark, sizeof(kByteOrderMark)) == 0;
}

std::unique_ptr<char[]> WithoutMark(const char* text, std::size_t size) {
  const std::size_t rest = size - sizeof(kByteOrderMark);
  std::unique_ptr<char[]> stripped(new (std::nothrow) char[rest + 1]());
  if (stripped) std::memcpy(stripped.get(), text + sizeof(kByteOrderMark), rest);
  return stripped;
}

}  // namespace

int OpenFileStream(const std::string& path, std::ios::openmode mode, std::fstream& stream) {
  try {
    if ((mode & std::ios::out) != 0) stream.exceptions(std::ios::failbit | std::ios::badbit);
    stream.open(path.c_str(), mode);
  } catch (...) {
    VEX_LOG(kLogMajor, kTag, "file_stream.open failed!");
    return result::kFailure;
  }
  if (stream.rdstate() == std::ios::goodbit) return result::kOk;
  VEX_LOG(kLogMajor, kTag, "Can not open physical file %s", path.c_str());
  return result::kFailure;
}

int VEXFileStream::Open(const std::string& path, VEXFileOpenMode mode) {
  try {
    return OpenFileStream(path, FlagsOf(mode), *this);
  } catch (...) {
    return Failed(VEX_LOG_SITE, "fopen failed!", result::kFailure);
  }
}

int VEXFileStream::Close() {
  try {
    if (is_open()) close();
    return result::kOk;
  } catch (...) {
    return Failed(VEX_LOG_SITE, "fclose failed!", result::kOk);
  }
}

void VEXFileStream::Delete(const std::string& path) {
  try {
    if (!good()) VEX_LOG(kLogMajor, kTag, "file_stream is not good");
    boost::filesystem::remove(path);
  } catch (...) {
    Failed(VEX_LOG_SITE, "exception in deleting file", result::kFailure);
  }
}

bool VEXFileStream::IsOpen() { return rdbuf()->is_open(); }

int VEXFileStream::GetSize(long long& size) {
  try {
    if (!good()) {
      VEX_LOG(kLogMajor, kTag, "file stream is not in good state to find file size!!");
      return result::kFailure;
    }
    seekg(0, std::ios::end);
    if (!good()) {
      VEX_LOG(kLogMajor, kTag,
              "Error [1] Input File Stream Seek Error, Can't determinte file size!!");
      return result::kFailure;
    }
    const long long length = static_cast<long long>(tellg());
    seekg(0, std::ios::beg);
    if (!good()) {
      VEX_LOG(kLogMajor, kTag,
              "Error [2] Input File Stream Seek Error, Can't determinte file size!!");
      return result::kFailure;
    }
    size = length;
    return result::kOk;
  } catch (...) {
    return Failed(VEX_LOG_SITE, "Unknown exception thrown while determining the file size!",
                  result::kFailure);
  }
}

int VEXFileStream::ReadBuffer(const int& size, void* buffer) {
  try {
    read(static_cast<char*>(buffer), size);
    return static_cast<int>(gcount());
  } catch (...) {
    return Failed(VEX_LOG_SITE, "Unknown exception thrown while attempting to read from file!", -1);
  }
}

int VEXFileStream::WriteBuffer(const int& size, const void* buffer) {
  try {
    if (!good()) {
      VEX_LOG(kLogMajor, kTag, "UploadCrash fstream is not good to handle");
      return result::kFailure;
    }
    write(static_cast<const char*>(buffer), size);
    return good() ? result::kOk : result::kFailure;
  } catch (...) {
    return Failed(VEX_LOG_SITE, "Unknown exception thrown while writing into file!",
                  result::kFailure);
  }
}

int VEXFileStream::SeekToPosition(long long& position, VEXFileSeekMode mode) {
  try {
    if (mode > SEEK_FROM_END) {
      VEX_LOG(kLogMajor, kTag, "invalid seek mode!!!");
      return result::kFailure;
    }
    if (!good()) {
      VEX_LOG(kLogMajor, kTag, "file handle is not in good state");
      return result::kFailure;
    }
    const std::ios::seekdir from = mode == SEEK_FROM_START     ? std::ios::beg
                                   : mode == SEEK_FROM_CURRENT ? std::ios::cur
                                                               : std::ios::end;
    seekg(static_cast<std::streamoff>(position), from);
    if (!good()) {
      VEX_LOG(kLogMajor, kTag, "Error:: seekg failed to set position");
      return result::kFailure;
    }
    return result::kOk;
  } catch (...) {
    return Failed(VEX_LOG_SITE, "Unknown exception while seeking in file!", result::kFailure);
  }
}

int ReadFileUTF8(const std::string& path, char** content) {
  std::unique_ptr<char[]> text;
  std::size_t size = 0;
  try {
    std::fstream stream;
    if (OpenFileStream(path, std::ios::in | std::ios::binary, stream) != result::kOk) {
      VEX_LOG(kLogMajor, kTag, "Unable to open file stream!!");
      return result::kFailure;
    }
    // From here on a failure to read is an exception, and a directory or a pipe has no size.
    stream.exceptions(std::ios::failbit | std::ios::badbit);
    stream.seekg(0, std::ios::end);
    const std::streamoff end = stream.tellg();
    if (end < 0 || boost::filesystem::is_directory(path)) throw std::ios_base::failure("no size");
    stream.seekg(0, std::ios::beg);
    // A block is as large as a pointer can count; what is longer must not be cut to it.
    if (end < std::numeric_limits<std::streamsize>::max()) {
      size = static_cast<std::size_t>(end);
      text = ReadAll(stream, size);
    }
    if (!text) {
      VEX_LOG(kLogMajor, kTag, "Memory allocation Failed");
      return result::kNoMemory;
    }
  } catch (...) {
    VEX_LOG(kLogMajor, kReadFailureTag, "Unable to read from file stream!!");
    return result::kFailure;
  }
  if (BeginsWithMark(text.get(), size)) {
    text = WithoutMark(text.get(), size);
    if (!text) {
      VEX_LOG(kLogMajor, kTag, "Memory allocation Failed");
      return result::kNoMemory;
    }
  }
  *content = text.release();
  return result::kOk;
}

void CheckFileExistance(const std::string& directory, const std::list<std::string>& names,
                        std::string& found_name, std::string& full_path) {
  if (names.empty() || directory.empty()) {
    VEX_LOG(kLogMajor, kSearchTag, "Invalid args!");
    return;
  }
  try {
    for (const bool upper : {false, true}) {
      for (const std::string& name : names) {
        found_name = upper ? UpperCase(name) : name;
        full_path = directory + found_name;
        if (CanBeRead(full_path)) return;
      }
    }
  } catch (...) {
    Failed(VEX_LOG_SITE, "exception in looking for a file", result::kFailure);
  }
  found_name.clear();
  full_path.clear();
}

}  // namespace utils
}  // namespace vex_upnp
