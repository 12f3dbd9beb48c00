#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Export.h>
#include <QXEventStoring/Platform/NotificationCenter.h>
#include <QXEventStoring/Platform/Value.h>

class QXEventSource;
using QXEventSourcePtr = std::shared_ptr<QXEventSource>;

/// A device that raises events.
///
/// A record in memory: it holds no connection to the store. Identifier, name and alternate name can be
/// observed. Threads: any; the store itself changes the process's record of a source, on a thread of its
/// own, when another process gives the source other values. So every value is returned as a copy.
class QX_EXPORT QXEventSource {
 public:
  /// The two calls that an observer gets around a change.
  enum class ChangePhase { willChange, didChange };
  using Observer = std::function<void(const QXEventSource&, std::string_view key, ChangePhase)>;

  /// All fields null.
  QXEventSource();
  ~QXEventSource();
  QXEventSource(const QXEventSource&) = delete;
  QXEventSource& operator=(const QXEventSource&) = delete;

  /// The process's one record of that stored source: the same object at each call; null when the store
  /// has no such source.
  static QXEventSourcePtr eventSourceWithID(const qx::String& identifier);
  /// The IDs of all stored sources; nothing when there are none.
  static std::optional<std::vector<std::string>> knownEventSourceIDs();

  qx::String identifier() const { return copyOf(m_pIdentifier); }
  qx::String name() const { return copyOf(m_pName); }
  qx::String alternateName() const { return copyOf(m_pAlternateName); }

  // A null or empty value is ignored. There is one name, whatever the language: the last call wins.
  void setIdentifier(const qx::String& identifier);
  void setName(const qx::String& name, const qx::String& forLanguage = std::nullopt);
  void setAlternateName(const qx::String& alternateName, const qx::String& forLanguage = std::nullopt);

  qx::String makeAndModel() const { return copyOf(_makeAndModel); }
  qx::String productNumber() const { return copyOf(_productNumber); }
  qx::String serviceID() const { return copyOf(_serviceID); }
  void setMakeAndModel(qx::String makeAndModel) { replace(_makeAndModel, std::move(makeAndModel)); }
  void setProductNumber(qx::String productNumber) { replace(_productNumber, std::move(productNumber)); }
  void setServiceID(qx::String serviceID) { replace(_serviceID, std::move(serviceID)); }

  /// Whether identifier and name are both there.
  bool isValidSource() const;
  std::string description() const;

  /// Calls `observer` before and after each change of `key`: "identifier", "name" or "alternateName". On
  /// the thread that makes the change, with no lock of the record held. Ends with the returned token, or
  /// with the record.
  [[nodiscard]] qx::Observation addObserver(std::string key, Observer observer);

 private:
  struct Observers;
  void change(std::string_view key, qx::String& field, const qx::String& value);
  qx::String copyOf(const qx::String& field) const;
  void replace(qx::String& field, qx::String value);

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  qx::String m_pIdentifier;
  qx::String m_pName;
  qx::String m_pAlternateName;
  std::optional<qx::Dictionary> m_pLocalizedDetails;  // reserved; stays null
  qx::String _makeAndModel;
  qx::String _productNumber;
  qx::String _serviceID;
  std::shared_ptr<Observers> observers_;  // made with the first observer
};
