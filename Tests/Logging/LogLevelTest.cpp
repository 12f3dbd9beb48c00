// Which messages are let through, and how levels follow the preferences they come from.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include <QXEventStoring/Platform/Bundle.h>

#include "Logging/EventStoreLog.h"
#include "Logging/LogCategory.h"
#include "Logging/LogSubsystem.h"
#include "Logging/LogUserDefaults.h"
#include "Logging/UnifiedLogging.h"
#include "Platform/BackgroundLoop.h"
#include "Platform/Preferences.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/VolumeRoot.h"

namespace qx::test {
namespace {

using Level = PLVLogLevel;
using Type = PLVLogType;
using enum PreferenceScope;

constexpr std::string_view kSuite = "com.qx.device.monitoring.logging";
constexpr std::string_view kApplication = "com.qx.tests.logging";
constexpr std::array kLevels{Level::Inherit, Level::Default, Level::Info, Level::Debug};

/// A machine of the test's own: with journald's socket or without.
class Machine : public ::testing::Test {
 protected:
  explicit Machine(bool unified) {
    Bundle::setMainBundleIdentifier(kApplication);
    if (unified) {
      std::filesystem::create_directories(root.path() + "/run/systemd/journal");
      std::ofstream(root.path() + "/run/systemd/journal/socket");
    }
  }

  static LogCategory& category() { return LogSubsystem::categoryForContext(kEventStoreLog); }
  static bool isSent(Type type) { return static_cast<bool>(PLVLogCallContext(kEventStoreLog, type)); }

  static void set(const String& level, std::string_view key, std::string_view suite,
                  PreferenceScope scope = currentUserAnyHost) {
    ErrorPtr error;
    EXPECT_TRUE(
        setPreferenceValue(level ? std::optional<Value>(*level) : std::nullopt, key, suite, scope, &error))
        << error->summary();
  }

  static void setLevels(Level own, Level subsystem, Level application, Level maker) {
    category().setLevel(own);
    category().subsystem().setLevel(subsystem);
    LogUserDefaults::applicationUserDefaults().setLogLevel(application);
    LogUserDefaults::loggingUserDefaults().setLogLevel(maker);
  }

  /// Every combination of the four levels, with the level that should count.
  static void forAllLevels(const std::function<void(Level effective)>& check) {
    for (const auto own : kLevels) {
      for (const auto subsystem : kLevels) {
        for (const auto application : kLevels) {
          for (const auto maker : kLevels) {
            setLevels(own, subsystem, application, maker);
            SCOPED_TRACE(testing::Message()
                         << "category " << int(own) << " subsystem " << int(subsystem) << " application "
                         << int(application) << " maker " << int(maker));
            check(std::max({own != Level::Inherit ? own : subsystem, application, maker}));
          }
        }
      }
    }
  }

