#include <QXEventStoring/Platform/Bundle.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "Platform/Host.h"
#include "Platform/StringsTable.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace qx {
namespace {

using test::TemporaryDirectory;
using Languages = std::vector<std::string>;

std::string informationList(const std::string& entries) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>" + entries +
         "</dict></plist>";
}

void setLanguages(const char* language, const char* locale) {
  ::unsetenv("LC_ALL");
  ::unsetenv("LC_MESSAGES");
  ::setenv("LANGUAGE", language, 1);
  ::setenv("LANG", locale, 1);
}

TEST(StringsTable, ReadsEntriesCommentsAndEscapes) {
  const auto table = parseStringsTable(
      "\xEF\xBB\xBF/* a \"comment\" = ; */\n\"key\" = \"value\";// end\n"
      "bare.Key-1_x = word;\n\"quote \\\" \\\\\"=\"tab\\tline\\n\\'\\U00e4\\Ud83d\\Ude00\\q\" ; \"key\" = "
      "\"last\";"
      "\"\" = \"\";\"multi\nline\"=\"/* none */\";//");
  ASSERT_TRUE(table);
  EXPECT_EQ(*table, (StringsTable{{"", ""},
                                  {"key", "last"},
                                  {"bare.Key-1_x", "word"},
                                  {"quote \" \\", "tab\tline\n'ä😀q"},
                                  {"multi\nline", "/* none */"}}));
  EXPECT_TRUE(parseStringsTable("")->empty());
}

TEST(StringsTable, RefusesDamageWithTheLine) {
  for (const std::string_view damaged :
       {"\"a\"", "\"a\" =", "\"a\" = \"b\"", "\"a\" \"b\";", "= \"b\";", "\"a = ", "/* ", "\"a\\",
        "\"a\" = \"\\U12\";", "\"a\" = \"\\Ud83d\";", "\"a\" = \"\\Ude00\";", "\"a\" = \"\\Ud83d\\U0041\";",
        "\"\xFF\" = a;"}) {
    ErrorPtr error;
    EXPECT_FALSE(parseStringsTable(damaged, &error)) << damaged;
    ASSERT_TRUE(error) << damaged;
    EXPECT_EQ(error->code(), 3840);
  }
  ErrorPtr error;
  EXPECT_FALSE(parseStringsTable("a = b;\n\nc = ?;", &error));
  EXPECT_NE(error->localizedDescription().find("Line 3"), std::string::npos);
  EXPECT_FALSE(parseStringsTable(std::string((1U << 20) + 1, ' ')));
}

TEST(Bundle, ReadsAnApplicationBundle) {
  const TemporaryDirectory directory;
  const std::string path = directory / "Viewer.app";
  EXPECT_EQ(Bundle::atPath(path), nullptr);
  directory.write("Viewer.app/Contents/Info.plist",
                  informationList("<key>CFBundleIdentifier</key><string>com.example.viewer</string>"
                                  "<key>CFBundleExecutable</key><string>Viewer</string>"));
  directory.write("Viewer.app/Contents/Resources/Models/Data.momd/file");
  const auto bundle = Bundle::atPath(path + "/");
  ASSERT_TRUE(bundle);
  EXPECT_EQ(bundle->path(), path);
  EXPECT_EQ(bundle->bundleIdentifier(), "com.example.viewer");
  EXPECT_EQ(bundle->executablePath(), path + "/Contents/MacOS/Viewer");
  EXPECT_EQ(bundle->resourcePath("file", "", "Models/Data.momd"),
            path + "/Contents/Resources/Models/Data.momd/file");
  EXPECT_EQ(bundle->resourcePath("Data", "momd", "Models"), path + "/Contents/Resources/Models/Data.momd");
  EXPECT_EQ(bundle->resourcePath("file", "txt"), std::nullopt);
  EXPECT_EQ(bundle->localizedString("a key"), "a key");
  EXPECT_EQ(bundle->preferredLocalizations().back(), "en");
}

TEST(Bundle, TakesNothingFromAHostileInformationList) {
  const TemporaryDirectory directory;
  const struct {
    std::string list;
    bool isBundle;
  } cases[] = {
      {"no property list", false},
      {"<plist version=\"1.0\"><array/></plist>", false},
      {informationList("<key>CFBundleExecutable</key><string>../../../bin/sh</string>"), true},
      {informationList("<key>CFBundleExecutable</key><string>..</string>"), true},
      {informationList("<key>CFBundleExecutable</key><integer>1</integer>"
                       "<key>CFBundleIdentifier</key><array/>"),
       true},
      {informationList(""), true},
  };
  for (const auto& one : cases) {
    directory.write("X.app/Contents/Info.plist", one.list);
    const auto bundle = Bundle::atPath(directory / "X.app");
    EXPECT_EQ(bundle != nullptr, one.isBundle) << one.list;
    if (!bundle) continue;
    EXPECT_EQ(bundle->executablePath(), std::nullopt) << one.list;
    EXPECT_EQ(bundle->bundleIdentifier(), std::nullopt) << one.list;
  }
}

