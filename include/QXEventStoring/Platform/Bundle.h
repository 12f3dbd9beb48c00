#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Export.h>
#include <QXEventStoring/Platform/Value.h>

namespace qx {

/// A directory with a program or library and its resources. Immutable once made, copies are cheap; any
/// thread.
///
/// An application bundle is a directory with "Contents/Info.plist"; its executable is
/// "Contents/MacOS/<CFBundleExecutable>". A plain executable is a bundle with no Info.plist.
class QX_EXPORT Bundle {
 public:
  /// The bundle of the running program. Its identifier is the one given to setMainBundleIdentifier(),
  /// else that of the application bundle around the executable, else none.
  static const Bundle& mainBundle();

  /// Names a plain executable; call before the first use of the store. An empty text takes the name back.
  static void setMainBundleIdentifier(std::string_view identifier);

  /// The bundle of this library: its resources stand in "QXEventStoring/Resources" beside the file that
  /// holds the library's code, in the build tree as in an installation.
  static const Bundle& library();

  /// The application bundle at `path`, or null when there is none.
  static std::unique_ptr<Bundle> atPath(std::string_view path);

  const std::string& path() const { return path_; }
  String bundleIdentifier() const;
  /// Full path of the bundle's executable, when Info.plist names one.
  String executablePath() const;
  /// Full path of the resource `name`.`extension` in `subdirectory`, or nothing when there is no such file.
  String resourcePath(std::string_view name, std::string_view extension,
                      std::string_view subdirectory = {}) const;
  /// The text of `key` in the table "Localizable" for the user's preferred language that the bundle has,
  /// else English; the key itself when no table has it.
  std::string localizedString(std::string_view key) const;
  /// The bundle's languages in the order of the user's preference, at least "en".
  std::vector<std::string> preferredLocalizations() const;

  /// The languages the user wants, most wanted first ("de-DE", "de"), from LANGUAGE and the locale
  /// variables LC_ALL, LC_MESSAGES and LANG as gettext reads them; none in the locale "C".
  static std::vector<std::string> userLanguages();
  /// Those of `available` that one of `preferences` asks for, in the order of `preferences`: the same
  /// language and region before the language alone. Case and "_" for "-" make no difference.
  static std::vector<std::string> preferredLocalizations(const std::vector<std::string>& available,
                                                         const std::vector<std::string>& preferences);

 private:
  struct Translations;

  Bundle();
  static std::optional<Bundle> readApplicationBundle(std::string_view path);
  std::string path_;
  std::string resources_;
  String identifier_;
  String executable_;
  std::shared_ptr<Translations> translations_;  // read on first use
};

}  // namespace qx
