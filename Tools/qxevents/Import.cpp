#include "Import.h"

#include <algorithm>
#include <future>
#include <unordered_set>
#include <utility>

#include <fmt/format.h>

#include <QXEventStoring/QXEventStore.h>

#include "EventJson.h"
#include "Text.h"

namespace qxevents {
namespace {

bool isBlank(std::string_view line) {
  return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

}  // namespace

void Import::take(std::string_view line, Batch& batch) {
  const auto number = input_.lineNumber();
  if (number == 1 && line.starts_with("\xEF\xBB\xBF")) line.remove_prefix(3);  // some writers mark UTF-8 so
  if (isBlank(line)) return;
  std::string refusal;
  auto record = decodeEvent(line, refusal);
  auto event = record ? builder_.build(std::move(*record), refusal) : nullptr;
  if (event == nullptr) {
    batch.refusals.push_back({number, std::move(refusal)});
    return;
  }
  batch.events.push_back(std::move(event));
  batch.lines.push_back(number);
}

Import::Batch Import::read() {
  Batch batch;
  std::unordered_set<std::string> identifiers;
  const auto bytesBefore = input_.bytesRead();
  for (std::size_t count = 0; count < kBatchLines && input_.bytesRead() - bytesBefore < kBatchBytes;
       ++count) {
    std::string_view line;
    switch (input_.next(line, !batch.events.empty() || !batch.refusals.empty())) {
      case LineReader::Result::idle:
        batch.isEarly = true;
        return batch;
      case LineReader::Result::end:
        batch.isLast = true;
        return batch;
      case LineReader::Result::failed:
        batch.isLast = batch.hasInputFailed = true;
        return batch;
      case LineReader::Result::tooLong:
        batch.refusals.push_back(
            {input_.lineNumber(), fmt::format("the line is longer than {} bytes", kMaximumLineLength)});
        continue;
      case LineReader::Result::line:
        break;
    }
    const auto eventCount = batch.events.size();
    take(line, batch);
    if (batch.events.size() == eventCount) continue;
    if (identifiers.insert(*batch.events.back()->identifier()).second) continue;
    batch.refusals.push_back({batch.lines.back(), fmt::format("id: {} comes in an earlier line already",
                                                              *batch.events.back()->identifier())});
    batch.events.pop_back();
    batch.lines.pop_back();
  }
  return batch;
}

/// Events that the store refuses one by one become refusals, and the others are tried again.
void Import::store(Batch& batch) {
  while (!batch.events.empty()) {
    qx::ErrorPtr error;
    if (QXEventStore::sharedQXEventStore().addEvents(batch.events, &error)) {
      batch.added = batch.events.size();
      return;
    }
    if (error == nullptr || error->items().empty()) {
      batch.failure = error != nullptr ? error : qx::Error::make(QXEventStoreErrorDomain, -999);
      return;
    }
    std::vector<bool> isRefused(batch.events.size());
    for (const auto& item : error->items()) {
      if (item.index >= batch.events.size() || isRefused[item.index]) continue;
      isRefused[item.index] = true;
      const auto reason =
          item.error == nullptr ? error->localizedDescription() : item.error->localizedDescription();
      batch.refusals.push_back(
          {batch.lines[item.index],
           fmt::format("id {}: {}", *batch.events[item.index]->identifier(), printable(reason))});
    }
    std::vector<QXEventPtr> events;
    std::vector<std::uint64_t> lines;
    for (std::size_t i = 0; i < isRefused.size(); ++i) {
      if (isRefused[i]) continue;
      events.push_back(std::move(batch.events[i]));
      lines.push_back(batch.lines[i]);
    }
    batch.events = std::move(events);
    batch.lines = std::move(lines);
  }
}

bool Import::finish(Batch& batch, qx::ErrorPtr* error) {
  std::sort(batch.refusals.begin(), batch.refusals.end(),
            [](const auto& a, const auto& b) { return a.line < b.line; });
  for (const auto& refusal : batch.refusals)
    report_.refused(refusal.line, refusal.reason);
  progress_.added += batch.added;
  progress_.refused += batch.refusals.size();
  report_.progress(progress_);
  if (batch.failure != nullptr) {
    qx::setError(error, batch.failure);
    firstLineNotStored_ = batch.lines.empty() ? 0 : batch.lines.front();
  }
  return batch.failure == nullptr && !batch.hasInputFailed;
}

bool Import::run(qx::ErrorPtr* error) {
  Batch current = read();
  while (true) {
    auto stored = std::async(std::launch::async, [&current] { store(current); });
    // After an early batch the next line may be long in coming: what became of this one is told first.
    const bool readsAhead = !current.isLast && !current.isEarly;
    Batch next;
    if (readsAhead) next = read();
    stored.get();
    progress_.bytes = input_.bytesRead();
    if (!finish(current, error)) return false;
    if (current.isLast) return true;
    current = readsAhead ? std::move(next) : read();
  }
}

}  // namespace qxevents
