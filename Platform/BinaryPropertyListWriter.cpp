// Writing takes two passes: the first refuses what the format cannot hold and finds every size, the second
// writes each byte once, in place. Nothing is shared, so that equal contents give equal bytes.
//
// The content of a collection gets consecutive object numbers, at the moment the collection itself is
// written; the objects then follow depth first, each entering its own offset into the table.

#include <array>
#include <optional>

#include <Platform/BinaryPropertyListFormat.h>
#include <Platform/PropertyList.h>
#include <Platform/Unicode.h>

namespace qx {
namespace {

using namespace bplist;

constexpr std::int64_t kPropertyListWriteInvalid = 3851;

std::size_t integerSize(std::int64_t number) {
  return number < 0 ? 8 : bytesFor(static_cast<std::uint64_t>(number));
}

/// Bytes of the marker and of the count where it does not fit in.
std::size_t headSize(std::uint64_t count) {
  return count < kCountFollows ? 1 : 2 + bytesFor(count);
}

/// UTF-16 units of `text`; empty when it is not UTF-8.
std::optional<std::size_t> utf16Length(std::string_view text) {
  std::size_t units = 0;
  for (std::size_t position = 0; position < text.size();) {
    const char32_t point = unicode::decodeUTF8(text, position);
    if (point == unicode::kIllFormed) return std::nullopt;
    units += point < 0x10000 ? 1 : 2;
  }
  return units;
}

/// The first pass: counts, or names what cannot be written and where.
class Measure {
 public:
  bool add(const Value& value, std::size_t depth) {
    if (++objects > PropertyListLimits{}.expandedValues) return refuse("so many values");
    switch (value.kind()) {
      case Value::Kind::null:
        return refuse("the null marker");
      case Value::Kind::boolean:
        objectBytes += 1;
        return true;
      case Value::Kind::integer:
        objectBytes += 1 + integerSize(*value.asInteger());
        return true;
      case Value::Kind::unsignedInteger:
        objectBytes += 1 + 16;
        return true;
      case Value::Kind::real:
      case Value::Kind::date:
        objectBytes += 1 + 8;
        return true;
      case Value::Kind::string:
        return addString(*value.asString());
      case Value::Kind::data:
        addCounted(value.asData()->size());
        return true;
      case Value::Kind::array:
        return addArray(*value.asArray(), depth);
      case Value::Kind::dictionary:
        return addDictionary(*value.asDictionary(), depth);
    }
    return false;
  }

  /// "<what> at key "a", index 3 cannot be ...".
  std::string problem() const {
    std::string where;
    for (auto step = path_.rbegin(); step != path_.rend(); ++step) {
      where += (where.empty() ? " at " : ", ") + *step;
    }
    return "A property list cannot hold " + problem_ + where + '.';
  }

  /// Whether a reader with the usual limits takes it; to be asked in the end.
  bool fits() { return objectBytes <= PropertyListLimits{}.expandedBytes / 2 || refuse("so many bytes"); }

  std::uint64_t objects = 0;
  std::uint64_t objectBytes = 0;  // without references
  std::uint64_t references = 0;

 private:
  static constexpr std::size_t kMostStepsNamed = 16;

  bool refuse(std::string problem) {
    problem_ = std::move(problem);
    return false;
  }

  bool refuseBelow(std::string step) {
    if (path_.size() < kMostStepsNamed) path_.push_back(std::move(step));
    return false;
  }

  void addCounted(std::uint64_t count, std::uint64_t unitSize = 1) {
    objectBytes += headSize(count) + count * unitSize;
  }

  bool addString(std::string_view text) {
    if (unicode::isASCII(text)) {
      addCounted(text.size());
      return true;
    }
    const auto units = utf16Length(text);
    if (!units) return refuse("a string that is not UTF-8");
    addCounted(*units, 2);
    return true;
  }

  bool addArray(const Array& array, std::size_t depth) {
    if (depth == PropertyListLimits{}.depth) return refuseDepth();
    objectBytes += headSize(array.size());
    references += array.size();
    for (const Value& value : array) {
      if (!add(value, depth + 1)) return refuseBelow("index " + std::to_string(&value - array.data()));
    }
    return true;
  }

  bool addDictionary(const Dictionary& dictionary, std::size_t depth) {
    if (depth == PropertyListLimits{}.depth) return refuseDepth();
    objectBytes += headSize(dictionary.size());
    references += 2 * dictionary.size();
    for (const auto& [key, value] : dictionary) {
      ++objects;
      if (!addString(key) || !add(value, depth + 1)) return refuseBelow("key " + Value(key).description());
    }
    return true;
  }

  bool refuseDepth() {
    return refuse("more than " + std::to_string(PropertyListLimits{}.depth) +
                  " collections inside each other");
  }

  std::string problem_;
  std::vector<std::string> path_;  // from the refused value outwards
};

/// The second pass. Cannot fail.
class Writer {
 public:
  explicit Writer(const Measure& measure)
      : referenceSize_(bytesFor(measure.objects)),
        offsetTable_(kHeader.size() + measure.objectBytes + measure.references * referenceSize_),
        offsetSize_(bytesFor(offsetTable_)),
        objects_(measure.objects),
        file_(offsetTable_ + objects_ * offsetSize_ + kTrailerSize, '\0') {}

