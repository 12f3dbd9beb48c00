#pragma once

#include <cstdint>

namespace qx {

/// Name of an SQLite VFS for files in a directory that anyone may write, made at first use. Like the system's
/// own, except that
/// - a journal or log beside the file that is no regular file is refused (SQLITE_CANTOPEN): opening a FIFO
///   that somebody planted there would wait for ever;
/// - an empty journal that a user left who died before the others could write it is replaced;
/// - no shared memory is offered, so that write-ahead logging works only with exclusive locking: the mapping
///   of a "-shm" file that somebody cuts short under us would end the process.
/// Null when SQLite has no memory for it. Any thread.
const char* guardedVFS();

/// How often this thread wrote to such a file and there was no more room: tells a full disk from SQLite's
/// limit of a file's pages, which gives SQLITE_FULL too.
std::uint64_t writesWithoutRoom();

}  // namespace qx
