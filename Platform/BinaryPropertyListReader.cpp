// Nothing in the file is believed: every reference, offset and count is checked where it is used. Objects may
// be shared, so a few hundred bytes can stand for any amount of content; the limits therefore count each
// object every time it is used. That also bounds a cycle, which can only run into the depth limit.

#include <optional>

#include <Platform/BinaryPropertyListFormat.h>
#include <Platform/PropertyList.h>
#include <Platform/Unicode.h>

namespace qx {
namespace {

using namespace bplist;

constexpr std::int64_t kPropertyListReadCorrupt = 3840;

class Reader {
 public:
  Reader(std::string_view file, const PropertyListLimits& limits)
      : file_(file),
        depthLimit_(limits.depth),
        valuesLeft_(limits.expandedValues),
        bytesLeft_(limits.expandedBytes) {}

  bool read(Value& top) {
    if (!file_.starts_with(kHeader)) return fail("no \"bplist00\" header", 0);
    if (file_.size() < kHeader.size() + kTrailerSize) return fail("no trailer", file_.size());
    return readTrailer() && takeValues(1, topObject_) && readObject(topObject_, nullptr, top);
  }

  std::string problem() const {
    return std::string("The binary property list is damaged: ") + problem_ + " at offset " +
           std::to_string(problemOffset_) + '.';
  }

 private:
  /// A collection being read, and the one around it.
  struct Enclosing {
    const Enclosing* outer;
    std::size_t offset;
    std::size_t depth;
  };

  /// Content behind a marker: where it starts, and the count that the marker gives.
  struct Content {
    std::size_t start;
    std::size_t count;
  };

  [[gnu::cold]] bool fail(const char* problem, std::size_t offset) {
    problem_ = problem;
    problemOffset_ = offset;
    return false;
  }

  std::uint64_t numberAt(std::size_t offset, std::size_t size) const {
    return readBigEndian(file_.data() + offset, size);
  }

  bool readTrailer() {
    const std::size_t trailer = file_.size() - kTrailerSize;
    offsetSize_ = numberAt(trailer + kOffsetSizeAt, 1);
    referenceSize_ = numberAt(trailer + kReferenceSizeAt, 1);
    objectCount_ = numberAt(trailer + kObjectCountAt, 8);
    const std::uint64_t topObject = numberAt(trailer + kTopObjectAt, 8);
    const std::uint64_t offsetTable = numberAt(trailer + kOffsetTableAt, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8)
      return fail("an offset size that is not 1 to 8", trailer + kOffsetSizeAt);
    if (referenceSize_ < 1 || referenceSize_ > 8) {
      return fail("a reference size that is not 1 to 8", trailer + kReferenceSizeAt);
    }
    if (offsetTable <= kHeader.size() || offsetTable > trailer) {
      return fail("an offset table outside the file", trailer + kOffsetTableAt);
    }
    if (objectCount_ > (trailer - offsetTable) / offsetSize_) {
      return fail("more objects than the offset table holds", trailer + kObjectCountAt);
    }
    if (topObject >= objectCount_) return fail("no such top object", trailer + kTopObjectAt);
    topObject_ = topObject;
    objectsEnd_ = offsetTable;
    return true;
  }

  bool takeValues(std::size_t count, std::size_t offset) {
    if (count > valuesLeft_) return fail("more values than the limit", offset);
    valuesLeft_ -= count;
    return true;
  }

  bool takeBytes(std::size_t count, std::size_t offset) {
    if (count > bytesLeft_) return fail("more string and data bytes than the limit", offset);
    bytesLeft_ -= count;
    return true;
  }

  /// Where object `number` starts.
  bool locate(std::uint64_t number, std::size_t& offset) {
    if (number >= objectCount_) return fail("a reference to no object", problemOffset_);
    const std::size_t entry = objectsEnd_ + number * offsetSize_;
    const std::uint64_t start = numberAt(entry, offsetSize_);
    if (start < kHeader.size() || start >= objectsEnd_) return fail("an offset outside the objects", entry);
    offset = start;
    return true;
  }

