// How a file is watched.
//
// From "/" on, every directory on the way is watched for the next name, symbolic links followed step by step,
// as far as the way exists. Each directory is watched before anyone looks into it, so what is replaced behind
// our back is told by the directory above, whose watch is older. Whatever happens on the way, the way is gone
// anew, and only then is `changed` called: what happens after that is told again.
//
// A directory may be closed to reading (inotify wants that) and still lead on: then the watch on the next one
// tells when that goes away, which is enough. Where inotify cannot do it all, the file is also looked at
// once a second.

#include "Platform/FileWatch.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "Platform/BackgroundLoop.h"
#include "Platform/DirectoryWatches.h"
#include "Platform/ForkSafety.h"
#include "Platform/ObserverList.h"
#include "Platform/PerProcess.h"

namespace qx {

namespace {

constexpr std::chrono::milliseconds kLookPeriod{1000};
constexpr int kMostLinks = 40;  // as the kernel's own limit, path_resolution(7)

/// What tells one state of a file from another: the error number of stat(2), or the device, file number, size
/// and times.
using Look = std::tuple<int, dev_t, ino_t, off_t, std::int64_t, std::int64_t, std::int64_t, std::int64_t>;

Look lookAt(const std::string& path) {
  struct stat found;
  if (::stat(path.c_str(), &found) != 0) return {errno, 0, 0, 0, 0, 0, 0, 0};
  return {0,
          found.st_dev,
          found.st_ino,
          found.st_size,
          found.st_mtim.tv_sec,
          found.st_mtim.tv_nsec,
          found.st_ctim.tv_sec,
          found.st_ctim.tv_nsec};
}

struct Watch {
  Watch(std::string path, std::function<void()> changed)
      : path(std::move(path)),
        observer(std::nullopt, nullptr, std::nullopt,
                 [changed = std::move(changed)](const Notification&) { changed(); }) {}

  const std::string path;
  Observer observer;
  // All below is guarded by the watches' mutex.
  std::vector<DirectoryWatches::Entry> way;
  bool inotifyTells = false;
  Look look{};  // as it was when the way was gone, if inotify does not tell
};

bool isGone(int errorNumber) {
  return errorNumber == ENOENT || errorNumber == ENOTDIR || errorNumber == ELOOP;
}

/// Goes the way to a file and watches it.
class Way {
 public:
  Way(DirectoryWatches& directories, DirectoryWatches::Watcher watcher, const std::string& path)
      : directories_(directories), watcher_(watcher) {
    prepend(path);
  }

  void go() {
    while (!names_.empty() && step()) {
    }
  }

  std::vector<DirectoryWatches::Entry> entries() && { return std::move(entries_); }
  /// Whether inotify tells of all that may happen to the file.
  bool isCovered() const { return covered_ && !unseen_; }

 private:
  /// To the next name; whether the way goes on.
  bool step() {
    const std::string name = std::move(names_.front());
    names_.pop_front();
    if (name == "..") {
      directory_.erase(directory_.rfind('/'));  // no link among its names: the one above is its parent
      if (directory_.empty()) directory_ = "/";
      return true;
    }
    if (!watch(name)) return false;
    const std::string path = (directory_ == "/" ? "" : directory_) + "/" + name;
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0) return false;
    if (S_ISLNK(status.st_mode)) return followLink(path);
    if (!S_ISDIR(status.st_mode)) return false;
    directory_ = path;
    return true;
  }

  /// Watches the directory for the name; false when the directory has gone, which the one above will tell.
  bool watch(const std::string& name) {
    const bool last = names_.empty();
    const auto interest = last ? DirectoryWatches::Interest::content : DirectoryWatches::Interest::presence;
    auto entry = directories_.add(directory_, name, interest, watcher_);
    if (entry) {
      entries_.push_back(*std::move(entry));
      unseen_ = false;
      return true;
    }
    const int failed = errno;
    if (isGone(failed) && !unseen_) return false;
    if (unseen_ || failed != EACCES) covered_ = false;
    unseen_ = true;
    return true;
  }

  bool followLink(const std::string& path) {
    if (unseen_) covered_ = false;  // nobody tells when the link is replaced
    char target[PATH_MAX];
    const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
    if (length <= 0 || ++links_ > kMostLinks) return false;
    const std::string_view text(target, static_cast<std::size_t>(length));
    if (text.front() == '/') directory_ = "/";
    prepend(text);
    return true;
  }

