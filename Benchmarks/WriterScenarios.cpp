// Eight processes that add at the same time, and one alone for comparison, in rounds of both.
//
// A writer says "ready" when its store is open, waits for the end of its standard input, which all of them
// share, and adds one event after the other until its time is over.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>

#include "BareStore.h"
#include "ChildProcess.h"
#include "Figures.h"
#include "SampleEvents.h"
#include "Scenarios.h"
#include "StoreCopies.h"

namespace benchmarks {

namespace {

using nlohmann::json;

constexpr std::size_t kWriters = 8;

void waitForStart() {
  std::cout << "ready" << std::endl;
  char byte;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

/// Calls `add` until the time is over; it throws when it fails.
template <typename Add>
json addForAWhile(double seconds, Add&& add) {
  Timings timings;
  std::size_t failures = 0;
  std::string firstFailure;
  waitForStart();
  const Clock::time_point start = Clock::now();
  const auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  for (std::size_t i = 0; elapsed() < seconds; ++i) {
    try {
      timings.measure([&] { add(i); });
    } catch (const std::exception& failure) {
      if (failures++ == 0) firstFailure = failure.what();
    }
  }
  return {{"added", timings.count() - failures},
          {"failures", failures},
          {"firstFailure", firstFailure},
          {"seconds", elapsed()},
          {"medianMilliseconds", timings.median() / 1000},
          {"longestMilliseconds", timings.longest() / 1000}};
}

/// What a number of writers did together, over all rounds.
struct Outcome {
  std::uint64_t added = 0, failures = 0;
  double seconds = 0, longest = 0;  // of each writer; milliseconds
  std::string firstFailure;
  double rate() const { return static_cast<double>(added) / seconds; }
};

void runWriters(Outcome& outcome, const Setting& setting, const std::string& scenario,
                const std::filesystem::path& store, std::size_t count, double seconds) {
  Pipe start;
  std::vector<ChildProcess> writers;
  for (std::size_t i = 0; i < count; ++i) {
    const std::vector<std::string> arguments{
        "--scenario", scenario,       "--directory", setting.directory,
        "--store",    store.string(), "--seconds",   std::to_string(seconds)};
    writers.emplace_back(ownProgram(), arguments, start.reading.number());
  }
  for (ChildProcess& writer : writers)
    if (writer.readLine() != "ready") throw std::runtime_error("a writer did not get ready");
  start.writing.close();
  double longestRun = 0;
  for (ChildProcess& writer : writers) {
    const json result = json::parse(writer.readLine());
    writer.wait();
    outcome.added += result.at("added").get<std::uint64_t>();
    outcome.failures += result.at("failures").get<std::uint64_t>();
    longestRun = std::max(longestRun, result.at("seconds").get<double>());
    outcome.longest = std::max(outcome.longest, result.at("longestMilliseconds").get<double>());
    if (outcome.firstFailure.empty()) outcome.firstFailure = result.at("firstFailure");
  }
  outcome.seconds += longestRun;
}

}  // namespace

/// `storeFile` is the volume root.
json writer(const Setting& setting) {
  qx::ErrorPtr error;
  require(qx::setVolumeRoot(setting.storeFile.string(), &error), "setting the volume root", error);
  QXEventStore& store = QXEventStore::sharedQXEventStore();
  require(store.countOfEventsWithPredicate(nullptr, &error) != UINT64_MAX, "opening the store", error);
  const SampleEvents samples;
  return addForAWhile(setting.seconds, [&](std::size_t i) {
    require(store.addEvent(samples.make(i), &error), "adding", error);
  });
}

/// `storeFile` is the database.
json bareWriter(const Setting& setting) {
  BareStore store(setting.storeFile.string());
  std::vector<BareRow> rows = store.firstRows(SampleEvents().count());
  return addForAWhile(setting.seconds, [&](std::size_t i) {
    BareRow& row = rows[i % rows.size()];
    row.id = *QXEvent().identifier();
    store.add(row);
  });
}

json manyWriters(const Setting& setting) {
  const double together = setting.quick ? 3 : 20;
  const std::size_t rounds = setting.quick ? 2 : 4;
  const std::filesystem::path root = setting.directory / "volume";
  installStore(setting, root);
  const std::string database = bareCopy(setting);
  Outcome ourSingle, bareSingle, ourMany, bareMany;
  for (std::size_t round = 0; round < rounds; ++round) {
    const double seconds = together / static_cast<double>(rounds);
    runWriters(ourSingle, setting, "writer", root, 1, seconds / 2);
    runWriters(bareSingle, setting, "bareWriter", database, 1, seconds / 2);
    runWriters(ourMany, setting, "writer", root, kWriters, seconds);
    runWriters(bareMany, setting, "bareWriter", database, kWriters, seconds);
  }

  BareStore result(storePath(root).string());
  const std::uint64_t expected = setting.stored + ourSingle.added + ourMany.added;
  require(result.count() == expected && result.countDistinctIDs() == expected,
          "events are missing or double");

  for (const auto& [side, outcome] : {std::pair("ours", &ourMany), std::pair("bare", &bareMany)})
    if (outcome->failures != 0) std::cerr << "  " << side << ": " << outcome->firstFailure << '\n';
  return json::array({
      toJson({.measure = "8 writers: rate",
              .unit = "/s",
              .ours = ourMany.rate(),
              .yardstick = bareMany.rate(),
              .yardstickName = "8 of bare SQLite"}),
      toJson({.measure = "8 writers: rate vs one",
              .unit = "/s",
              .ours = ourMany.rate(),
              .yardstick = ourSingle.rate(),
              .yardstickName = "one writer, ours",
              .target = Target{Target::Subject::ratio, true, 0.9}}),
      toJson({.measure = "8 writers: bare vs one bare",
              .unit = "/s",
              .ours = bareMany.rate(),
              .yardstick = bareSingle.rate(),
              .yardstickName = "one writer, bare SQLite"}),
      toJson({.measure = "8 writers: longest add",
              .unit = "ms",
              .ours = ourMany.longest,
              .yardstick = bareMany.longest,
              .yardstickName = "8 of bare SQLite",
              .target = Target{Target::Subject::ours, false, 200}}),
      toJson({.measure = "8 writers: failed adds",
              .unit = "",
              .ours = static_cast<double>(ourMany.failures),
              .yardstickName = "",
              .target = Target{Target::Subject::ours, false, 0}}),
  });
}

}  // namespace benchmarks