TEST(Bundle, SpeaksTheUsersLanguageElseEnglish) {
  const TemporaryDirectory directory;
  const std::string resources = "X.app/Contents/Resources/";
  directory.write("X.app/Contents/Info.plist", informationList(""));
  directory.write(resources + "en.lproj/Localizable.strings", "yes = Yes; no = No;");
  directory.write(resources + "de.lproj/Localizable.strings", "yes = Ja;");
  directory.write(resources + "pt_BR.lproj/Localizable.strings", "yes = \"Sim\";");
  directory.write(resources + "fr.lproj/Localizable.strings", "damaged");
  const auto bundle = Bundle::atPath(directory / "X.app");
  ASSERT_TRUE(bundle);
  const struct {
    const char* language;
    const char* locale;
    Languages languages;
    const char* yes;
  } cases[] = {
      {"", "de_DE.UTF-8@euro", {"de", "en"}, "Ja"},
      {"", "pt_BR.UTF-8", {"pt_BR", "en"}, "Sim"},
      {"", "pt_PT.UTF-8", {"en"}, "Yes"},
      {"", "C.UTF-8", {"en"}, "Yes"},
      {"", "", {"en"}, "Yes"},
      {"de", "C", {"en"}, "Yes"},
      {"xx:de_AT::pt_BR", "en_US.UTF-8", {"de", "pt_BR", "en"}, "Ja"},
      {"fr", "de_DE", {"fr", "de", "en"}, "Yes"},
      {"../../..", "de/../x", {"en"}, "Yes"},
  };
  for (const auto& one : cases) {
    setLanguages(one.language, one.locale);
    EXPECT_EQ(bundle->preferredLocalizations(), one.languages) << one.language << " " << one.locale;
    EXPECT_EQ(bundle->localizedString("yes"), one.yes) << one.language << " " << one.locale;
    EXPECT_EQ(bundle->localizedString("no"), "No");
  }
  setLanguages("", "fr_FR");
  ::setenv("LC_ALL", "de_DE", 1);
  EXPECT_EQ(Bundle::userLanguages(), (Languages{"de-DE", "de"})) << "LC_ALL goes before LANG";
}

TEST(Bundle, MatchesLanguagesInTheOrderOfPreference) {
  const Languages available = {"en", "fr", "pt-BR", "de_AT"};
  EXPECT_EQ(Bundle::preferredLocalizations(available, {"fr-CA", "PT-br", "en"}),
            (Languages{"fr", "pt-BR", "en"}));
  EXPECT_EQ(Bundle::preferredLocalizations(available, {"de-AT"}), (Languages{"de_AT"}));
  EXPECT_EQ(Bundle::preferredLocalizations(available, {"it", "pt"}), Languages{});
}

TEST(Bundle, KnowsTheRunningProgramAndTheFileThatHoldsTheLibrary) {
  const Bundle& main = Bundle::mainBundle();
  EXPECT_EQ(main.bundleIdentifier(), std::nullopt);
  EXPECT_EQ(main.executablePath(), std::filesystem::read_symlink("/proc/self/exe").string());
  Bundle::setMainBundleIdentifier("com.example.tool");
  EXPECT_EQ(main.bundleIdentifier(), "com.example.tool");
  Bundle::setMainBundleIdentifier("");
  EXPECT_EQ(main.bundleIdentifier(), std::nullopt);
  // The tests carry the library's code themselves.
  EXPECT_EQ(Bundle::library().path(), main.path() + "/QXEventStoring");
}

TEST(Bundle, OfAProgramInsideAnApplicationIsTheApplication) {
  if (::getenv("QX_BUNDLE_TEST_PROGRAM") != nullptr) {
    EXPECT_EQ(Bundle::mainBundle().bundleIdentifier(), "com.example.inside");
    EXPECT_TRUE(Bundle::mainBundle().path().ends_with("/Inside.app"));
    return;
  }
  const TemporaryDirectory directory;
  directory.write("Inside.app/Contents/Info.plist",
                  informationList("<key>CFBundleIdentifier</key><string>com.example.inside</string>"));
  const std::string program = directory.write("Inside.app/Contents/MacOS/Program");
  std::filesystem::copy_file("/proc/self/exe", program, std::filesystem::copy_options::overwrite_existing);
  ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
  ::setenv("QX_BUNDLE_TEST_PROGRAM", "1", 1);
  test::ChildProcess child([&](const test::ChildProcess::Line&) {
    return ::execl(program.c_str(), program.c_str(),
                   "--gtest_filter=Bundle.OfAProgramInsideAnApplicationIsTheApplication", nullptr);
  });
  EXPECT_EQ(child.exitStatus(), 0);
}

}  // namespace
}  // namespace qx
