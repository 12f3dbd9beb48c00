#include "AddModule.h"

#include <exception>
#include <iostream>
#include <vector>

#include "Figures.h"
#include "SampleEvents.h"

namespace {

std::vector<QXEventPtr>& events() {
  static std::vector<QXEventPtr> made;
  return made;
}

}  // namespace

extern "C" QX_EXPORT bool prepareAdds(const char* volumeRoot, std::size_t count) try {
  qx::ErrorPtr error;
  if (!qx::setVolumeRoot(volumeRoot, &error)) {
    std::cerr << error->summary() << '\n';
    return false;
  }
  events() = benchmarks::SampleEvents().make(0, count);
  return true;
} catch (const std::exception& failure) {
  std::cerr << failure.what() << '\n';
  return false;
}

extern "C" QX_EXPORT double addEvent(std::size_t number) {
  const auto start = benchmarks::Clock::now();
  const bool added = QXEventStore::sharedQXEventStore().addEvent(events().at(number));
  const std::chrono::duration<double, std::nano> taken = benchmarks::Clock::now() - start;
  return added ? taken.count() : -1;
}
