#include <fmt/format.h>

#include <QXEventStoring/QXEventStore.h>

#include "CommandLine.h"
#include "EventJson.h"
#include "Text.h"

namespace qxevents {
namespace {

std::string problemJson(const qx::Error& problem) {
  auto json = fmt::format("{{\"domain\":{},\"code\":{},\"description\":{}", jsonString(problem.domain()),
                          problem.code(), jsonString(problem.localizedDescription()));
  if (problem.suggestion()) json += ",\"suggestion\":" + jsonString(*problem.suggestion());
  return json + "}";
}

std::string statusJson(const QXEventStoreStatus& status) {
  auto json = fmt::format(R"({{"path":{},"exists":{},"open":{},"writable":{},"compatible":{},"size":{})",
                          jsonString(status.path), status.exists, status.open, status.writable,
                          status.compatible, status.size);
  if (status.freeMegabytes) {
    json += ",\"freeMegabytes\":";
    encodeValue(json, *status.freeMegabytes);
  }
  if (status.problem != nullptr) json += ",\"problem\":" + problemJson(*status.problem);
  json += ",\"rows\":{";
  for (const auto& [entity, count] : status.rows) {
    if (!count) continue;
    if (!json.ends_with('{')) json += ',';
    json += fmt::format("{}:{}", jsonString(entity), *count);
  }
  return json + fmt::format("}},\"blocks\":{}}}\n", status.blocks);
}

std::string statusText(const QXEventStoreStatus& status) {
  const auto line = [](std::string_view label, std::string_view value) {
    return fmt::format("{:<12} {}\n", fmt::format("{}:", printable(label)), printable(value));
  };
  const auto yesOrNo = [](bool value) { return value ? "yes" : "no"; };
  auto text = line("Store", status.path) + line("Exists", yesOrNo(status.exists)) +
              line("Open", yesOrNo(status.open)) + line("Writable", yesOrNo(status.writable)) +
              line("Compatible", yesOrNo(status.compatible)) +
              line("Size", fmt::format("{} bytes", status.size));
  if (status.freeMegabytes) text += line("Free space", fmt::format("{:.1f} MB", *status.freeMegabytes));
  text += line("Blocks", fmt::format("{}", status.blocks));
  if (!status.rows.empty()) text += "Rows:\n";
  for (const auto& [entity, count] : status.rows) {
    text +=
        fmt::format("  {:<26} {}\n", printable(entity), count ? fmt::format("{}", *count) : "not readable");
  }
  return text;
}

int runStatus(Context& context) {
  const auto status = QXEventStore::sharedQXEventStore().status();
  context.output.write(context.json ? statusJson(status) : statusText(status));
  context.output.flush();
  if (status.problem == nullptr) return kDone;
  complain(*status.problem);
  return kFailed;
}

}  // namespace

void addStatusCommand(CLI::App& app, Context& context) {
  auto& status =
      *app.add_subcommand("status", "Examines the store; the exit code is 1 when it cannot be used.");
  status.callback([&context] { context.command = [&context] { return runStatus(context); }; });
}

}  // namespace qxevents
