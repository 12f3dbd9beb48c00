#include "ObjectStore/GuardedVFS.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

namespace qx {

namespace {

/// The system's VFS; set before ours is registered.
sqlite3_vfs* systemVFS = nullptr;

thread_local std::uint64_t fullWrites = 0;

/// An open file of ours; the system's stands right behind it, in the room that SQLite gave us.
struct GuardedFile {
  sqlite3_file base;

  sqlite3_file* system() { return reinterpret_cast<sqlite3_file*>(this + 1); }
  static sqlite3_file* system(sqlite3_file* file) { return reinterpret_cast<GuardedFile*>(file)->system(); }
};

#define FORWARD(method, ...)                         \
  sqlite3_file* const file = GuardedFile::system(f); \
  return file->pMethods->method(file __VA_OPT__(, ) __VA_ARGS__)

int close(sqlite3_file* f) {
  FORWARD(xClose);
}
int read(sqlite3_file* f, void* to, int size, sqlite3_int64 at) {
  FORWARD(xRead, to, size, at);
}
int write(sqlite3_file* f, const void* from, int size, sqlite3_int64 at) {
  sqlite3_file* const file = GuardedFile::system(f);
  const int result = file->pMethods->xWrite(file, from, size, at);
  if (result == SQLITE_FULL) ++fullWrites;
  return result;
}
int truncate(sqlite3_file* f, sqlite3_int64 size) {
  FORWARD(xTruncate, size);
}
int sync(sqlite3_file* f, int flags) {
  FORWARD(xSync, flags);
}
int fileSize(sqlite3_file* f, sqlite3_int64* size) {
  FORWARD(xFileSize, size);
}
int lock(sqlite3_file* f, int level) {
  FORWARD(xLock, level);
}
int unlock(sqlite3_file* f, int level) {
  FORWARD(xUnlock, level);
}
int checkReservedLock(sqlite3_file* f, int* result) {
  FORWARD(xCheckReservedLock, result);
}
int fileControl(sqlite3_file* f, int operation, void* argument) {
  FORWARD(xFileControl, operation, argument);
}
int sectorSize(sqlite3_file* f) {
  FORWARD(xSectorSize);
}
int deviceCharacteristics(sqlite3_file* f) {
  FORWARD(xDeviceCharacteristics);
}

#undef FORWARD

// Version 1: without the methods for shared memory and for mapped pages.
const sqlite3_io_methods kMethods = {1,
                                     close,
                                     read,
                                     write,
                                     truncate,
                                     sync,
                                     fileSize,
                                     lock,
                                     unlock,
                                     checkReservedLock,
                                     fileControl,
                                     sectorSize,
                                     deviceCharacteristics,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr};

bool isPlanted(const char* path) {
  struct stat status = {};
  return ::lstat(path, &status) == 0 && !S_ISREG(status.st_mode);
}

int open(sqlite3_vfs*, const char* path, sqlite3_file* file, int flags, int* outFlags) {
  auto* const guarded = new (file) GuardedFile{};  // pMethods null: nothing to close on failure
  sqlite3_file* const system = guarded->system();
  constexpr int kSideFiles = SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL | SQLITE_OPEN_SUPER_JOURNAL;
  if (path != nullptr && (flags & kSideFiles) != 0 && isPlanted(path)) return SQLITE_CANTOPEN;
  int opened = 0;
  int result = systemVFS->xOpen(systemVFS, path, system, flags, &opened);
  // A journal of a user who died between making it and opening it up to the others. Whoever begins a journal
  // holds the write lock, and a hot one was played back before: nobody needs this one.
  constexpr int kNewJournal = SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_CREATE;
  const bool isForeign = (flags & kNewJournal) == kNewJournal && (opened & SQLITE_OPEN_READONLY) != 0;
  if (result == SQLITE_OK && isForeign && path != nullptr && ::unlink(path) == 0) {
    system->pMethods->xClose(system);
    result = systemVFS->xOpen(systemVFS, path, system, flags, &opened);
  }
  if (outFlags != nullptr) *outFlags = opened;
  if (system->pMethods != nullptr) guarded->base.pMethods = &kMethods;
  return result;
}

bool registerVFS() {
  static sqlite3_vfs vfs;
  systemVFS = sqlite3_vfs_find(nullptr);
  if (systemVFS == nullptr) return false;
  vfs = *systemVFS;
  vfs.pNext = nullptr;
  vfs.zName = "qx-guarded";
  vfs.szOsFile = static_cast<int>(sizeof(GuardedFile)) + systemVFS->szOsFile;
  vfs.xOpen = open;
  return sqlite3_vfs_register(&vfs, 0) == SQLITE_OK;
}

}  // namespace

std::uint64_t writesWithoutRoom() {
  return fullWrites;
}

const char* guardedVFS() {
  static const bool registered = registerVFS();
  return registered ? "qx-guarded" : nullptr;
}

}  // namespace qx
