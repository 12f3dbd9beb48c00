#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qx::detail {

/// The text round `position`, up to `reach` bytes of it on each side, fit for a message: control characters
/// and malformed UTF-8 are escaped, and "…" stands for what is left out. Never throws but for memory.
std::string excerpt(std::string_view text, std::size_t position, std::size_t reach);

}  // namespace qx::detail
