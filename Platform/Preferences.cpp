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

/// Where files lie, and how much of the path the user or the machine has laid out: symbolic links count
/// there. Behind it are none, since others may own directories there.
struct Folder {
  std::string path;
  std::size_t given;
};

std::optional<Folder> folderFor(PreferenceScope scope) {
  constexpr std::string_view kFolder = "/QXEventStoring";
  if (scope == PreferenceScope::anyUserCurrentHost) {
    constexpr std::string_view kConfiguration = "/etc/xdg";
    std::string path = Host::current().resolve(kConfiguration);
    const std::size_t root = path.size() - kConfiguration.size();
    return Folder{path.append(kFolder), root};
  }
  const String configuration = userConfiguration();
  if (!configuration) return std::nullopt;
  std::string path = *configuration;
  path.append(kFolder);
  if (scope == PreferenceScope::currentUserCurrentHost) path.append("/ByHost");
  return Folder{std::move(path), configuration->size()};
}

bool failWriting(ErrorPtr* error, int errorNumber, std::string_view action, const std::string& path) {
  setError(error, makeFileError(FileAccess::write, errorNumber, action, path));
  return false;
}

/// The way to a directory, from name to name. Directories that are missing are made with `permissions`, if
/// there are any: those of the user's own are for nobody else, as XDG Base Directory says.
class FolderWay {
 public:
  explicit FolderWay(std::optional<mode_t> permissions) : permissions_(permissions) {}

  /// 0 or the error number; then path() is where the way ends.
  int go(const Folder& folder) {
    if (const int failed = goGiven(folder.path.substr(0, folder.given))) return failed;
    return goOn(std::string_view(folder.path).substr(folder.given));
  }
  const std::string& path() const { return path_; }
  /// The directory, to be locked.
  FileDescriptor take() { return FileDescriptor(::openat(directory_.get(), ".", kHow | O_RDONLY)); }

 private:
  static constexpr int kHow = O_DIRECTORY | O_CLOEXEC;

  int goGiven(const std::string& path) {
    path_ = path;
    directory_ = FileDescriptor(::open(path.empty() ? "/" : path.c_str(), kHow | O_PATH));
    if (directory_) return 0;
    if (errno != ENOENT || !permissions_) return errno;
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ENOENT;
    if (const int failed = goGiven(path.substr(0, slash))) return failed;
    return goOn(std::string_view(path).substr(slash));
  }

  int goOn(std::string_view names) {
    while (!names.empty()) {
      names.remove_prefix(1);
      const std::string name(names.substr(0, names.find('/')));
      names.remove_prefix(name.size());
      if (name.empty()) continue;
      path_.append("/").append(name);
      if (const int failed = enter(name.c_str())) return failed;
    }
    return 0;
  }

  int enter(const char* name) {
    const bool made = permissions_ && ::mkdirat(directory_.get(), name, *permissions_) == 0;
    if (permissions_ && !made && errno != EEXIST && errno != EROFS && errno != EACCES) return errno;
    const int refused = errno;
    FileDescriptor next(::openat(directory_.get(), name, kHow | O_NOFOLLOW | (made ? O_RDONLY : O_PATH)));
    if (!next) return permissions_ && errno == ENOENT ? refused : reasonAgainst(name, errno);
    if (made) setPermissions(next);
    directory_ = std::move(next);
    return 0;
  }

  /// A link that is not followed is told as "no directory" by openat(2).
  int reasonAgainst(const char* name, int failed) const {
    struct stat status;
    const bool isLink =
        ::fstatat(directory_.get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
    return failed == ENOTDIR && isLink ? ELOOP : failed;
  }

  /// Whatever the umask; only of what is our own: somebody may have put another in its place.
  void setPermissions(const FileDescriptor& made) const {
    struct stat status;
    if (::fstat(made.get(), &status) == 0 && status.st_uid == ::geteuid())
      ::fchmod(made.get(), *permissions_);
  }

  const std::optional<mode_t> permissions_;
  FileDescriptor directory_;
  std::string path_;
};

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
  int lock(FileDescriptor directory) {
    directory_ = std::move(directory);
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
  std::optional<Folder> folder = name ? folderFor(scope) : std::nullopt;
  if (!folder) return std::nullopt;
  return std::move(folder->path.append("/").append(*name));
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
  const std::optional<Folder> folder = folderFor(scope);
  if (!folder) return failWriting(error, ENOENT, "find the directory of", *path);
  FolderWay way(value ? std::optional<mode_t>(everyone ? 0755 : 0700) : std::nullopt);
  if (const int failed = way.go(*folder)) {
    return (!value && failed == ENOENT) || failWriting(error, failed, "use the directory", way.path());
  }
  WritableDirectory directory;
  if (const int failed = directory.lock(way.take())) {
    return failWriting(error, failed, "lock the directory", folder->path);
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
