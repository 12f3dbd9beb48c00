// The machine's users and processes.

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/FileDescriptor.h"
#include "Platform/FileError.h"
#include "Platform/Host.h"

namespace qx {

namespace {

constexpr std::size_t kCommandLineLimit = 1U << 20;
constexpr std::size_t kStatusLimit = 64U << 10;
constexpr int kLaunchPatienceMilliseconds = 5000;

/// What is in /proc/<process>/<file>; empty when the process is gone or the file is longer than `limit`.
std::string readProcessFile(const std::string& process, const char* file, std::size_t limit) {
  const FileDescriptor descriptor(::open(("/proc/" + process + "/" + file).c_str(), O_RDONLY | O_CLOEXEC));
  std::string bytes;
  if (!descriptor || readToEnd(descriptor, limit, &bytes) != 0) return {};
  return bytes;
}

/// The effective user of a process, from the line "Uid: real effective saved file" (proc(5)).
std::optional<uid_t> effectiveUserOf(const std::string& process) {
  const std::string status = readProcessFile(process, "status", kStatusLimit);
  const std::size_t line = status.find("\nUid:\t");
  if (line == std::string::npos) return std::nullopt;
  const std::size_t effective = status.find('\t', line + 6);
  if (effective == std::string::npos) return std::nullopt;
  uid_t user = 0;
  const char* const end = status.data() + status.size();
  const auto [rest, failure] = std::from_chars(status.data() + effective + 1, end, user);
  if (failure != std::errc()) return std::nullopt;
  return user;
}

/// A cheap look first: a process directory belongs to its effective user, or to root when the process
/// must not be looked into.
bool isOwnProcess(const std::string& process, uid_t user) {
  struct stat directory;
  if (::stat(("/proc/" + process).c_str(), &directory) != 0) return false;
  if (directory.st_uid != user && directory.st_uid != 0) return false;
  return effectiveUserOf(process) == user;
}

/// The length of the well-formed UTF-8 sequence at the start of `text`, 0 when there is none.
std::size_t sequenceLength(std::string_view text) {
  for (std::size_t length = 1; length <= std::min<std::size_t>(4, text.size()); ++length) {
    if (isValidUTF8(text.substr(0, length))) return length;
  }
  return 0;
}

/// One line of well-formed UTF-8: NULs between arguments become blanks, what cannot be shown in a line
/// "?", what is no UTF-8 the replacement character.
std::string toCommandLine(std::string_view arguments) {
  while (!arguments.empty() && arguments.back() == '\0')
    arguments.remove_suffix(1);
  std::string line;
  line.reserve(arguments.size());
  while (!arguments.empty()) {
    const std::size_t length = sequenceLength(arguments);
    if (length == 0) {
      line += "\xEF\xBF\xBD";
    } else if (arguments.front() == '\0') {
      line += ' ';
    } else if (arguments.front() == '\n') {
      line += '?';
    } else {
      line += arguments.substr(0, length);
    }
    arguments.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return line;
}

bool isProcessNumber(const std::string& name) {
  return std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// What the new process needs, made ready beforehand: between fork and exec nothing may allocate.
struct Launch {
  const char* executable;
  char* const* arguments;
  int nullDevice;
  int report;  // writes the error number of what failed; closed by a successful exec
};

[[noreturn]] void reportAndExit(const Launch& launch) {
  const int errorNumber = errno;
  const ssize_t written = ::write(launch.report, &errorNumber, sizeof errorNumber);
  ::_exit(written == sizeof errorNumber ? 0 : 1);
}

/// In the grandchild: a session of its own, signals and streams as a fresh program expects them, none of
/// our descriptors. Async-signal-safe calls only.
[[noreturn]] void runProgram(const Launch& launch) {
  ::setsid();
  for (int number = 1; number < NSIG; ++number)
    ::signal(number, SIG_DFL);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::dup2(launch.nullDevice, stream) < 0) reportAndExit(launch);
  }
  ::close_range(STDERR_FILENO + 1, UINT_MAX, CLOSE_RANGE_CLOEXEC);
  ::execv(launch.executable, launch.arguments);
  reportAndExit(launch);
}

/// In the child: leaves the program to init, so that nobody has to wait for it.
[[noreturn]] void startProgramAndExit(const Launch& launch) {
  const pid_t program = ::_Fork();
  if (program == 0) runProgram(launch);
  if (program < 0) reportAndExit(launch);
  ::_exit(0);
}

/// Descriptors that dup2() onto the standard streams must not overwrite.
FileDescriptor aboveStandardStreams(FileDescriptor descriptor) {
  if (!descriptor || descriptor.get() > STDERR_FILENO) return descriptor;
  return FileDescriptor(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

/// Forks, with every signal blocked so that none of the application's handlers runs in the child. _Fork()
/// runs no fork handlers either: the child never returns to code that would need them.
pid_t forkLauncher(const Launch& launch) {
  sigset_t all;
  sigset_t previous;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &previous);
  const pid_t child = ::_Fork();
  if (child == 0) startProgramAndExit(launch);
  const int errorNumber = errno;
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  errno = errorNumber;
  return child;
}

/// What the launch reported: 0 when it ended without a word. A process that the application happened to
/// fork meanwhile may hold the other end open, hence the time limit.
int awaitReport(const FileDescriptor& reader) {
  pollfd readable{reader.get(), POLLIN, 0};
  while (::poll(&readable, 1, kLaunchPatienceMilliseconds) < 0 && errno == EINTR) {
  }
  int errorNumber = 0;
  if (readable.revents == 0 || ::read(reader.get(), &errorNumber, sizeof errorNumber) != sizeof errorNumber)
    return 0;
  return errorNumber;
}

/// Starts the program as a grandchild; 0 or the error number.
int launchDetached(const std::string& executable, char* const* arguments) {
  const FileDescriptor nullDevice =
      aboveStandardStreams(FileDescriptor(::open("/dev/null", O_RDWR | O_CLOEXEC)));
  if (!nullDevice) return errno;
  std::array<int, 2> pipeEnds{};
  if (::pipe2(pipeEnds.data(), O_CLOEXEC) != 0) return errno;
  const FileDescriptor reader(pipeEnds[0]);
  FileDescriptor writer = aboveStandardStreams(FileDescriptor(pipeEnds[1]));
  if (!writer) return errno;

  const pid_t child = forkLauncher({executable.c_str(), arguments, nullDevice.get(), writer.get()});
  if (child < 0) return errno;
  writer.reset();
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return awaitReport(reader);
}

std::string loginName(uid_t user) {
  std::vector<char> buffer(1024);
  passwd entry{};
  passwd* found = nullptr;
  while (::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < (1U << 20)) {
    buffer.resize(buffer.size() * 2);
  }
  return found != nullptr && *found->pw_name != '\0' ? std::string(found->pw_name) : std::to_string(user);
}

}  // namespace

/// Asked for with every notification, while the answer means opening and reading files: it is kept until the
/// effective user changes.
std::string PosixHost::userName() const {
  static std::mutex mutex;
  static uid_t knownUser = 0;
  static std::string* const knownName = new std::string;  // threads may ask until the very end
  const uid_t user = ::geteuid();
  const std::lock_guard lock(mutex);
  if (knownName->empty() || user != knownUser) {
    *knownName = loginName(user);
    knownUser = user;
  }
  return *knownName;
}

String PosixHost::processListing() const {
  const auto processes = contentsOfDirectory("/proc", true, nullptr);
  if (!processes) return std::nullopt;
  const uid_t user = ::geteuid();
  std::string listing;
  for (const std::string& process : *processes) {
    if (!isProcessNumber(process) || !isOwnProcess(process, user)) continue;
    const std::string arguments = readProcessFile(process, "cmdline", kCommandLineLimit);
    if (arguments.empty()) continue;  // a thread of the kernel, or gone
    listing.append(process).append(" ").append(toCommandLine(arguments)).append("\n");
  }
  return listing;
}

bool PosixHost::startDetached(const std::string& executable, const std::vector<std::string>& arguments,
                              ErrorPtr* error) {
  const auto hasNul = [](const std::string& text) { return text.find('\0') != std::string::npos; };
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 2);
  pointers.push_back(const_cast<char*>(executable.c_str()));
  for (const std::string& text : arguments)
    pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);

  const bool unusable = hasNul(executable) || std::any_of(arguments.begin(), arguments.end(), hasNul);
  const int failed = unusable ? EINVAL : launchDetached(executable, pointers.data());
  if (failed == 0) return true;
  setError(error, makeFileError(FileAccess::read, failed, "start", executable));
  return false;
}

}  // namespace qx
