// Build-time program: makes the event-class database of the library's resources from its table.
//
//     qx_build_event_classes MODEL.mom EventClasses.csv OUTPUT.qxstore
//
// The table is comma-separated text with a header line (RFC 4180, one record a line). It is read strictly: a
// mistake in it is an error that names file and line, not a class that silently lacks something. The database
// is made beside its place and moved there when it is whole.
#include <charconv>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "ObjectStore/ManagedObjectContext.h"
#include "ObjectStore/ManagedObjectModel.h"
#include "ObjectStore/PersistentStoreCoordinator.h"
#include "QXStoreSchema.h"

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kHeader = "classID,severity,handler,totalStates,comment";

struct EventClass {
  std::string identifier;
  std::int32_t severity = 0;
  std::string handler;
  std::uint32_t totalStates = 0;
};

/// The fields of one record; empty when a quoted field is not closed or has text behind it.
std::optional<std::vector<std::string>> splitRecord(std::string_view line) {
  std::vector<std::string> fields(1);
  std::size_t position = 0;
  while (position < line.size()) {
    if (line[position] == ',') {
      fields.emplace_back();
      ++position;
    } else if (line[position] == '"' && fields.back().empty()) {
      for (++position;; ++position) {
        if (position == line.size()) return std::nullopt;
        if (line[position] == '"' && line.substr(position + 1, 1) != "\"") break;
        if (line[position] == '"') ++position;
        fields.back() += line[position];
      }
      ++position;
      if (position < line.size() && line[position] != ',') return std::nullopt;
    } else {
      fields.back() += line[position++];
    }
  }
  return fields;
}

template <typename Number>
Number numberFrom(const std::string& text, std::string_view column) {
  Number number = 0;
  const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (problem != std::errc() || end != text.data() + text.size()) {
    throw std::runtime_error(std::string(column) + " is no number in range: \"" + text + "\"");
  }
  return number;
}

EventClass eventClassFrom(std::string_view line) {
  const auto fields = splitRecord(line);
  if (!fields) throw std::runtime_error("a quoted field does not end properly");
  if (fields->size() != 5) {
    throw std::runtime_error("5 columns expected (" + std::string(kHeader) + "), " +
                             std::to_string(fields->size()) + " found");
  }
  const auto& identifier = (*fields)[0];
  const auto& handler = (*fields)[2];
  if (identifier.empty()) throw std::runtime_error("classID is empty");
  if (handler.empty()) throw std::runtime_error("handler is empty");
  return {identifier, numberFrom<std::int32_t>((*fields)[1], "severity"), handler,
          numberFrom<std::uint32_t>((*fields)[3], "totalStates")};
}

std::vector<EventClass> readTable(const fs::path& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error(path.string() + ": cannot be read");
  std::vector<EventClass> classes;
  std::set<std::string> identifiers;
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    if (line.ends_with('\r')) line.pop_back();
    try {
      if (number == 1) {
        if (line != kHeader) throw std::runtime_error("header \"" + std::string(kHeader) + "\" expected");
        continue;
      }
      classes.push_back(eventClassFrom(line));
      if (!identifiers.insert(classes.back().identifier).second) {
        throw std::runtime_error("class " + classes.back().identifier + " stands here a second time");
      }
    } catch (const std::runtime_error& problem) {
      throw std::runtime_error(path.string() + ":" + std::to_string(number) + ": " + problem.what());
    }
  }
  if (file.bad() || classes.empty()) throw std::runtime_error(path.string() + ": holds no event class");
  return classes;
}

[[noreturn]] void fail(const fs::path& path, const qx::ErrorPtr& error) {
  throw std::runtime_error(path.string() + ": " + (error ? error->summary() : "unknown error"));
}

void writeStore(const qx::ManagedObjectModelPtr& model, const std::vector<EventClass>& classes,
                const fs::path& path) {
  const auto coordinator = std::make_shared<qx::PersistentStoreCoordinator>(model);
  const qx::Dictionary options{
      {std::string(qx::kSQLitePragmasOption), qx::Dictionary{{"journal_mode", "DELETE"}}}};
  qx::ErrorPtr error;
  const auto store = coordinator->addPersistentStore(qx::kSQLiteStoreType, path.string(), options, &error);
  if (!store) fail(path, error);
  qx::ManagedObjectContext context(coordinator);
  for (const auto& eventClass : classes) {
    const auto object = context.insert(kEventClassEntity);
    if (!object) throw std::runtime_error("the model has no entity " + std::string(kEventClassEntity));
    object->setValue(kEventClassID, eventClass.identifier);
    object->setValue(kEventSeverity, eventClass.severity);
    object->setValue(kEventHandler, eventClass.handler);
    object->setValue(kEventTotalStates, eventClass.totalStates);
  }
  if (!context.save(&error)) fail(path, error);
  if (!coordinator->removePersistentStore(store, &error)) fail(path, error);
}

void build(const std::string& modelPath, const std::string& tablePath, const std::string& outputPath) {
  const auto classes = readTable(tablePath);
  qx::ErrorPtr error;
  const auto model = qx::ManagedObjectModel::load(modelPath, &error);
  if (!model) fail(modelPath, error);

  // The object store refuses links on the way, which a build directory may well have.
  const auto output = fs::weakly_canonical(fs::absolute(outputPath));
  const fs::path unfinished = output.string() + ".unfinished";
  fs::remove(unfinished);
  try {
    writeStore(model, classes, unfinished);
    fs::rename(unfinished, output);
  } catch (...) {
    std::error_code ignored;
    fs::remove(unfinished, ignored);
    throw;
  }
}

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 4) {
    std::cerr << "usage: qx_build_event_classes MODEL.mom EventClasses.csv OUTPUT.qxstore\n";
    return 2;
  }
  try {
    build(arguments[1], arguments[2], arguments[3]);
    return 0;
  } catch (const std::exception& problem) {
    std::cerr << "qx_build_event_classes: " << problem.what() << '\n';
    return 1;
  }
}
