#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qxevents {

/// A line of the input has at most this many bytes, its end not counted.
inline constexpr std::size_t kMaximumLineLength = 1048576;

/// Reads lines from a file, a pipe or a terminal in bounded memory: a line past the limit is skipped while
/// it is read. One thread. Does not own the descriptor.
class LineReader {
 public:
  explicit LineReader(int descriptor, std::size_t maximumLength = kMaximumLineLength);

  enum class Result {
    line,     // a line, the last one with or without its end
    tooLong,  // a line that was skipped
    idle,     // nothing has come for a while; only when asked for
    end,
    failed,  // error() tells why
  };

  /// `line` is good until the next call. `mayIdle`: come back with `idle` when the writer pauses.
  Result next(std::string_view& line, bool mayIdle = false);

  /// Of the line returned last, counted from 1.
  std::uint64_t lineNumber() const { return lineNumber_; }
  std::uint64_t bytesRead() const { return bytesRead_; }
  int error() const { return error_; }  // errno

 private:
  enum class Fill { some, idle, end, failed };
  Fill fill(bool mayIdle);

  int descriptor_;
  std::size_t maximumLength_;
  std::string buffer_;
  std::size_t begin_ = 0;    // what is not yet returned: [begin_, end_)
  std::size_t scanned_ = 0;  // no line end in [begin_, scanned_)
  std::size_t end_ = 0;
  bool isSkipping_ = false;  // inside a line that is too long
  std::uint64_t lineNumber_ = 0;
  std::uint64_t bytesRead_ = 0;
  int error_ = 0;
};

}  // namespace qxevents