  bool readObject(std::uint64_t number, const Enclosing* enclosing, Value& value) {
    std::size_t offset = 0;
    if (!locate(number, offset)) return false;
    const auto marker = static_cast<std::uint8_t>(file_[offset]);
    switch (Kind{static_cast<std::uint8_t>(marker >> 4U)}) {
      case Kind::simple:
        return readBoolean(marker, offset, value);
      case Kind::integer:
        return readInteger(marker, offset, value);
      case Kind::real:
        return readReal(marker, offset, value);
      case Kind::date:
        return readDate(marker, offset, value);
      case Kind::data:
        return readData(offset, value);
      case Kind::asciiString:
      case Kind::utf16String:
        return readString(offset, value);
      case Kind::array:
        return readArray(offset, enclosing, value);
      case Kind::dictionary:
        return readDictionary(offset, enclosing, value);
    }
    return fail("an object of unknown kind", offset);
  }

  bool readBoolean(std::uint8_t marker, std::size_t offset, Value& value) {
    if (marker != kFalse && marker != kTrue) return fail("an object of unknown kind", offset);
    value = marker == kTrue;
    return true;
  }

  /// Whether `size` bytes stand behind the marker at `offset`.
  bool isWithin(std::size_t offset, std::size_t size) {
    return size < objectsEnd_ - offset || fail("an object that runs past the end", offset);
  }

  /// 1, 2 and 4 bytes are unsigned, 8 signed; 16 are signed, of which we have values for -2^63 to 2^64 - 1.
  bool readInteger(std::uint8_t marker, std::size_t offset, Value& value) {
    const unsigned exponent = marker & 0xFU;
    if (exponent > 4) return fail("an integer of unknown size", offset);
    const std::size_t size = std::size_t{1} << exponent;
    if (!isWithin(offset, size)) return false;
    if (size <= 8) {
      value = static_cast<std::int64_t>(numberAt(offset + 1, size));
      return true;
    }
    const auto high = static_cast<std::int64_t>(numberAt(offset + 1, 8));
    const std::uint64_t low = numberAt(offset + 9, 8);
    const auto signedLow = static_cast<std::int64_t>(low);
    if (high != 0 && (high != -1 || signedLow >= 0)) return fail("an integer of more than 64 bits", offset);
    value = high == 0 ? Value(low) : Value(signedLow);
    return true;
  }

  bool readReal(std::uint8_t marker, std::size_t offset, Value& value) {
    if (marker != kReal32 && marker != kReal64) return fail("a real of unknown size", offset);
    const std::size_t size = marker == kReal32 ? 4 : 8;
    if (!isWithin(offset, size)) return false;
    const std::uint64_t bits = numberAt(offset + 1, size);
    value = size == 8 ? std::bit_cast<double>(bits)
                      : double{std::bit_cast<float>(static_cast<std::uint32_t>(bits))};
    return true;
  }

  bool readDate(std::uint8_t marker, std::size_t offset, Value& value) {
    if (marker != kDate) return fail("a date of unknown size", offset);
    if (!isWithin(offset, 8)) return false;
    value = Date{std::bit_cast<double>(numberAt(offset + 1, 8))};
    return true;
  }

  /// Of a counted object whose units have `unitSize` bytes; all of them are within the file.
  bool readHead(std::size_t offset, std::size_t unitSize, Content& content) {
    std::uint64_t count = static_cast<unsigned char>(file_[offset]) & 0xFU;
    std::size_t start = offset + 1;
    if (count == kCountFollows) {
      if (!isWithin(offset, 1)) return false;
      const auto marker = static_cast<unsigned char>(file_[start]);
      if (marker < 0x10 || marker > 0x13) return fail("a count that is no integer", start);
      const std::size_t size = std::size_t{1} << (marker & 0xFU);
      if (!isWithin(start, size)) return false;
      count = numberAt(start + 1, size);
      start += 1 + size;
    }
    if (count > (objectsEnd_ - start) / unitSize) return fail("an object that runs past the end", offset);
    content = {start, count};
    return true;
  }

  bool readData(std::size_t offset, Value& value) {
    Content content{};
    if (!readHead(offset, 1, content) || !takeBytes(content.count, offset)) return false;
    value = Data(std::string(file_.substr(content.start, content.count)));
    return true;
  }

  bool readString(std::size_t offset, Value& value) {
    std::string text;
    if (!readText(offset, text)) return false;
    value = Value(std::move(text));
    return true;
  }

  bool readText(std::size_t offset, std::string& text) {
    const unsigned kind = static_cast<unsigned char>(file_[offset]) >> 4U;
    if (kind == static_cast<unsigned>(Kind::asciiString)) return readASCII(offset, text);
    if (kind == static_cast<unsigned>(Kind::utf16String)) return readUTF16(offset, text);
    return fail("a key that is no string", offset);
  }

