#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <QXEventStoring/KVADeviceEvent.h>
#include <QXEventStoring/Platform/Date.h>
#include <QXEventStoring/Platform/Export.h>
#include <QXEventStoring/Platform/Value.h>
#include <QXEventStoring/QXEventSource.h>

class QXEvent;
using QXEventPtr = std::shared_ptr<QXEvent>;

/// Progress of an event through its states.
struct QXEventStatus {
  std::uint64_t location = 0;  // the current state
  std::uint64_t length = 0;    // the number of states; the event is solved when both are equal

  friend bool operator==(const QXEventStatus&, const QXEventStatus&) = default;
};

/// One occurrence of an event class on one source.
///
/// A record in memory: detached while the caller builds it, stored once it was added or fetched. It holds
/// no connection to the store; changes reach it through QXEventStore. No lock of its own: one thread at a
/// time when one of them writes.
class QX_EXPORT QXEvent : public KVADeviceEvent {
 public:
  /// A detached event with a fresh UUID.
  QXEvent();
  /// A detached event with that ID, taken as it is.
  explicit QXEvent(qx::String eventID);
  ~QXEvent() override;
  QXEvent(const QXEvent&) = delete;
  QXEvent& operator=(const QXEvent&) = delete;

  /// A template for a new event of a class: its handler, severity and number of states, and a fresh
  /// UUID. For an unknown class a record without class, handler and states. Null only without a store
  /// stack.
  static QXEventPtr eventWithEventClassID(const qx::String& eventClassID);
  /// The stored event of that ID, or null.
  static QXEventPtr eventWithEventID(const qx::String& eventID);
  /// The IDs of all classes in the store; nothing when there are none.
  static std::optional<std::vector<std::string>> knownEventClassIDs();

  const qx::String& identifier() const { return m_pIdentifier; }
  const qx::String& classID() const { return m_pClassID; }
  const QXEventSourcePtr& source() const { return m_pSource; }
  const std::optional<qx::Date>& triggerTime() const { return m_pTriggerTime; }
  const qx::String& handler() const { return m_pHandler; }
  bool isRead() const { return m_bReadStatus; }
  const QXEventStatus& status() const { return m_pStatus; }
  bool isPersistentlyStored() const { return m_bPersistentlyStored; }
  std::int64_t versionNumber() const { return m_nVersionNumber; }
  /// The live dictionary of what the device reported; keys in <QXEventStoring/QXEventKeys.h>.
  qx::Dictionary& additionalInfo();
  const qx::Dictionary& additionalInfo() const;

  /// The overridden severity of the additional info, else its reported severity ("Error" 3,
  /// "StrictWarning" and "Warning" 1, "Info" 0), else the event's own.
  std::int64_t severity() const override;

  // Setters ignore a missing or empty value; the old one stays.
  void setClassID(const qx::String& classID);
  /// Ignored once the event is stored.
  void setSeverity(std::int64_t severity);
  /// Ignored for a source without an identifier.
  void setSource(const QXEventSourcePtr& source);
  void setTriggerTime(const std::optional<qx::Date>& triggerTime);
  void setHandler(const qx::String& handler);
  void setReadStatus(bool read) { m_bReadStatus = read; }
  void setStatus(QXEventStatus status) { m_pStatus = status; }
  void setAsPersistentlyStored(bool stored) { m_bPersistentlyStored = stored; }
  void setVersionNumber(std::int64_t version) { m_nVersionNumber = version; }

  /// Reads the additional info, not the fields; the null marker when the key is absent.
  qx::Value valueForKey(const qx::String& key) const;
  /// Sets an entry of the additional info; the null marker removes it. Nothing without a key.
  void setValue(qx::Value value, const qx::String& forKey);

  /// Whether identifier, class ID, handler, trigger time and a valid source are all there.
  bool isValidEvent() const;
  std::string description() const;

  // The device-event views, computed at each call.
  qx::Value alertID() const override;
  qx::Value alertType() const override;
  qx::Value errorCode() const override;
  qx::Dictionary properties() const override;
  qx::Dictionary deviceProperties() const override;
  /// One dictionary for each supply colour.
  qx::Array supplyInfo() const;

 private:
  friend class QXStoreCoordinator;
  /// Merges a stored property list into the additional info, decoding it only when it is first looked at.
  void mergeAdditionalInfo(const qx::Data& propertyList);
  void decodePendingInfo() const;
  /// Whether the additional info is what `propertyList` holds, and nobody has looked at it: no decoding.
  bool hasUntouchedInfo(const qx::Data& propertyList) const;

  qx::String m_pIdentifier;
  qx::String m_pClassID;
  std::int64_t m_nSeverity = 0;
  QXEventSourcePtr m_pSource;
  std::optional<qx::Date> m_pTriggerTime;
  qx::String m_pHandler;
  bool m_bReadStatus = false;
  QXEventStatus m_pStatus;
  bool m_bPersistentlyStored = false;
  std::int64_t m_nVersionNumber = 0;
  mutable qx::Dictionary m_pAdditionalInfo;
  // What the store holds and nobody has looked at yet. Two threads may read one record at the same time:
  // the flag is the fast path, the decoding itself is under a lock of the source file's.
  mutable qx::Data pendingInfo_;
  mutable std::atomic<bool> hasPendingInfo_{false};
};
