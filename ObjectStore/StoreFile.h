#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>

#include <QXEventStoring/Platform/Error.h>

namespace qx {

/// Which file stands at a path: paths change hands, files do not.
struct FileIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  friend auto operator<=>(const FileIdentity&, const FileIdentity&) = default;
};

/// The file at `path`. Empty, with *error (260 missing, 257 no right, 259 a symbolic link or no regular
/// file), when it cannot be a store.
std::optional<FileIdentity> storeFileIdentity(const std::string& path, ErrorPtr* error);

/// A store file in the making: built under a temporary name in the same directory and renamed when it is
/// whole, so that nobody ever sees half of it. What is not moved into place is removed.
class NewStoreFile {
 public:
  explicit NewStoreFile(const std::string& path);
  ~NewStoreFile();
  NewStoreFile(const NewStoreFile&) = delete;
  NewStoreFile& operator=(const NewStoreFile&) = delete;

  const std::string& temporaryPath() const { return temporary_; }
  /// Never replaces a file (516); replaces a symbolic link, and clears away the side files of a store that is
  /// gone. The file may be written by everybody (0666), and its name is on disk when it returns.
  bool moveIntoPlace(ErrorPtr* error);

 private:
  void removeOrphans() const;

  std::string path_;
  std::string directory_;
  std::string temporary_;
  bool moved_ = false;
};

}  // namespace qx
