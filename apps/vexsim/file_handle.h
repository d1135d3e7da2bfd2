#ifndef VEXSIM_FILE_HANDLE_H_
#define VEXSIM_FILE_HANDLE_H_

#include <unistd.h>

#include <utility>

namespace vexsim {

// Owns one descriptor.
class FileHandle {
 public:
  FileHandle() = default;
  explicit FileHandle(int descriptor) : descriptor_(descriptor) {}
  FileHandle(FileHandle&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileHandle& operator=(FileHandle&& other) noexcept {
    if (this != &other) {
      Close();
      descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
  }
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;
  ~FileHandle() { Close(); }

  int get() const { return descriptor_; }
  bool valid() const { return descriptor_ >= 0; }
  void Close() {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = -1;
  }

 private:
  int descriptor_ = -1;
};

}  // namespace vexsim

#endif  // VEXSIM_FILE_HANDLE_H_
