#include <array>
#include <memory>

#include <fmt/format.h>

#include <QXEventStoring/PLVLogLevels.h>

#include "CommandLine.h"
#include "EventJson.h"
#include "Table.h"
#include "Text.h"

namespace qxevents {
namespace {

constexpr std::array kLevels{PLVLogLevel::Inherit, PLVLogLevel::Default, PLVLogLevel::Info,
                             PLVLogLevel::Debug};

struct LogLevelOptions {
  std::optional<PLVLogLevel> level;
  bool subsystem = false;
  bool maker = false;
  std::optional<std::string> application;
  bool allUsers = false;
  bool thisMachine = false;

  PLVLogLevelPlace place() const {
    PLVLogLevelPlace place;
    if (subsystem) place.owner = PLVLogLevelOwner::subsystem;
    if (maker) place.owner = PLVLogLevelOwner::maker;
    if (application) {
      place.owner = PLVLogLevelOwner::application;
      place.application = *application;
    }
    if (allUsers) place.scope = qx::PreferenceScope::anyUserCurrentHost;
    if (thisMachine) place.scope = qx::PreferenceScope::currentUserCurrentHost;
    return place;
  }
};

std::string ownerName(const PLVLogLevelPlace& place) {
  switch (place.owner) {
    case PLVLogLevelOwner::category:
      return "category";
    case PLVLogLevelOwner::subsystem:
      return "subsystem";
    case PLVLogLevelOwner::application:
      return "application " + place.application;
    case PLVLogLevelOwner::maker:
      return "maker";
  }
  return {};
}

std::string_view scopeName(qx::PreferenceScope scope) {
  switch (scope) {
    case qx::PreferenceScope::currentUserCurrentHost:
      return "this user, this machine";
    case qx::PreferenceScope::currentUserAnyHost:
      return "this user";
    case qx::PreferenceScope::anyUserCurrentHost:
      return "all users";
  }
  return {};
}

constexpr std::string_view destinationOf(const PLVLogLevelStatus& status) {
  return status.unified ? "journald" : "syslog and standard error";
}

std::string statusJson(const PLVLogLevelStatus& status) {
  std::string settings;
  for (const auto& setting : status.settings) {
    settings += fmt::format(R"({}{{"of":{},"for":{},"level":"{}","file":{})", settings.empty() ? "" : ",",
                            jsonString(ownerName(setting.place)), jsonString(scopeName(setting.place.scope)),
                            PLVNameOfLogLevel(setting.level), jsonString(setting.file));
    if (setting.problem) settings += ",\"problem\":" + jsonString(errorText(*setting.problem));
    settings += '}';
  }
  return fmt::format(R"({{"level":"{}","destination":"{}","settings":[{}]}})"
                     "\n",
                     PLVNameOfLogLevel(status.effective), destinationOf(status), settings);
}

int show(Context& context, const qx::String& application) {
  const auto status = PLVLogLevelsFor(application);
  if (context.json) {
    context.output.write(statusJson(status));
    return kDone;
  }
  context.output.write(
      fmt::format("Level:   {}\nSent to: {}\n", PLVNameOfLogLevel(status.effective), destinationOf(status)));
  Table table({{"SET"}, {"OF", 8, 2}, {"FOR"}, {"FILE", 12, 1, Cut::start}});
  for (const auto& setting : status.settings) {
    if (setting.problem) continue;
    table.addRow({std::string(PLVNameOfLogLevel(setting.level)), ownerName(setting.place),
                  std::string(scopeName(setting.place.scope)), setting.file});
  }
  table.print(context.output, context.width, context.color);
  context.output.flush();
  bool isWhole = true;
  for (const auto& setting : status.settings) {
    if (!setting.problem) continue;
    complain(*setting.problem, printable(setting.file));
    isWhole = false;
  }
  return isWhole ? kDone : kFailed;
}

int runLogLevel(Context& context, const LogLevelOptions& options) {
  if (options.level) {
    qx::ErrorPtr error;
    if (!PLVSetLogLevel(*options.level, options.place(), &error)) {
      if (error) complain(*error, "log-level");
      return kFailed;
    }
  }
  const int shown = show(context, options.application);
  return options.level ? kDone : shown;  // it was set, whatever else there is to complain of
}

PLVLogLevel parseLevel(const std::string& text) {
  for (const auto level : kLevels) {
    if (text == PLVNameOfLogLevel(level)) return level;
  }
  throw CLI::ValidationError("log-level",
                             fmt::format("\"{}\" is none of none, default, info, debug", excerpt(text)));
}

}  // namespace

void addLogCommand(CLI::App& app, Context& context) {
  auto& command = *app.add_subcommand("log-level",
                                      "Shows how much the library logs for this user, or sets it: for "
                                      "running processes at once with journald,\n"
                                      "else within a minute.");
  const auto options = std::make_shared<LogLevelOptions>();
  command
      .add_option_function<std::string>(
          "level", [options](const std::string& text) { options->level = parseLevel(text); },
          "none (as if never set), default, info or debug; without it the levels are shown")
      ->type_name("LEVEL");
  auto* const subsystem = command.add_flag("--subsystem", options->subsystem,
                                           "Of every category of the subsystem that has no level of its own");
  auto* const maker =
      command.add_flag("--maker", options->maker, "Of every program of this maker; can only raise");
  addText(command, "--application", options->application,
          "Of the application with this bundle identifier; can only raise")
      ->excludes(subsystem)
      ->excludes(maker);
  subsystem->excludes(maker);
  auto* const allUsers =
      command.add_flag("--all-users", options->allUsers, "For every user of this machine (as root)");
  command.add_flag("--this-machine", options->thisMachine, "For this user on this machine only")
      ->excludes(allUsers);
  command.callback([&context, options] {
    context.command = [&context, options] { return runLogLevel(context, *options); };
  });
}

}  // namespace qxevents
