#pragma once

#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

namespace benchmarks {

/// What the figures were taken on.
nlohmann::json machine(const std::filesystem::path& disk, const std::filesystem::path& memory);

/// The document as a table for people.
std::string table(const nlohmann::json& document);

}  // namespace benchmarks
