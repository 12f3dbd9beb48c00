#pragma once

#include <unistd.h>

#include <string>
#include <utility>

namespace qx {

/// Owns an open file descriptor.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  /// Takes over what open(2) and its like returned; a negative number is "none".
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  int get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }
  int release() { return std::exchange(descriptor_, -1); }
  void reset() {
    if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
  }

 private:
  int descriptor_ = -1;
};

/// Reads from `descriptor` to its end, at most `limit` bytes, behind what `bytes` holds; 0 or the error
/// number (EFBIG when there is more).
int readToEnd(const FileDescriptor& descriptor, std::size_t limit, std::string* bytes);

}  // namespace qx
