// Programs, libraries and their resources.

#include <QXEventStoring/Platform/Bundle.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <map>
#include <mutex>

#include "Platform/FileDescriptor.h"
#include "Platform/ForkSafety.h"
#include "Platform/Host.h"
#include "Platform/PropertyList.h"
#include "Platform/StringsTable.h"

namespace qx {

namespace {

constexpr std::string_view kLocalizationFolder = ".lproj";
constexpr std::string_view kBaseLanguage = "en";
constexpr std::size_t kStringsLimit = 1U << 20;

/// Full path of the running program, as the kernel knows it.
std::string runningProgram() {
  std::string path(PATH_MAX, '\0');
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  path.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  constexpr std::string_view kDeleted = " (deleted)";  // its file was replaced meanwhile
  if (std::string_view(path).ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
  return path;
}

/// Full path of the file that holds this code: the shared library, or the program it is linked into (which
/// the loader lists without a name).
std::string fileOfThisCode() {
  Dl_info image{};
  link_map* map = nullptr;
  const void* const here = reinterpret_cast<const void*>(&fileOfThisCode);
  if (::dladdr1(here, &image, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0) return runningProgram();
  if (map == nullptr || map->l_name == nullptr || *map->l_name == '\0') return runningProgram();
  char resolved[PATH_MAX];
  return ::realpath(map->l_name, resolved) != nullptr ? resolved : map->l_name;
}

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

/// "X.app" for "X.app/Contents/MacOS/name".
std::string applicationAround(const std::string& executable) {
  constexpr std::string_view kExecutables = "/Contents/MacOS";
  const std::string folder = folderOf(executable);
  if (!std::string_view(folder).ends_with(kExecutables)) return {};
  return folder.substr(0, folder.size() - kExecutables.size());
}

String stringIn(const Dictionary& dictionary, std::string_view key) {
  const Value* const value = dictionary.find(key);
  return value != nullptr ? value->stringValue() : std::nullopt;
}

StringsTable readStringsTable(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::string text;
  if (!file || readToEnd(file, kStringsLimit, &text) != 0) return {};
  return parseStringsTable(text).value_or(StringsTable());
}

struct MainIdentifier {
  std::mutex mutex;
  String identifier;  // guarded by mutex
};

MainIdentifier& theMainIdentifier() {
  return KeptThroughFork<MainIdentifier>::get();
}

MadeOnce<Bundle> mainBundleMade;
MadeOnce<Bundle> libraryMade;

}  // namespace

struct Bundle::Translations {
  std::mutex mutex;
  std::map<std::string, StringsTable, std::less<>> tables;  // guarded by mutex; by language, never removed

  const StringsTable& table(const std::string& resources, const std::string& language) {
    const std::lock_guard guard(mutex);
    const auto known = tables.find(language);
    if (known != tables.end()) return known->second;
    std::string path = resources;
    path.append("/").append(language).append(kLocalizationFolder).append("/Localizable.strings");
    return tables.emplace(language, readStringsTable(path)).first->second;
  }
};

Bundle::Bundle() : translations_(std::make_shared<Translations>()) {}

void prepareBundleForFork() {
  theMainIdentifier();
}

const Bundle& Bundle::mainBundle() {
  return mainBundleMade.get([]() -> std::unique_ptr<const Bundle> {
    const std::string executable = runningProgram();
    const std::string application = applicationAround(executable);
    if (!application.empty()) {
      if (std::optional<Bundle> around = readApplicationBundle(application)) {
        return std::make_unique<const Bundle>(*std::move(around));
      }
    }
    std::unique_ptr<Bundle> plain(new Bundle);
    plain->path_ = folderOf(executable);
    plain->resources_ = plain->path_;
    plain->executable_ = executable;
    return plain;
  });
}

void Bundle::setMainBundleIdentifier(std::string_view identifier) {
  MainIdentifier& main = theMainIdentifier();
  const std::lock_guard guard(main.mutex);
  main.identifier = identifier.empty() ? String() : String(std::string(identifier));
}

const Bundle& Bundle::library() {
  return libraryMade.get([]() -> std::unique_ptr<const Bundle> {
    std::unique_ptr<Bundle> made(new Bundle);
    made->path_ = folderOf(fileOfThisCode()) + "/QXEventStoring";
    made->resources_ = made->path_ + "/Resources";
    return made;
  });
}

std::unique_ptr<Bundle> Bundle::atPath(std::string_view path) {
  std::optional<Bundle> bundle = readApplicationBundle(path);
  return bundle ? std::make_unique<Bundle>(*std::move(bundle)) : nullptr;
}

std::optional<Bundle> Bundle::readApplicationBundle(std::string_view path) {
  while (path.size() > 1 && path.back() == '/')
    path.remove_suffix(1);
  Bundle bundle;
  bundle.path_ = path;
  const std::optional<Value> info = readXMLPropertyListFile(bundle.path_ + "/Contents/Info.plist");
  const Dictionary* const entries = info ? info->asDictionary() : nullptr;
  if (entries == nullptr) return std::nullopt;
  bundle.resources_ = bundle.path_ + "/Contents/Resources";
  bundle.identifier_ = stringIn(*entries, "CFBundleIdentifier");
  const String executable = stringIn(*entries, "CFBundleExecutable");
  const bool isFileName = executable && !executable->empty() && *executable != "." && *executable != ".." &&
                          executable->find('/') == std::string::npos;
  if (isFileName) bundle.executable_ = bundle.path_ + "/Contents/MacOS/" + *executable;
  return bundle;
}

String Bundle::bundleIdentifier() const {
  if (this != &mainBundle()) return identifier_;
  MainIdentifier& main = theMainIdentifier();
  const std::lock_guard guard(main.mutex);
  return main.identifier ? main.identifier : identifier_;
}

String Bundle::executablePath() const {
  return executable_;
}

String Bundle::resourcePath(std::string_view name, std::string_view extension,
                            std::string_view subdirectory) const {
  std::string path = resources_;
  if (!subdirectory.empty()) path.append("/").append(subdirectory);
  path.append("/").append(name);
  if (!extension.empty()) path.append(".").append(extension);
  if (::access(path.c_str(), F_OK) != 0) return std::nullopt;
  return path;
}

std::string Bundle::localizedString(std::string_view key) const {
  const std::string preferred = preferredLocalizations().front();
  for (const std::string_view language : {std::string_view(preferred), kBaseLanguage}) {
    const StringsTable& table = translations_->table(resources_, std::string(language));
    if (const auto found = table.find(key); found != table.end()) return found->second;
  }
  return std::string(key);
}

std::vector<std::string> Bundle::preferredLocalizations() const {
  std::vector<std::string> available;
  const auto names = PosixHost().contentsOfDirectory(resources_, true, nullptr);
  for (const std::string& name : names.value_or(std::vector<std::string>())) {
    if (!std::string_view(name).ends_with(kLocalizationFolder)) continue;
    available.push_back(name.substr(0, name.size() - kLocalizationFolder.size()));
  }
  std::vector<std::string> languages = preferredLocalizations(available, userLanguages());
  if (std::find(languages.begin(), languages.end(), kBaseLanguage) == languages.end()) {
    languages.emplace_back(kBaseLanguage);
  }
  return languages;
}

}  // namespace qx
