#include "Platform/Preferences.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include <QXEventStoring/Platform/Bundle.h>

#include "Platform/ForkSafety.h"
#include "Platform/PropertyList.h"
#include "Platform/UserDefaults.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/VolumeRoot.h"

namespace qx {
namespace {

using test::ChildProcess;
using test::VolumeRoot;

constexpr auto kByHost = PreferenceScope::currentUserCurrentHost;
constexpr auto kUser = PreferenceScope::currentUserAnyHost;
constexpr auto kEveryone = PreferenceScope::anyUserCurrentHost;
constexpr PreferenceScope kScopes[] = {kByHost, kUser, kEveryone};

/// A volume with a home directory on it, which the environment names.
class PreferencesTest : public testing::Test {
 protected:
  PreferencesTest() {
    ::setenv("HOME", home().c_str(), 1);
    ::unsetenv("XDG_CONFIG_HOME");
    std::filesystem::create_directory(home());
  }
  std::string home() const { return volume_.path() + "/home"; }

  static std::string path(PreferenceScope scope = kUser) { return preferencesPath("suite", scope).value(); }
  static bool set(const std::optional<Value>& value, std::string_view key, PreferenceScope scope = kUser) {
    ErrorPtr error;
    const bool done = setPreferenceValue(value, key, "suite", scope, &error);
    EXPECT_EQ(done, error == nullptr) << error->summary();
    return done;
  }
  static std::optional<Value> get(std::string_view key, PreferenceScope scope = kUser) {
    return preferenceValue(key, "suite", scope);
  }

