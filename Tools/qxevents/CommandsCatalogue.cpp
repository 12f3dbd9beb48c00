#include <algorithm>
#include <map>
#include <memory>

#include <fmt/format.h>

#include <QXEventStoring/QXEventStore.h>

#include "CommandLine.h"
#include "EventJson.h"
#include "StoreAccess.h"
#include "Table.h"

namespace qxevents {
namespace {

std::string sourceJson(const QXEventSource& source, std::uint64_t events) {
  std::string json = fmt::format("{{\"id\":{}", jsonString(source.identifier().value_or("")));
  const auto add = [&json](std::string_view name, const qx::String& value) {
    if (value) json += fmt::format(",\"{}\":{}", name, jsonString(*value));
  };
  add("name", source.name());
  add("alternateName", source.alternateName());
  add("makeAndModel", source.makeAndModel());
  add("productNumber", source.productNumber());
  add("serviceID", source.serviceID());
  return json + fmt::format(",\"events\":{}}}\n", events);
}

/// How many events that are not blocked have `value` for `attribute`; nothing after a failure.
std::optional<std::uint64_t> countEventsOf(std::string_view attribute, const std::string& value,
                                           const qx::PredicatePtr& notBlocked) {
  return countEvents((qx::key(attribute) == value) && qx::Condition(notBlocked));
}

/// What the library knows no more of than an empty list is explained here; false when there is a failure.
bool isReadable() {
  const auto problem = QXEventStore::sharedQXEventStore().status().problem;
  if (problem == nullptr) return true;
  complain(*problem);
  return false;
}

std::vector<QXEventSourcePtr> allSources() {
  std::vector<QXEventSourcePtr> sources;
  for (const auto& id : QXEventSource::knownEventSourceIDs().value_or(std::vector<std::string>())) {
    if (auto source = QXEventSource::eventSourceWithID(id)) sources.push_back(std::move(source));
  }
  return sources;
}

int runSources(Context& context, bool all) {
  const auto sources = all ? allSources() : QXEventStore::sharedQXEventStore().eventSources();
  if (sources.empty()) return isReadable() ? kDone : kFailed;
  const auto notBlocked = notWhollyBlocked();
  Table table({{"ID", 8, 5},
               {"NAME", 8, 4},
               {"ALTERNATE NAME", 6, 1},
               {"MAKE AND MODEL", 6, 2},
               {"PRODUCT", 6, 3},
               {"SERVICE ID", 6, 3},
               {"EVENTS", 0, 0, Cut::end, true}});
  for (const auto& source : sources) {
    const std::string id = source->identifier().value_or("");
    const auto events = countEventsOf(QXESAttributeEventSourceID, id, notBlocked);
    if (!events) return kFailed;
    if (context.json) {
      context.output.write(sourceJson(*source, *events));
      continue;
    }
    table.addRow({id, source->name().value_or(""), source->alternateName().value_or(""),
                  source->makeAndModel().value_or(""), source->productNumber().value_or(""),
                  source->serviceID().value_or(""), fmt::format("{}", *events)});
  }
  table.print(context.output, context.width, context.color);
  return kDone;
}

int runKnownClasses(Context& context) {
  auto ids = QXEvent::knownEventClassIDs();
  if (!ids) return isReadable() ? kDone : kFailed;
  std::sort(ids->begin(), ids->end());
  Table table({{"CLASS", 12, 2, Cut::start},
               {"SEVERITY"},
               {"HANDLER", 8, 1, Cut::start},
               {"STATES", 0, 0, Cut::end, true}});
  for (const auto& id : *ids) {
    const auto pattern = QXEvent::eventWithEventClassID(id);
    if (pattern == nullptr) {
      complainOfStore(nullptr);
      return kFailed;
    }
    const auto handler = pattern->handler().value_or("");
    if (context.json) {
      context.output.write(fmt::format("{{\"class\":{},\"severity\":{},\"handler\":{},\"totalStates\":{}}}\n",
                                       jsonString(id), pattern->severity(), jsonString(handler),
                                       pattern->status().length));
    } else {
      table.addRow(
          {id, severityName(pattern->severity()), handler, fmt::format("{}", pattern->status().length)},
          severityColor(pattern->severity()));
    }
  }
  table.print(context.output, context.width, context.color);
  return kDone;
}

/// How many events that are not blocked there are of each class; nothing after a failure.
std::optional<std::map<std::string, std::uint64_t>> countEventsByClass() {
  std::map<std::string, std::uint64_t> counts;
  const auto known = QXEvent::knownEventClassIDs().value_or(std::vector<std::string>());
  const auto notBlocked = notWhollyBlocked();
  for (const auto& id : known) {
    const auto events = countEventsOf(QXESAttributeEventClassID, id, notBlocked);
    if (!events) return std::nullopt;
    if (*events > 0) counts[id] = *events;
  }
  // Classes of which the store knows nothing but that events have them.
  const auto others =
      fetchEvents(!qx::key(QXESAttributeEventClassID).in(qx::Array(known.begin(), known.end())));
  if (!others) return std::nullopt;
  for (const auto& event : *others) {
    if (event->classID()) ++counts[*event->classID()];
  }
  return counts;
}

int runStoredClasses(Context& context) {
  const auto counts = countEventsByClass();
  if (!counts) return kFailed;
  Table table({{"CLASS", 12, 1, Cut::start}, {"EVENTS", 0, 0, Cut::end, true}});
  for (const auto& [id, events] : *counts) {
    if (context.json) {
      context.output.write(fmt::format("{{\"class\":{},\"events\":{}}}\n", jsonString(id), events));
    } else {
      table.addRow({id, fmt::format("{}", events)});
    }
  }
  table.print(context.output, context.width, context.color);
  return kDone;
}

}  // namespace

void addCatalogueCommands(CLI::App& app, Context& context) {
  const auto all = std::make_shared<bool>(false);
  auto& sources = *app.add_subcommand(
      "sources", "Prints the devices that have events that are not blocked, with the number of those.");
  sources.add_flag("--all", *all, "Every device in the store, those with nothing to show too");
  sources.callback(
      [&context, all] { context.command = [&context, all] { return runSources(context, *all); }; });

  const auto known = std::make_shared<bool>(false);
  auto& classes = *app.add_subcommand("classes", "Prints the classes of the stored events.");
  classes.add_flag("--known", *known, "Every class that the store knows, with severity, handler and states");
  classes.callback([&context, known] {
    context.command = [&context, known] {
      return *known ? runKnownClasses(context) : runStoredClasses(context);
    };
  });
}

}  // namespace qxevents
