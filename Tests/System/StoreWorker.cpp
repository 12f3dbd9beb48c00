// A program that uses the store the way an agent does, told by lines on its standard input what to do. The
// system tests start it several times, as several users, and kill it.
//
//   StoreWorker VOLUME-ROOT
//
//   status                      "open PATH" or "closed CODE"
//   add COUNT PREFIX [CLASS]... adds PREFIX.0 ...; "added ID" after each, then "done"
//   batch COUNT SIZE PREFIX     adds COUNT lists PREFIX.0.0 ...; "added PREFIX.N" after each, then "done"
//   count                       "count N"
//   fetch ID                    keeps the event; "event VERSION STATE READ" or "missing"
//   save ID STATE READ          changes the kept event; "saved VERSION"
//   raise ID COUNT              raises the state by one, COUNT times, fetching again when it is stale; "done"
//   remove ID                   removes the kept event; "removed"
//
// What fails answers "failed CODE DESCRIPTION", code 0 when there is no error. Ends with its input.

#include <QXEventStoring/QXEventStoring.h>

#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr std::string_view kClass = "com.qx.printer.state.media.empty";
constexpr int kSources = 20;
constexpr int kStale = -994;

void answer(const std::string& line) {
  std::cout << line << std::endl;  // flushed: the reader waits for it
}

void fail(const qx::ErrorPtr& error) {
  answer("failed " + (error ? std::to_string(error->code()) + " " + error->localizedDescription() : "0"));
}

QXEventPtr makeEvent(const std::string& eventID, const std::string& classID, const std::string& sourceID,
                     bool hasDetailsOfItsOwn) {
  auto event = std::make_shared<QXEvent>(eventID);
  event->setClassID(classID);
  const QXEventPtr form = hasDetailsOfItsOwn ? nullptr : QXEvent::eventWithEventClassID(classID);
  event->setHandler(form ? form->handler() : "com.qx.tests.handler");
  event->setSeverity(form ? form->severity() : 1);
  event->setStatus({0, form ? form->status().length : 1000});
  event->setTriggerTime(qx::Date::now());
  event->setValue("Tray 2", std::string(QXDeviceMonitoringInputBinKey));
  const auto source = std::make_shared<QXEventSource>();
  source->setIdentifier(sourceID);
  source->setName("Printer " + sourceID);
  event->setSource(source);
  return event;
}

QXEventPtr makeEvent(const std::string& eventID) {
  return makeEvent(eventID, std::string(kClass), "PRINTER", true);
}

class Worker {
 public:
  void obey(std::istringstream words) {
    std::string command;
    words >> command;
    if (command == "status") return status();
    if (command == "add") return add(words);
    if (command == "batch") return batch(words);
    if (command == "count") return count();
    if (command == "raise") return raise(words);
    std::string eventID;
    words >> eventID;
    if (command == "fetch") return fetch(eventID);
    if (command == "save") return save(eventID, words);
    if (command == "remove") return remove(eventID);
    answer("failed 0 unknown command " + command);
  }

 private:
  static QXEventStore& store() { return QXEventStore::sharedQXEventStore(); }

  static void status() {
    const QXEventStoreStatus status = store().status();
    if (status.open) return answer("open " + status.path);
    answer("closed " + std::to_string(status.problem ? status.problem->code() : 0));
  }

  static void add(std::istringstream& words) {
    int count = 0;
    std::string prefix;
    words >> count >> prefix;
    std::vector<std::string> classes;
    for (std::string name; words >> name;)
      classes.push_back(name);
    for (int i = 0; i < count; ++i) {
      const std::string eventID = prefix + "." + std::to_string(i);
      // Through classes and sources in order, so that those who start together meet new ones together.
      const auto at = [&](std::size_t size) {
        return static_cast<std::size_t>(i) * size / std::size_t(count);
      };
      const QXEventPtr event = classes.empty()
                                   ? makeEvent(eventID)
                                   : makeEvent(eventID, classes[at(classes.size())],
                                               "PRINTER-" + std::to_string(at(kSources)), i % 3 == 1);
      qx::ErrorPtr error;
      if (!store().addEvent(event, &error)) return fail(error);
      answer("added " + eventID);
    }
    answer("done");
  }

  static void batch(std::istringstream& words) {
    int count = 0;
    int size = 0;
    std::string prefix;
    words >> count >> size >> prefix;
    for (int i = 0; i < count; ++i) {
      const std::string name = prefix + "." + std::to_string(i);
      std::vector<QXEventPtr> events;
      events.reserve(static_cast<std::size_t>(size));
      for (int k = 0; k < size; ++k)
        events.push_back(makeEvent(name + "." + std::to_string(k)));
      qx::ErrorPtr error;
      if (!store().addEvents(events, &error)) return fail(error);
      answer("added " + name);
    }
    answer("done");
  }

  static void count() {
    qx::ErrorPtr error;
    const std::uint64_t count = store().countOfEventsWithPredicate(nullptr, &error);
    if (error) return fail(error);
    answer("count " + std::to_string(count));
  }

  void fetch(const std::string& eventID) {
    const QXEventPtr event = QXEvent::eventWithEventID(eventID);
    if (!event) return answer("missing");
    kept_[eventID] = event;
    answer("event " + std::to_string(event->versionNumber()) + " " +
           std::to_string(event->status().location) + (event->isRead() ? " 1" : " 0"));
  }

  void save(const std::string& eventID, std::istringstream& words) {
    std::uint64_t state = 0;
    bool read = false;
    words >> state >> read;
    const QXEventPtr event = kept_.at(eventID);
    event->setStatus({state, event->status().length});
    event->setReadStatus(read);
    qx::ErrorPtr error;
    if (!store().saveEvent(event, &error)) return fail(error);
    answer("saved " + std::to_string(event->versionNumber()));
  }

  static void raise(std::istringstream& words) {
    std::string eventID;
    int count = 0;
    words >> eventID >> count;
    while (count > 0) {
      const QXEventPtr event = QXEvent::eventWithEventID(eventID);
      if (!event) return answer("missing");
      event->setStatus({event->status().location + 1, event->status().length});
      qx::ErrorPtr error;
      if (store().saveEvent(event, &error)) {
        --count;
      } else if (!error || error->code() != kStale) {
        return fail(error);
      }
    }
    answer("done");
  }

  void remove(const std::string& eventID) {
    qx::ErrorPtr error;
    if (!store().removeEvent(kept_.at(eventID), &error)) return fail(error);
    answer("removed");
  }

  std::map<std::string, QXEventPtr> kept_;
};

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 2) return 2;
  qx::ErrorPtr error;
  if (!qx::setVolumeRoot(arguments[1], &error)) {
    fail(error);
    return 1;
  }
  qx::Bundle::setMainBundleIdentifier("com.qx.tests.worker");
  Worker worker;
  for (std::string line; std::getline(std::cin, line);)
    worker.obey(std::istringstream(line));
  return 0;
}
