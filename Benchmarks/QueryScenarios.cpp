#include <fstream>
#include <random>

#include "BareStore.h"
#include "Figures.h"
#include "Scenarios.h"
#include "StoreCopies.h"

namespace benchmarks {

namespace {

using nlohmann::json;

/// A line of /proc/self/status, in megabytes of 1,000,000 bytes.
double memory(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(name + ":")) return std::stod(line.substr(name.size() + 1)) * 1024 / 1e6;
  return 0;
}

/// What `hold` keeps and needs, of this fresh process's memory.
template <typename Hold>
json memoryOf(Hold&& hold) {
  const double before = memory("VmRSS");
  const auto held = hold();
  return {{"held", memory("VmRSS") - before}, {"peak", memory("VmHWM") - before}, {"count", held.size()}};
}

Figure compareFetches(const std::string& measure, std::size_t repetitions, QXEventStore& store,
                      const qx::PredicatePtr& predicate, const std::function<std::vector<BareRow>()>& bare,
                      std::optional<Target> target) {
  Timings ours, yardstick;
  const auto fetch = [&] { return store.eventsWithPredicate(predicate).value(); };
  const std::size_t expected = bare().size();
  require(fetch().size() == expected, measure + ": both sides must find the same number of events");
  // The results go after the clock has stopped.
  alternate(
      repetitions, 1, [&](std::size_t) { ours.measure(fetch); },
      [&](std::size_t) { yardstick.measure(bare); });
  return durationFigure(measure, "ms", ours, yardstick, target);
}

}  // namespace

json query(const Setting& setting) {
  const bool isLarge = setting.stored > 10'000;
  const std::size_t repetitions = (isLarge ? 7 : 60) / (setting.quick ? 2 : 1);
  const std::size_t lookUps = setting.quick ? 1000 : 5000;
  QXEventStore& store = openStoreCopy(setting);
  BareStore bare(bareCopy(setting));
  json figures = json::array();

  figures.push_back(toJson(compareFetches(
      "fetch all", repetitions, store, nullptr, [&] { return bare.fetchAll(); },
      Target{Target::Subject::ratio, false, 3})));
  const std::string sourceID = bare.firstRows(1).front().sourceID;
  figures.push_back(toJson(compareFetches(
      "fetch one source's", repetitions, store, qx::key(QXESAttributeEventSourceID) == sourceID,
      [&] { return bare.fetchBySource(sourceID); }, std::nullopt)));

  Timings ourCounts, bareCounts, ourLookUps, bareLookUps;
  const qx::PredicatePtr unread = qx::key(QXESAttributeEventReadStatus) == false;
  alternate(
      repetitions, 1,
      [&](std::size_t) { ourCounts.measure([&] { return store.countOfEventsWithPredicate(unread); }); },
      [&](std::size_t) { bareCounts.measure([&] { return bare.countUnread(); }); });
  require(store.countOfEventsWithPredicate(unread) == bare.countUnread(), "both sides must count the same");
  figures.push_back(toJson(durationFigure("count unread", "ms", ourCounts, bareCounts)));

  const std::vector<std::string> ids = bare.eventIDs();
  std::mt19937 random(1);
  std::vector<std::string> wanted;
  for (std::size_t i = 0; i < lookUps; ++i)
    wanted.push_back(ids[random() % ids.size()]);
  alternate(
      lookUps, 100,
      [&](std::size_t i) {
        require(ourLookUps.measure([&] { return QXEvent::eventWithEventID(wanted[i]); }) != nullptr,
                "look-up");
      },
      [&](std::size_t i) { bareLookUps.measure([&] { return bare.fetchByID(wanted[i]); }); });
  std::optional<Target> target;
  if (isLarge) target = Target{Target::Subject::ours, false, 60};
  figures.push_back(toJson(durationFigure("look up by ID", "µs", ourLookUps, bareLookUps, target)));
  return figures;
}

