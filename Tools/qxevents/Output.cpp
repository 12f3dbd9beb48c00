#include "Output.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fmt/format.h>

#include "Text.h"

namespace qxevents {
namespace {

constexpr std::size_t kPieceSize = std::size_t{64} * 1024;

/// 0, or errno.
int writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto written = ::write(descriptor, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

}  // namespace

void secureStandardStreams() {
  std::signal(SIGPIPE, SIG_IGN);
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) != -1) continue;
    // The lowest free number is this one. Opened the wrong way round, so that using it still fails.
    const int flags = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    if (::open("/dev/null", flags) != descriptor) std::_Exit(kFailed);
  }
}

std::size_t terminalWidth(int descriptor) {
  winsize size{};
  if (::isatty(descriptor) == 0 || ::ioctl(descriptor, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col;
}

void Output::write(std::string_view text) {
  if (isBroken()) return;
  pending_ += text;
  if (pending_.size() >= kPieceSize) flush();
}

void Output::flush() {
  if (!isBroken()) error_ = writeAll(STDOUT_FILENO, pending_);
  pending_.clear();
}

int Output::finish() {
  flush();
  if (error_ == 0 || error_ == EPIPE) return kDone;
  complain(fmt::format("standard output: {}", std::strerror(error_)));
  return kFailed;
}

void complain(std::string_view message) {
  static_cast<void>(writeAll(STDERR_FILENO, fmt::format("qxevents: {}\n", message)));
}

std::string errorText(const qx::Error& error) {
  return fmt::format("{} ({} {})", printable(error.localizedDescription()), printable(error.domain()),
                     error.code());
}

void complain(const qx::Error& error, std::string_view subject) {
  complain(subject.empty() ? errorText(error) : fmt::format("{}: {}", subject, errorText(error)));
  if (error.underlying() != nullptr) complain("because: " + errorText(*error.underlying()));
  if (error.suggestion() && !error.suggestion()->empty()) {
    static_cast<void>(writeAll(STDERR_FILENO, printable(*error.suggestion()) + "\n"));
  }
}

}  // namespace qxevents
