#include "Platform/ObserverList.h"

#include <algorithm>
#include <utility>

namespace qx {

Observer::Observer(String name, const void* sender, String object, Handler handler)
    : name_(std::move(name)), sender_(sender), object_(std::move(object)), handler_(std::move(handler)) {}

bool Observer::wants(const std::string& name, const void* sender, const String& object) const {
  return (!name_ || *name_ == name) && (sender_ == nullptr || sender_ == sender) &&
         (!object_ || object_ == object);
}

void Observer::notify(const Notification& notification) {
  if (!begin()) return;
  try {
    if (handler_) handler_(notification);
  } catch (...) {  // NOLINT(bugprone-empty-catch)
  }
  end();
}

bool Observer::begin() {
  const std::lock_guard guard(mutex_);
  if (cancelled_) return false;
  running_.push_back(std::this_thread::get_id());
  return true;
}

void Observer::end() {
  Handler unneeded;  // destroyed after the lock is let go: it may hold anything
  const std::lock_guard guard(mutex_);
  running_.erase(std::find(running_.begin(), running_.end(), std::this_thread::get_id()));
  if (!running_.empty()) return;
  if (cancelled_) std::swap(unneeded, handler_);
  ended_.notify_all();
}

void Observer::cancel() {
  Handler unneeded;
  std::unique_lock guard(mutex_);
  cancelled_ = true;
  if (std::find(running_.begin(), running_.end(), std::this_thread::get_id()) != running_.end()) return;
  ended_.wait(guard, [this] { return running_.empty(); });
  std::swap(unneeded, handler_);
  guard.unlock();
}

Observation ObserverList::add(std::shared_ptr<Observer> observer) {
  const std::lock_guard guard(mutex_);
  auto observers = std::make_shared<Observers>(*observers_);
  observers->push_back(observer);
  observers_ = std::move(observers);
  return Observation([list = weak_from_this(), observer = std::move(observer)] {
    if (const auto alive = list.lock()) alive->remove(observer);
    observer->cancel();
  });
}

void ObserverList::remove(const std::shared_ptr<Observer>& observer) {
  const std::lock_guard guard(mutex_);
  auto observers = std::make_shared<Observers>(*observers_);
  observers->erase(std::remove(observers->begin(), observers->end(), observer), observers->end());
  observers_ = std::move(observers);
}

std::shared_ptr<const ObserverList::Observers> ObserverList::snapshot() const {
  const std::lock_guard guard(mutex_);
  return observers_;
}

bool ObserverList::anyWants(const std::string& name, const void* sender, const String& object) const {
  const std::lock_guard guard(mutex_);
  return std::any_of(observers_->begin(), observers_->end(),
                     [&](const auto& observer) { return observer->wants(name, sender, object); });
}

}  // namespace qx
