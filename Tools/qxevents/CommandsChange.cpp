#include <functional>
#include <memory>

#include <fmt/format.h>

#include <QXEventStoring/QXEventStore.h>

#include "CommandLine.h"
#include "EventJson.h"
#include "StoreAccess.h"
#include "Text.h"

namespace qxevents {
namespace {

using Change = std::function<void(QXEvent&)>;

/// Fetches, changes and saves; once more when someone else saved in between.
bool changeEvent(const std::string& id, const Change& change) {
  constexpr int kAttempts = 5;
  constexpr std::int64_t kNotUpToDate = -994;
  qx::ErrorPtr error;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const auto event = fetchEvent(id);
    if (event == nullptr) return false;
    change(*event);
    error = nullptr;
    if (QXEventStore::sharedQXEventStore().saveEvent(event, &error)) return true;
    if (error == nullptr || error->code() != kNotUpToDate) break;
  }
  complainOfStore(error, excerpt(id));
  return false;
}

bool removeEvent(const std::string& id) {
  const auto event = fetchEvent(id);
  if (event == nullptr) return false;
  qx::ErrorPtr error;
  if (QXEventStore::sharedQXEventStore().removeEvent(event, &error)) return true;
  complainOfStore(error, excerpt(id));
  return false;
}

/// Goes on after a failure.
int forEach(const std::vector<std::string>& ids, const std::function<bool(const std::string&)>& work) {
  int result = kDone;
  for (const auto& id : ids) {
    if (!work(id)) result = kFailed;
  }
  return result;
}

void addForEach(CLI::App& app, Context& context, const std::string& name, const std::string& help,
                const std::function<bool(const std::string&)>& work) {
  const auto ids = std::make_shared<std::vector<std::string>>();
  auto& command = *app.add_subcommand(name, help);
  addTexts(command, "ID", *ids, "Event IDs")->required();
  command.callback([&context, ids, work] { context.command = [ids, work] { return forEach(*ids, work); }; });
}

void addChange(CLI::App& app, Context& context, const std::string& name, const std::string& help,
               const Change& change) {
  addForEach(app, context, name, help, [change](const std::string& id) { return changeEvent(id, change); });
}

void addSetState(CLI::App& app, Context& context) {
  struct Options {
    std::optional<std::string> id;
    std::optional<std::int64_t> state;
  };
  const auto options = std::make_shared<Options>();
  auto& command = *app.add_subcommand("set-state", "Moves an event to another state.");
  addText(command, "ID", options->id, "Event ID")->required();
  addInteger(command, "N", options->state, "The state", 0, kMaximumState)->required();
  const auto change = [options](QXEvent& event) {
    event.setStatus({static_cast<std::uint64_t>(*options->state), event.status().length});
  };
  command.callback([&context, options, change] {
    context.command = [options, change] { return changeEvent(*options->id, change) ? kDone : kFailed; };
  });
}

void addSetInfo(CLI::App& app, Context& context) {
  struct Options {
    std::optional<std::string> id;
    qx::Dictionary info;
    std::vector<std::string> removed;
  };
  const auto options = std::make_shared<Options>();
  auto& command = *app.add_subcommand("set-info",
                                      "Changes an event's additional information. KEY=VALUE stores a string "
                                      "(an empty one for KEY=), KEY:=JSON any\n"
                                      "other value, for instance 'Event: Count:=3'.");
  addText(command, "ID", options->id, "Event ID")->required();
  addPairs(command, "PAIRS", options->info, true, "What to set");
  addTexts(command, "--unset", options->removed, "Key to remove; may be repeated")->allow_extra_args(false);
  const auto change = [options](QXEvent& event) {
    for (const auto& key : options->removed)
      event.additionalInfo().erase(key);
    event.additionalInfo().merge(options->info);
  };
  command.callback([&context, options, change] {
    if (options->info.empty() && options->removed.empty()) {
      throw CLI::ValidationError("set-info", "needs a KEY=VALUE or --unset KEY");
    }
    context.command = [options, change] { return changeEvent(*options->id, change) ? kDone : kFailed; };
  });
}

}  // namespace

void addChangeCommands(CLI::App& app, Context& context) {
  addChange(app, context, "mark-read", "Marks events read.",
            [](QXEvent& event) { event.setReadStatus(true); });
  addChange(app, context, "mark-unread", "Marks events unread.",
            [](QXEvent& event) { event.setReadStatus(false); });
  addSetState(app, context);
  addChange(app, context, "solve", "Moves events to their last state.", [](QXEvent& event) {
    event.setStatus({event.status().length, event.status().length});
  });
  addSetInfo(app, context);
  addForEach(app, context, "remove", "Removes events.", removeEvent);
}

}  // namespace qxevents
