#include <array>

#include <uuid/uuid.h>

#include <Platform/UUID.h>

namespace qx {
namespace {

constexpr std::size_t kTextLength = UUID_STR_LEN - 1;

// The name space of our version 5 UUIDs: a random UUID, chosen once; stored names depend on it.
constexpr uuid_t kNameSpace = {0x6B, 0x1F, 0x0E, 0x52, 0xA3, 0xC7, 0x4D, 0x0B,
                               0x9C, 0x35, 0x5D, 0xE8, 0x47, 0x72, 0xF1, 0x9A};

}  // namespace

std::string makeUUID() {
  uuid_t bytes;
  uuid_generate_random(bytes);
  std::array<char, UUID_STR_LEN> text{};
  uuid_unparse_upper(bytes, text.data());
  return text.data();
}

bool isUUID(std::string_view text) {
  uuid_t bytes;
  return text.size() == kTextLength && uuid_parse_range(text.data(), text.data() + text.size(), bytes) == 0;
}

std::string nameUUIDBytes(std::string_view text) {
  uuid_t bytes;
  uuid_generate_sha1(bytes, kNameSpace, text.data(), text.size());
  return {reinterpret_cast<const char*>(bytes), sizeof(bytes)};
}

}  // namespace qx
