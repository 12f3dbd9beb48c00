// Preference files and how they are changed.
//
// A file is never written to: a new one takes its place, under a lock (flock(2)) on its directory that lasts
// from reading the old content until then. Anyone who may read the directory may also hold that lock, so the
// wait for it has an end.

#include "Platform/Preferences.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/FileDescriptor.h"
#include "Platform/FileError.h"
#include "Platform/ForkSafety.h"
#include "Platform/Host.h"
#include "Platform/PropertyList.h"

namespace qx {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kNewFile = ".preferences.new";  // no suite's file: those end in ".plist"
constexpr milliseconds kLockPatience{5000};
constexpr std::int64_t kNoSuchFile = 260;
constexpr std::int64_t kCorrupt = 3840;
constexpr std::int64_t kInvalidFileName = 514;

/// The machine's number (machine-id(5)); empty when it has none yet.
std::string readMachineId() {
  constexpr std::size_t kDigits = 32;
  const FileDescriptor file(::open("/etc/machine-id", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::string text;
  if (!file || readToEnd(file, 2 * kDigits, &text) != 0) return {};
  text.resize(std::min(text.size(), text.find_first_not_of("0123456789abcdef")));
  return text.size() == kDigits ? text : std::string();
}

MadeOnce<std::string> machineIdRead;

std::string thisMachine() {
  const std::string& machineId =
      machineIdRead.get([] { return std::make_unique<const std::string>(readMachineId()); });
  if (!machineId.empty()) return machineId;
  char name[HOST_NAME_MAX + 1] = {};
  return ::gethostname(name, HOST_NAME_MAX) == 0 ? name : "";
}

std::string homeDirectory() {
  constexpr std::size_t kMostBytes = 1U << 20;
  std::vector<char> buffer(1024);
  passwd entry{};
  passwd* found = nullptr;
  while (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < kMostBytes) {
    buffer.resize(buffer.size() * 2);
  }
  return found != nullptr && found->pw_dir != nullptr ? found->pw_dir : "";
}

/// An absolute path in the environment; a relative one counts as none, as XDG Base Directory says.
String pathInEnvironment(const char* variable) {
  const char* const path = ::secure_getenv(variable);
  if (path == nullptr || *path != '/') return std::nullopt;
  return path;
}

String userConfiguration() {
  if (String configuration = pathInEnvironment("XDG_CONFIG_HOME")) return configuration;
  const String named = pathInEnvironment("HOME");
  const std::string home = named ? *named : homeDirectory();
  if (home.empty() || home.front() != '/') return std::nullopt;
  return home + "/.config";
}

String fileNameFor(std::string_view suite, PreferenceScope scope) {
  std::string name(suite);
  if (scope == PreferenceScope::currentUserCurrentHost) name.append(".").append(thisMachine());
  name += ".plist";
  const bool usable = !suite.empty() && name.size() <= NAME_MAX && name.find('/') == std::string::npos &&
                      name.find('\0') == std::string::npos;
  return usable ? String(std::move(name)) : std::nullopt;
}

String directoryFor(PreferenceScope scope) {
  constexpr std::string_view kFolder = "/QXEventStoring";
  if (scope == PreferenceScope::anyUserCurrentHost) {
    return Host::current().resolve("/etc/xdg").append(kFolder);
  }
  String directory = userConfiguration();
  if (!directory) return std::nullopt;
  directory->append(kFolder);
  if (scope == PreferenceScope::currentUserCurrentHost) directory->append("/ByHost");
  return directory;
}

bool failWriting(ErrorPtr* error, int errorNumber, std::string_view action, const std::string& path) {
  setError(error, makeFileError(FileAccess::write, errorNumber, action, path));
  return false;
}

/// Directories of the user's own are for nobody else, as XDG Base Directory says; 0 or the error number.
int makeDirectories(const std::string& path, mode_t permissions) {
  struct stat status;
  if (::stat(path.c_str(), &status) == 0) return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
  if (errno != ENOENT) return errno;
  const std::size_t slash = path.rfind('/');
  if (slash != 0 && slash != std::string::npos) {
    if (const int failed = makeDirectories(path.substr(0, slash), permissions)) return failed;
  }
  if (::mkdir(path.c_str(), permissions) != 0) return errno == EEXIST ? 0 : errno;
  return ::chmod(path.c_str(), permissions) == 0 ? 0 : errno;  // whatever the umask
}

/// A locked directory.
class WritableDirectory {
 public:
  WritableDirectory() = default;
  WritableDirectory(const WritableDirectory&) = delete;
  WritableDirectory& operator=(const WritableDirectory&) = delete;
  /// Said outright, since a process that was forked meanwhile has the descriptor too.
  ~WritableDirectory() {
    if (locked_) ::flock(directory_.get(), LOCK_UN);
  }

  /// 0 or the error number.
  int lock(const std::string& path) {
    directory_ = FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory_) return errno;
    const steady_clock::time_point end = steady_clock::now() + kLockPatience;
    milliseconds pause{1};
    while (::flock(directory_.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK && errno != EINTR) return errno;
      if (steady_clock::now() >= end) return ETIMEDOUT;
      std::this_thread::sleep_for(pause);
      pause = std::min(pause * 2, milliseconds(20));
    }
    locked_ = true;
    return 0;
  }

  /// Puts a file with this content in the place of `name`; 0 or the error number.
  int replace(const std::string& name, std::string_view content, mode_t permissions) {
    ::unlinkat(directory_.get(), kNewFile, 0);  // left by a writer that was killed
    int failed = writeNewFile(content, permissions);
    if (failed == 0 && ::renameat(directory_.get(), kNewFile, directory_.get(), name.c_str()) != 0) {
      failed = errno;
    }
    if (failed != 0) ::unlinkat(directory_.get(), kNewFile, 0);
    // The new file is in place: a failure from here on only means that a power cut may bring back the old
    // one.
    if (failed == 0) ::fsync(directory_.get());
    return failed;
  }

 private:
  int writeNewFile(std::string_view content, mode_t permissions) {
    constexpr int kHow = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const FileDescriptor file(::openat(directory_.get(), kNewFile, kHow, 0600));
    if (!file) return errno;
    while (!content.empty()) {
      const ssize_t count = ::write(file.get(), content.data(), content.size());
      if (count < 0 && errno != EINTR) return errno;
      if (count > 0) content.remove_prefix(static_cast<std::size_t>(count));
    }
    if (::fchmod(file.get(), permissions) != 0 || ::fsync(file.get()) != 0) return errno;
    return 0;
  }

  FileDescriptor directory_;
  bool locked_ = false;
};

/// The file's dictionary, an empty one when it is missing; nothing, with *error set, when it is unusable.
std::optional<Dictionary> readPreferences(const std::string& path, ErrorPtr* error) {
  ErrorPtr problem;
  std::optional<Value> content = readXMLPropertyListFile(path, &problem);
  if (!content) {
    if (problem->code() == kNoSuchFile) return Dictionary();
    setError(error, std::move(problem));
    return std::nullopt;
  }
  if (Dictionary* const preferences = content->asDictionary()) return std::move(*preferences);
  setError(error, Error::make(kCocoaErrorDomain, kCorrupt,
                              "The property list in the file \"" + path + "\" is no dictionary."));
  return std::nullopt;
}

bool writePreferences(WritableDirectory& directory, const std::string& path, Dictionary preferences,
                      mode_t permissions, ErrorPtr* error) {
  const auto content = writeXMLPropertyList(std::move(preferences), error);
  if (!content) return false;
  const int failed = directory.replace(path.substr(path.rfind('/') + 1), *content, permissions);
  return failed == 0 || failWriting(error, failed, "write", path);
}

}  // namespace

String preferencesPath(std::string_view suite, PreferenceScope scope) {
  const String name = fileNameFor(suite, scope);
  String directory = name ? directoryFor(scope) : std::nullopt;
  if (directory) directory->append("/").append(*name);
  return directory;
}

std::optional<Value> preferenceValue(std::string_view key, std::string_view suite, PreferenceScope scope,
                                     ErrorPtr* error) {
  const String path = preferencesPath(suite, scope);
  if (!path) return std::nullopt;
  std::optional<Dictionary> preferences = readPreferences(*path, error);
  Value* const value = preferences ? preferences->find(key) : nullptr;
  if (value == nullptr) return std::nullopt;
  return std::move(*value);
}

bool setPreferenceValue(const std::optional<Value>& value, std::string_view key, std::string_view suite,
                        PreferenceScope scope, ErrorPtr* error) {
  const String path = preferencesPath(suite, scope);
  if (!path) {
    setError(error, Error::make(kCocoaErrorDomain, kInvalidFileName,
                                "There is no file for the preferences of \"" + std::string(suite) +
                                    "\": that is no file name, or the user has no home directory."));
    return false;
  }
  const bool everyone = scope == PreferenceScope::anyUserCurrentHost;
  const std::string folder = path->substr(0, path->rfind('/'));
  if (const int failed = value ? makeDirectories(folder, everyone ? 0755 : 0700) : 0) {
    return failWriting(error, failed, "create the directory", folder);
  }
  WritableDirectory directory;
  if (const int failed = directory.lock(folder)) {
    return (!value && failed == ENOENT) || failWriting(error, failed, "lock the directory", folder);
  }
  std::optional<Dictionary> preferences = readPreferences(*path, error);
  if (!preferences) return false;
  if (value) {
    preferences->set(std::string(key), *value);
  } else if (!preferences->erase(key)) {
    return true;
  }
  return writePreferences(directory, *path, *std::move(preferences), everyone ? 0644 : 0600, error);
}

}  // namespace qx
