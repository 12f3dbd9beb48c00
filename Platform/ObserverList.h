#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

#include <QXEventStoring/Platform/NotificationCenter.h>

namespace qx {

/// One registered handler, and who is inside it. Any thread.
class Observer {
 public:
  using Handler = std::function<void(const Notification&)>;

  Observer(String name, const void* sender, String object, Handler handler);

  bool wants(const std::string& name, const void* sender, const String& object) const;
  /// Runs the handler, unless cancelled. What it throws ends here: one observer's fault must reach neither
  /// the poster nor the other observers.
  void notify(const Notification& notification);
  /// No call begins from now on; waits for running ones, except when called from inside one. The handler,
  /// and what it holds, is destroyed as soon as no call of it runs.
  void cancel();

 private:
  bool begin();
  void end();

  const String name_;         // none: any
  const void* const sender_;  // null: any
  const String object_;       // none: any
  Handler handler_;           // changed only after cancelled_, when running_ is empty
  std::mutex mutex_;
  std::condition_variable ended_;
  std::vector<std::thread::id> running_;  // guarded by mutex_; one entry for each call
  bool cancelled_ = false;                // guarded by mutex_
};

/// The observers of a notification centre. Any thread; no lock is held around a handler.
class ObserverList : public std::enable_shared_from_this<ObserverList> {
 public:
  using Observers = std::vector<std::shared_ptr<Observer>>;

  /// The observation keeps no list alive: it may be cancelled after the centre has gone.
  Observation add(std::shared_ptr<Observer> observer);
  /// The observers as they are now, in order of registration.
  std::shared_ptr<const Observers> snapshot() const;
  bool anyWants(const std::string& name, const void* sender, const String& object) const;

 private:
  void remove(const std::shared_ptr<Observer>& observer);

  mutable std::mutex mutex_;
  std::shared_ptr<const Observers> observers_ = std::make_shared<Observers>();  // guarded by mutex_
};

}  // namespace qx
