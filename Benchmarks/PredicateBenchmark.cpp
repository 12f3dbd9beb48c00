// How long a predicate takes to be read, printed and asked.
#include <benchmark/benchmark.h>

#include <QXEventStoring/Platform/Predicate.h>

namespace {

constexpr const char* kFiveTerms =
    "eventSourceID == \"QXA41H0K27\" AND eventClass.eventSeverity >= 2 AND (eventReadStatus == 0 OR "
    "eventTriggerTime > CAST(780000000, \"NSDate\")) AND eventClass.eventClassID CONTAINS[cd] \"tray\"";

class Event : public qx::PredicateSubject {
 public:
  qx::Value valueForKeyPath(const std::vector<std::string>& keyPath) const override {
    const std::string& key = keyPath.back();
    if (key == "eventSourceID") return "QXA41H0K27";
    if (key == "eventSeverity") return 3;
    if (key == "eventReadStatus") return false;
    return "com.qx.printer.state.Tray.empty";
  }
};

void parseFiveTerms(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(qx::Predicate::withFormat(kFiveTerms));
}
BENCHMARK(parseFiveTerms);

void printFiveTerms(benchmark::State& state) {
  const qx::PredicatePtr predicate = qx::Predicate::withFormat(kFiveTerms);
  for (auto _ : state)
    benchmark::DoNotOptimize(predicate->predicateFormat());
}
BENCHMARK(printFiveTerms);

void evaluateFiveTerms(benchmark::State& state) {
  const qx::PredicatePtr predicate = qx::Predicate::withFormat(kFiveTerms);
  const Event event;
  for (auto _ : state)
    benchmark::DoNotOptimize(predicate->evaluate(event));
}
BENCHMARK(evaluateFiveTerms);

}  // namespace
