// Runs the scenarios, each in a process of its own, one after the other, and reports their figures.
#include <array>
#include <csignal>
#include <iostream>
#include <map>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "ChildProcess.h"
#include "Figures.h"
#include "Report.h"
#include "Scenarios.h"

namespace benchmarks {

const std::map<std::string, Scenario>& scenarios() {
  static const std::map<std::string, Scenario> all{
      {"populate", populate},
      {"changeOne", changeOne},
      {"addLists", addLists},
      {"query", query},
      {"queryLarge", queryLarge},
      {"holdRecords", holdRecords},
      {"holdBareRows", holdBareRows},
      {"manyWriters", manyWriters},
      {"writer", writer},
      {"bareWriter", bareWriter},
  };
  return all;
}

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

struct Place {
  std::string name;
  fs::path directory;
  bool isDisk;
};

/// Runs one scenario in a fresh process and a fresh directory below `place`.
json run(const std::string& scenario, const Place& place, const fs::path& storeFile, std::uint64_t stored,
         bool quick) {
  std::cerr << "  " << scenario << ": " << place.name << ", " << stored << " events\n";
  const TemporaryDirectory directory(place.directory);
  std::vector<std::string> arguments{"--scenario", scenario,           "--directory", directory.path(),
                                     "--store",    storeFile.string(), "--stored",    std::to_string(stored)};
  if (place.isDisk) arguments.emplace_back("--on-disk");
  if (quick) arguments.emplace_back("--quick");
  ChildProcess child(ownProgram(), arguments);
  json result = json::parse(child.readLine());
  child.wait();
  return result;
}

class Session {
 public:
  Session(const fs::path& disk, const fs::path& memory, bool quick)
      : diskDirectory_(disk),
        memoryDirectory_(memory),
        disk_{"disk", diskDirectory_.path(), true},
        memory_{"memory", memoryDirectory_.path(), false},
        quick_(quick) {
    document_ = {{"machine", machine(disk, memory)}, {"quick", quick}, {"figures", json::array()}};
  }

  json measure() {
    for (const std::uint64_t stored : kStored)
      document_["populated"][std::to_string(stored)] =
          run("populate", memory_, storeFile(stored), stored, quick_);
    for (const char* scenario : {"changeOne", "addLists", "query"})
      for (const Place* place : {&disk_, &memory_})
        for (const std::uint64_t stored : kStored)
          collect(run(scenario, *place, storeFile(stored), stored, quick_), *place, stored);
    compareSizes("add one", 0.9);
    measureMemory();
    collect(run("manyWriters", disk_, storeFile(kStored.back()), kStored.back(), quick_), disk_,
            kStored.back());
    measureLargeStore();
    measureParts();
    measureLogging();
    return document_;
  }

 private:
  fs::path storeFile(std::uint64_t stored) const {
    return memoryDirectory_.path() / ("store-" + std::to_string(stored));
  }

  void collect(json figures, const Place& place, std::uint64_t stored) {
    for (json& figure : figures) {
      figure["place"] = place.name;
      figure["stored"] = std::to_string(stored);
      document_["figures"].push_back(std::move(figure));
    }
  }

  const json& figure(const std::string& measure, const std::string& place, std::uint64_t stored) const {
    for (const json& figure : document_.at("figures"))
      if (figure.at("measure") == measure && figure.at("place") == place &&
          figure.at("stored") == std::to_string(stored))
        return figure;
    throw std::runtime_error("no figure " + measure);
  }

  /// The rate in the large store beside the rate in the small one. The two were not measured at the same
  /// time: the target is about what is left of the difference when bare SQLite's is taken out of it.
  void compareSizes(const std::string& measure, double leastRatio) {
    for (const Place* place : {&disk_, &memory_}) {
      const json& small = this->figure(measure, place->name, kStored.front());
      const json& large = this->figure(measure, place->name, kStored.back());
      const double ours = small.at("ours"), bare = small.at("yardstick"), bareLarge = large.at("yardstick");
      json figures = json::array();
      const auto compare = [&](const std::string& what, const json& rate, double yardstick,
                               const char* yardstickName, std::optional<Target> target) {
        figures.push_back(toJson({.measure = fmt::format("{}, large vs small: {}", measure, what),
                                  .unit = "/s",
                                  .ours = rate,
                                  .yardstick = yardstick,
                                  .yardstickName = yardstickName,
                                  .target = target}));
      };
      compare("ours", large.at("ours"), ours, "ours in the small store", std::nullopt);
      compare("bare", bareLarge, bare, "bare SQLite in the small store", std::nullopt);
      compare("net", large.at("ours"), ours * bareLarge / bare, "ours in the small store, drift taken out",
              Target{Target::Subject::ratio, true, leastRatio});
      collect(std::move(figures), *place, kStored.back());
    }
  }

