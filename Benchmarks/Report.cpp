#include "Report.h"

#include <linux/magic.h>
#include <sqlite3.h>
#include <sys/utsname.h>
#include <sys/vfs.h>

#include <thread>

#include <fmt/format.h>

namespace benchmarks {

namespace {

using nlohmann::json;

std::string fileSystem(const std::filesystem::path& directory) {
  struct statfs status {};
  if (statfs(directory.c_str(), &status) != 0) return "unknown";
  switch (static_cast<unsigned long>(status.f_type)) {
    case EXT4_SUPER_MAGIC:
      return "ext4";
    case TMPFS_MAGIC:
      return "tmpfs";
    case XFS_SUPER_MAGIC:
      return "xfs";
    case BTRFS_SUPER_MAGIC:
      return "btrfs";
    case OVERLAYFS_SUPER_MAGIC:
      return "overlayfs";
    default:
      return fmt::format("{:#x}", static_cast<unsigned long>(status.f_type));
  }
}

std::string number(double value) {
  if (value >= 1000) return fmt::format(fmt::runtime("{:.0f}"), value);
  return value >= 100 ? fmt::format("{:.0f}", value) : fmt::format("{:.3g}", value);
}

std::string quantity(const json& figure, const char* key) {
  if (!figure.contains(key)) return "";
  const std::string unit = figure.at("unit");
  return number(figure.at(key)) + (unit == "/s" || unit.empty() ? unit : " " + unit);
}

std::string medians(const json& figure) {
  if (!figure.contains("oursMedianMicroseconds") || figure.at("unit") != "/s") return "";
  return number(figure.at("oursMedianMicroseconds")) + " / " +
         number(figure.at("yardstickMedianMicroseconds"));
}

std::string target(const json& figure) {
  if (!figure.contains("target")) return "";
  const json& target = figure.at("target");
  const bool atLeast = target.contains("atLeast");
  const double bound = target.at(atLeast ? "atLeast" : "atMost");
  const std::string unit = figure.at("unit");
  const std::string suffix =
      target.at("of") == "ratio" ? "x" : (unit == "/s" || unit.empty() ? unit : " " + unit);
  return fmt::format("{} {}{}", atLeast ? ">=" : "<=", number(bound), suffix);
}

std::string verdict(const json& figure) {
  if (!figure.contains("target")) return "";
  return figure.at("target").at("met").get<bool>() ? "yes" : "NO";
}

}  // namespace

json machine(const std::filesystem::path& disk, const std::filesystem::path& memory) {
  struct utsname system {};
  uname(&system);
  return {{"processors", std::thread::hardware_concurrency()},
          {"kernel", std::string(system.sysname) + " " + system.release},
          {"sqlite", sqlite3_libversion()},
          {"disk", fileSystem(disk)},
          {"memory", fileSystem(memory)}};
}

std::string table(const json& document) {
  constexpr const char* kLine = "{:<36} {:<6} {:>7} {:>12} {:>12} {:>7} {:>10} {:>4}  {:>17}  {}\n";
  std::string result = fmt::format(fmt::runtime(kLine), "measure", "place", "stored", "ours", "yardstick",
                                   "ratio", "target", "met", "medians, µs", "yardstick is");
  for (const json& figure : document.at("figures")) {
    const std::string ratio =
        figure.contains("ratio") ? fmt::format("{:.2f}", figure.at("ratio").get<double>()) : "";
    result += fmt::format(fmt::runtime(kLine), figure.at("measure").get<std::string>(),
                          figure.value("place", ""), figure.value("stored", ""), quantity(figure, "ours"),
                          quantity(figure, "yardstick"), ratio, target(figure), verdict(figure),
                          medians(figure), figure.value("yardstickName", ""));
  }
  return result;
}

}  // namespace benchmarks
