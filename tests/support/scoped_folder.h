#ifndef VEXUPNPCP_TESTS_SUPPORT_SCOPED_FOLDER_H_
#define VEXUPNPCP_TESTS_SUPPORT_SCOPED_FOLDER_H_

#include <stdexcept>
#include <string>

#include <boost/filesystem/operations.hpp>

namespace vex_test {

// A new folder for temporary files, gone with all that is in it at the end of the scope.
class ScopedFolder {
 public:
  ScopedFolder()
      : path_(boost::filesystem::temp_directory_path() /
              boost::filesystem::unique_path("vex-%%%%-%%%%-%%%%")) {
    if (!boost::filesystem::create_directory(path_)) {
      throw std::runtime_error(path_.string() + " is there already");
    }
  }
  ScopedFolder(const ScopedFolder&) = delete;
  ScopedFolder& operator=(const ScopedFolder&) = delete;
  ~ScopedFolder() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(path_, ignored);
  }

  std::string path() const { return path_.string(); }

 private:
  const boost::filesystem::path path_;
};

}  // namespace vex_test

#endif  // VEXUPNPCP_TESTS_SUPPORT_SCOPED_FOLDER_H_
