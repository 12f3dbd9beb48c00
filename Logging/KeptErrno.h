#pragma once

#include <cerrno>

namespace qx::log {

/// Gives errno back the value that it had: what logs between a call and the look at its error leaves no
/// trace.
class KeptErrno {
 public:
  KeptErrno() = default;
  KeptErrno(const KeptErrno&) = delete;
  KeptErrno& operator=(const KeptErrno&) = delete;
  ~KeptErrno() { errno = number_; }

 private:
  int number_ = errno;
};

}  // namespace qx::log
