#include "Logging/CachedLogLevel.h"

#include <chrono>
#include <utility>
#include <vector>

#include "Logging/UnifiedLogging.h"
#include "Platform/BackgroundLoop.h"

namespace qx::log {

CachedLogLevel::CachedLogLevel(Load load, Observe observe) : state_(std::make_shared<State>()) {
  state_->read = std::move(load);
  state_->observe = std::move(observe);
}

CachedLogLevel::~CachedLogLevel() {
  state_->observation.cancel();
}

PLVLogLevel CachedLogLevel::load() const {
  State& state = *state_;
  const std::lock_guard guard(state.monitor);
  if (const auto level = state.level.load(); level != PLVLogLevel::NotLoaded) return level;
  if (unifiedLogging()) {
    // First watch, then read: a change in between clears what is stored below.
    if (!std::exchange(state.observing, true)) {
      state.observation = state.observe([weak = std::weak_ptr(state_)] {
        if (const auto alive = weak.lock()) store(*alive, PLVLogLevel::NotLoaded);
      });
    }
  } else {
    state.synchronizationStopped = true;
    schedule(state_);
  }
  const auto level = state.read();
  state.level.store(level, std::memory_order_release);
  return level;
}

void CachedLogLevel::set(PLVLogLevel level) {
  store(*state_, level);
}

void CachedLogLevel::store(State& state, PLVLogLevel level) {
  const std::lock_guard guard(state.monitor);
  if (state.level != level) state.level = level;
}

void CachedLogLevel::scheduleSynchronization() {
  schedule(state_);
}

void CachedLogLevel::schedule(const std::shared_ptr<State>& state) {
  BackgroundLoop::shared().after(std::chrono::minutes(1), [weak = std::weak_ptr(state)] {
    if (const auto alive = weak.lock()) synchronize(alive);
  });
}

void CachedLogLevel::synchronize(const std::shared_ptr<State>& state) {
  const bool nobodyAsked = state->synchronizationStopped.exchange(true);
  if (nobodyAsked) {
    store(*state, PLVLogLevel::NotLoaded);
    return;
  }
  store(*state, state->read());
  schedule(state);
}

void CachedLogLevel::abandon() {
  auto fresh = std::make_shared<State>();
  fresh->read = state_->read;
  fresh->observe = state_->observe;
  // The parent's state stays where it is: a thread that is not here any more may have been in the middle of
  // it.
  static auto& abandoned = *new std::vector<std::shared_ptr<State>>;
  abandoned.push_back(std::exchange(state_, std::move(fresh)));
}

}  // namespace qx::log
