// Eight processes that add at the same time, and one alone for comparison.
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

/// What a number of writers did together.
struct Outcome {
  std::uint64_t added = 0, failures = 0;
  double rate = 0, longest = 0;  // a second; milliseconds
  std::string firstFailure;
};

Outcome runWriters(const Setting& setting, const std::string& scenario, const std::filesystem::path& store,
                   std::size_t count, double seconds) {
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
  Outcome outcome;
  for (ChildProcess& writer : writers) {
    const json result = json::parse(writer.readLine());
    writer.wait();
    outcome.added += result.at("added").get<std::uint64_t>();
    outcome.failures += result.at("failures").get<std::uint64_t>();
    outcome.rate += result.at("added").get<double>() / result.at("seconds").get<double>();
    outcome.longest = std::max(outcome.longest, result.at("longestMilliseconds").get<double>());
    if (outcome.firstFailure.empty()) outcome.firstFailure = result.at("firstFailure");
  }
  return outcome;
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
  const double alone = together / 4;
  const std::filesystem::path root = setting.directory / "volume";
  installStore(setting, root);
  const std::string database = bareCopy(setting);
  const auto ours = [&](std::size_t count, double seconds) {
    return runWriters(setting, "writer", root, count, seconds);
  };
  const auto bare = [&](std::size_t count, double seconds) {
    return runWriters(setting, "bareWriter", database, count, seconds);
  };
  const Outcome ourFirst = ours(1, alone);
  const Outcome bareFirst = bare(1, alone);
  const Outcome ourMany = ours(kWriters, together);
  const Outcome bareMany = bare(kWriters, together);
  const Outcome bareLast = bare(1, alone);
  const Outcome ourLast = ours(1, alone);

  BareStore result(storePath(root).string());
  const std::uint64_t expected = setting.stored + ourFirst.added + ourMany.added + ourLast.added;
  require(result.count() == expected && result.countDistinctIDs() == expected,
          "events are missing or double");

  const double ourSingle = (ourFirst.rate + ourLast.rate) / 2;
  const double bareSingle = (bareFirst.rate + bareLast.rate) / 2;
  std::cerr << "  alone: ours " << ourFirst.rate << " and " << ourLast.rate << " /s, bare " << bareFirst.rate
            << " and " << bareLast.rate << " /s\n";
  for (const auto& [side, outcome] : {std::pair("ours", &ourMany), std::pair("bare", &bareMany)})
    if (outcome->failures != 0) std::cerr << "  " << side << ": " << outcome->firstFailure << '\n';
  return json::array({
      toJson({.measure = "8 writers: rate",
              .unit = "/s",
              .ours = ourMany.rate,
              .yardstick = bareMany.rate,
              .yardstickName = "8 of bare SQLite"}),
      toJson({.measure = "8 writers: rate vs one",
              .unit = "/s",
              .ours = ourMany.rate,
              .yardstick = ourSingle,
              .yardstickName = "one writer, ours",
              .target = Target{Target::Subject::ratio, true, 0.9}}),
      toJson({.measure = "8 writers: bare vs one bare",
              .unit = "/s",
              .ours = bareMany.rate,
              .yardstick = bareSingle,
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
