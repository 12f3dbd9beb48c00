// libplist reads and writes the XML. Its nodes hold dates in 32 bits and do not tell -1 from 2^64 - 1, so
// values pass to and from it as binary property lists, which are exact on both sides.

#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <plist/plist.h>

#include <Platform/PropertyList.h>
#include <Platform/XMLMarkup.h>

namespace qx {
namespace {

constexpr std::size_t kMostBytes = 1U << 20U;

constexpr std::int64_t kFileReadUnknown = 256;
constexpr std::int64_t kFileReadNoPermission = 257;
constexpr std::int64_t kFileReadNoSuchFile = 260;
constexpr std::int64_t kPropertyListReadCorrupt = 3840;
constexpr std::int64_t kPropertyListWriteInvalid = 3851;

using Node = std::unique_ptr<void, decltype(&plist_free)>;
using Buffer = std::unique_ptr<char, decltype(&std::free)>;

/// Numbers are spelt the C way while one of these lives, whatever the process's locale; of this thread only.
class CLocale {
 public:
  CLocale() : locale_(newlocale(LC_ALL_MASK, "C", nullptr)), previous_(uselocale(locale_)) {}
  ~CLocale() {
    uselocale(previous_);
    freelocale(locale_);
  }
  CLocale(const CLocale&) = delete;
  CLocale& operator=(const CLocale&) = delete;

 private:
  locale_t locale_;
  locale_t previous_;
};

using Conversion = void (*)(plist_t node, char** bytes, std::uint32_t* size);

std::optional<std::string> convert(const Node& node, Conversion conversion) {
  char* bytes = nullptr;
  std::uint32_t size = 0;
  if (node) conversion(node.get(), &bytes, &size);
  const Buffer owned(bytes, &std::free);
  return owned ? std::optional<std::string>(std::in_place, bytes, size) : std::nullopt;
}

std::nullopt_t refuseRead(ErrorPtr* error, const std::string& problem) {
  setError(error, Error::make(kCocoaErrorDomain, kPropertyListReadCorrupt,
                              "The XML property list has " + problem + '.'));
  return std::nullopt;
}

std::nullopt_t refuseWrite(ErrorPtr* error, const std::string& problem) {
  setError(error, Error::make(kCocoaErrorDomain, kPropertyListWriteInvalid,
                              "An XML property list cannot hold " + problem + '.'));
  return std::nullopt;
}

/// The characters of XML 1.0, production [2], of which the ones past ASCII are taken as they are.
bool isXMLText(std::string_view text) {
  constexpr std::string_view kNonCharacters[] = {"\xEF\xBF\xBE", "\xEF\xBF\xBF"};
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r') return false;
  }
  return text.find(kNonCharacters[0]) == std::string_view::npos &&
         text.find(kNonCharacters[1]) == std::string_view::npos;
}

/// libplist does not pad earlier years with zeros, as the form of the date wants it.
bool hasFourDigitYear(const Date& date) {
  const char first = date.toRFC3339().front();
  return first >= '1' && first <= '9';
}

/// What of `value` XML cannot hold although a binary property list could; null when there is nothing.
const char* problemForXML(const Value& value, std::size_t level) {
  constexpr auto kControl = "a string with control characters";
  constexpr auto kFarDate = "a date outside the years 1000 to 9999";
  const bool isCollection = value.asArray() != nullptr || value.asDictionary() != nullptr;
  if (isCollection && level == kMostXMLPropertyListLevels)
    return "more than 64 collections inside each other";
  if (const auto* text = value.asString()) return isXMLText(*text) ? nullptr : kControl;
  if (const auto* date = value.asDate()) return hasFourDigitYear(*date) ? nullptr : kFarDate;
  const char* problem = nullptr;
  if (const auto* array = value.asArray()) {
    for (auto item = array->begin(); item != array->end() && problem == nullptr; ++item) {
      problem = problemForXML(*item, level + 1);
    }
  }
  if (const auto* dictionary = value.asDictionary()) {
    for (auto entry = dictionary->begin(); entry != dictionary->end() && problem == nullptr; ++entry) {
      problem = isXMLText(entry->first) ? problemForXML(entry->second, level + 1) : kControl;
    }
  }
  return problem;
}

/// The error of the failed system call on `path`.
std::nullopt_t failFile(ErrorPtr* error, const std::string& path, int number) {
  const std::string reason = std::strerror(number);
  Error::Details details;
  details.description = "The property list file \"" + path + "\" could not be read: " + reason + '.';
  details.underlying = Error::make(kPOSIXErrorDomain, number, reason);
  const auto code = number == ENOENT   ? kFileReadNoSuchFile
                    : number == EACCES ? kFileReadNoPermission
                                       : kFileReadUnknown;
  setError(error, Error::make(kCocoaErrorDomain, code, std::move(details)));
  return std::nullopt;
}

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int number() const { return number_; }

