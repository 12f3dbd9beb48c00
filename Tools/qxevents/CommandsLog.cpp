#include <array>
#include <memory>
#include <set>
#include <string>

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

/// Names each file that could not be used; kFailed when there is one.
int complainOfProblems(const PLVLogLevelStatus& status) {
  std::set<std::string> named;  // a category and its subsystem share theirs
  for (const auto& setting : status.settings) {
    if (setting.problem == nullptr || !named.insert(setting.file).second) continue;
    complain(*setting.problem, "log level");
    complain(fmt::format("repair or remove {}", printable(setting.file)));
  }
  return named.empty() ? kDone : kFailed;
}

int show(Context& context, const qx::String& application) {
  const auto status = PLVLogLevelsFor(application);
  if (context.json) {
    context.output.write(statusJson(status));
    context.output.flush();
    return complainOfProblems(status);
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
  return complainOfProblems(status);
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

PLVLogLevel parseLevel(std::string text) {
  for (char& letter : text) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  for (const auto level : kLevels) {
    if (text == PLVNameOfLogLevel(level)) return level;
  }
  throw CLI::ValidationError("log-level",
                             fmt::format("\"{}\" must be one of none, default, info, debug", excerpt(text)));
}

/// Bundle identifiers, which are names of preference files too.
void checkApplication(const std::string& name) {
  const bool isIdentifier =
      !name.empty() && name.size() <= 200 && name.front() != '.' &&
      name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-_") ==
          std::string::npos;
  if (isIdentifier) return;
  throw CLI::ValidationError(
      "--application",
      fmt::format("\"{}\" is no bundle identifier, such as com.example.agent", excerpt(name)));
}

}  // namespace

void addLogCommand(CLI::App& app, Context& context) {
  auto& command = *app.add_subcommand("log-level",
                                      "Shows how much the library logs for this user, and where to; or sets "
                                      "it: for running processes at once\n"
                                      "with journald, else within a minute.");
  const auto options = std::make_shared<LogLevelOptions>();
  auto* const level =
      command
          .add_option_function<std::string>(
              "level", [options](const std::string& text) { options->level = parseLevel(text); },
              "info (every step), debug, default (neither, where a level of more users or "
              "programs asks for one), or none (as if never set)")
          ->type_name("LEVEL");
  const auto addPlace = [&](const std::string& name, bool& flag, const std::string& help) {
    return command.add_flag(name, flag, help)->needs(level);
  };
  auto* const subsystem = addPlace("--subsystem", options->subsystem,
                                   "Of every category of the subsystem that has no level of its own");
  auto* const maker = addPlace("--maker", options->maker, "Of every program of this maker; can only raise");
  command
      .add_option_function<std::string>(
          "--application",
          [options](const std::string& text) {
            checkApplication(text);
            options->application = text;
          },
          "Of the application with this bundle identifier; can only raise")
      ->type_name("ID")
      ->excludes(subsystem)
      ->excludes(maker);
  subsystem->excludes(maker);
  auto* const allUsers =
      addPlace("--all-users", options->allUsers, "For every user who has set none (as root)");
  addPlace("--this-machine", options->thisMachine, "For this user on this machine only")->excludes(allUsers);
  command.footer(
      "The log: journalctl --follow SUBSYSTEM=com.qx.device.monitoring\n"
      "or, without journald, /var/log/syslog and each program's standard error.\n"
      "An application's own level is shown with --application only.");
  command.callback([&context, options] {
    context.command = [&context, options] { return runLogLevel(context, *options); };
  });
}

}  // namespace qxevents
