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

std::string sourceJson(const QXEventSource& source, std::size_t events) {
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

/// How many events that are not blocked there are for each text that `textOf` gives; nothing after a failure.
template <class TextOf>
std::optional<std::map<std::string, std::size_t>> countEventsBy(TextOf textOf) {
  const auto events = fetchEvents(nullptr);
  if (!events) return std::nullopt;
  std::map<std::string, std::size_t> counts;
  for (const auto& event : *events) {
    if (const qx::String text = textOf(*event)) ++counts[*text];
  }
  return counts;
}

int runSources(Context& context) {
  const auto counts = countEventsBy([](const QXEvent& event) {
    return event.source() == nullptr ? std::nullopt : event.source()->identifier();
  });
  if (!counts) return kFailed;
  Table table({{"ID", 8, 5},
               {"NAME", 8, 4},
               {"ALTERNATE NAME", 6, 1},
               {"MAKE AND MODEL", 6, 2},
               {"PRODUCT", 6, 3},
               {"SERVICE ID", 6, 3},
               {"EVENTS", 0, 0, Cut::end, true}});
  for (const auto& id : QXEventSource::knownEventSourceIDs().value_or(std::vector<std::string>())) {
    const auto source = QXEventSource::eventSourceWithID(id);
    if (source == nullptr) continue;
    const auto found = counts->find(id);
    const auto events = found == counts->end() ? 0 : found->second;
    if (context.json) {
      context.output.write(sourceJson(*source, events));
      continue;
    }
    table.addRow({id, source->name().value_or(""), source->alternateName().value_or(""),
                  source->makeAndModel().value_or(""), source->productNumber().value_or(""),
                  source->serviceID().value_or(""), fmt::format("{}", events)});
  }
  table.print(context.output, context.width, context.color);
  return kDone;
}

int runKnownClasses(Context& context) {
  auto ids = QXEvent::knownEventClassIDs();
  if (!ids) {
    const auto problem = QXEventStore::sharedQXEventStore().status().problem;
    if (problem == nullptr) return kDone;
    complain(*problem);
    return kFailed;
  }
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

int runStoredClasses(Context& context) {
  const auto counts = countEventsBy([](const QXEvent& event) { return event.classID(); });
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
  auto& sources =
      *app.add_subcommand("sources", "Prints the devices, with the number of their events not blocked.");
  sources.callback([&context] { context.command = [&context] { return runSources(context); }; });

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
