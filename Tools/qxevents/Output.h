#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <QXEventStoring/Platform/Error.h>

namespace qxevents {

inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;
inline constexpr int kWrongUsage = 2;

/// Opens /dev/null on standard input, output and error where they are closed, so that no file of the store
/// gets their numbers; ignores SIGPIPE. First thing in main().
void secureStandardStreams();

/// Columns of the terminal at `descriptor`; 0 when it is none or does not tell.
std::size_t terminalWidth(int descriptor);

/// Data for standard output, collected and written in large pieces. One thread.
class Output {
 public:
  /// Adds `text`; writes when enough has come together.
  void write(std::string_view text);
  /// Writes what is left.
  void flush();
  /// Whether writing failed or the reader has gone: there is no point in going on.
  bool isBroken() const { return error_ != 0; }
  /// kDone; kFailed after naming on standard error what kept the data from being written. A reader that
  /// closed its pipe had seen enough: that is no failure.
  int finish();

 private:
  std::string pending_;
  int error_ = 0;  // errno of the first failed write
};

/// One line on standard error, after "qxevents: ". `message` must be fit for a terminal.
void complain(std::string_view message);
/// An error of the library: description, domain and code, then its recovery suggestion. `subject`, when
/// there is one, names what could not be done.
void complain(const qx::Error& error, std::string_view subject = {});
/// "description (domain code)", fit for a terminal.
std::string errorText(const qx::Error& error);

}  // namespace qxevents
