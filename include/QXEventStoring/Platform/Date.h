#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

#include <QXEventStoring/Platform/Export.h>

namespace qx {

/// A moment in time: seconds since the reference date, 2001-01-01 00:00:00 UTC.
///
/// The same count that the store's date columns and binary property lists hold, so that no
/// conversion loses a bit. A plain value; any thread.
struct QX_EXPORT Date {
  double secondsSinceReferenceDate = 0;

  /// Seconds between 1970-01-01 and the reference date.
  static constexpr double kReferenceDateSince1970 = 978307200.0;

  /// The present moment, to the precision of the system's real-time clock.
  static Date now();

  /// `seconds` since 1970-01-01 00:00:00 UTC.
  static Date sinceUnixEpoch(double seconds) { return {seconds - kReferenceDateSince1970}; }

  /// Reads an RFC 3339 date-time ("2026-11-02T05:23:26.387Z", offsets accepted, year 0001 to 9999,
  /// leap second 60 counted as the next second). Empty for anything else: no zone, no such day, more
  /// text behind it.
  static std::optional<Date> fromRFC3339(std::string_view text);

  /// RFC 3339 in UTC, rounded to milliseconds: "2026-11-02T05:23:26.387Z". A moment outside the years
  /// 0001 to 9999, or one that is no number, is written as "seconds since 2001: " and the count.
  std::string toRFC3339() const;

  /// The form of the record descriptions: "2026-11-02 05:23:26 +0000".
  std::string description() const;

  friend auto operator<=>(const Date&, const Date&) = default;  // NOLINT(modernize-use-nullptr)
};

}  // namespace qx
