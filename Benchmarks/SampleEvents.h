#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <QXEventStoring/QXEventStoring.h>

namespace benchmarks {

/// Makes detached events that look like a fleet's: classes, devices, states and additional information of
/// the demo events, in turn. A property list of about 340 bytes each. The details of a class are the same
/// in all of its events, so that adding one changes no other row.
class SampleEvents {
 public:
  SampleEvents() : SampleEvents(0) {}
  /// From that many devices, each like one of the samples'; those of the samples themselves for 0.
  explicit SampleEvents(std::size_t devices);
  /// Of sample `number`, with a fresh ID.
  QXEventPtr make(std::size_t number) const;
  std::vector<QXEventPtr> make(std::size_t first, std::size_t count) const;
  std::size_t count() const { return samples_.size(); }

 private:
  struct Sample {
    std::string classID, handler;
    std::int64_t severity;
    QXEventStatus status;
    bool read;
    QXEventSourcePtr source;
    qx::Dictionary info;
  };
  std::vector<Sample> samples_;
  std::vector<QXEventSourcePtr> devices_;  // none: the samples'
};

}  // namespace benchmarks
