#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace benchmarks {

using Clock = std::chrono::steady_clock;

/// How long each of a number of equal operations took.
class Timings {
 public:
  /// Runs `operation` and counts it; what it returns.
  template <typename Operation>
  auto measure(Operation&& operation) {
    const Count count(*this);
    return operation();
  }

  std::size_t count() const { return microseconds_.size(); }
  double total() const;  // seconds
  double median() const { return percentile(0.5); }
  double longest() const { return percentile(1); }
  /// Microseconds; `share` from 0 to 1.
  double percentile(double share) const;
  /// Operations a second, over the time they took together.
  double rate() const { return static_cast<double>(count()) / total(); }

 private:
  struct Count {
    explicit Count(Timings& timings) : timings(timings) {}
    ~Count() {
      const std::chrono::duration<double, std::micro> taken = Clock::now() - start;
      timings.microseconds_.push_back(taken.count());
    }
    Count(const Count&) = delete;
    Count& operator=(const Count&) = delete;
    Timings& timings;
    Clock::time_point start = Clock::now();
  };
  std::vector<double> microseconds_;
};

/// What a figure is hoped to be. A report says whether it is; nothing fails.
struct Target {
  enum class Subject { ours, ratio };
  Subject subject;
  bool atLeast;  // else at most
  double bound;
};

/// One line of the report: a figure of the store's, and the same work's on bare SQLite.
struct Figure {
  std::string measure;
  std::string unit;
  double ours = 0;
  std::optional<double> yardstick = std::nullopt;  // in the same unit; the ratio is ours to it
  std::string yardstickName = {};
  std::optional<Target> target = std::nullopt;
  std::optional<std::pair<double, double>> medians = std::nullopt;  // of one operation, in microseconds
};

nlohmann::json toJson(const Figure& figure);

/// Rates of both sides with their medians; the target is about their ratio.
Figure rateFigure(std::string measure, const Timings& ours, const Timings& yardstick,
                  std::optional<double> leastRatio = std::nullopt);

/// Median durations of both sides, in milliseconds or microseconds.
Figure durationFigure(std::string measure, std::string unit, const Timings& ours, const Timings& yardstick,
                      std::optional<Target> target = std::nullopt);

/// Runs both sides in alternating chunks, so that a machine that gets slower or faster does it to both.
/// Each gets the number of the operation.
template <typename Ours, typename Yardstick>
void alternate(std::size_t operations, std::size_t chunk, Ours&& ours, Yardstick&& yardstick) {
  const auto run = [&](auto& side, std::size_t first) {
    for (std::size_t i = first; i < first + chunk && i < operations; ++i)
      side(i);
  };
  bool oursFirst = true;
  for (std::size_t first = 0; first < operations; first += chunk, oursFirst = !oursFirst) {
    if (oursFirst) run(ours, first);
    run(yardstick, first);
    if (!oursFirst) run(ours, first);
  }
}

}  // namespace benchmarks
