// Which languages the user wants, and which of them there are.

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>
#include <string_view>

#include <QXEventStoring/Platform/Bundle.h>

namespace qx {

namespace {

std::string_view environment(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? std::string_view(value) : std::string_view();
}

/// The locale of messages: the first of the three that is set (POSIX.1-2017, 8.2).
std::string_view messagesLocale() {
  for (const char* const name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    if (const std::string_view value = environment(name); !value.empty()) return value;
  }
  return {};
}

/// "de_DE.UTF-8@euro" to "de-DE"; empty for "C", "POSIX" and none.
std::string languageOf(std::string_view locale) {
  std::string language(locale.substr(0, locale.find_first_of(".@")));
  std::replace(language.begin(), language.end(), '_', '-');
  return language == "C" || language == "POSIX" ? std::string() : language;
}

void appendOnce(std::vector<std::string>* languages, std::string language) {
  if (language.empty() || std::find(languages->begin(), languages->end(), language) != languages->end())
    return;
  languages->push_back(std::move(language));
}

/// A language with its region, then without.
void appendWithParent(std::vector<std::string>* languages, const std::string& language) {
  appendOnce(languages, language);
  appendOnce(languages, language.substr(0, language.find('-')));
}

std::string comparable(std::string_view language) {
  std::string result(language);
  for (char& c : result)
    c = c == '_' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return result;
}

}  // namespace

std::vector<std::string> Bundle::userLanguages() {
  std::vector<std::string> languages;
  const std::string locale = languageOf(messagesLocale());
  if (locale.empty()) return languages;
  std::string_view list = environment("LANGUAGE");
  while (!list.empty()) {
    const std::size_t end = std::min(list.find(':'), list.size());
    appendWithParent(&languages, languageOf(list.substr(0, end)));
    list.remove_prefix(std::min(end + 1, list.size()));
  }
  appendWithParent(&languages, locale);
  return languages;
}

std::vector<std::string> Bundle::preferredLocalizations(const std::vector<std::string>& available,
                                                        const std::vector<std::string>& preferences) {
  std::vector<std::string> wanted;
  for (const std::string& preference : preferences)
    appendWithParent(&wanted, comparable(preference));
  std::vector<std::string> found;
  for (const std::string& language : wanted) {
    for (const std::string& candidate : available) {
      if (comparable(candidate) == language) appendOnce(&found, candidate);
    }
  }
  return found;
}

}  // namespace qx
