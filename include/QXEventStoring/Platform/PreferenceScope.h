#pragma once

namespace qx {

/// Whose a preference is: the user's on this machine alone, the user's on every machine that shares the home
/// directory, or every user's on this machine. What comes first counts first.
enum class PreferenceScope { currentUserCurrentHost, currentUserAnyHost, anyUserCurrentHost };

}  // namespace qx
