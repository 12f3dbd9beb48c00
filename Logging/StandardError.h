#pragma once

#include <string_view>

namespace qx::log {

/// Writes `line` to standard error without waiting: what a pipe, terminal or socket does not take at once is
/// kept and written from the background loop, up to 1 MiB, the rest dropped and counted like LogTransport's;
/// a file is written directly. A closed or broken standard error loses the line and raises no signal. Lines
/// of several threads are not mixed. Keeps errno; throws nothing. Any thread.
void writeToStandardError(std::string_view line);

}  // namespace qx::log
