#include "Platform/DirectoryWatches.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

namespace qx {

namespace {

constexpr std::uint32_t kPresence = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB;
constexpr std::uint32_t kDirectoryItself = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t kHow = IN_ONLYDIR | IN_DONT_FOLLOW | IN_MASK_ADD;

/// The name that comes with an event, without the NULs behind it; empty when it is about the directory.
std::string nameBehind(const char* name, const inotify_event& event) {
  return {name, ::strnlen(name, event.len)};
}

/// Whether the number still stands for an inotify instance: a program may close descriptors that it does not
/// know, and the next file it opens has the number then. As proc(5) shows it; yes when there is no /proc.
bool isInotify(const OwnDescriptor& descriptor) {
  if (!descriptor.isOurs()) return false;
  constexpr std::string_view kInotify = "anon_inode:inotify";
  char shown[64];
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor.get());
  const ssize_t length = ::readlink(link.c_str(), shown, sizeof shown);
  return length < 0 || std::string_view(shown, static_cast<std::size_t>(length)) == kInotify;
}

}  // namespace

int DirectoryWatches::open() {
  if (inotify_.get() < 0) inotify_ = OwnDescriptor(FileDescriptor(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)));
  return inotify_.get();
}

std::optional<DirectoryWatches::Entry> DirectoryWatches::add(const std::string& directory,
                                                             const std::string& name, Interest interest,
                                                             Watcher watcher) {
  const std::uint32_t content = interest == Interest::content ? IN_CLOSE_WRITE : 0U;
  const int number =
      ::inotify_add_watch(open(), directory.c_str(), kPresence | kDirectoryItself | kHow | content);
  if (number < 0) return std::nullopt;
  directories_[number].emplace(name, watcher);
  return Entry{number, name, watcher};
}

void DirectoryWatches::remove(const Entry& entry) {
  const auto directory = directories_.find(entry.directory);
  if (directory == directories_.end()) return;
  Names& names = directory->second;
  const auto [first, last] = names.equal_range(entry.name);
  const auto found =
      std::find_if(first, last, [&](const auto& known) { return known.second == entry.watcher; });
  if (found != last) names.erase(found);
  if (!names.empty()) return;
  ::inotify_rm_watch(inotify_.get(), entry.directory);
  directories_.erase(directory);
}

void DirectoryWatches::close() {
  if (isInotify(inotify_)) {
    inotify_.reset();
  } else {
    inotify_.forget();
  }
}

std::nullopt_t DirectoryWatches::beginAgain() {
  close();
  directories_.clear();
  return std::nullopt;
}

std::optional<std::set<DirectoryWatches::Watcher>> DirectoryWatches::read() {
  alignas(inotify_event) char buffer[16384];
  const bool ours = isInotify(inotify_);
  const ssize_t count = ours ? ::read(inotify_.get(), buffer, sizeof buffer) : 0;
  if (!ours || (count < 0 && errno != EAGAIN && errno != EINTR)) {
    return beginAgain();
  }
  std::set<Watcher> concerned;
  inotify_event event;
  for (const char* next = buffer; next < buffer + count; next += sizeof event + event.len) {
    std::memcpy(&event, next, sizeof event);
    if ((event.mask & IN_Q_OVERFLOW) != 0) return beginAgain();
    const auto directory = directories_.find(event.wd);
    if (directory == directories_.end()) continue;  // removed meanwhile
    const bool itself = (event.mask & (kDirectoryItself | IN_UNMOUNT | IN_IGNORED)) != 0;
    const std::string name = nameBehind(next + sizeof event, event);
    for (const auto& [known, watcher] : directory->second) {
      if (itself || known == name) concerned.insert(watcher);
    }
    if ((event.mask & IN_IGNORED) != 0) directories_.erase(directory);
  }
  return concerned;
}

}  // namespace qx
