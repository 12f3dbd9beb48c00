#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace qx::log {

class Backlog;

/// Sends log datagrams to a local socket whose reader may be slow, restarting or away.
///
/// send() never waits: what the socket does not take at once is kept, in order, up to kBacklogBytes, and sent
/// from the background loop as soon as the reader takes it again (retried with growing pauses, 1 ms to 1 s).
/// Past that limit new datagrams are dropped and counted until half of the room is free again, and the count
/// is sent as a message of its own, made by `lostMessage`, in their place. What the reader refuses for good
/// (no permission, a socket of another kind) is dropped and counted likewise, so a reader that is repaired
/// learns of it. At a normal end of the process what is kept gets one more second, or a tenth of it while
/// there is no reader at all. A forked child starts without its parent's backlog and opens a socket of its
/// own. Any thread.
class LogTransport {
 public:
  static constexpr std::size_t kBacklogBytes = 4U << 20;
  /// Makes the datagram that tells how many were lost. Called on any thread, with no lock held.
  using LostMessage = std::string (*)(std::uint64_t count);
  /// What to do with a datagram that is larger than the socket takes: send it as a sealed memory file
  /// (journald's protocol), or cut it, between two UTF-8 characters, to a half, a quarter... until it fits.
  enum class Oversize { memoryFile, cut };

  /// `socketPath` may be longer than an address holds, and need not exist yet. Opens nothing before the first
  /// send().
  LogTransport(std::string socketPath, Oversize oversize, LostMessage lostMessage);
  /// What is kept is still sent.
  ~LogTransport();
  LogTransport(const LogTransport&) = delete;
  LogTransport& operator=(const LogTransport&) = delete;

  /// Keeps errno; throws nothing and raises no signal.
  void send(std::string_view datagram);

  /// Waits until nothing is kept any more; false when that takes longer than `patience`.
  bool flush(std::chrono::milliseconds patience);

 private:
  std::shared_ptr<Backlog> backlog_;
};

}  // namespace qx::log
