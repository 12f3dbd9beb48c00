#include "LineReader.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qxevents {
namespace {

constexpr std::size_t kReadSize = std::size_t{64} * 1024;
constexpr int kPauseMilliseconds = 200;

}  // namespace

LineReader::LineReader(int descriptor, std::size_t maximumLength)
    : descriptor_(descriptor), maximumLength_(maximumLength), buffer_(maximumLength + kReadSize, '\0') {}

LineReader::Fill LineReader::fill(bool mayIdle) {
  if (begin_ != 0 && buffer_.size() - end_ < kReadSize) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    scanned_ -= begin_;
    end_ -= begin_;
    begin_ = 0;
  }
  pollfd waiting{descriptor_, POLLIN, 0};
  if (mayIdle && ::poll(&waiting, 1, kPauseMilliseconds) == 0) return Fill::idle;
  ssize_t count = 0;
  while ((count = ::read(descriptor_, buffer_.data() + end_, buffer_.size() - end_)) < 0) {
    if (errno == EAGAIN) {
      static_cast<void>(::poll(&waiting, 1, -1));
    } else if (errno != EINTR) {
      error_ = errno;
      return Fill::failed;
    }
  }
  end_ += static_cast<std::size_t>(count);
  bytesRead_ += static_cast<std::uint64_t>(count);
  return count == 0 ? Fill::end : Fill::some;
}

LineReader::Result LineReader::next(std::string_view& line, bool mayIdle) {
  while (true) {
    const auto* found =
        static_cast<const char*>(std::memchr(buffer_.data() + scanned_, '\n', end_ - scanned_));
    const std::size_t lineEnd = found == nullptr ? end_ : static_cast<std::size_t>(found - buffer_.data());
    const bool isTooLong = isSkipping_ || lineEnd - begin_ > maximumLength_;
    if (found != nullptr) {
      line = std::string_view(buffer_).substr(begin_, lineEnd - begin_);
      begin_ = scanned_ = lineEnd + 1;
      isSkipping_ = false;
      ++lineNumber_;
      return isTooLong ? Result::tooLong : Result::line;
    }
    scanned_ = end_;
    if (isTooLong) {
      isSkipping_ = true;
      begin_ = scanned_ = end_ = 0;
    }
    switch (fill(mayIdle)) {
      case Fill::some:
        break;
      case Fill::idle:
        return Result::idle;
      case Fill::failed:
        return Result::failed;
      case Fill::end:
        if (begin_ == end_ && !isSkipping_) return Result::end;
        line = std::string_view(buffer_).substr(begin_, end_ - begin_);
        const bool wasSkipping = isSkipping_;
        isSkipping_ = false;
        begin_ = scanned_ = end_;
        ++lineNumber_;
        return wasSkipping ? Result::tooLong : Result::line;
    }
  }
}

}  // namespace qxevents
