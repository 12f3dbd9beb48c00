#pragma once

#include <string>
#include <string_view>

namespace qx::log {

/// A method's full name as log lines show it, "-[QXDatabaseAccessor initPrivately]" ("+[...]" for a static
/// one), from what __PRETTY_FUNCTION__ says of it; the plain name of a function that is no class's, and of
/// the function around a lambda. `prettyFunction` itself when it has another form. Any thread.
std::string methodName(std::string_view prettyFunction);

}  // namespace qx::log
