#pragma once

#include <cstddef>

// The library as a module: built once as it is, and once with its log calls compiled out. Both are opened in
// one process, each with a store of its own, and take turns.

extern "C" {
/// Opens the store below `volumeRoot` and makes `count` events to add. False after a failure, which it
/// prints.
using PrepareAdds = bool (*)(const char* volumeRoot, std::size_t count);
/// Adds event `number`; how long that took, in nanoseconds, or less than 0.
using AddEvent = double (*)(std::size_t number);
}
