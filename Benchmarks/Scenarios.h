#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>

#include <nlohmann/json.hpp>

namespace benchmarks {

/// What a scenario is told. Each runs in a process of its own: a process has one store.
struct Setting {
  std::string scenario;
  std::filesystem::path directory;  // its own, empty
  std::filesystem::path storeFile;  // with `stored` events: to be copied, not changed
  std::uint64_t stored = 0;
  bool onDisk = false;
  bool quick = false;
  double seconds = 0;  // for writers
};

/// A store of that many events or more has them of a thousand devices.
inline constexpr std::uint64_t kLargeStore = 1'000'000;
inline constexpr std::size_t kManyDevices = 1000;

/// A scenario's figures (see toJson()), as an array; other things for those that other scenarios start.
using Scenario = std::function<nlohmann::json(const Setting&)>;

nlohmann::json populate(const Setting& setting);      // makes storeFile
nlohmann::json changeOne(const Setting& setting);     // add, mark read, remove: each a transaction
nlohmann::json addLists(const Setting& setting);      // a thousand events a transaction
nlohmann::json query(const Setting& setting);         // everything, by source, by ID, count
nlohmann::json queryLarge(const Setting& setting);    // a screenful of a very large store
nlohmann::json holdRecords(const Setting& setting);   // memory of everything, as records
nlohmann::json holdBareRows(const Setting& setting);  // the same, as plain rows
nlohmann::json manyWriters(const Setting& setting);   // eight processes at once
nlohmann::json writer(const Setting& setting);        // one of them
nlohmann::json bareWriter(const Setting& setting);    // one of the yardstick's

const std::map<std::string, Scenario>& scenarios();

}  // namespace benchmarks
