#include <QXEventStoring/Platform/NotificationCenter.h>

#include "Platform/ObserverList.h"

namespace qx {

Observation& Observation::operator=(Observation&& other) noexcept {
  if (this == &other) return *this;
  cancel();
  cancel_ = std::exchange(other.cancel_, nullptr);
  return *this;
}

void Observation::cancel() {
  if (const auto cancel = std::exchange(cancel_, nullptr)) cancel();
}

struct NotificationCenter::State : ObserverList {};

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter& center = *new NotificationCenter;  // never destroyed: threads may outlive main()
  return center;
}

NotificationCenter::NotificationCenter() : state_(std::make_shared<State>()) {}

NotificationCenter::~NotificationCenter() = default;

Observation NotificationCenter::addObserver(String name, const void* sender, Handler handler) {
  return state_->add(std::make_shared<Observer>(std::move(name), sender, std::nullopt, std::move(handler)));
}

void NotificationCenter::post(const Notification& notification) {
  const auto observers = state_->snapshot();
  for (const auto& observer : *observers) {
    if (observer->wants(notification.name, notification.sender, notification.object))
      observer->notify(notification);
  }
}

}  // namespace qx
