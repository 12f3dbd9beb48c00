// The read-only event-class database of the library's resources: opening it, and looking classes up.
#include <cstdint>
#include <mutex>
#include <optional>
#include <unordered_map>

#include <QXEventStoring/Platform/Bundle.h>
#include <QXEventStoring/Platform/PredicateBuilder.h>

#include "Sources/QXDatabaseAccessor.h"
#include "Sources/QXStoreSchema.h"

using ContextLock = std::lock_guard<qx::ManagedObjectContext>;

/// What is known of an event class.
struct QXDatabaseAccessor::EventClass {
  std::int64_t severity = 0;
  std::optional<qx::Dictionary> values;  // none: no such class
};

/// Classes that were looked up, unknown ones too: the database never changes, and the look-up runs for every
/// event that is fetched.
///
/// Bounded, because identifiers come from outside: it starts over when it is full, and long identifiers are
/// not kept.
struct QXDatabaseAccessor::EventClassCache {
  static constexpr std::size_t kLargestCount = 10'000;
  static constexpr std::size_t kLongestIdentifier = 256;  // bytes

  const EventClass* find(const qx::String& identifier) const {
    const auto known = classes.find(identifier);
    return known != classes.end() ? &known->second : nullptr;
  }

  void remember(const qx::String& identifier, const EventClass& eventClass) {
    if (identifier && identifier->size() > kLongestIdentifier) return;
    if (classes.size() >= kLargestCount) classes.clear();
    classes.emplace(identifier, eventClass);
  }

  std::unordered_map<qx::String, EventClass> classes;
};

bool QXDatabaseAccessor::openEventClassDatabase() {
  eventClassStoreCoordinator = std::make_shared<qx::PersistentStoreCoordinator>(m_pModel);
  const auto path = qx::Bundle::library().resourcePath("EventClassStore", "qxstore");
  if (!path) return false;
  const qx::Dictionary options{{std::string(qx::kReadOnlyPersistentStoreOption), true}};
  if (!eventClassStoreCoordinator->addPersistentStore(qx::kSQLiteStoreType, *path, options)) return false;
  eventClassStoreContext = std::make_shared<qx::ManagedObjectContext>(eventClassStoreCoordinator);
  eventClasses_ = std::make_unique<EventClassCache>();
  return true;
}

// Here, where the cache's type is complete.
QXDatabaseAccessor::QXDatabaseAccessor() = default;
QXDatabaseAccessor::~QXDatabaseAccessor() = default;

std::int64_t QXDatabaseAccessor::eventSeverityFromInternalDatabase(const qx::String& forEventClassID) {
  const ContextLock guard(*eventClassStoreContext);
  if (const auto* known = eventClasses_->find(forEventClassID)) return known->severity;
  return lookUpEventClass(forEventClassID).severity;
}

std::optional<qx::Dictionary> QXDatabaseAccessor::searchInInternalDatabase(const qx::String& eventClassID) {
  const ContextLock guard(*eventClassStoreContext);
  if (const auto* known = eventClasses_->find(eventClassID)) return known->values;
  return lookUpEventClass(eventClassID).values;
}

QXDatabaseAccessor::EventClass QXDatabaseAccessor::lookUpEventClass(const qx::String& eventClassID) {
  qx::ErrorPtr error;
  EventClass eventClass;
  if (const auto object = eventClassFromInternalDatabase(eventClassID, &error)) {
    eventClass.severity = object->value(kEventSeverity).integerValue();
    eventClass.values.emplace();
    for (const auto attribute : {kEventClassID, kEventSeverity, kEventHandler, kEventTotalStates}) {
      eventClass.values->set(std::string(attribute), object->value(attribute));
    }
  }
  if (!error) eventClasses_->remember(eventClassID, eventClass);
  return eventClass;
}

qx::ManagedObjectPtr QXDatabaseAccessor::eventClassFromInternalDatabase(const qx::String& eventClassID,
                                                                        qx::ErrorPtr* error) {
  const qx::PredicatePtr sameIdentifier = qx::key(kEventClassID) == eventClassID;
  const auto found = eventClassStoreContext->fetch(kEventClassEntity, sameIdentifier, error);
  return found && !found->empty() ? found->front() : nullptr;
}
