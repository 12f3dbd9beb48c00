#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include <QXEventStoring/Platform/Date.h>
#include <QXEventStoring/Platform/Value.h>

#include "Output.h"

// Every value of the command line is checked while it is parsed; a bad one is wrong usage and names its
// option.

namespace qxevents {

/// What every command gets.
struct Context {
  Output output;
  bool json = false;
  bool color = false;            // standard output shows colours
  std::size_t width = 0;         // of the terminal that is standard output; 0 for everything else
  std::function<int()> command;  // the chosen one; its result is the exit code
};

/// A value that may be missing: text (UTF-8, not empty), an integer, an RFC 3339 time, a UUID.
CLI::Option* addText(CLI::App& app, const std::string& name, std::optional<std::string>& value,
                     const std::string& help);
CLI::Option* addTexts(CLI::App& app, const std::string& name, std::vector<std::string>& values,
                      const std::string& help);
CLI::Option* addInteger(CLI::App& app, const std::string& name, std::optional<std::int64_t>& value,
                        const std::string& help,
                        std::int64_t minimum = std::numeric_limits<std::int64_t>::min(),
                        std::int64_t maximum = std::numeric_limits<std::int64_t>::max());
CLI::Option* addTime(CLI::App& app, const std::string& name, std::optional<qx::Date>& value,
                     const std::string& help);

/// Pairs KEY=VALUE (a string) and, when `typed`, KEY:=JSON, set in `info` in the order given.
CLI::Option* addPairs(CLI::App& app, const std::string& name, qx::Dictionary& info, bool typed,
                      const std::string& help);
/// One JSON object whose members are set in `info`.
CLI::Option* addInfoJson(CLI::App& app, const std::string& name, qx::Dictionary& info,
                         const std::string& help);

// The commands, by theme.
void addAddCommand(CLI::App& app, Context& context);
void addImportCommand(CLI::App& app, Context& context);
void addQueryCommands(CLI::App& app, Context& context);
void addShowCommand(CLI::App& app, Context& context);
void addCatalogueCommands(CLI::App& app, Context& context);
void addBlockCommands(CLI::App& app, Context& context);
void addChangeCommands(CLI::App& app, Context& context);
void addStatusCommand(CLI::App& app, Context& context);
void addLogCommand(CLI::App& app, Context& context);

}  // namespace qxevents
