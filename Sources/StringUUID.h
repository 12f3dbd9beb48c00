#pragma once

#include <span>
#include <string>
#include <string_view>

namespace NSStringUUID {

/// A new random UUID in its canonical form: 36 characters, upper-case hexadecimal. Any thread.
std::string stringWithUUID();

/// `text` with every occurrence of array[0] replaced by withArray[0], then of array[1] in that result, and
/// so on: a later pattern also sees what an earlier one put in. Empty patterns, and those past the end of
/// `withArray`, replace nothing. Linear in the text for each pattern. Any thread.
std::string replaceArray(std::string text, std::span<const std::string_view> array,
                         std::span<const std::string_view> withArray);

}  // namespace NSStringUUID