  bool readASCII(std::size_t offset, std::string& text) {
    Content content{};
    if (!readHead(offset, 1, content) || !takeBytes(content.count, offset)) return false;
    const std::string_view bytes(file_.data() + content.start, content.count);
    if (!unicode::isASCII(bytes)) return fail("a string that is not ASCII", offset);
    text = std::string(bytes);
    return true;
  }

  bool readUTF16(std::size_t offset, std::string& text) {
    Content content{};
    if (!readHead(offset, 2, content) || !takeBytes(content.count, offset)) return false;
    text.reserve(content.count);
    const std::size_t end = content.start + 2 * content.count;
    for (std::size_t position = content.start; position < end;) {
      auto point = static_cast<char32_t>(numberAt(position, 2));
      position += 2;
      if (point >= 0xD800 && point <= 0xDFFF) {
        const auto low = position < end ? static_cast<char32_t>(numberAt(position, 2)) : 0;
        if (point > 0xDBFF || low < 0xDC00 || low > 0xDFFF)
          return fail("a string that is not UTF-16", offset);
        point = 0x10000 + ((point - 0xD800) << 10U) + (low - 0xDC00);
        position += 2;
      }
      unicode::appendUTF8(text, point);
    }
    return takeBytes(text.size() - content.count, offset);
  }

  bool enter(std::size_t offset, const Enclosing* outer, Enclosing& entered) {
    const std::size_t depth = outer != nullptr ? outer->depth + 1 : 1;
    entered = {outer, offset, depth};
    if (depth <= depthLimit_) return true;
    for (; outer != nullptr; outer = outer->outer) {
      if (outer->offset == offset) return fail("a collection that contains itself", offset);
    }
    return fail("more collections inside each other than the limit", offset);
  }

  /// The object number that the collection's reference `index` gives.
  std::uint64_t reference(const Content& content, std::size_t index) {
    problemOffset_ = content.start + index * referenceSize_;
    return numberAt(problemOffset_, referenceSize_);
  }

  bool readArray(std::size_t offset, const Enclosing* outer, Value& value) {
    Enclosing self{};
    Content content{};
    if (!enter(offset, outer, self) || !readHead(offset, referenceSize_, content)) return false;
    if (!takeValues(content.count, offset)) return false;
    Array array(content.count);
    for (std::size_t i = 0; i < content.count; ++i) {
      if (!readObject(reference(content, i), &self, array[i])) return false;
    }
    value = std::move(array);
    return true;
  }

  bool readDictionary(std::size_t offset, const Enclosing* outer, Value& value) {
    Enclosing self{};
    Content content{};
    if (!enter(offset, outer, self) || !readHead(offset, 2 * referenceSize_, content)) return false;
    if (!takeValues(2 * content.count, offset)) return false;
    std::vector<Dictionary::Entry> entries;
    entries.reserve(content.count);
    for (std::size_t i = 0; i < content.count; ++i) {
      auto& [name, named] = entries.emplace_back();
      std::size_t key = 0;
      if (!locate(reference(content, i), key) || !readText(key, name)) return false;
      if (!readObject(reference(content, content.count + i), &self, named)) return false;
    }
    value = Dictionary::fromEntries(std::move(entries));
    return true;
  }

  std::string_view file_;
  std::size_t depthLimit_;
  std::size_t valuesLeft_;
  std::size_t bytesLeft_;
  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::uint64_t objectCount_ = 0;
  std::uint64_t topObject_ = 0;
  std::size_t objectsEnd_ = 0;  // the offset table starts here
  const char* problem_ = "";
  std::size_t problemOffset_ = 0;  // of the last reference read, until something fails
};

}  // namespace

std::optional<Value> readBinaryPropertyList(std::string_view bytes, ErrorPtr* error,
                                            const PropertyListLimits& limits) {
  if (bytes.size() > limits.bytes) {
    setError(error, Error::make(kCocoaErrorDomain, kPropertyListReadCorrupt,
                                "The binary property list has " + std::to_string(bytes.size()) +
                                    " bytes, more than the limit of " + std::to_string(limits.bytes) + '.'));
    return std::nullopt;
  }
  Reader reader(bytes, limits);
  std::optional<Value> value(std::in_place);
  if (!reader.read(*value)) {
    setError(error, Error::make(kCocoaErrorDomain, kPropertyListReadCorrupt, reader.problem()));
    return std::nullopt;
  }
  return value;
}

}  // namespace qx