  void prepend(std::string_view path) {
    std::deque<std::string> names;
    while (!path.empty()) {
      const std::string_view name = path.substr(0, path.find('/'));
      if (!name.empty() && name != ".") names.emplace_back(name);
      path.remove_prefix(std::min(path.size(), name.size() + 1));
    }
    names_.insert(names_.begin(), names.begin(), names.end());
  }

  DirectoryWatches& directories_;
  const DirectoryWatches::Watcher watcher_;
  std::string directory_ = "/";  // where we are: no link among its names
  std::deque<std::string> names_;
  std::vector<DirectoryWatches::Entry> entries_;
  int links_ = 0;
  bool unseen_ = false;  // what becomes of the last name is not told, unless by the directory of that name
  bool covered_ = true;
};

/// All watches of the process.
struct Watches {
  using Changed = std::vector<std::shared_ptr<Watch>>;

  std::mutex mutex;
  // All below is guarded by mutex.
  DirectoryWatches directories;
  std::map<DirectoryWatches::Watcher, std::shared_ptr<Watch>> watches;  // in order of their making
  DirectoryWatches::Watcher lastNumber = 0;
  bool listening = false;  // the loop watches the inotify instance
  bool looking = false;    // a look is due

  void leaveToParent() { directories.close(); }

  // With the mutex held, all of them.

  void arm(DirectoryWatches::Watcher number, Watch& watch) {
    Way way(directories, number, watch.path);
    watch.look = lookAt(watch.path);
    way.go();
    watch.inotifyTells = listen() && way.isCovered();
    for (const auto& entry : std::exchange(watch.way, std::move(way).entries()))
      directories.remove(entry);
    if (!watch.inotifyTells) lookLater();
  }

  Changed takeEvents() {
    const int descriptor = directories.open();
    const auto concerned = directories.read();
    if (!concerned) beginAgain(descriptor);
    Changed changed;
    for (const auto& [number, watch] : watches) {
      if (concerned && concerned->count(number) == 0) continue;
      arm(number, *watch);
      changed.push_back(watch);
    }
    return changed;
  }

  Changed look() {
    looking = false;
    Changed changed;
    for (const auto& [number, watch] : watches) {
      if (watch->inotifyTells) continue;
      if (lookAt(watch->path) == watch->look) {
        lookLater();
        continue;
      }
      arm(number, *watch);
      changed.push_back(watch);
    }
    return changed;
  }

 private:
  bool listen();
  void lookLater();

  /// When the inotify instance has gone. On the loop's thread: nothing there looks at its number meanwhile.
  void beginAgain(int descriptor) {
    BackgroundLoop::shared().unwatch(descriptor);
    listening = false;
    for (const auto& known : watches)
      known.second->way.clear();
  }
};

Watches& theWatches() {
  BackgroundLoop::shared();  // its lock is taken inside ours
  return PerProcess<Watches>::current();
}

template <typename Take>
void tell(Take take) {
  Watches& all = theWatches();
  Watches::Changed changed;
  {
    const std::lock_guard guard(all.mutex);
    changed = take(all);
  }
  for (const auto& watch : changed) {
    if (&theWatches() != &all) return;  // `changed` has forked, and this is the child
    watch->observer.notify({});
  }
}

bool Watches::listen() {
  if (listening) return true;
  const int descriptor = directories.open();
  listening = descriptor >= 0 && BackgroundLoop::shared().watchReadable(
                                     descriptor, [] { tell([](Watches& all) { return all.takeEvents(); }); });
  return listening;
}

void Watches::lookLater() {
  if (looking) return;
  looking =
      BackgroundLoop::shared().after(kLookPeriod, [] { tell([](Watches& all) { return all.look(); }); });
}

/// In a forked process nothing is known of the parent's watches: theirs end silently.
void endWatch(const std::shared_ptr<Watch>& watch, DirectoryWatches::Watcher number) {
  Watches& all = theWatches();
  {
    const std::lock_guard guard(all.mutex);
    const auto known = all.watches.find(number);
    if (known == all.watches.end() || known->second != watch) return;
    for (const auto& entry : watch->way)
      all.directories.remove(entry);
    all.watches.erase(known);
  }
  watch->observer.cancel();
}

}  // namespace

void prepareFileWatchForFork() {
  theWatches();
}

Observation watchFile(const std::string& path, std::function<void()> changed) {
  auto watch = std::make_shared<Watch>(path, std::move(changed));
  Watches& all = theWatches();
  const std::lock_guard guard(all.mutex);
  const DirectoryWatches::Watcher number = ++all.lastNumber;
  all.watches.emplace(number, watch);
  all.arm(number, *watch);
  return Observation([watch = std::move(watch), number] { endWatch(watch, number); });
}

}  // namespace qx
