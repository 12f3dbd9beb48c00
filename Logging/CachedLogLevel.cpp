#include "Logging/CachedLogLevel.h"

#include <chrono>
#include <utility>
#include <vector>

#include "Logging/QuietCall.h"
#include "Logging/UnifiedLogging.h"
#include "Platform/BackgroundLoop.h"

namespace qx::log {

CachedLogLevel::CachedLogLevel(Load load, Observe observe)
    : read_(std::move(load)), observe_(std::move(observe)) {
  begin();
}

CachedLogLevel::~CachedLogLevel() {
  {
    const std::lock_guard guard(state_->monitor);
    state_->owner = nullptr;
  }
  state_->observation.cancel();
}

void CachedLogLevel::begin() {
  state_ = std::make_shared<State>();
  state_->owner = this;
}

PLVLogLevel CachedLogLevel::load() const noexcept {
  const QuietCall quiet;
  try {
    return readNow();
  } catch (...) {
    return PLVLogLevel::Inherit;
  }
}

PLVLogLevel CachedLogLevel::readNow() const {
  State& state = *state_;
  const std::lock_guard guard(state.monitor);
  if (const auto level = level_.load(); level != PLVLogLevel::NotLoaded) return level;
  // First watch, then read: a change in between clears what is stored below.
  const bool follows = followChanges(state);
  const auto level = read_();
  if (follows) level_.store(level, std::memory_order_release);
  return level;
}

/// With the monitor held. False when no thread can be had for it: the level must not be kept then.
bool CachedLogLevel::followChanges(State& state) const {
  if (!unifiedLogging()) {
    synchronizationStopped_ = true;
    return schedule(state_);
  }
  if (state.observing) return true;
  if (!BackgroundLoop::shared().after(std::chrono::milliseconds(0), [] {})) return false;
  state.observation = observe_([weak = std::weak_ptr(state_)] { clear(weak); });
  state.observing = true;
  return true;
}

void CachedLogLevel::set(PLVLogLevel level) {
  const std::lock_guard guard(state_->monitor);
  if (level_ != level) level_ = level;
}

void CachedLogLevel::clear(const std::weak_ptr<State>& weak) {
  const auto state = weak.lock();
  if (!state) return;
  const std::lock_guard guard(state->monitor);
  if (state->owner != nullptr) state->owner->level_ = PLVLogLevel::NotLoaded;
}

void CachedLogLevel::scheduleSynchronization() {
  schedule(state_);
}

bool CachedLogLevel::schedule(const std::shared_ptr<State>& state) {
  return BackgroundLoop::shared().after(std::chrono::minutes(1),
                                        [weak = std::weak_ptr(state)] { synchronize(weak); });
}

void CachedLogLevel::synchronize(const std::weak_ptr<State>& weak) {
  const auto state = weak.lock();
  if (!state) return;
  const std::lock_guard guard(state->monitor);
  const auto* const owner = state->owner;
  if (owner == nullptr) return;
  const bool nobodyAsked = owner->synchronizationStopped_.exchange(true);
  owner->level_ = PLVLogLevel::NotLoaded;  // and stays so if what follows fails
  if (!nobodyAsked && schedule(state)) owner->level_ = owner->read_();
}

void CachedLogLevel::abandon() {
  // The parent's state stays where it is: a thread that is not here any more may have been in the middle of
  // it.
  static auto& abandoned = *new std::vector<std::shared_ptr<State>>;
  abandoned.push_back(std::exchange(state_, nullptr));
  level_ = PLVLogLevel::NotLoaded;
  synchronizationStopped_ = false;
  begin();
}

}  // namespace qx::log
