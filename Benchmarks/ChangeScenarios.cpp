// Adding, saving and removing. The records, and the rows of the yardstick, are made before the clock starts;
// what the library does with a record, encoding included, counts.
#include <algorithm>

#include "BareStore.h"
#include "Figures.h"
#include "SampleEvents.h"
#include "Scenarios.h"
#include "StoreCopies.h"

namespace benchmarks {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr std::size_t kListLength = 1000;

/// Rows like the first ones, each with a new ID.
std::vector<BareRow> newRows(const std::vector<BareRow>& like, std::size_t first, std::size_t count) {
  std::vector<BareRow> rows;
  rows.reserve(count);
  for (std::size_t i = first; i < first + count; ++i) {
    rows.push_back(like[i % like.size()]);
    rows.back().id = *QXEvent().identifier();
  }
  return rows;
}

}  // namespace

json populate(const Setting& setting) {
  const fs::path root = setting.directory / "volume";
  fs::create_directory(root);
  qx::ErrorPtr error;
  require(qx::setVolumeRoot(root.string(), &error), "setting the volume root", error);
  QXEventStore& store = QXEventStore::sharedQXEventStore();
  const SampleEvents samples(setting.stored >= kLargeStore ? kManyDevices : 0);
  for (std::size_t first = 0; first < setting.stored; first += kListLength) {
    const std::size_t count = std::min<std::size_t>(kListLength, setting.stored - first);
    require(store.addEvents(samples.make(first, count), &error), "adding events", error);
  }
  fs::copy_file(storePath(root), setting.storeFile);
  BareStore bare(setting.storeFile.string());
  require(bare.count() == setting.stored, "populating: events are missing");
  double bytes = 0;
  const std::vector<BareRow> rows = bare.firstRows(samples.count());
  for (const BareRow& row : rows)
    bytes += static_cast<double>(row.info.size());
  return {{"meanPropertyListBytes", bytes / static_cast<double>(rows.size())},
          {"storeFileBytes", fs::file_size(setting.storeFile)}};
}

json changeOne(const Setting& setting) {
  const std::size_t operations = setting.onDisk ? (setting.quick ? 32 : 160) : (setting.quick ? 500 : 2000);
  const std::size_t chunk = setting.onDisk ? 8 : 50;
  QXEventStore& store = openStoreCopy(setting);
  BareStore bare(bareCopy(setting));
  const SampleEvents samples;
  const std::vector<BareRow> like = bare.firstRows(std::min<std::size_t>(samples.count(), setting.stored));
  std::vector<QXEventPtr> events = samples.make(0, operations + chunk);
  std::vector<BareRow> rows = newRows(like, 0, operations + chunk);
  for (const QXEventPtr& event : events)
    event->setReadStatus(false);
  for (BareRow& row : rows)
    row.read = false;
  qx::ErrorPtr error;

  // Both sides' first steps prepare their statements.
  for (std::size_t i = operations; i < operations + chunk; ++i) {
    require(store.addEvent(events[i], &error), "adding", error);
    bare.add(rows[i]);
  }
  Timings ourAdds, bareAdds, ourSaves, bareSaves, ourRemovals, bareRemovals;
  alternate(
      operations, chunk,
      [&](std::size_t i) {
        require(ourAdds.measure([&] { return store.addEvent(events[i], &error); }), "adding", error);
      },
      [&](std::size_t i) { bareAdds.measure([&] { bare.add(rows[i]); }); });
  alternate(
      operations, chunk,
      [&](std::size_t i) {
        const bool saved = ourSaves.measure([&] {
          events[i] = QXEvent::eventWithEventID(events[i]->identifier());
          events[i]->setReadStatus(true);
          return store.saveEvent(events[i], &error);
        });
        require(saved, "saving", error);
      },
      [&](std::size_t i) { bareSaves.measure([&] { bare.markRead(rows[i].id); }); });
  alternate(
      operations, chunk,
      [&](std::size_t i) {
        require(ourRemovals.measure([&] { return store.removeEvent(events[i], &error); }), "removing", error);
      },
      [&](std::size_t i) { bareRemovals.measure([&] { bare.remove(rows[i].id); }); });
  require(store.countOfEventsWithPredicate(nullptr) == bare.count() && bare.count() == setting.stored + chunk,
          "both stores must end with the same number of events");
  return json::array({toJson(rateFigure("add one", ourAdds, bareAdds, setting.onDisk ? 0.9 : 0.5)),
                      toJson(rateFigure("mark read", ourSaves, bareSaves)),
                      toJson(rateFigure("remove", ourRemovals, bareRemovals))});
}

json addLists(const Setting& setting) {
  const std::size_t lists = setting.quick ? 5 : 20;
  QXEventStore& store = openStoreCopy(setting);
  BareStore bare(bareCopy(setting));
  BareStore bareAtOnce(bareCopy(setting));
  const SampleEvents samples;
  const std::vector<BareRow> like = bare.firstRows(std::min<std::size_t>(samples.count(), setting.stored));
  qx::ErrorPtr error;
  Timings ours, listByList, atOnce;
  bareAtOnce.begin();
  alternate(
      lists, 1,
      [&](std::size_t i) {
        const std::vector<QXEventPtr> events = samples.make(i * kListLength, kListLength);
        require(ours.measure([&] { return store.addEvents(events, &error); }), "adding a list", error);
      },
      [&](std::size_t i) {
        const std::vector<BareRow> rows = newRows(like, i * kListLength, kListLength);
        listByList.measure([&] {
          bare.begin();
          bare.addList(rows);
          bare.commit();
        });
        const std::vector<BareRow> others = newRows(like, i * kListLength, kListLength);
        atOnce.measure([&] { bareAtOnce.addList(others); });
      });
  atOnce.measure([&] { bareAtOnce.commit(); });
  require(store.countOfEventsWithPredicate(nullptr) == setting.stored + lists * kListLength &&
              bare.count() == bareAtOnce.count() && bare.count() == setting.stored + lists * kListLength,
          "the stores must end with the same number of events");
  const auto perSecond = [&](const Timings& timings) {
    return static_cast<double>(lists * kListLength) / timings.total();
  };
  Figure figure{.measure = "add 1,000 a list",
                .unit = "/s",
                .ours = perSecond(ours),
                .yardstick = perSecond(listByList),
                .yardstickName = "bare SQLite, 1,000 a transaction"};
  if (setting.onDisk) figure.target = Target{Target::Subject::ours, true, 50'000};
  Figure all = figure;
  all.measure = "add 1,000 a list (bare: all in one)";
  all.yardstick = perSecond(atOnce);
  all.yardstickName = "bare SQLite, one transaction";
  all.target = std::nullopt;
  return json::array({toJson(figure), toJson(all)});
}

}  // namespace benchmarks