  std::string write(const Value& top) {
    std::memcpy(file_.data(), kHeader.data(), kHeader.size());
    cursor_ = file_.data() + kHeader.size();
    writeObject(0, top);
    writeTrailer();
    return std::move(file_);
  }

 private:
  void writeObject(std::uint64_t number, const Value& value) {
    startObject(number);
    switch (value.kind()) {
      case Value::Kind::null:
        break;  // refused by the first pass
      case Value::Kind::boolean:
        put(*value.asBool() ? kTrue : kFalse, 1);
        break;
      case Value::Kind::integer:
        writeInteger(*value.asInteger());
        break;
      case Value::Kind::unsignedInteger:
        writeUnsigned(*value.asUnsigned());
        break;
      case Value::Kind::real:
        writeDouble(kReal64, *value.asReal());
        break;
      case Value::Kind::date:
        writeDouble(kDate, value.asDate()->secondsSinceReferenceDate);
        break;
      case Value::Kind::string:
        writeString(*value.asString());
        break;
      case Value::Kind::data:
        writeBytes(Kind::data, value.asData()->bytes());
        break;
      case Value::Kind::array:
        writeArray(*value.asArray());
        break;
      case Value::Kind::dictionary:
        writeDictionary(*value.asDictionary());
        break;
    }
  }

  void startObject(std::uint64_t number) {
    const auto offset = static_cast<std::uint64_t>(cursor_ - file_.data());
    writeBigEndian(file_.data() + offsetTable_ + number * offsetSize_, offset, offsetSize_);
  }

  void put(std::uint64_t number, std::size_t size) {
    writeBigEndian(cursor_, number, size);
    cursor_ += size;
  }

  void putMarker(Kind kind, unsigned low) { put(static_cast<unsigned>(kind) << 4U | low, 1); }

  /// The marker of an integer has the exponent of its size.
  void writeInteger(std::int64_t number) {
    const std::size_t size = integerSize(number);
    putMarker(Kind::integer, static_cast<unsigned>(std::countr_zero(size)));
    put(static_cast<std::uint64_t>(number), size);
  }

  void writeUnsigned(std::uint64_t number) {
    putMarker(Kind::integer, 4);
    put(0, 8);
    put(number, 8);
  }

  void writeDouble(std::uint8_t marker, double number) {
    put(marker, 1);
    put(std::bit_cast<std::uint64_t>(number), 8);
  }

  void putHead(Kind kind, std::uint64_t count) {
    if (count < kCountFollows) {
      putMarker(kind, static_cast<unsigned>(count));
      return;
    }
    putMarker(kind, kCountFollows);
    writeInteger(static_cast<std::int64_t>(count));
  }

  void writeBytes(Kind kind, std::string_view bytes) {
    putHead(kind, bytes.size());
    bytes.copy(cursor_, bytes.size());
    cursor_ += bytes.size();
  }

  void writeString(std::string_view text) {
    if (unicode::isASCII(text)) {
      writeBytes(Kind::asciiString, text);
      return;
    }
    putHead(Kind::utf16String, *utf16Length(text));
    for (std::size_t position = 0; position < text.size();) {
      const char32_t point = unicode::decodeUTF8(text, position);
      if (point < 0x10000) {
        put(point, 2);
      } else {
        put(0xD800 + ((point - 0x10000) >> 10U), 2);
        put(0xDC00 + ((point - 0x10000) & 0x3FFU), 2);
      }
    }
  }

  /// The numbers of the content, which are the next `count`; the first of them.
  std::uint64_t putReferences(std::uint64_t count) {
    const std::uint64_t first = nextNumber_;
    nextNumber_ += count;
    for (std::uint64_t number = first; number < nextNumber_; ++number)
      put(number, referenceSize_);
    return first;
  }

  void writeArray(const Array& array) {
    putHead(Kind::array, array.size());
    std::uint64_t number = putReferences(array.size());
    for (const Value& value : array)
      writeObject(number++, value);
  }

  void writeDictionary(const Dictionary& dictionary) {
    putHead(Kind::dictionary, dictionary.size());
    std::uint64_t keyNumber = putReferences(2 * dictionary.size());
    std::uint64_t valueNumber = keyNumber + dictionary.size();
    for (const auto& [key, value] : dictionary) {
      startObject(keyNumber++);
      writeString(key);
      writeObject(valueNumber++, value);
    }
  }

  void writeTrailer() {
    char* trailer = file_.data() + file_.size() - kTrailerSize;
    trailer[kOffsetSizeAt] = static_cast<char>(offsetSize_);
    trailer[kReferenceSizeAt] = static_cast<char>(referenceSize_);
    writeBigEndian(trailer + kObjectCountAt, objects_, 8);
    writeBigEndian(trailer + kOffsetTableAt, offsetTable_, 8);
  }

  std::size_t referenceSize_;
  std::size_t offsetTable_;
  std::size_t offsetSize_;
  std::uint64_t objects_;
  std::string file_;
  char* cursor_ = nullptr;
  std::uint64_t nextNumber_ = 1;
};

}  // namespace

std::optional<std::string> writeBinaryPropertyList(const Value& value, ErrorPtr* error) {
  Measure measure;
  if (!measure.add(value, 0) || !measure.fits()) {
    setError(error, Error::make(kCocoaErrorDomain, kPropertyListWriteInvalid, measure.problem()));
    return std::nullopt;
  }
  return Writer(measure).write(value);
}

}  // namespace qx
