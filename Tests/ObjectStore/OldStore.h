#pragma once

#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "ObjectStore/ManagedObjectContext.h"
#include "Platform/PropertyList.h"

namespace qx::test {

/// A store of an earlier version of the object model, made as a release of that time made it: through a stack
/// of that version. What the version lacks is left out. Three classes, three sources, and events "EVENT-0"
/// ...; row 1 of the events is free, as after a removal.
class OldStore {
 public:
  OldStore(const ManagedObjectModelPtr& model, const std::string& path, const std::string& journalMode)
      : coordinator_(std::make_shared<PersistentStoreCoordinator>(model)), context_(coordinator_) {
    ErrorPtr error;
    const auto store = coordinator_->addPersistentStore(
        kSQLiteStoreType, path,
        {{std::string(kSQLitePragmasOption), Dictionary{{"journal_mode", journalMode}}}}, &error);
    if (!store) throw std::runtime_error(error->summary());
  }

  void addClassesAndSources() {
    for (int i = 0; i < kKinds; ++i) {
      const std::string number = std::to_string(i);
      const auto eventClass = context_.insert("QXEventClass");
      eventClass->setValue("eventClassID", "com.qx.old.class" + number);
      eventClass->setValue("eventHandler", "com.qx.old.handler" + number);
      eventClass->setValue("eventSeverity", std::int64_t{i});
      eventClass->setValue("totalStates", std::int64_t{10 + i});
      const auto source = context_.insert("QXEventSource");
      source->setValue("sourceID", "SOURCE-" + number);
      source->setValue("sourceName", "Drucker " + number + " \u00fc");
      source->setValue("makeAndModel", "Model " + number);
      source->setValue("productNumber", "PN-" + number);
      source->setValue("serviceID", "SERVICE-" + number);
    }
    if (const auto application = context_.insert("QXDestinationApplication"))
      application->setValue("path", "/opt/old/agent");
    const auto removed = context_.insert("QXEvent");
    save();
    context_.remove(removed);
    save();
  }

  void addEvents(int first, int last) {
    const auto classes = context_.fetch("QXEventClass", nullptr).value();
    for (int i = first; i < last; ++i) {
      const Dictionary information{{"Event: Input Bin", "Tray " + std::to_string(i)}};
      const auto event = context_.insert("QXEvent");
      event->setValue("eventID", "EVENT-" + std::to_string(i));
      event->setValue("eventReadStatus", i % 2 == 1);
      event->setValue("eventTriggerTime", Date{700'000'000.5 + i});
      event->setValue("eventCurrentState", std::int64_t{i % 10});
      event->setValue("eventVersionNumber", std::int64_t{i % 4});
      event->setValue("eventSourceID", "SOURCE-" + std::to_string(i % kKinds));
      event->setValue("eventAdditionalInfo", Data(writeBinaryPropertyList(information).value()));
      event->setRelated("eventClass", classes[static_cast<std::size_t>(i % kKinds)]);
    }
    save();
  }

 private:
  static constexpr int kKinds = 3;

  void save() {
    ErrorPtr error;
    if (!context_.save(&error)) throw std::runtime_error(error->summary());
  }

  std::shared_ptr<PersistentStoreCoordinator> coordinator_;
  ManagedObjectContext context_;
};

inline void makeOldStore(const ManagedObjectModelPtr& model, const std::string& path, int eventCount,
                         const std::string& journalMode = "DELETE") {
  OldStore store(model, path, journalMode);
  store.addClassesAndSources();
  store.addEvents(0, eventCount);
}

/// The same, as a process that was killed leaves it: the last events are only in the write-ahead log. Ends
/// the calling process.
[[noreturn]] inline void dieWithLog(const ManagedObjectModelPtr& model, const std::string& path,
                                    int eventCount) {
  const int logged = eventCount / 10;
  makeOldStore(model, path, eventCount - logged);
  auto* const store = new OldStore(model, path, "WAL");
  store->addEvents(eventCount - logged, eventCount);
  ::_exit(0);
}

}  // namespace qx::test
