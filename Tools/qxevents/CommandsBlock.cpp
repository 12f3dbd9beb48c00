#include <memory>

#include <fmt/format.h>

#include <QXEventStoring/QXEventStore.h>

#include "CommandLine.h"
#include "EventJson.h"
#include "StoreAccess.h"
#include "Table.h"
#include "Text.h"

namespace qxevents {
namespace {

struct Options {
  std::optional<std::string> classID, sourceID;
};

std::string nameOf(const Options& options) {
  const auto part = [](std::string_view what, const std::optional<std::string>& id) {
    return id ? fmt::format("{} {}", what, excerpt(*id)) : fmt::format("every {}", what);
  };
  return part("class", options.classID) + ", " + part("source", options.sourceID);
}

/// A device that was never heard of can be unblocked but not blocked: nobody would find a mistyped ID again.
QXEventSourcePtr sourceOf(const std::string& id, bool mustBeStored) {
  if (auto stored = QXEventSource::eventSourceWithID(id)) return stored;
  if (mustBeStored) return nullptr;
  auto source = std::make_shared<QXEventSource>();
  source->setIdentifier(id);
  return source;
}

int changeBlock(bool block, const Options& options) {
  auto& store = QXEventStore::sharedQXEventStore();
  QXEventSourcePtr source;
  if (options.sourceID) {
    source = sourceOf(*options.sourceID, block);
    if (source == nullptr && store.status().problem != nullptr) {
      complainOfStore(nullptr);
      return kFailed;
    }
    if (source == nullptr) {
      complain(fmt::format("--source: the store has no source {}; \"sources --all\" lists them",
                           excerpt(*options.sourceID)));
      return kFailed;
    }
  }
  qx::ErrorPtr error;
  if (store.shouldBlock(block, options.classID, source, &error)) return kDone;
  const bool isUnknownBlock = !block && store.status().problem == nullptr;
  if (isUnknownBlock) {
    complain(fmt::format("{}: not blocked, so that there is nothing to unblock (\"blocks\" lists the blocks)",
                         nameOf(options)));
  } else {
    complainOfStore(error, nameOf(options));
  }
  return kFailed;
}

void addBlockChange(CLI::App& app, Context& context, const std::string& name, const std::string& help,
                    bool block) {
  const auto options = std::make_shared<Options>();
  auto& command = *app.add_subcommand(name, help);
  addText(command, "--class", options->classID, "Class ID; every class when it is left out");
  addText(command, "--source", options->sourceID, "Source ID; every source when it is left out");
  command.callback([&context, options, name, block] {
    if (!options->classID && !options->sourceID) {
      throw CLI::ValidationError(name, "needs --class, --source or both");
    }
    context.command = [options, block] { return changeBlock(block, *options); };
  });
}

int runBlocks(Context& context) {
  qx::ErrorPtr error;
  const auto blocks = QXEventStore::sharedQXEventStore().blocks(&error);
  if (!blocks) {
    complainOfStore(error);
    return kFailed;
  }
  Table table({{"CLASS", 12, 2, Cut::start}, {"SOURCE", 8, 1}});
  for (const auto& [classID, sourceID] : *blocks) {
    if (!context.json) {
      table.addRow({classID.value_or("(every class)"), sourceID.value_or("(every source)")});
      continue;
    }
    const auto json = [](const qx::String& id) { return id ? jsonString(*id) : "null"; };
    context.output.write(fmt::format("{{\"class\":{},\"source\":{}}}\n", json(classID), json(sourceID)));
  }
  table.print(context.output, context.width, context.color);
  return kDone;
}

}  // namespace

void addBlockCommands(CLI::App& app, Context& context) {
  addBlockChange(app, context, "block",
                 "Silences a class, a source, or a class of one source: its events are not listed.", true);
  addBlockChange(app, context, "unblock", "Lifts the block of exactly that pair.", false);
  auto& blocks = *app.add_subcommand("blocks", "Prints what is blocked.");
  blocks.callback([&context] { context.command = [&context] { return runBlocks(context); }; });
}

}  // namespace qxevents