  VolumeRoot root;
};

class LogLevel : public Machine {
 protected:
  LogLevel() : Machine(true) {}
};
class LogLevelWithoutJournal : public Machine {
 protected:
  LogLevelWithoutJournal() : Machine(false) {}
};
using ConcurrentLogLevel = LogLevel;

TEST_F(LogLevel, LetsThroughWhatTheHighestOfItsLevelsAllows) {
  ASSERT_TRUE(log::unifiedLogging());
  forAllLevels([](Level effective) {
    const bool nothingSet = effective == Level::Inherit;
    EXPECT_EQ(category().logsType(Type::Debug), nothingSet || effective == Level::Debug);
    EXPECT_EQ(category().logsType(Type::Info), nothingSet || effective >= Level::Info);
    EXPECT_EQ(isSent(Type::Debug), effective == Level::Debug);  // the journal wants what was asked for
    EXPECT_EQ(isSent(Type::Info), effective >= Level::Info);
    for (const auto type : {Type::Default, Type::Error, Type::Fault, Type(7)})
      EXPECT_TRUE(category().logsType(type) && isSent(type));
  });
}

TEST_F(LogLevelWithoutJournal, IsTheSameButQuietWhenNothingIsSet) {
  ASSERT_FALSE(log::unifiedLogging());
  forAllLevels([](Level effective) {
    EXPECT_EQ(category().logsType(Type::Debug), effective == Level::Debug);
    EXPECT_EQ(category().logsType(Type::Info), effective >= Level::Info);
    EXPECT_EQ(isSent(Type::Info), effective >= Level::Info);
    for (const auto type : {Type::Default, Type::Error, Type::Fault, Type(7)})
      EXPECT_TRUE(category().logsType(type) && isSent(type));
  });
}

TEST_F(LogLevel, IsReadFromItsKeySuiteAndScope) {
  const auto read = [] { return category().subsystem().levelForKey(kPLVLogLevelKey); };
  EXPECT_EQ(read(), Level::Inherit);
  set("info", kPLVLogLevelKey, kSuite, anyUserCurrentHost);
  EXPECT_EQ(read(), Level::Info);
  set("DEBUG", kPLVLogLevelKey, kSuite, currentUserAnyHost);
  EXPECT_EQ(read(), Level::Debug);
  set("Default", kPLVLogLevelKey, kSuite, currentUserCurrentHost);
  EXPECT_EQ(read(), Level::Default);
  set("loud", kPLVLogLevelKey, kSuite, currentUserCurrentHost);  // no level: the next scope is asked
  EXPECT_EQ(read(), Level::Debug);

  set("info", "event-store", kSuite);
  set("default", kPLVLogLevelKey, kApplication);
  set("info", kPLVLogLevelKey, "com.qx.device.logging");
  EXPECT_EQ(category().level(), Level::Info);
  EXPECT_EQ(category().subsystem().level(), Level::Debug);
  EXPECT_EQ(LogUserDefaults::applicationUserDefaults().logLevel(), Level::Default);
  EXPECT_EQ(LogUserDefaults::loggingUserDefaults().logLevel(), Level::Info);
}

TEST_F(ConcurrentLogLevel, FollowsWhatAnotherProcessSetsAndTakesBack) {
  ChildProcess administrator([](const ChildProcess::Line& line) {
    while (line.wait()) {
      set("debug", "event-store", kSuite);
      line.signal();
      if (!line.wait()) break;
      set(std::nullopt, "event-store", kSuite);
      line.signal();
    }
    return 0;
  });
  for (int round = 0; round < 5; ++round) {
    for (const bool isDebug : {true, false}) {
      administrator.line().signal();
      ASSERT_TRUE(administrator.line().wait());
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
      while (isSent(Type::Debug) != isDebug && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
      ASSERT_EQ(isSent(Type::Debug), isDebug) << "round " << round;
    }
  }
}

TEST_F(LogLevel, IsReadByTheChildOfAForkDuringTheFirstCall) {
  for (int round = 0; round < 100; ++round) {
    ChildProcess child([](const ChildProcess::Line&) {
      std::jthread first([] { isSent(Type::Debug); });
      const pid_t process = ::fork();
      if (process == 0) {
        ::alarm(30);
        ::_exit(isSent(Type::Debug) ? 1 : 0);
      }
      int status = 0;
      ::waitpid(process, &status, 0);
      return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
    });
    ASSERT_EQ(child.exitStatus(), 0) << "round " << round;
  }
}

TEST_F(LogLevel, IsWatchedAnewByTheChildOfAFork) {
  EXPECT_FALSE(isSent(Type::Debug));  // watches now
  ChildProcess child([](const ChildProcess::Line& line) {
    if (isSent(Type::Debug)) return 1;
    line.signal();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!isSent(Type::Debug) && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    return isSent(Type::Debug) ? 0 : 2;
  });
  ASSERT_TRUE(child.line().wait());
  set("debug", kPLVLogLevelKey, kSuite);
  EXPECT_EQ(child.exitStatus(), 0);
}

// One minute after another: what is used is read again, what is not used is forgotten.
TEST_F(LogLevelWithoutJournal, IsReadAgainEveryMinuteWhileItIsUsed) {
  auto& loop = BackgroundLoop::shared();
  loop.stopTime();
  EXPECT_EQ(category().level(), Level::Inherit);
  set("debug", "event-store", kSuite);
  loop.advance(std::chrono::milliseconds(59'999));
  EXPECT_EQ(category().level(), Level::Inherit);
  loop.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(category().level(), Level::Debug);

  set("info", "event-store", kSuite);
  loop.advance(std::chrono::minutes(1));
  EXPECT_EQ(category().level(), Level::Info);

  loop.advance(std::chrono::minutes(2));  // the second of them finds that nobody asked, and stops
  set("default", "event-store", kSuite);
  EXPECT_EQ(category().level(), Level::Default);
}

TEST_F(LogLevelWithoutJournal, StaysAsItWasSetUntilItIsReadAgain) {
  category().setLevel(Level::Debug);
  EXPECT_EQ(category().level(), Level::Debug);
  category().setLevel(Level::NotLoaded);
  EXPECT_EQ(category().level(), Level::Inherit);

  auto& loop = BackgroundLoop::shared();
  loop.stopTime();
  auto& maker = LogUserDefaults::loggingUserDefaults();
  maker.setLogLevel(Level::Info);
  maker.scheduleLogLevelSynchronization();
  EXPECT_EQ(maker.logLevel(), Level::Info);
  loop.advance(std::chrono::minutes(1));
  EXPECT_EQ(maker.logLevel(), Level::Inherit);
}

}  // namespace
}  // namespace qx::test
