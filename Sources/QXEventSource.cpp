#include <QXEventStoring/QXEventSource.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "Logging/EventStoreLog.h"
#include "Sources/QXStoreCoordinator.h"

/// Who wants to hear of changes. Shared with the tokens, which may outlive the record.
struct QXEventSource::Observers {
  struct Entry {
    std::string key;
    Observer observer;
    std::recursive_mutex running;  // held during a call, so that cancelling waits for it
    bool cancelled = false;        // guarded by running
  };
  using EntryPtr = std::shared_ptr<Entry>;

  EntryPtr add(std::string key, Observer observer) {
    auto entry = std::make_shared<Entry>();
    entry->key = std::move(key);
    entry->observer = std::move(observer);
    const std::lock_guard lock(mutex);
    entries.push_back(entry);
    return entry;
  }

  void remove(const EntryPtr& entry) {
    {
      const std::lock_guard lock(mutex);
      std::erase(entries, entry);
    }
    const std::lock_guard running(entry->running);
    entry->cancelled = true;
  }

  void notify(const QXEventSource& source, std::string_view key, ChangePhase phase) {
    std::vector<EntryPtr> current;
    {
      const std::lock_guard lock(mutex);
      current = entries;
    }
    for (const EntryPtr& entry : current) {
      if (entry->key == key) call(*entry, source, key, phase);
    }
  }

  static void call(Entry& entry, const QXEventSource& source, std::string_view key, ChangePhase phase) {
    const std::lock_guard running(entry.running);
    if (entry.cancelled || !entry.observer) return;
    try {
      entry.observer(source, key, phase);
    } catch (const std::exception& exception) {
      QXLogInfo("Observer of an event source's %{public}@ failed [%{public}@]", key, exception.what());
    } catch (...) {
      QXLogInfo("Observer of an event source's %{public}@ failed", key);
    }
  }

  std::mutex mutex;
  std::vector<EntryPtr> entries;  // guarded by mutex
};

QXEventSource::QXEventSource() = default;
QXEventSource::~QXEventSource() = default;

QXEventSourcePtr QXEventSource::eventSourceWithID(const qx::String& identifier) {
  return QXStoreCoordinator::sharedInstance().sourceWithID(identifier);
}

std::optional<std::vector<std::string>> QXEventSource::knownEventSourceIDs() {
  return QXStoreCoordinator::sharedInstance().getAllSourceIds();
}

void QXEventSource::setIdentifier(const qx::String& identifier) {
  change("identifier", m_pIdentifier, identifier);
}

void QXEventSource::setName(const qx::String& name, const qx::String&) {
  change("name", m_pName, name);
}

void QXEventSource::setAlternateName(const qx::String& alternateName, const qx::String&) {
  change("alternateName", m_pAlternateName, alternateName);
}

bool QXEventSource::isValidSource() const {
  const std::lock_guard lock(mutex_);
  return m_pIdentifier && m_pName;
}

std::string QXEventSource::description() const {
  const auto text = [](const qx::String& value) { return value.value_or("(null)"); };
  const std::lock_guard lock(mutex_);
  return "QX Event Source with ID:" + text(m_pIdentifier) + "\n\tName : " + text(m_pName) +
         "\n\tAlternate Name : " + text(m_pAlternateName) + "\n\tmakeAndModel: " + text(_makeAndModel) +
         "\n\tproduct number: " + text(_productNumber) + "\n\tservice ID: " + text(_serviceID);
}

qx::Observation QXEventSource::addObserver(std::string key, Observer observer) {
  std::shared_ptr<Observers> observers;
  {
    const std::lock_guard lock(mutex_);
    if (!observers_) observers_ = std::make_shared<Observers>();
    observers = observers_;
  }
  auto entry = observers->add(std::move(key), std::move(observer));
  return qx::Observation([weak = std::weak_ptr(observers), entry = std::move(entry)] {
    if (const auto alive = weak.lock()) alive->remove(entry);
  });
}

void QXEventSource::change(std::string_view key, qx::String& field, const qx::String& value) {
  if (!value || value->empty()) return;
  std::shared_ptr<Observers> observers;
  {
    const std::lock_guard lock(mutex_);
    observers = observers_;
  }
  if (observers) observers->notify(*this, key, ChangePhase::willChange);
  replace(field, value);
  if (observers) observers->notify(*this, key, ChangePhase::didChange);
}

qx::String QXEventSource::copyOf(const qx::String& field) const {
  const std::lock_guard lock(mutex_);
  return field;
}

void QXEventSource::replace(qx::String& field, qx::String value) {
  const std::lock_guard lock(mutex_);
  field.swap(value);
}
