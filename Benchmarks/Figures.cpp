#include "Figures.h"

#include <algorithm>
#include <numeric>

namespace benchmarks {

double Timings::total() const {
  return std::accumulate(microseconds_.begin(), microseconds_.end(), 0.0) / 1e6;
}

double Timings::percentile(double share) const {
  if (microseconds_.empty()) return 0;
  std::vector<double> sorted = microseconds_;
  std::sort(sorted.begin(), sorted.end());
  return sorted[static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1))];
}

nlohmann::json toJson(const Figure& figure) {
  nlohmann::json result{{"measure", figure.measure}, {"unit", figure.unit}, {"ours", figure.ours}};
  std::optional<double> ratio;
  if (figure.yardstick) {
    ratio = figure.ours / *figure.yardstick;
    result["yardstick"] = *figure.yardstick;
    result["yardstickName"] = figure.yardstickName;
    result["ratio"] = *ratio;
  }
  if (figure.medians) {
    result["oursMedianMicroseconds"] = figure.medians->first;
    result["yardstickMedianMicroseconds"] = figure.medians->second;
    result["medianRatio"] = figure.medians->first / figure.medians->second;
  }
  if (const auto& target = figure.target) {
    const bool isRatio = target->subject == Target::Subject::ratio;
    const double value = isRatio ? ratio.value_or(0) : figure.ours;
    result["target"] = {{"of", isRatio ? "ratio" : "ours"},
                        {target->atLeast ? "atLeast" : "atMost", target->bound},
                        {"met", target->atLeast ? value >= target->bound : value <= target->bound}};
  }
  return result;
}

Figure rateFigure(std::string measure, const Timings& ours, const Timings& yardstick,
                  std::optional<double> leastRatio) {
  Figure figure{.measure = std::move(measure),
                .unit = "/s",
                .ours = ours.rate(),
                .yardstick = yardstick.rate(),
                .yardstickName = "bare SQLite",
                .medians = std::pair(ours.median(), yardstick.median())};
  if (leastRatio) figure.target = Target{Target::Subject::ratio, true, *leastRatio};
  return figure;
}

Figure durationFigure(std::string measure, std::string unit, const Timings& ours, const Timings& yardstick,
                      std::optional<Target> target) {
  const double scale = unit == "ms" ? 1e-3 : 1;
  return {.measure = std::move(measure),
          .unit = std::move(unit),
          .ours = ours.median() * scale,
          .yardstick = yardstick.median() * scale,
          .yardstickName = "bare SQLite",
          .target = target,
          .medians = std::pair(ours.median(), yardstick.median())};
}

}  // namespace benchmarks
