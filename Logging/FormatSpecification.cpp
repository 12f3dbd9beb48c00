#include "Logging/FormatSpecification.h"

#include <algorithm>

namespace qx::log {
namespace {

constexpr std::string_view kDigits = "1234567890";
constexpr std::string_view kLengthModifiers = "hljztL";
constexpr std::string_view kConversions = "diouxXfFeEgGaAcspnCS@";

class SpecificationParser {
 public:
  SpecificationParser(std::string_view format, std::size_t percent, bool blankIsFlag)
      : format_(format),
        start_(percent),
        position_(percent + 1),
        flags_(FormatFlags::kCharacters.substr(0, FormatFlags::kCharacters.size() - (blankIsFlag ? 0 : 1))) {}

  std::optional<FormatSpecification> run() {
    parsePositionOrWidth();
    if (!parseAnnotation()) return std::nullopt;
    for (; !atEnd() && flags_.find(format_[position_]) != std::string_view::npos; ++position_)
      result_.flags.set(format_[position_]);
    if (result_.width.kind == FormatNumber::Kind::none) result_.width = parseNumber();
    if (accept('.')) {
      result_.precision = parseNumber();
      if (result_.precision.kind == FormatNumber::Kind::none)
        result_.precision.kind = FormatNumber::Kind::digits;
    }
    result_.length = acceptAll(kLengthModifiers);
    if (atEnd()) return std::nullopt;
    result_.conversion = format_[position_++];
    result_.text = format_.substr(start_, position_ - start_);
    return result_;
  }

 private:
  bool atEnd() const { return position_ == format_.size(); }

  bool accept(char character) {
    if (atEnd() || format_[position_] != character) return false;
    ++position_;
    return true;
  }

  std::string_view acceptAll(std::string_view characters) {
    const std::size_t end = std::min(format_.find_first_not_of(characters, position_), format_.size());
    const auto text = format_.substr(position_, end - position_);
    position_ = end;
    return text;
  }

  /// Digits that "$" ends; nothing (and nothing read) when there are none.
  std::string_view acceptPosition() {
    const std::size_t before = position_;
    const auto digits = acceptAll(kDigits);
    if (!digits.empty() && accept('$')) return digits;
    position_ = before;
    return {};
  }

  void parsePositionOrWidth() {
    result_.position = acceptPosition();
    if (!result_.position.empty()) return;
    if (accept('0')) result_.flags.set('0');
    const auto digits = acceptAll(kDigits);
    if (!digits.empty()) result_.width = {FormatNumber::Kind::digits, digits};
  }

  /// False when it does not end.
  bool parseAnnotation() {
    if (!accept('{')) return true;
    const std::size_t end = format_.find('}', position_);
    if (end == std::string_view::npos) return false;
    result_.isAnnotated = true;
    result_.annotation = format_.substr(position_, end - position_);
    position_ = end + 1;
    return true;
  }

  FormatNumber parseNumber() {
    if (accept('*')) {
      return {FormatNumber::Kind::argument, result_.position.empty() ? std::string_view() : acceptPosition()};
    }
    const auto digits = acceptAll(kDigits);
    return {digits.empty() ? FormatNumber::Kind::none : FormatNumber::Kind::digits, digits};
  }

  const std::string_view format_;
  const std::size_t start_;
  std::size_t position_;
  const std::string_view flags_;
  FormatSpecification result_;
};

}  // namespace

bool FormatSpecification::isConversion() const {
  return kConversions.find(conversion) != std::string_view::npos;
}

std::optional<FormatSpecification> parseFormatSpecification(std::string_view format, std::size_t percent,
                                                            bool blankIsFlag) {
  return SpecificationParser(format, percent, blankIsFlag).run();
}

}  // namespace qx::log
