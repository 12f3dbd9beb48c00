#pragma once

#include <array>
#include <optional>
#include <string_view>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/PreferenceScope.h>
#include <QXEventStoring/Platform/Value.h>

namespace qx {

/// All of them, in the order in which they count.
inline constexpr std::array kPreferenceScopes{PreferenceScope::currentUserCurrentHost,
                                              PreferenceScope::currentUserAnyHost,
                                              PreferenceScope::anyUserCurrentHost};

/// The file that holds a suite's preferences in a scope, one XML property list with a dictionary:
/// "$XDG_CONFIG_HOME/QXEventStoring/ByHost/<suite>.<machine>.plist" (<machine>: /etc/machine-id, else the
/// host name), "$XDG_CONFIG_HOME/QXEventStoring/<suite>.plist", and "/etc/xdg/QXEventStoring/<suite>.plist"
/// under the volume root. Without an absolute XDG_CONFIG_HOME it is "$HOME/.config", else the ".config" of
/// the user's home directory; a program with rights that its caller has not (set-user-ID) takes the last.
/// Nothing for a suite that is no file name (empty, with "/" or a NUL, too long) or a user without a home.
/// Names: XDG Base Directory Specification 0.8. Any thread.
String preferencesPath(std::string_view suite, PreferenceScope scope);

/// The value of `key` as the file holds it now; nothing when there is none. *error of NSCocoaErrorDomain is
/// set when the file is there and cannot be used (unreadable, no property list, no dictionary, larger than a
/// list may be). Any thread.
std::optional<Value> preferenceValue(std::string_view key, std::string_view suite, PreferenceScope scope,
                                     ErrorPtr* error = nullptr);

/// Sets `key`, or removes it with no value, and writes the file at once: other writers wait, readers see the
/// old file or the new one. Directories are made as needed, the user's own for nobody else (0700, and files
/// 0600); files for every user are for all to read. What is there and is no regular file with a dictionary, a
/// symbolic link included, is an error and stays as it is; so is a link in place of a directory below the
/// user's configuration directory or the volume root. False with *error of NSCocoaErrorDomain set when
/// nothing was changed: that, 514 for a suite without file, 3851 for a value that no XML property list holds
/// or a file that would be too large to read, or what the system refused (a lock that another process does
/// not let go for 5 seconds included). Any thread.
bool setPreferenceValue(const std::optional<Value>& value, std::string_view key, std::string_view suite,
                        PreferenceScope scope, ErrorPtr* error = nullptr);

}  // namespace qx
