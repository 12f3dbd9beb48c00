// A format in os_log syntax becomes a text in two passes. The first rewrites it as a format without
// annotations, in which every conversion to be hidden or decoded stands in brackets behind a marker that the
// format does not contain: "%{errno}d" becomes "__PLVLog__errno(%d)". The second formats that and replaces
// each marker with its brackets. Arguments may contain markers too; they are taken for ours, but a marker
// can only hide, or show bytes that an argument vouches for.
#include "Logging/PLVFormatMessage.h"

#include <algorithm>
#include <charconv>
#include <utility>
#include <variant>
#include <vector>

#include "Logging/ASLLog.h"
#include "Logging/FormatSpecification.h"
#include "Logging/MessageFormatter.h"
#include "Logging/ValueDecoders.h"

namespace {

using qx::log::Argument;
using qx::log::FormatFlags;
using qx::log::FormatNumber;
using qx::log::FormatSpecification;
using qx::log::ReadableMemory;

constexpr std::size_t kRoomForMarkers = 64;  // of most formats
constexpr std::string_view kMarkerStart = "__PLVLog";
constexpr std::string_view kMarkerEnd = "__";
constexpr std::string_view kBinaryData = "binary_data_";
constexpr std::string_view kPrivate = "private";

std::string numberedMarker(std::size_t number) {
  return std::string(kMarkerStart) + std::to_string(number) + std::string(kMarkerEnd);
}

/// The number of the marker that `text` begins with, behind its start; 0 when it is none.
std::size_t markerNumber(std::string_view text) {
  std::size_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc() || text[0] == '0') return 0;
  const auto digits = static_cast<std::size_t>(result.ptr - text.data());
  return text.substr(digits).starts_with(kMarkerEnd) ? number : 0;
}

/// A marker that `format` does not contain: the plain one, or that with the smallest possible number.
std::string unusedMarker(std::string_view format) {
  std::string plain = std::string(kMarkerStart) + std::string(kMarkerEnd);
  if (format.find(plain) == std::string_view::npos) return plain;
  // There is a free number among the first n + 1 when n markers fit.
  std::vector<bool> isUsed(format.size() / kMarkerStart.size() + 2);
  for (std::size_t start = format.find(kMarkerStart); start != std::string_view::npos;
       start = format.find(kMarkerStart, start + kMarkerStart.size())) {
    const std::size_t number = markerNumber(format.substr(start + kMarkerStart.size()));
    if (number < isUsed.size()) isUsed[number] = true;
  }
  std::size_t number = 1;
  while (isUsed[number])
    ++number;
  return numberedMarker(number);
}

/// What a conversion's annotation, and what its character without one, say of its value.
struct Treatment {
  bool isPublic = true;
  std::string_view type;  // a decoder's word; empty when none is named
};

Treatment treatmentOf(const FormatSpecification& specification) {
  Treatment treatment;
  treatment.isPublic = !qx::log::isOneOf(specification.conversion, "sS@P");
  constexpr std::string_view kSeparators = ", ";
  std::string_view words = specification.annotation;
  while (!words.empty()) {
    const auto word = words.substr(0, words.find_first_of(kSeparators));
    words.remove_prefix(std::min(word.size() + 1, words.size()));
    if (word == "public") treatment.isPublic = true;
    if (word == kPrivate) treatment.isPublic = false;
    if (ASLLog::valueDecodeSelectorForType(word) != nullptr) treatment.type = word;
  }
  return treatment;
}

/// The first pass.
class FormatRewriter {
 public:
  explicit FormatRewriter(std::string_view format) : format_(format) {}

  /// False when the format cannot be understood.
  bool run();

  /// Empty when no value is to be replaced.
  const std::string& marker() const { return marker_; }
  /// The format itself when no value is to be replaced: all that rewriting would do is to drop annotations,
  /// which the formatter takes no notice of.
  std::string_view result() const { return marker_.empty() ? format_ : std::string_view(rewritten_); }

 private:
  bool scan();
  bool takeSpecification(const FormatSpecification& specification);
  bool keepsToPositions(const FormatSpecification& specification);
  void append(const FormatNumber& number);
  void append(const FormatSpecification& specification);
  void appendHidden(const FormatSpecification& specification, const Treatment& treatment);
  void appendBinaryData(FormatSpecification specification);

  const std::string_view format_;
  std::string marker_;
  std::string rewritten_;
  std::size_t copied_ = 0;  // what of the format is in `rewritten_`
  // Of one scan.
  bool isRewriting_ = false;  // from the first conversion on that is annotated, private or "P"
  bool hasHidden_ = false;    // a value is to be replaced
  bool hasPositions_ = false;
};

bool FormatRewriter::run() {
  if (!scan()) return false;
  if (!hasHidden_) return true;
  marker_ = unusedMarker(format_);
  rewritten_.reserve(format_.size() + kRoomForMarkers);
  scan();
  rewritten_ += format_.substr(copied_);
  return true;
}

/// The first finds out whether the format can be understood, and whether a second is needed, which writes.
bool FormatRewriter::scan() {
  isRewriting_ = hasPositions_ = false;
  for (std::size_t percent = format_.find('%'); percent != std::string_view::npos;) {
    std::size_t end = percent + 2;
    if (format_.substr(percent, 2) != "%%") {
      const auto specification = qx::log::parseFormatSpecification(format_, percent);
      if (!specification || !takeSpecification(*specification)) return false;
      end = percent + specification->text.size();
    }
    percent = format_.find('%', end);
  }
  return true;
}

