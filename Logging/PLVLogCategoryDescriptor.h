#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <string_view>

class LogCategory;

/// Where the log lines of one part of a program go: a subsystem and a category name. One static, writable
/// record per category; the registry resolves it on first use and keeps the result in it.
class PLVLogCategoryDescriptor {
 public:
  static constexpr std::size_t kNameBytes = 120;  // both names with their NULs

  /// Names without NUL; a compile-time error when they are too long.
  consteval PLVLogCategoryDescriptor(std::string_view subsystem, std::string_view category) {
    std::size_t end = 0;
    for (const char character : subsystem)
      names_.at(end++) = character;
    names_.at(end++) = '\0';
    for (const char character : category)
      names_.at(end++) = character;
    names_.at(end) = '\0';
  }

  const char* subsystemName() const { return names_.data(); }
  const char* categoryName() const { return names_.data() + std::strlen(names_.data()) + 1; }

  /// The resolved category; null before first use.
  std::atomic<LogCategory*>& category() { return category_; }

 private:
  std::atomic<LogCategory*> category_ = nullptr;
  std::array<char, kNameBytes> names_{};  // subsystem NUL category NUL
};