 private:
  const VolumeRoot volume_;
};

using ConcurrentPreferencesTest = PreferencesTest;
using UserDefaultsTest = PreferencesTest;
using ConcurrentUserDefaultsTest = PreferencesTest;

mode_t permissionsOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

void write(const std::string& path, std::string_view content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

TEST_F(PreferencesTest, LieInTheUsersConfigurationOrInTheMachines) {
  const char* const user = ::getpwuid(::geteuid())->pw_dir;
  const struct {
    const char* xdg;
    const char* home;
    std::string expected;
  } cases[] = {{"/c", "/h", "/c"},
               {nullptr, "/h", "/h/.config"},
               {"", "/h", "/h/.config"},
               {"relative", "/h", "/h/.config"},
               {nullptr, "relative", std::string(user) + "/.config"},
               {nullptr, nullptr, std::string(user) + "/.config"}};
  for (const auto& c : cases) {
    c.xdg != nullptr ? ::setenv("XDG_CONFIG_HOME", c.xdg, 1) : ::unsetenv("XDG_CONFIG_HOME");
    c.home != nullptr ? ::setenv("HOME", c.home, 1) : ::unsetenv("HOME");
    EXPECT_EQ(path(kUser), c.expected + "/QXEventStoring/suite.plist");
    const std::string byHost = path(kByHost);
    EXPECT_TRUE(byHost.starts_with(c.expected + "/QXEventStoring/ByHost/suite."));
    EXPECT_TRUE(byHost.ends_with(".plist") && byHost.find("..") == std::string::npos) << byHost;
    EXPECT_EQ(path(kEveryone), volumeRoot() + "/etc/xdg/QXEventStoring/suite.plist");
  }
}

TEST_F(PreferencesTest, HaveNoFileWhenTheSuiteIsNoFileName) {
  const std::string unusable[] = {"", "a/b", "../suite", std::string("a\0b", 3), std::string(250, 'x')};
  for (const std::string& suite : unusable) {
    for (const PreferenceScope scope : kScopes) {
      ErrorPtr error;
      EXPECT_FALSE(preferencesPath(suite, scope)) << suite;
      EXPECT_FALSE(preferenceValue("key", suite, scope, &error));
      EXPECT_EQ(error, nullptr);
      EXPECT_FALSE(setPreferenceValue(1, "key", suite, scope, &error));
      EXPECT_EQ(error->code(), 514);
    }
  }
  EXPECT_TRUE(preferencesPath(std::string(249, 'x'), kUser));
}

TEST_F(PreferencesTest, AreSetOneAtATimeWhateverTheUmask) {
  const mode_t previous = ::umask(0077);
  for (const PreferenceScope scope : kScopes) {
    EXPECT_TRUE(set(std::nullopt, "absent", scope)) << "nothing to remove";
    EXPECT_FALSE(std::filesystem::exists(path(scope)));
    EXPECT_TRUE(set("text", "a", scope));
    EXPECT_TRUE(set(Dictionary{{"k", Array{1, true, 2.5}}}, "b", scope));
    EXPECT_EQ(get("a", scope), Value("text"));
    EXPECT_EQ(get("b", scope)->description(), Value(Dictionary{{"k", Array{1, true, 2.5}}}).description());
    EXPECT_TRUE(set(std::nullopt, "a", scope));
    EXPECT_FALSE(get("a", scope));
    EXPECT_TRUE(get("b", scope));
    const std::filesystem::path folder = std::filesystem::path(path(scope)).parent_path();
    EXPECT_EQ(permissionsOf(path(scope)), scope == kEveryone ? 0644u : 0600u);
    EXPECT_EQ(permissionsOf(folder), scope == kEveryone ? 0755u : 0700u);
    EXPECT_EQ(permissionsOf(folder.parent_path()), scope == kEveryone ? 0755u : 0700u);
  }
  ::umask(previous);
}

TEST_F(PreferencesTest, SurviveAWriterThatWasKilled) {
  ASSERT_TRUE(set(1, "a"));
  write(std::filesystem::path(path()).parent_path().string() + "/.preferences.new", "half a fi");
  ASSERT_TRUE(set(2, "b"));
  EXPECT_EQ(get("a"), Value(1));
  EXPECT_EQ(get("b"), Value(2));
}

TEST_F(PreferencesTest, AreLeftAsTheyAreWhenTheyCannotBeUsed) {
  const std::string elsewhere = home() + "/elsewhere";
  write(elsewhere, *writeXMLPropertyList(Dictionary{{"key", 1}}));
  const struct {
    const char* what;
    std::function<void()> make;
  } cases[] = {
      {"no property list", [] { write(path(), "level = debug"); }},
      {"no dictionary", [] { write(path(), *writeXMLPropertyList(Array{1})); }},
      {"too large", [] { write(path(), *writeXMLPropertyList(Dictionary{}) + std::string(1U << 20, ' ')); }},
      {"a directory", [] { std::filesystem::create_directory(path()); }},
      {"a pipe", [] { ::mkfifo(path().c_str(), 0600); }},
      {"a link", [&] { std::filesystem::create_symlink(elsewhere, path()); }},
      {"a link to nothing", [] { std::filesystem::create_symlink("/nothing", path()); }}};
  ASSERT_TRUE(set(1, "key"));
  for (const auto& c : cases) {
    std::filesystem::remove(path());
    c.make();
    const auto type = std::filesystem::symlink_status(path()).type();
    ErrorPtr readError;
    EXPECT_FALSE(preferenceValue("key", "suite", kUser, &readError)) << c.what;
    ASSERT_NE(readError, nullptr) << c.what;
    EXPECT_NE(readError->description()->find(path()), std::string::npos) << *readError->description();
    ErrorPtr writeError;
    EXPECT_FALSE(setPreferenceValue(2, "key", "suite", kUser, &writeError)) << c.what;
    EXPECT_NE(writeError, nullptr) << c.what;
    EXPECT_EQ(std::filesystem::symlink_status(path()).type(), type) << c.what;
  }
  EXPECT_EQ(readXMLPropertyListFile(elsewhere), Value(Dictionary{{"key", 1}}));
}

TEST_F(PreferencesTest, AreNotWrittenThroughALinkToADirectory) {
  const std::string victim = home() + "/victim";
  std::filesystem::create_directory(victim);
  ::chmod(victim.c_str(), 0711);
  std::filesystem::create_directories(home() + "/.config");
  const std::string links[] = {home() + "/.config/QXEventStoring", home() + "/.config/QXEventStoring/ByHost",
                               volumeRoot() + "/etc"};
  for (const std::string& link : links) {
    if (link.ends_with("ByHost")) std::filesystem::create_directories(home() + "/.config/QXEventStoring");
    std::filesystem::create_directory_symlink(victim, link);
    ErrorPtr error;
    EXPECT_FALSE(setPreferenceValue(1, "key", "suite", link.ends_with("etc") ? kEveryone : kByHost, &error));
    ASSERT_NE(error, nullptr) << link;
    EXPECT_NE(error->description()->find("\"" + link + "\""), std::string::npos) << *error->description();
    EXPECT_EQ(error->underlying()->code(), ELOOP);
    EXPECT_TRUE(std::filesystem::is_empty(victim));
    EXPECT_EQ(permissionsOf(victim), 0711u);
    std::filesystem::remove(link);
  }
  std::filesystem::create_directory_symlink(victim, home() + "/linked");
  ::setenv("XDG_CONFIG_HOME", (home() + "/linked/new/").c_str(), 1);
  EXPECT_TRUE(set(1, "key", kByHost)) << "the user's own links count";
}

TEST_F(PreferencesTest, RefuseWhatNoFileHolds) {
  ASSERT_TRUE(set(1, "key"));
  const Value refused[] = {nullptr, "\x01", "\xFF", std::string(1U << 20, 'x')};
  for (const Value& value : refused) {
    ErrorPtr error;
    EXPECT_FALSE(setPreferenceValue(value, "key", "suite", kUser, &error));
    EXPECT_EQ(error->code(), 3851);
  }
  EXPECT_EQ(get("key"), Value(1));
}

TEST_F(PreferencesTest, GiveUpWhenAnotherKeepsTheLock) {
  ASSERT_TRUE(set(1, "key"));
  const std::string folder = std::filesystem::path(path()).parent_path();
  ChildProcess holder([&](const ChildProcess::Line& line) {
    const int directory = ::open(folder.c_str(), O_RDONLY);
    ::flock(directory, LOCK_EX);
    line.signal();
    return line.wait() ? 0 : 1;
  });
  ASSERT_TRUE(holder.line().wait());
  ErrorPtr error;
  EXPECT_FALSE(setPreferenceValue(2, "key", "suite", kUser, &error));
  ASSERT_TRUE(error && error->underlying());
  EXPECT_EQ(error->underlying()->code(), ETIMEDOUT);
  EXPECT_EQ(get("key"), Value(1)) << "reading takes no lock";
  holder.line().signal();
  EXPECT_EQ(holder.exitStatus(), 0);
  EXPECT_TRUE(set(3, "key"));
}

TEST_F(ConcurrentPreferencesTest, LoseNothingToOtherThreadsAndProcesses) {
  constexpr int kKeys = 15;
  const auto setKeys = [](const std::string& prefix) {
    for (int i = 0; i < kKeys; ++i) {
      if (!set(i, prefix + std::to_string(i))) return 1;
      if (get(prefix + std::to_string(i)) != Value(i)) return 2;
    }
    return 0;
  };
  ChildProcess process([&](const ChildProcess::Line&) { return setKeys("process"); });
  std::thread thread([&] { EXPECT_EQ(setKeys("thread"), 0); });
  EXPECT_EQ(setKeys("main"), 0);
  thread.join();
  EXPECT_EQ(process.exitStatus(), 0);
  EXPECT_EQ(readXMLPropertyListFile(path())->asDictionary()->size(), 3u * kKeys);
}

// Not under the thread sanitizer, which has no threads in the child of a process with threads.
using ForkedPreferencesTest = PreferencesTest;
TEST_F(ForkedPreferencesTest, AreReadInProcessesForkedDuringAnotherThreadsFirstUse) {
  const auto use = [] {
    Bundle::mainBundle().bundleIdentifier();
    UserDefaults("suite").observe([] {}).cancel();
    for (int i = 0; i < 20; ++i)
      UserDefaults().stringForKey("key"), preferencesPath("suite", kEveryone);
  };
  prepareForFork();
  for (int round = 0; round < 100; ++round) {
    ChildProcess fresh([&](const ChildProcess::Line&) {
      std::thread first(use);
      const auto moment = std::chrono::steady_clock::now() + std::chrono::microseconds(5 * round);
      while (std::chrono::steady_clock::now() < moment) {
      }
      ChildProcess forked([&](const ChildProcess::Line&) {
        ::alarm(10);
        use();
        return 0;
      });
      const int status = forked.exitStatus();
      first.join();
      return status == 0 ? 0 : 1;
    });
    ASSERT_EQ(fresh.exitStatus(), 0) << round;
  }
}

TEST_F(UserDefaultsTest, TakeTheFirstScopeThatHasTheKey) {
  const UserDefaults defaults("suite");
  EXPECT_FALSE(defaults.stringForKey("key"));
  ASSERT_TRUE(set("everyone", "key", kEveryone));
  EXPECT_EQ(defaults.stringForKey("key"), "everyone");
  ASSERT_TRUE(set("user", "key", kUser));
  EXPECT_EQ(defaults.stringForKey("key"), "user");
  ASSERT_TRUE(set("host", "key", kByHost));
  EXPECT_EQ(defaults.stringForKey("key"), "host");
  ASSERT_TRUE(set(Array{}, "key", kByHost));
  EXPECT_FALSE(defaults.stringForKey("key")) << "no text, but a value";
  write(path(kByHost), "spoiled");
  EXPECT_EQ(defaults.stringForKey("key"), "user");
  EXPECT_FALSE(defaults.stringForKey("other"));
}

TEST_F(UserDefaultsTest, GiveNumbersAsText) {
  const struct {
    Value value;
    String text;
  } cases[] = {{"", ""},     {"4", "4"},     {4, "4"},        {-7, "-7"},  {true, "1"},
               {false, "0"}, {0.25, "0.25"}, {Data("4"), {}}, {Date(), {}}};
  for (const auto& [value, text] : cases) {
    ASSERT_TRUE(set(value, "key"));
    EXPECT_EQ(UserDefaults("suite").stringForKey("key"), text) << value.description();
  }
}

TEST_F(UserDefaultsTest, OfTheApplicationGoByItsIdentifier) {
  const UserDefaults defaults;
  EXPECT_FALSE(defaults.suiteName());
  EXPECT_FALSE(defaults.stringForKey("key"));
  EXPECT_NO_THROW(defaults.observe([] {}).cancel());
  ASSERT_TRUE(set("value", "key"));
  Bundle::setMainBundleIdentifier("suite");
  EXPECT_EQ(defaults.suiteName(), "suite");
  EXPECT_EQ(defaults.stringForKey("key"), "value");
}

TEST_F(ConcurrentUserDefaultsTest, TellOfChangesInEveryScope) {
  std::mutex mutex;
  std::condition_variable changed;
  String seen;
  const UserDefaults defaults("suite");
  const Observation observation = defaults.observe([&] {
    const String value = defaults.stringForKey("key");
    const std::lock_guard guard(mutex);
    seen = value;
    changed.notify_all();
  });
  for (const char* text : {"first", "second"}) {
    for (const PreferenceScope scope : {kEveryone, kUser, kByHost}) {
      ASSERT_TRUE(set(std::nullopt, "key", kUser) && set(std::nullopt, "key", kByHost));
      const std::string value = text + path(scope);
      ASSERT_TRUE(set(value, "key", scope));
      std::unique_lock guard(mutex);
      EXPECT_TRUE(changed.wait_for(guard, std::chrono::seconds(20), [&] { return seen == value; })) << value;
    }
  }
}

}  // namespace
}  // namespace qx
