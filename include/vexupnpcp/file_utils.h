#ifndef VEXUPNPCP_FILE_UTILS_H_
#define VEXUPNPCP_FILE_UTILS_H_

#include <fstream>
#include <list>
#include <string>

#include <vexupnpcp/export.h>

namespace vex_upnp {
namespace utils {

/// A file stream that lets no exception pass. All results: 0 success, 1 failure, unless told
/// otherwise. One thread at a time.
class VEX_EXPORT VEXFileStream : public std::fstream {
 public:
  /// How a file is opened; any larger value means binary alone.
  enum VEXFileOpenMode : unsigned int {
    /// in, binary
    OPEN_READ = 0,
    /// out, binary, trunc
    OPEN_WRITE = 1,
    /// in, out, binary, trunc: an existing file is emptied
    OPEN_READ_WRITE = 2,
    /// out, app, binary
    OPEN_APPEND = 3
  };

  /// Where a seek starts from.
  enum VEXFileSeekMode : unsigned int {
    SEEK_FROM_START = 0,
    SEEK_FROM_CURRENT = 1,
    SEEK_FROM_END = 2
  };

  /// Opens `path`; a file that cannot be opened gives result::kFailure and never an exception.
  int Open(const std::string& path, VEXFileOpenMode mode);

  /// Closes the file if it is open. Always 0: a failed close sets the stream's failbit.
  int Close();

  /// Removes the file `path`, whatever the state of the stream.
  void Delete(const std::string& path);

  bool IsOpen();

  /// Gives the file's size in bytes. The stream stands at the file's start afterwards.
  /// @param size  Written on success only.
  int GetSize(long long& size);

  /// Reads up to `size` bytes into `buffer`, which is the caller's.
  /// @return the number of bytes read, or -1 after an exception.
  int ReadBuffer(const int& size, void* buffer);

  /// Writes `size` bytes of `buffer`.
  int WriteBuffer(const int& size, const void* buffer);

  /// Moves both positions of the stream by `position` bytes from where `mode` says.
  int SeekToPosition(long long& position, VEXFileSeekMode mode);
};

/// Opens `path` on `stream`. A mode with std::ios::out makes the stream throw on later failures;
/// the failure to open itself never passes on.
/// @return 0, or result::kFailure.
VEX_EXPORT int OpenFileStream(const std::string& path, std::ios::openmode mode,
                              std::fstream& stream);

/// Reads a whole text file and strips a leading UTF-8 byte-order mark.
/// @param content  Receives a NUL-terminated text; the caller releases it with `delete[]`.
///                 Written on success only.
/// @return 0; result::kFailure when the file cannot be opened or read (a directory or a pipe among
///         them); result::kNoMemory.
VEX_EXPORT int ReadFileUTF8(const std::string& path, char** content);

/// Finds a file that may stand under its name or under its name in upper case.
/// @param directory   Put in front of the name as it is: end it with a separator.
/// @param names       Tried in order, first as they are, then all of them in upper case.
/// @param found_name  The name that was found; empty when none was, and without memory.
/// @param full_path   Directory and name; empty when none was found, and without memory.
/// With no names or no directory nothing is written.
VEX_EXPORT void CheckFileExistance(const std::string& directory,
                                   const std::list<std::string>& names, std::string& found_name,
                                   std::string& full_path);

}  // namespace utils
}  // namespace vex_upnp

#endif  // VEXUPNPCP_FILE_UTILS_H_
