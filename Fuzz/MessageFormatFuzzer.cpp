// A format and its arguments, both hostile: whatever they are, the text is well-formed and short, and shows
// no text that the format does not make public.
//
// The first line of the input is the format, each further one an argument: a letter for its kind, and its
// content.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <Logging/MessageFormatter.h>
#include <Logging/PLVFormatMessage.h>

namespace {

using qx::log::Argument;

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

std::string_view takeLine(std::string_view& input) {
  const auto line = input.substr(0, input.find('\n'));
  input.remove_prefix(std::min(line.size() + 1, input.size()));
  return line;
}

/// Makes arguments, and keeps what they point to in blocks of its own, so that a read past an end is found.
class ArgumentMaker {
 public:
  explicit ArgumentMaker(const std::string& secret) : secret_(secret) {}

  Argument make(std::string_view line) {
    const char kind = line.empty() ? 'n' : line.front();
    const auto content = line.substr(std::min<std::size_t>(1, line.size()));
    const std::string text(content);
    const long long number = std::strtoll(text.c_str(), nullptr, 0);
    switch (kind) {
      case 'i':
        return static_cast<int>(number);
      case 'u':
        return static_cast<unsigned>(number);
      case 'l':
        return number;
      case 'z':
        return static_cast<std::size_t>(number);
      case 'f':
        return std::strtod(text.c_str(), nullptr);
      case 's':
        return std::string_view(keep(content), content.size());
      case 'o':
        return std::string(content);
      case 'w':
        return std::u16string_view(reinterpret_cast<const char16_t*>(keep(content)), content.size() / 2);
      case 'b':
        bytes_ = std::as_bytes(std::span(keep(content), content.size()));
        return bytes_;
      case 'a':
        return reinterpret_cast<const void*>(number);
      case 'm':
        return text + '(' + addressOfBytes() + ')';
      case 'x':
        return secret_;
      default:
        return nullptr;
    }
  }

 private:
  const char* keep(std::string_view content) {
    auto& block = blocks_.emplace_back(std::make_unique<char[]>(content.size()));
    std::memcpy(block.get(), content.data(), content.size());
    return block.get();
  }

  /// In hexadecimal, of the latest bytes.
  std::string addressOfBytes() const {
    char text[32];
    std::snprintf(text, sizeof(text), "%p", static_cast<const void*>(bytes_.data()));
    return text;
  }

  const std::string& secret_;
  std::vector<std::unique_ptr<char[]>> blocks_;
  Argument::Bytes bytes_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  // Another one for each input, so that no input can contain its own.
  const std::string secret = "secret " + std::to_string(std::hash<std::string_view>{}(input));
  const auto format = takeLine(input);
  ArgumentMaker maker(secret);
  std::vector<Argument> arguments;
  while (!input.empty())
    arguments.push_back(maker.make(takeLine(input)));

  const auto text = PLVFormatMessage(format, arguments);
  if (!text) return 0;
  require(text->size() <= qx::log::kLongestMessage, "the text is short enough");
  require(qx::isValidUTF8(*text) || !qx::isValidUTF8(format), "the text is well-formed");
  const bool mayShow = format.find("public") != std::string_view::npos;
  require(mayShow || text->find(secret) == std::string::npos, "what is private stays so");
  return 0;
}