 private:
  int number_;
};

/// Reads up to one byte past the limit, which the reader of the content then refuses. False: see errno.
bool readAll(int file, std::string& content) {
  content.resize(kMostBytes + 1);
  std::size_t size = 0;
  while (size < content.size()) {
    const ssize_t count = read(file, content.data() + size, content.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
  }
  content.resize(size);
  return true;
}

}  // namespace

std::optional<Value> readXMLPropertyList(std::string_view bytes, ErrorPtr* error) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (bytes.size() > kMostBytes)
    return refuseRead(error, "more than " + std::to_string(kMostBytes) + " bytes");
  if (bytes.starts_with(kByteOrderMark)) bytes.remove_prefix(kByteOrderMark.size());
  if (!isValidUTF8(bytes) || !isXMLText(bytes))
    return refuseRead(error, "text that is not UTF-8, or control characters");
  if (const auto problem = problemInXMLPropertyList(bytes)) return refuseRead(error, *problem);

  const CLocale numbersInC;
  plist_t root = nullptr;
  plist_from_xml(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
  const Node node(root, &plist_free);
  const auto binary = convert(node, [](plist_t n, char** b, std::uint32_t* s) { plist_to_bin(n, b, s); });
  if (!binary)
    return refuseRead(error, "no property list in it, or markup that a property list does not have");
  return readBinaryPropertyList(*binary, error);
}

std::optional<Value> readXMLPropertyListFile(const std::string& path, ErrorPtr* error) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (file.number() < 0 || fstat(file.number(), &status) != 0) return failFile(error, path, errno);
  if (!S_ISREG(status.st_mode)) return failFile(error, path, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  std::string content;
  if (!readAll(file.number(), content)) return failFile(error, path, errno);

  ErrorPtr problem;
  auto value = readXMLPropertyList(content, &problem);
  if (value) return value;
  Error::Details details;
  details.description =
      "The file \"" + path + "\" holds no property list. " + problem->localizedDescription();
  details.underlying = problem;
  setError(error, Error::make(problem->domain(), problem->code(), std::move(details)));
  return std::nullopt;
}

std::optional<std::string> writeXMLPropertyList(const Value& value, ErrorPtr* error) {
  if (const char* problem = problemForXML(value, 0)) return refuseWrite(error, problem);
  const auto binary = writeBinaryPropertyList(value, error);
  if (!binary) return std::nullopt;

  const CLocale numbersInC;
  plist_t root = nullptr;
  plist_from_bin(binary->data(), static_cast<std::uint32_t>(binary->size()), &root);
  const Node node(root, &plist_free);
  auto text = convert(node, [](plist_t n, char** b, std::uint32_t* s) { plist_to_xml(n, b, s); });
  if (!text || text->size() > kMostBytes)
    return refuseWrite(error, "more than " + std::to_string(kMostBytes) + " bytes");
  return text;
}

}  // namespace qx
