// The command-line tool of the device-event store: a client like any other, on the library's public headers.

#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <sstream>

#include <fmt/format.h>

#include <QXEventStoring/Platform/Bundle.h>
#include <QXEventStoring/Platform/Volume.h>

#include "CommandLine.h"
#include "Text.h"

namespace qxevents {
namespace {

constexpr std::string_view kBundleIdentifier = "com.qx.events.cli";

struct GlobalOptions {
  std::optional<std::string> volumeRoot;
  std::optional<std::string> applicationID;
  bool noColor = false;
};

void addGlobalOptions(CLI::App& app, Context& context, GlobalOptions& options) {
  app.description("Reads and changes the machine-wide store of device events.");
  app.set_version_flag("--version", "qxevents " QX_VERSION);
  app.set_help_all_flag("--help-all", "Print the help of all commands and exit");
  app.require_subcommand(1);
  app.fallthrough();
  addText(app, "--volume-root", options.volumeRoot,
          "Directory under which the machine-wide tree stands, instead of /");
  addText(app, "--application-id", options.applicationID, "Name under which changes are announced");
  app.add_flag("--json", context.json, "Print JSON, one object a line");
  app.add_flag("--no-color", options.noColor, "Print no colours on a terminal");
  app.footer(
      "Times are RFC 3339 with a zone, such as 2026-11-02T05:23:26Z.\n"
      "Exit codes: 0 done; 1 the library refused or failed, or input was refused; 2 wrong usage.");
}

bool wantsColor(const GlobalOptions& options) {
  const auto* noColor = std::getenv("NO_COLOR");
  const auto* terminal = std::getenv("TERM");
  if (options.noColor || (noColor != nullptr && *noColor != '\0')) return false;
  return ::isatty(STDOUT_FILENO) != 0 && terminal != nullptr && std::string_view(terminal) != "dumb";
}

int run(Context& context, const GlobalOptions& options) {
  qx::ErrorPtr error;
  if (options.volumeRoot && !qx::setVolumeRoot(*options.volumeRoot, &error)) {
    complain(fmt::format("--volume-root: {}: {}", printable(*options.volumeRoot),
                         error == nullptr ? "not a directory" : printable(error->localizedDescription())));
    return kWrongUsage;
  }
  qx::Bundle::setMainBundleIdentifier(options.applicationID.value_or(std::string(kBundleIdentifier)));
  context.width = terminalWidth(STDOUT_FILENO);
  context.color = wantsColor(options);
  return context.command();
}

/// Help and version are data, everything else is wrong usage.
int reportParseEnd(const CLI::App& app, const CLI::ParseError& end, Context& context) {
  if (end.get_exit_code() != 0) {
    const auto unknown = app.remaining();
    const bool isUnknownCommand = app.get_subcommands().empty() && !unknown.empty();
    complain(isUnknownCommand ? fmt::format("no such command or option: {}", excerpt(unknown.front()))
                              : printable(end.what()));
    complain("--help tells the usage");
    return kWrongUsage;
  }
  std::ostringstream text;
  app.exit(end, text, text);
  context.output.write(text.str());
  return context.output.finish();
}

int runTool(int argc, char** argv) {
  secureStandardStreams();
  Context context;
  GlobalOptions options;
  CLI::App app({}, "qxevents");
  addGlobalOptions(app, context, options);
  addAddCommand(app, context);
  addImportCommand(app, context);
  addQueryCommands(app, context);
  addShowCommand(app, context);
  addChangeCommands(app, context);
  addCatalogueCommands(app, context);
  addBlockCommands(app, context);
  addStatusCommand(app, context);
  addLogCommand(app, context);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    return reportParseEnd(app, end, context);
  }
  const int result = run(context, options);
  const int written = context.output.finish();
  return result != kDone ? result : written;
}

}  // namespace
}  // namespace qxevents

int main(int argc, char** argv) {
  try {
    return qxevents::runTool(argc, argv);
  } catch (const std::exception& failure) {
    qxevents::complain(qxevents::printable(failure.what()));
    return qxevents::kFailed;
  }
}
