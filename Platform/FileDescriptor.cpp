#include "Platform/FileDescriptor.h"

#include <cerrno>

namespace qx {

int readToEnd(const FileDescriptor& descriptor, std::size_t limit, std::string* bytes) {
  char buffer[16384];
  for (;;) {
    const ssize_t count = ::read(descriptor.get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) return 0;
    if (bytes->size() + static_cast<std::size_t>(count) > limit) return EFBIG;
    bytes->append(buffer, static_cast<std::size_t>(count));
  }
}

}  // namespace qx
