// What an event's additional info and source say in the terms of the device-event protocol.

#include <QXEventStoring/QXEvent.h>

#include <utility>

#include <QXEventStoring/QXEventKeys.h>

namespace {

/// The entry of `info` under `key`; the null marker when there is none.
const qx::Value& entry(const qx::Dictionary& info, std::string_view key) {
  static const qx::Value kAbsent;
  const qx::Value* const value = info.find(key);
  return value != nullptr ? *value : kAbsent;
}

void setIfPresent(qx::Dictionary& result, std::string_view key, qx::Value value) {
  if (!value.isNull()) result.set(std::string(key), std::move(value));
}

/// The entry for `colour` in a dictionary from colour name to value.
const qx::Value& entryForColour(const qx::Value& byColour, const qx::Value& colour) {
  static const qx::Dictionary kEmpty;
  const qx::Dictionary* const dictionary = byColour.asDictionary();
  const std::string* const name = colour.asString();
  return entry(dictionary != nullptr && name != nullptr ? *dictionary : kEmpty, name != nullptr ? *name : "");
}

/// The members of a collection of colour names.
qx::Array colourNames(const qx::Value& collection) {
  if (const qx::Array* const names = collection.asArray()) return *names;
  qx::Array result;
  if (const qx::Dictionary* const byName = collection.asDictionary()) {
    for (const auto& [name, ignored] : *byName)
      result.emplace_back(name);
  }
  return result;
}

}  // namespace

qx::Value KVADeviceEvent::supplyCategory() const {
  return {};
}

qx::Value QXEvent::alertID() const {
  const qx::Dictionary& info = additionalInfo();
  for (const std::string_view key :
       {QXDeviceMonitoringAlertIOReferenceKey, QXDeviceMonitoringAlertProductStatusAlertID}) {
    if (const qx::Value& value = entry(info, key); !value.isNull()) return value;
  }
  return entry(info, kKVAEventSoftwareAlertIDKey);
}

qx::Value QXEvent::alertType() const {
  return entry(additionalInfo(), QXDeviceMonitoringAlertProductStatusAlertID);
}

qx::Value QXEvent::errorCode() const {
  return entry(additionalInfo(), QXDeviceMonitoringErrorCode);
}

qx::Dictionary QXEvent::properties() const {
  const qx::Dictionary& info = additionalInfo();
  qx::Dictionary result;
  if (qx::Array supplies = supplyInfo(); !supplies.empty()) {
    result.set(std::string(kKVAEventPropertySupplyInfoKey), std::move(supplies));
  }
  setIfPresent(result, kKVAEventPropertyInputBinNameKey, entry(info, QXDeviceMonitoringInputBinKey));
  setIfPresent(result, kKVAEventPropertyJamLocationKey, entry(info, QXDeviceMonitoringJamLocationKey));
  return result;
}

qx::Array QXEvent::supplyInfo() const {
  const qx::Dictionary& info = additionalInfo();
  const qx::Value& selectability = entry(info, QXDeviceMonitoringSupplySelectabilityNumberKey);
  const qx::Value& partNumbers = entry(info, QXDeviceMonitoringSupplyPartNumberListKey);
  const qx::Value& partNumber = entry(info, QXDeviceMonitoringSupplyPartNumberKey);
  const qx::Value& type = entry(info, QXDeviceMonitoringSupplyTypeNumberKey);
  qx::Array result;
  for (const qx::Value& colour : colourNames(entry(info, QXDeviceMonitoringSupplyColorNameKey))) {
    qx::Dictionary supply;
    setIfPresent(supply, kKVASupplyColorNameKey, colour);
    setIfPresent(supply, kKVASupplySelectabilityNumberKey,
                 selectability.asString() != nullptr ? selectability : entryForColour(selectability, colour));
    // The one part number counts only where there is no list at all.
    setIfPresent(supply, kKVASupplyPartNumberKey,
                 partNumbers.isNull() ? partNumber : entryForColour(partNumbers, colour));
    setIfPresent(supply, kKVASupplyTypeKey, type);
    result.emplace_back(std::move(supply));
  }
  return result;
}

qx::Dictionary QXEvent::deviceProperties() const {
  qx::Dictionary result;
  if (m_pSource) {
    setIfPresent(result, kKVADeviceModelNameKey, m_pSource->name());
    setIfPresent(result, kKVADeviceProductNumberKey, m_pSource->productNumber());
    setIfPresent(result, kKVADeviceServiceIDKey, m_pSource->serviceID());
    setIfPresent(result, kKVADeviceSerialNumberKey, m_pSource->identifier());
    setIfPresent(result, kKVADeviceUserFriendlyNameKey, m_pSource->alternateName());
  }
  const qx::Dictionary& info = additionalInfo();
  setIfPresent(result, kKVADeviceFirmwareDateKey, entry(info, QXDeviceMonitoringFirmwareDateKey));
  setIfPresent(result, kKVADeviceCountryCodeKey, entry(info, QXDeviceMonitoringCountryCodeKey));
  setIfPresent(result, kKVADeviceLanguageKey, entry(info, QXDeviceMonitoringLanguageKey));
  return result;
}