bool FormatRewriter::takeSpecification(const FormatSpecification& specification) {
  if (!keepsToPositions(specification)) return false;
  const Treatment treatment = treatmentOf(specification);
  const bool isBinaryData = specification.conversion == 'P';
  if (!isRewriting_ && !specification.isAnnotated && treatment.isPublic) return true;

  isRewriting_ = true;
  if (!specification.isConversion() && !isBinaryData) return false;
  const bool isHidden = !treatment.isPublic || !treatment.type.empty() || isBinaryData;
  hasHidden_ |= isHidden;
  if (marker_.empty()) return true;

  const auto start = static_cast<std::size_t>(specification.text.data() - format_.data());
  rewritten_ += format_.substr(copied_, start - copied_);
  copied_ = start + specification.text.size();
  if (isHidden) {
    appendHidden(specification, treatment);
  } else {
    append(specification);
  }
  return true;
}

/// Once a conversion has named its argument's position, all must.
bool FormatRewriter::keepsToPositions(const FormatSpecification& specification) {
  if (!specification.position.empty()) hasPositions_ = true;
  if (!hasPositions_) return true;
  const auto isPositional = [](const FormatNumber& number) {
    return number.kind != FormatNumber::Kind::argument || !number.digits.empty();
  };
  return !specification.position.empty() && isPositional(specification.width) &&
         isPositional(specification.precision);
}

void FormatRewriter::append(const FormatNumber& number) {
  if (number.kind == FormatNumber::Kind::argument) rewritten_ += '*';
  rewritten_ += number.digits;
  if (number.kind == FormatNumber::Kind::argument && !number.digits.empty()) rewritten_ += '$';
}

/// Without its annotation.
void FormatRewriter::append(const FormatSpecification& specification) {
  rewritten_ += '%';
  if (!specification.position.empty()) (rewritten_ += specification.position) += '$';
  for (const char flag : FormatFlags::kCharacters) {
    if (specification.flags.has(flag)) rewritten_ += flag;
  }
  append(specification.width);
  if (specification.precision.kind != FormatNumber::Kind::none) rewritten_ += '.';
  append(specification.precision);
  rewritten_ += specification.length;
  rewritten_ += specification.conversion;
}

/// Behind the marker and the word for what is to become of the value, in brackets.
void FormatRewriter::appendHidden(const FormatSpecification& specification, const Treatment& treatment) {
  rewritten_ += marker_;
  FormatSpecification shown = specification;
  if (shown.conversion == 'P') shown.conversion = 'p';
  if (treatment.isPublic && treatment.type.empty()) return appendBinaryData(shown);
  rewritten_ += treatment.isPublic ? treatment.type : kPrivate;
  rewritten_ += '(';
  append(shown);
  rewritten_ += ')';
}

/// The length of the bytes becomes part of the word. One that is an argument without a position is used up
/// when it is printed, and so is the width before it: as the precision of the length, where it may add zeros.
void FormatRewriter::appendBinaryData(FormatSpecification specification) {
  rewritten_ += kBinaryData;
  FormatNumber& length = specification.precision;
  if (length.kind != FormatNumber::Kind::argument) {
    rewritten_ += length.digits;
  } else if (!length.digits.empty()) {
    ((rewritten_ += '%') += length.digits) += "$d";
  } else {
    const bool takesWidth = specification.width.kind == FormatNumber::Kind::argument;
    rewritten_ += takesWidth ? "%.*d" : "%d";
    if (takesWidth) specification.width = {};
    length = {};
  }
  rewritten_ += '(';
  append(specification);
  rewritten_ += ')';
}

std::optional<std::string> decodedValue(std::string_view type, std::string_view value,
                                        const ReadableMemory& memory) {
  if (const auto decode = ASLLog::valueDecodeSelectorForType(type)) return decode(value, memory);
  if (!type.starts_with(kBinaryData)) return std::nullopt;
  return qx::log::decodeBinaryData(type.substr(kBinaryData.size()), value, memory);
}

/// The second pass, after formatting; nothing when a marker is damaged or the text becomes too long.
std::optional<std::string> replaceMarkers(std::string_view text, std::string_view marker,
                                          const ReadableMemory& memory) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t start = text.find(marker); start != std::string_view::npos; start = text.find(marker)) {
    const std::size_t type = start + marker.size();
    const std::size_t open = text.find('(', type);
    if (open == std::string_view::npos) return std::nullopt;
    const std::size_t close = text.find(')', open);
    if (close == std::string_view::npos) return std::nullopt;
    const auto replacement =
        decodedValue(text.substr(type, open - type), text.substr(open + 1, close - open - 1), memory);
    result += text.substr(0, start);
    result += replacement ? std::string_view(*replacement) : "<unknown>";
    if (result.size() > qx::log::kLongestMessage) return std::nullopt;
    text.remove_prefix(close + 1);
  }
  if (text.size() > qx::log::kLongestMessage - result.size()) return std::nullopt;
  result += text;
  return result;
}

}  // namespace

std::optional<std::string> PLVFormatMessage(std::string_view format, std::span<const Argument> arguments) {
  FormatRewriter rewriter(format);
  if (!rewriter.run()) return std::nullopt;
  auto text = qx::log::formatMessage(rewriter.result(), arguments);
  if (!text || rewriter.marker().empty()) return text;
  ReadableMemory memory;
  for (const Argument& argument : arguments) {
    if (const auto* bytes = std::get_if<Argument::Bytes>(&argument.storage())) memory.add(*bytes);
  }
  return replaceMarkers(*text, rewriter.marker(), memory);
}
