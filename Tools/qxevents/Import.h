#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/QXEvent.h>

#include "EventBuilder.h"
#include "LineReader.h"

namespace qxevents {

/// Adds the events of a JSON Lines input to the shared store, in batches of one transaction each; the next
/// batch is read while one is stored.
///
/// Memory: two batches, each of at most kBatchLines lines and about kBatchBytes bytes.
class Import {
 public:
  static constexpr std::size_t kBatchLines = 1000;
  static constexpr std::size_t kBatchBytes = std::size_t{16} * 1024 * 1024;

  struct Progress {
    std::uint64_t bytes = 0;  // read
    std::uint64_t added = 0;
    std::uint64_t refused = 0;
  };

  struct Report {
    /// A refused line and why.
    std::function<void(std::uint64_t line, const std::string& reason)> refused;
    /// After each batch.
    std::function<void(const Progress&)> progress;
  };

  Import(LineReader& input, Report report) : input_(input), report_(std::move(report)) {}

  /// Reads to the end of the input, or to the first failure of the store (*error) or of the input
  /// (LineReader::error()). False on such a failure; progress() tells what was done in any case.
  bool run(qx::ErrorPtr* error);

  const Progress& progress() const { return progress_; }
  /// Where a failure of the store ended the import; 0 when none did.
  std::uint64_t firstLineNotStored() const { return firstLineNotStored_; }

 private:
  struct Refusal {
    std::uint64_t line;
    std::string reason;
  };
  struct Batch {
    std::vector<QXEventPtr> events;
    std::vector<std::uint64_t> lines;  // of the events
    std::vector<Refusal> refusals;
    qx::ErrorPtr failure;  // of the store
    std::uint64_t added = 0;
    bool isLast = false;
    bool isEarly = false;  // the writer paused
    bool hasInputFailed = false;
  };

  Batch read();
  void take(std::string_view line, Batch& batch);
  static void store(Batch& batch);
  bool finish(Batch& batch, qx::ErrorPtr* error);

  LineReader& input_;
  Report report_;
  EventBuilder builder_;
  Progress progress_;
  std::uint64_t firstLineNotStored_ = 0;
};

}  // namespace qxevents