  void measureMemory() {
    const json ours = run("holdRecords", memory_, storeFile(kStored.back()), kStored.back(), quick_);
    const json bare = run("holdBareRows", memory_, storeFile(kStored.back()), kStored.back(), quick_);
    json figures = json::array();
    for (const char* kind : {"peak", "held"})
      figures.push_back(toJson({.measure = std::string("memory of all records: ") + kind,
                                .unit = "MB",
                                .ours = ours.at(kind),
                                .yardstick = bare.at(kind).get<double>(),
                                .yardstickName = "rows of bare SQLite",
                                .target = Target{Target::Subject::ours, false, 200}}));
    collect(figures, memory_, kStored.back());
  }

  void measureLargeStore() {
    run("populate", memory_, storeFile(kLargeStore), kLargeStore, quick_);
    collect(run("queryLarge", memory_, storeFile(kLargeStore), kLargeStore, quick_), memory_, kLargeStore);
  }

  /// From the programs beside this one.
  void measureParts() {
    const std::map<std::string, double> targets{
        {"encodeSupplyInformation", 800}, {"decodeSupplyInformation", 600}, {"parseFiveTerms", 20'000}};
    for (const char* name : {"qx_property_list_benchmark", "qx_predicate_benchmark"}) {
      const fs::path program = ownProgram().parent_path() / name;
      if (!fs::exists(program)) continue;
      std::cerr << "  " << name << '\n';
      ChildProcess child(program, {"--benchmark_format=json", "--benchmark_repetitions=5"});
      const json result = json::parse(child.readAll());
      child.wait();
      for (const json& line : result.at("benchmarks")) {
        if (line.value("aggregate_name", "") != "median") continue;
        const auto target = targets.find(line.at("run_name"));
        if (target == targets.end()) continue;
        document_["figures"].push_back(
            toJson({.measure = target->first,
                    .unit = "ns",
                    .ours = line.at("cpu_time"),
                    .target = Target{Target::Subject::ours, false, target->second}}));
      }
    }
  }

  /// From the program beside this one.
  void measureLogging() {
    const fs::path program = ownProgram().parent_path() / "qx_log_benchmark";
    if (!fs::exists(program)) return;
    std::cerr << "  logging\n";
    const TemporaryDirectory directory(memory_.directory);
    ChildProcess child(program, {directory.path()});
    for (auto& figure : json::parse(child.readAll()))
      document_["figures"].push_back(std::move(figure));
    child.wait();
  }

  static constexpr std::array<std::uint64_t, 2> kStored{1000, 100'000};
  const TemporaryDirectory diskDirectory_, memoryDirectory_;
  const Place disk_, memory_;
  const bool quick_;
  json document_;
};

int main(int argumentCount, char** arguments) {
  CLI::App app{"Measures the event store beside the same work written straight on SQLite."};
  bool asJson = false;
  std::string disk = ownProgram().parent_path().parent_path() / "benchmark-data";
  std::string memory = "/dev/shm";
  Setting setting;
  app.add_flag("--json", asJson, "Print one JSON document");
  app.add_flag("--quick", setting.quick, "Fewer repetitions: coarser figures");
  app.add_option("--disk", disk, "A directory on a disk")->capture_default_str();
  app.add_option("--memory", memory, "A directory of a memory file system")->capture_default_str();
  // For the processes that it starts itself.
  app.add_option("--scenario", setting.scenario)->group("");
  app.add_option("--directory", setting.directory)->group("");
  app.add_option("--store", setting.storeFile)->group("");
  app.add_option("--stored", setting.stored)->group("");
  app.add_option("--seconds", setting.seconds)->group("");
  app.add_flag("--on-disk", setting.onDisk)->group("");
  CLI11_PARSE(app, argumentCount, arguments);

  if (!setting.scenario.empty()) {
    std::cout << scenarios().at(setting.scenario)(setting).dump() << std::endl;
    return 0;
  }
  // An interrupted read ends the session, so that its directories go.
  struct sigaction interrupt {};
  interrupt.sa_handler = [](int) {};
  sigaction(SIGINT, &interrupt, nullptr);
  sigaction(SIGTERM, &interrupt, nullptr);
  const json document = Session(disk, memory, setting.quick).measure();
  std::cout << (asJson ? document.dump(2) + "\n" : table(document));
  return 0;
}

}  // namespace

}  // namespace benchmarks

int main(int argumentCount, char** arguments) {
  try {
    return benchmarks::main(argumentCount, arguments);
  } catch (const std::exception& failure) {
    std::cerr << "qx_store_benchmark: " << failure.what() << '\n';
    return 1;
  }
}