json queryLarge(const Setting& setting) {
  constexpr std::int64_t kScreenful = 100;
  constexpr std::int64_t kSeverity = 1;
  const std::size_t repetitions = setting.quick ? 5 : 15;
  QXEventStore& store = openStoreCopy(setting);
  BareStore bare(bareCopy(setting));
  json figures = json::array();
  const std::vector<BareRow> samples = bare.firstRows(5);
  const std::string& sourceID = samples[0].sourceID;
  const auto ofSource =
      qx::key(QXESAttributeEventSourceID) == sourceID && qx::key(QXESAttributeEventSeverity) >= kSeverity;

  Timings ours, yardstick;
  const auto newest = [&] { return store.newestEventsWithPredicate(ofSource, kScreenful).value(); };
  const auto bareNewest = [&] { return bare.fetchNewest(sourceID, kSeverity, kScreenful); };
  require(bareNewest().size() == kScreenful, "the source must have enough events");
  const double moment = bareNewest().back().triggerTime;
  require(newest().back()->triggerTime() == qx::Date{moment}, "both sides must find the same newest events");
  alternate(
      repetitions, 1, [&](std::size_t) { ours.measure(newest); },
      [&](std::size_t) { yardstick.measure(bareNewest); });
  figures.push_back(toJson(durationFigure("a source's 100 newest", "ms", ours, yardstick,
                                          Target{Target::Subject::ratio, false, 2})));
  figures.push_back(toJson(compareFetches(
      "a source's 100 since a moment", repetitions, store,
      ofSource && qx::key(QXESAttributeEventTriggerTime) >= qx::Date{moment},
      [&] { return bare.fetchSince(sourceID, moment, kSeverity); },
      Target{Target::Subject::ratio, false, 2})));

  Timings ourCounts, bareCounts;
  const qx::PredicatePtr unread = qx::key(QXESAttributeEventReadStatus) == false;
  require(store.countOfEventsWithPredicate(unread) == bare.countUnread(), "both sides must count the same");
  alternate(
      repetitions, 1,
      [&](std::size_t) { ourCounts.measure([&] { return store.countOfEventsWithPredicate(unread); }); },
      [&](std::size_t) { bareCounts.measure([&] { return bare.countUnread(); }); });
  figures.push_back(toJson(durationFigure("count unread", "ms", ourCounts, bareCounts,
                                          Target{Target::Subject::ratio, false, 1.5})));

  const std::vector<std::string> blockedSources{samples[1].sourceID, samples[2].sourceID};
  for (const std::string& blocked : blockedSources) {
    const QXEventSourcePtr source = QXEventSource::eventSourceWithID(blocked);
    require(store.shouldBlock(true, std::nullopt, source), "blocking a source");
  }
  require(store.shouldBlock(true, samples[3].classID, nullptr), "blocking a class");
  require(store.shouldBlock(true, samples[4].classID, QXEventSource::eventSourceWithID(sourceID)),
          "blocking a class of a source");
  Timings ourSources, bareSources;
  const auto distinct = [&] {
    return bare.distinctSources(blockedSources, samples[3].classID, samples[4].classID, sourceID);
  };
  require(store.eventSources().size() == distinct().size(), "both sides must find the same sources");
  alternate(
      repetitions, 1, [&](std::size_t) { ourSources.measure([&] { return store.eventSources(); }); },
      [&](std::size_t) { bareSources.measure(distinct); });
  figures.push_back(toJson(durationFigure("sources, some blocked", "ms", ourSources, bareSources,
                                          Target{Target::Subject::ratio, false, 2})));
  return figures;
}

json holdRecords(const Setting& setting) {
  QXEventStore& store = openStoreCopy(setting);
  return memoryOf([&] { return store.eventsWithPredicate(nullptr).value(); });
}

json holdBareRows(const Setting& setting) {
  BareStore bare(bareCopy(setting));
  return memoryOf([&] { return bare.fetchAll(); });
}

}  // namespace benchmarks
