#include <memory>

#include <fmt/format.h>

#include <QXEventStoring/QXEventStore.h>

#include "CommandLine.h"
#include "EventJson.h"
#include "StoreAccess.h"
#include "Text.h"

namespace qxevents {
namespace {

/// Lines "  Label:  value".
class Section {
 public:
  Section(Output& output, std::string title) : output_(output), title_(std::move(title)) {}

  void add(std::string_view label, const qx::Value& value) {
    if (!value.isNull()) addText(label, textOf(value));
  }

  void addAll(const qx::Dictionary& values) {
    for (const auto& [key, value] : values)
      add(key, value);
  }

  void addText(std::string_view label, std::string_view text) {
    if (!title_.empty()) output_.write(fmt::format("\n{}\n", title_));
    title_.clear();
    output_.write(fmt::format("  {}: {}\n", label.empty() ? "\"\"" : printable(label), printable(text)));
  }

 private:
  static std::string textOf(const qx::Value& value) {
    if (const auto* text = value.asString()) return *text;
    if (const auto* date = value.asDate()) return date->toRFC3339();
    std::string json;
    encodeValue(json, value);
    return json;
  }

  Output& output_;
  std::string title_;  // printed before the first line
};

std::string yesOrNo(bool value) {
  return value ? "yes" : "no";
}

void printEvent(Output& output, const QXEvent& event, bool isBlocked) {
  const auto& status = event.status();
  Section section(output, "");
  section.add("ID", event.identifier());
  section.add("Class", event.classID());
  section.addText("Severity", severityName(event.severity()));
  section.add("Handler", event.handler());
  section.addText("State", fmt::format("{} of {}", status.location, status.length));
  if (event.triggerTime()) section.addText("Trigger time", event.triggerTime()->toRFC3339());
  section.addText("Read", yesOrNo(event.isRead()));
  section.addText("Solved", yesOrNo(status.location == status.length));
  section.addText("Blocked", yesOrNo(isBlocked));
  section.addText("Version", fmt::format("{}", event.versionNumber()));
}

void printSource(Output& output, const QXEventSource& source) {
  Section section(output, "Source");
  section.add("ID", source.identifier());
  section.add("Name", source.name());
  section.add("Alternate name", source.alternateName());
  section.add("Make and model", source.makeAndModel());
  section.add("Product number", source.productNumber());
  section.add("Service ID", source.serviceID());
}

void printViews(Output& output, const QXEvent& event) {
  Section alert(output, "Alert");
  alert.add("Alert ID", event.alertID());
  alert.add("Alert type", event.alertType());
  alert.add("Error code", event.errorCode());
  alert.add("Supply category", event.supplyCategory());
  alert.addAll(event.properties());

  std::size_t number = 0;
  for (const auto& supply : event.supplyInfo()) {
    Section section(output, fmt::format("Supply {}", ++number));
    if (const auto* values = supply.asDictionary()) section.addAll(*values);
  }
  Section(output, "Device").addAll(event.deviceProperties());
  Section(output, "Information").addAll(event.additionalInfo());
}

int runShow(Context& context, const std::string& id) {
  const auto event = fetchEvent(id);
  if (event == nullptr) return kFailed;
  const bool isBlocked = QXEventStore::sharedQXEventStore().isEventBlocked(event);
  if (context.json) {
    std::string line;
    encodeEvent(line, *event, isBlocked);
    context.output.write(line + "\n");
    return kDone;
  }
  printEvent(context.output, *event, isBlocked);
  if (event->source() != nullptr) printSource(context.output, *event->source());
  printViews(context.output, *event);
  return kDone;
}

}  // namespace

void addShowCommand(CLI::App& app, Context& context) {
  const auto id = std::make_shared<std::optional<std::string>>();
  auto& show =
      *app.add_subcommand("show", "Prints one event in full, with its alert, supply and device views.");
  addText(show, "ID", *id, "Event ID")->required();
  show.callback([&context, id] { context.command = [&context, id] { return runShow(context, **id); }; });
}

}  // namespace qxevents
