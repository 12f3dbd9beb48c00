// Calendar arithmetic is std::chrono's proleptic Gregorian calendar; the text form is RFC 3339, section 5.6.
// The whole seconds and the fraction are handled apart, so that a fraction costs no precision it need not.

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include <QXEventStoring/Platform/Date.h>

namespace qx {
namespace {

using std::chrono::sys_days;
using std::chrono::year_month_day;

constexpr std::int64_t kSecondsPerDay = 86400;
constexpr auto kReferenceDay = sys_days(std::chrono::year(2001) / 1 / 1);
constexpr auto kFirstDay = sys_days(std::chrono::year(1) / 1 / 1);
constexpr auto kPastLastDay = sys_days(std::chrono::year(10000) / 1 / 1);

constexpr std::int64_t secondsTo(sys_days day) {
  return std::int64_t{(day - kReferenceDay).count()} * kSecondsPerDay;
}

/// A moment taken apart, in UTC.
struct Calendar {
  int year, month, day, hour, minute, second, millisecond;
};

/// The parts of `seconds` since the reference date; empty outside the years 0001 to 9999.
std::optional<Calendar> calendarOf(std::int64_t seconds, int millisecond) {
  if (seconds < secondsTo(kFirstDay) || seconds >= secondsTo(kPastLastDay)) return std::nullopt;
  const auto moment = std::chrono::sys_seconds(kReferenceDay) + std::chrono::seconds(seconds);
  const auto midnight = std::chrono::floor<std::chrono::days>(moment);
  const year_month_day date(midnight);
  const auto secondOfDay = static_cast<int>((moment - midnight).count());
  return Calendar{int(date.year()),
                  static_cast<int>(unsigned(date.month())),
                  static_cast<int>(unsigned(date.day())),
                  secondOfDay / 3600,
                  secondOfDay / 60 % 60,
                  secondOfDay % 60,
                  millisecond};
}

bool isOutsideTheCalendar(double seconds) {
  return !(seconds >= static_cast<double>(secondsTo(kFirstDay)) &&
           seconds < static_cast<double>(secondsTo(kPastLastDay)));
}

std::string countOfSeconds(double seconds) {
  std::array<char, 32> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), seconds).ptr;
  return "seconds since 2001: " + std::string(digits.data(), end);
}

/// Takes an RFC 3339 text apart from the front; every function says whether the text went on as expected.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  bool digits(std::size_t count, int& number) {
    if (rest_.size() < count) return false;
    number = 0;
    for (const char digit : rest_.substr(0, count)) {
      if (digit < '0' || digit > '9') return false;
      number = 10 * number + (digit - '0');
    }
    rest_.remove_prefix(count);
    return true;
  }

  bool literal(char expected) {
    if (!rest_.starts_with(expected)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  bool literalInAnyCase(char upper) {
    return literal(upper) || literal(static_cast<char>(upper - 'A' + 'a'));
  }

  /// ".387" as 0.387; nothing there is 0.
  bool fraction(double& value) {
    value = 0;
    if (!rest_.starts_with('.')) return true;
    const auto length = std::min(rest_.find_first_not_of("0123456789", 1), rest_.size());
    if (length == 1) return false;
    std::from_chars(rest_.data(), rest_.data() + length, value, std::chars_format::fixed);
    rest_.remove_prefix(length);
    return true;
  }

  /// "Z" or "+hh:mm", as the seconds that local time is ahead of UTC.
  bool zone(int& secondsAhead) {
    secondsAhead = 0;
    if (literalInAnyCase('Z')) return true;
    const bool behind = rest_.starts_with('-');
    if (!behind && !rest_.starts_with('+')) return false;
    rest_.remove_prefix(1);
    int hours = 0;
    int minutes = 0;
    if (!digits(2, hours) || !literal(':') || !digits(2, minutes) || hours > 23 || minutes > 59) return false;
    secondsAhead = (hours * 60 + minutes) * (behind ? -60 : 60);
    return true;
  }

  bool atEnd() const { return rest_.empty(); }

 private:
  std::string_view rest_;
};

/// Leap seconds stand at the end of a month in UTC (ITU-R TF.460), so that the second after it starts one.
bool startsAMonth(std::int64_t seconds) {
  const auto calendar = calendarOf(seconds, 0);
  return calendar && calendar->day == 1 && calendar->hour == 0 && calendar->minute == 0 &&
         calendar->second == 0;
}

}  // namespace

Date Date::now() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return {static_cast<double>(time.tv_sec) - kReferenceDateSince1970 +
          static_cast<double>(time.tv_nsec) * 1e-9};
}

std::optional<Date> Date::fromRFC3339(std::string_view text) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, secondsAhead = 0;
  double fraction = 0;
  Scanner scan(text);
  const bool readable = scan.digits(4, year) && scan.literal('-') && scan.digits(2, month) &&
                        scan.literal('-') && scan.digits(2, day) && scan.literalInAnyCase('T') &&
                        scan.digits(2, hour) && scan.literal(':') && scan.digits(2, minute) &&
                        scan.literal(':') && scan.digits(2, second) && scan.fraction(fraction) &&
                        scan.zone(secondsAhead);
  if (!readable || !scan.atEnd()) return std::nullopt;

  const auto date = std::chrono::year(year) / month / day;
  if (year < 1 || !date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  const std::chrono::seconds inDay =
      std::chrono::hours(hour) + std::chrono::minutes(minute) + std::chrono::seconds(second - secondsAhead);
  const std::int64_t seconds = secondsTo(sys_days(date)) + inDay.count();
  if (second == 60 && !startsAMonth(seconds)) return std::nullopt;
  if (isOutsideTheCalendar(static_cast<double>(seconds))) return std::nullopt;
  return Date{static_cast<double>(seconds) + fraction};
}

std::string Date::toRFC3339() const {
  if (isOutsideTheCalendar(secondsSinceReferenceDate)) return countOfSeconds(secondsSinceReferenceDate);
  const double whole = std::floor(secondsSinceReferenceDate);
  const auto milliseconds = static_cast<int>(std::lround((secondsSinceReferenceDate - whole) * 1000));
  const auto seconds = static_cast<std::int64_t>(whole);
  auto calendar = calendarOf(seconds + milliseconds / 1000, milliseconds % 1000);
  if (!calendar) calendar = calendarOf(seconds, 999);  // the last millisecond has nothing to be rounded up to
  if (!calendar) return countOfSeconds(secondsSinceReferenceDate);
  const auto& [year, month, day, hour, minute, second, millisecond] = *calendar;
  std::array<char, 96> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", year, month, day, hour,
                minute, second, millisecond);
  return text.data();
}

std::string Date::description() const {
  if (isOutsideTheCalendar(secondsSinceReferenceDate)) return countOfSeconds(secondsSinceReferenceDate);
  const auto calendar = calendarOf(static_cast<std::int64_t>(std::floor(secondsSinceReferenceDate)), 0);
  std::array<char, 96> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02d %02d:%02d:%02d +0000", calendar->year,
                calendar->month, calendar->day, calendar->hour, calendar->minute, calendar->second);
  return text.data();
}

}  // namespace qx
