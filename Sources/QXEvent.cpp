// The additional info of a fetched event stays a property list until somebody looks at it: most events of
// a query are only listed or counted by their fields, and decoding costs more than all the rest of a record.

#include <QXEventStoring/QXEvent.h>

#include <array>
#include <mutex>
#include <string_view>
#include <utility>

#include <QXEventStoring/QXEventKeys.h>

#include "Platform/PropertyList.h"
#include "Sources/QXStoreCoordinator.h"
#include "Sources/StringUUID.h"

namespace {

/// Guards pendingInfo_ and the decoding into m_pAdditionalInfo, of all records: held for a microsecond.
std::mutex pendingInfoMutex;

std::optional<std::int64_t> reportedSeverity(const qx::Value& reported) {
  static constexpr std::array<std::pair<std::string_view, std::int64_t>, 4> kTable{
      {{"Error", 3}, {"StrictWarning", 1}, {"Warning", 1}, {"Info", 0}}};
  const std::string* const name = reported.asString();
  if (name == nullptr) return std::nullopt;
  for (const auto& [reportedName, severity] : kTable) {
    if (reportedName == *name) return severity;
  }
  return std::nullopt;
}

}  // namespace

QXEvent::QXEvent() : QXEvent(NSStringUUID::stringWithUUID()) {}
QXEvent::QXEvent(qx::String eventID) : m_pIdentifier(std::move(eventID)) {}
QXEvent::~QXEvent() = default;

QXEventPtr QXEvent::eventWithEventClassID(const qx::String& eventClassID) {
  return QXStoreCoordinator::sharedInstance().eventWithClassID(eventClassID);
}

QXEventPtr QXEvent::eventWithEventID(const qx::String& eventID) {
  QXEventPtr event = QXStoreCoordinator::sharedInstance().eventWithEventID(eventID);
  if (event) event->setAsPersistentlyStored(true);
  return event;
}

std::optional<std::vector<std::string>> QXEvent::knownEventClassIDs() {
  return QXStoreCoordinator::sharedInstance().getAllEventClassIDs();
}

qx::Dictionary& QXEvent::additionalInfo() {
  decodePendingInfo();
  return m_pAdditionalInfo;
}

const qx::Dictionary& QXEvent::additionalInfo() const {
  decodePendingInfo();
  return m_pAdditionalInfo;
}

std::int64_t QXEvent::severity() const {
  const qx::Dictionary& info = additionalInfo();
  const qx::Value* const overridden = info.find(QXDeviceMonitoringOverriddenSeverityKey);
  if (overridden != nullptr && !overridden->isNull()) return overridden->integerValue();
  const qx::Value* const reported = info.find(QXDeviceMonitoringReportedSeverityKey);
  if (reported == nullptr) return m_nSeverity;
  return reportedSeverity(*reported).value_or(m_nSeverity);
}

void QXEvent::setClassID(const qx::String& classID) {
  if (classID && !classID->empty()) m_pClassID = classID;
}

void QXEvent::setSeverity(std::int64_t severity) {
  if (!m_bPersistentlyStored) m_nSeverity = severity;
}

void QXEvent::setSource(const QXEventSourcePtr& source) {
  if (source && !source->identifier().value_or("").empty()) m_pSource = source;
}

void QXEvent::setTriggerTime(const std::optional<qx::Date>& triggerTime) {
  if (triggerTime) m_pTriggerTime = triggerTime;
}

void QXEvent::setHandler(const qx::String& handler) {
  if (handler && !handler->empty()) m_pHandler = handler;
}

qx::Value QXEvent::valueForKey(const qx::String& key) const {
  const qx::Value* const value = key ? additionalInfo().find(*key) : nullptr;
  return value != nullptr ? *value : qx::Value();
}

void QXEvent::setValue(qx::Value value, const qx::String& forKey) {
  if (!forKey) return;
  if (value.isNull()) {
    additionalInfo().erase(*forKey);
  } else {
    additionalInfo().set(*forKey, std::move(value));
  }
}

bool QXEvent::isValidEvent() const {
  return m_pIdentifier && m_pClassID && m_pHandler && m_pTriggerTime && m_pSource &&
         m_pSource->isValidSource();
}

std::string QXEvent::description() const {
  const auto text = [](const qx::String& value) { return value.value_or("(null)"); };
  std::string result = "QX Event with ID:" + text(m_pIdentifier);
  result += "\n\tClassID : " + text(m_pClassID);
  result += "\n\tSource : " + (m_pSource ? text(m_pSource->name()) : "(null)");
  result += "\n\tTrigger Time : " + (m_pTriggerTime ? m_pTriggerTime->description() : "(null)");
  result += "\n\tEvent Handler : " + text(m_pHandler);
  result += m_bReadStatus ? "\n\tRead : YES" : "\n\tRead : NO";
  result += m_pStatus.location == m_pStatus.length ? "\n\tSolved : YES" : "\n\tSolved : NO";
  result += "\n\tEvent severity : " + std::to_string(m_nSeverity);
  result += "\n\tEvent Current Status : " + std::to_string(m_pStatus.location);
  result += "\n\tAdditional info : " + qx::Value(additionalInfo()).description() + " ";
  return result;
}

void QXEvent::mergeAdditionalInfo(const qx::Data& propertyList) {
  if (propertyList.empty()) return;
  decodePendingInfo();
  const std::lock_guard lock(pendingInfoMutex);
  pendingInfo_ = propertyList;
  hasPendingInfo_.store(true, std::memory_order_release);
}

void QXEvent::decodePendingInfo() const {
  if (!hasPendingInfo_.load(std::memory_order_acquire)) return;
  const std::lock_guard lock(pendingInfoMutex);
  if (!hasPendingInfo_.load(std::memory_order_relaxed)) return;
  std::optional<qx::Value> decoded = qx::readBinaryPropertyList(pendingInfo_.bytes());
  qx::Dictionary* const info = decoded ? decoded->asDictionary() : nullptr;
  if (info != nullptr && m_pAdditionalInfo.empty()) {
    m_pAdditionalInfo = std::move(*info);
  } else if (info != nullptr) {
    m_pAdditionalInfo.merge(*info);
  }
  pendingInfo_ = {};
  hasPendingInfo_.store(false, std::memory_order_release);
}

bool QXEvent::hasUntouchedInfo(const qx::Data& propertyList) const {
  if (!hasPendingInfo_.load(std::memory_order_acquire)) return false;
  const std::lock_guard lock(pendingInfoMutex);
  return hasPendingInfo_.load(std::memory_order_relaxed) && m_pAdditionalInfo.empty() &&
         pendingInfo_ == propertyList;
}
