#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "Platform/OwnDescriptor.h"

namespace qx {

/// Names in directories that somebody waits for, all on one inotify(7) instance, each directory watched once
/// however many names are waited for in it. One thread at a time.
class DirectoryWatches {
 public:
  using Watcher = std::uint64_t;

  /// One watcher's interest in one name, as add() returned it.
  struct Entry {
    int directory;  // the kernel's number of the watch
    std::string name;
    Watcher watcher;
  };

  /// What is to be heard of a name: that it comes, goes, or changes its attributes, or also that whoever
  /// wrote to the file closes it.
  enum class Interest { presence, content };

  /// The inotify instance, made when there is none; negative, with errno set, when none can be had.
  int open();
  /// Leaves the number alone when it is not ours any more.
  void close();

  /// Tells `watcher` from now on of `name` in `directory` (not through a symbolic link), and when the
  /// directory itself goes or moves. Empty, with errno set, when the kernel refuses.
  std::optional<Entry> add(const std::string& directory, const std::string& name, Interest interest,
                           Watcher watcher);
  void remove(const Entry& entry);

  /// Who is concerned by what the kernel has to tell since the last call; never waits. Nothing when it has
  /// lost count: everyone may be; the instance and all entries are gone, and everything is to be added anew.
  std::optional<std::set<Watcher>> read();

 private:
  using Names = std::multimap<std::string, Watcher>;

  std::nullopt_t beginAgain();

  OwnDescriptor inotify_;
  std::map<int, Names> directories_;  // by the kernel's number
};

}  // namespace qx
