#include <algorithm>
#include <limits>
#include <memory>

#include <fmt/format.h>

#include <QXEventStoring/QXEventStore.h>

#include "CommandLine.h"
#include "EventJson.h"
#include "StoreAccess.h"
#include "Table.h"
#include "Where.h"

namespace qxevents {
namespace {

struct Filters {
  std::vector<std::string> sources, classes;
  std::optional<std::int64_t> minimumSeverity;
  std::optional<qx::Date> since, until;
  bool read = false, unread = false, solved = false, unsolved = false;
  std::optional<std::int64_t> limit;
  qx::PredicatePtr where;

  std::size_t limitOr(std::size_t count) const {
    return limit ? std::min(count, static_cast<std::size_t>(*limit)) : count;
  }
};

qx::Array valuesOf(const std::vector<std::string>& texts) {
  return {texts.begin(), texts.end()};
}

/// Null when every event is wanted.
qx::PredicatePtr predicateOf(const Filters& filters) {
  std::vector<qx::PredicatePtr> all;
  if (!filters.sources.empty())
    all.push_back(qx::key(QXESAttributeEventSourceID).in(valuesOf(filters.sources)));
  if (!filters.classes.empty())
    all.push_back(qx::key(QXESAttributeEventClassID).in(valuesOf(filters.classes)));
  if (filters.minimumSeverity) all.push_back(qx::key(QXESAttributeEventSeverity) >= *filters.minimumSeverity);
  if (filters.since) all.push_back(qx::key(QXESAttributeEventTriggerTime) >= *filters.since);
  if (filters.until) all.push_back(qx::key(QXESAttributeEventTriggerTime) < *filters.until);
  if (filters.read || filters.unread) all.push_back(qx::key(QXESAttributeEventReadStatus) == filters.read);
  if (filters.solved || filters.unsolved) {
    all.push_back(qx::key(QXESAttributeEventSolutionStatus) == (filters.solved ? 1 : 0));
  }
  if (filters.where != nullptr) all.push_back(filters.where);
  return all.empty() ? nullptr : qx::Predicate::conjunction(std::move(all));
}

/// In the order of the IDs, so that two exports can be compared line by line.
int runExport(Context& context, const Filters& filters) {
  auto events = fetchEvents(predicateOf(filters));
  if (!events) return kFailed;
  std::sort(events->begin(), events->end(),
            [](const auto& a, const auto& b) { return a->identifier() < b->identifier(); });
  events->resize(std::min(events->size(), filters.limitOr(events->size())));
  std::string line;
  for (auto& event : *events) {
    if (context.output.isBroken()) break;
    line.clear();
    encodeEvent(line, *event, false);
    line += '\n';
    context.output.write(line);
    event.reset();  // an export of a large store need not hold every decoded record
  }
  return kDone;
}

void printTable(Context& context, const std::vector<QXEventPtr>& events) {
  Table table({{"ID"},
               {"TIME", 17, 3},
               {"SEVERITY"},
               {"STATE"},
               {"READ"},
               {"CLASS", 12, 2, Cut::start},
               {"SOURCE", 8, 1}});
  for (const auto& event : events) {
    const auto& status = event->status();
    const auto* source = event->source().get();
    table.addRow(
        {event->identifier().value_or("-"), event->triggerTime() ? event->triggerTime()->toRFC3339() : "-",
         severityName(event->severity()), fmt::format("{}/{}", status.location, status.length),
         event->isRead() ? "yes" : "no", event->classID().value_or("-"),
         source == nullptr ? "-" : source->name().value_or(source->identifier().value_or("-"))},
        severityColor(event->severity()));
  }
  table.print(context.output, context.width, context.color);
}

int runList(Context& context, const Filters& filters) {
  constexpr std::int64_t kAll = std::numeric_limits<std::int64_t>::max();
  const auto events = fetchNewestEvents(predicateOf(filters), filters.limit.value_or(kAll));
  if (!events) return kFailed;
  if (!context.json) {
    printTable(context, *events);
    return kDone;
  }
  for (const auto& event : *events) {
    if (context.output.isBroken()) break;
    std::string line;
    encodeEvent(line, *event, false);
    context.output.write(line + "\n");
  }
  return kDone;
}

int runCount(Context& context, const Filters& filters) {
  const auto count = countEvents(predicateOf(filters));
  if (!count) return kFailed;
  context.output.write(context.json ? fmt::format("{{\"count\":{}}}\n", *count)
                                    : fmt::format("{}\n", *count));
  return kDone;
}

void addFilters(CLI::App& app, Filters& filters) {
  addTexts(app, "--source", filters.sources, "Only of this source; may be repeated")->allow_extra_args(false);
  addTexts(app, "--class", filters.classes, "Only of this class; may be repeated")->allow_extra_args(false);
  addInteger(app, "--min-severity", filters.minimumSeverity,
             "Only from this severity on, as stored with the class");
  addTime(app, "--since", filters.since, "Only from this moment on (RFC 3339)");
  addTime(app, "--until", filters.until, "Only before this moment (RFC 3339)");
  auto* read = app.add_flag("--read", filters.read, "Only those that were read");
  app.add_flag("--unread", filters.unread, "Only those that were not read")->excludes(read);
  const auto takeWhere = [&filters](const std::string& text) {
    std::string refusal;
    filters.where = readWhere(text, refusal);
    if (filters.where == nullptr) throw CLI::ValidationError("--where", refusal);
  };
  app.add_option_function<std::string>("--where", takeWhere,
                                       "Only those for which this predicate holds, for instance\n"
                                       "'EventSeverity >= 2 AND EventClassID CONTAINS[c] \"jam\"'")
      ->type_name("PREDICATE");
  auto* solved = app.add_flag("--solved", filters.solved, "Only those in their last state");
  app.add_flag("--unsolved", filters.unsolved, "Only those not in their last state")->excludes(solved);
}

using Run = int (*)(Context&, const Filters&);

void addQuery(CLI::App& app, Context& context, const std::string& name, const std::string& help, Run run,
              bool hasLimit) {
  const auto filters = std::make_shared<Filters>();
  auto& query = *app.add_subcommand(name, help);
  addFilters(query, *filters);
  if (hasLimit) addInteger(query, "--limit", filters->limit, "At most this many", 0);
  query.callback([&context, filters, run] {
    context.command = [&context, filters, run] { return run(context, *filters); };
  });
}

}  // namespace

void addQueryCommands(CLI::App& app, Context& context) {
  addQuery(app, context, "list", "Prints the events that are not blocked, newest first.", runList, true);
  addQuery(app, context, "export",
           "Prints the events that are not blocked as JSON Lines that import takes back, in a fixed order.",
           runExport, true);
  addQuery(app, context, "count", "Prints how many events there are.", runCount, false);
}

}  // namespace qxevents
