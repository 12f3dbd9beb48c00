#include "SampleEvents.h"

#include <fstream>
#include <map>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace benchmarks {

namespace {

using nlohmann::json;

qx::Value valueOf(const json& from) {
  switch (from.type()) {
    case json::value_t::boolean:
      return from.get<bool>();
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
      return from.get<std::int64_t>();
    case json::value_t::number_float:
      return from.get<double>();
    case json::value_t::string:
      return from.get<std::string>();
    case json::value_t::array: {
      qx::Array array;
      for (const json& member : from)
        array.push_back(valueOf(member));
      return array;
    }
    case json::value_t::object: {
      qx::Dictionary dictionary;
      for (const auto& [key, member] : from.items())
        dictionary.set(key, valueOf(member));
      return dictionary;
    }
    default:
      return {};
  }
}

QXEventSourcePtr sourceOf(const json& from) {
  auto source = std::make_shared<QXEventSource>();
  source->setIdentifier(from.at("id").get<std::string>());
  source->setName(from.value("name", "Device"));
  source->setAlternateName(from.value("alternateName", ""));
  source->setMakeAndModel(from.value("makeAndModel", ""));
  source->setProductNumber(from.value("productNumber", ""));
  source->setServiceID(from.value("serviceID", ""));
  return source;
}

/// Whether the event says its severity itself: its class would follow each event of the device.
bool overridesSeverity(const json& info) {
  return info.contains("Event: Reported Severity") || info.contains("Event: Overridden Severity");
}

/// A number that tells nothing of `number` (Knuth's multiplicative hash), so that every device reports every
/// sample.
std::size_t scattered(std::size_t number) {
  return (number * 2'654'435'761U & 0xFFFF'FFFFU) >> 8U;
}

/// Brings a list to about 340 bytes with what a supply's event says. The text of a JSON object is a little
/// longer than the binary list.
void fill(json& info) {
  static const std::vector<std::pair<const char*, const char*>> kDetails{
      {"Event: Supply Serial Number", "3145728-77A1"},
      {"Event: Supply Part Number", "W2030A"},
      {"Event: Supply Type", "Toner Cartridge"},
      {"Event: Supply State", "Very Low"},
      {"Event: Supply Yield", "2100"},
      {"Event: Supply Level", "12"},
      {"Event: Media Type", "Plain"},
      {"Event: Input Bin", "Tray 2"},
  };
  for (const auto& [key, value] : kDetails) {
    if (info.dump().size() >= 270) return;
    if (!info.contains(key)) info[key] = value;
  }
}

}  // namespace

SampleEvents::SampleEvents(std::size_t devices) {
  constexpr std::size_t kLongestInfo = 450;
  std::map<std::string, QXEventSourcePtr> sources;
  std::map<std::string, json> classes;
  std::ifstream lines(QX_SAMPLE_EVENTS);
  for (std::string line; std::getline(lines, line);) {
    const json event = json::parse(line);
    json info = event.at("info");
    if (overridesSeverity(info) || info.dump().size() > kLongestInfo) continue;
    fill(info);
    const json& eventClass = classes.try_emplace(event.at("class"), event).first->second;
    QXEventSourcePtr& source = sources[event.at("source").at("id")];
    if (!source) source = sourceOf(event.at("source"));
    samples_.push_back({event.at("class"),
                        eventClass.at("handler"),
                        eventClass.at("severity"),
                        {event.at("state"), eventClass.at("totalStates")},
                        event.at("read"),
                        source,
                        *valueOf(info).asDictionary()});
  }
  if (samples_.empty()) throw std::runtime_error("no events in " QX_SAMPLE_EVENTS);
  for (std::size_t i = 0; i < devices; ++i) {
    const QXEventSource& like = *samples_[i % samples_.size()].source;
    auto device = std::make_shared<QXEventSource>();
    device->setIdentifier("QXD" + std::to_string(1'000'000 + i));
    device->setName(like.name());
    device->setAlternateName(like.alternateName());
    device->setMakeAndModel(like.makeAndModel());
    device->setProductNumber(like.productNumber());
    device->setServiceID(like.serviceID());
    devices_.push_back(std::move(device));
  }
}

QXEventPtr SampleEvents::make(std::size_t number) const {
  static const qx::Date kFirst = qx::Date::now();
  const Sample& sample = samples_[number % samples_.size()];
  auto event = std::make_shared<QXEvent>();
  event->setClassID(sample.classID);
  event->setHandler(sample.handler);
  event->setSeverity(sample.severity);
  event->setStatus(sample.status);
  event->setReadStatus(sample.read);
  event->setSource(devices_.empty() ? sample.source : devices_[scattered(number) % devices_.size()]);
  event->setTriggerTime(qx::Date{kFirst.secondsSinceReferenceDate + static_cast<double>(number)});
  event->additionalInfo() = sample.info;
  return event;
}

std::vector<QXEventPtr> SampleEvents::make(std::size_t first, std::size_t count) const {
  std::vector<QXEventPtr> events;
  events.reserve(count);
  for (std::size_t i = first; i < first + count; ++i)
    events.push_back(make(i));
  return events;
}

}  // namespace benchmarks
