// Log calls from end to end: through real sockets of the test's own, read back.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Logging/ASLClient.h"
#include "Logging/ASLLog.h"
#include "Logging/EventStoreLog.h"
#include "Logging/JournalLog.h"
#include "Logging/LogCategory.h"
#include "Logging/LogSubsystem.h"
#include "Logging/LogTransport.h"
#include "Logging/MethodName.h"
#include "Tests/Support/LogSocket.h"
#include "Tests/Support/VolumeRoot.h"

namespace qx::test {
namespace {

void setLevel(PLVLogLevel level) {
  LogSubsystem::categoryForContext(kEventStoreLog).setLevel(level);
}

class PLVLogToJournal : public ::testing::Test {
 protected:
  std::map<std::string, std::string> next() {
    EXPECT_TRUE(journal.waitFor(1));
    const auto lines = journal.take();
    EXPECT_EQ(lines.size(), 1U);
    return lines.empty() ? std::map<std::string, std::string>() : journalFields(lines.front());
  }

  VolumeRoot root;
  LogSocket journal{root.path() + std::string(log::kJournalSocketPath)};
};
using ConcurrentPLVLogToJournal = PLVLogToJournal;

struct Caller {
  static void report() {
    PLVLog(kEventStoreLog, PLVLogType::Error, "Not saved [%ld] by %@", 513L, "somebody");
  }
  void complain() const { PLVLog(kEventStoreLog, PLVLogType::Fault, "two\nlines"); }
};

TEST_F(PLVLogToJournal, SendsTextTypeCategoryAndPlace) {
  errno = E2BIG;
  Caller::report();
  EXPECT_EQ(errno, E2BIG);
  auto fields = next();
  EXPECT_EQ(fields["MESSAGE"], "Not saved [513] by <private>");
  EXPECT_EQ(fields["PRIORITY"], "3");
  EXPECT_EQ(fields["MESSAGE_TYPE"], "Error");
  EXPECT_EQ(fields["SUBSYSTEM"], "com.qx.device.monitoring");
  EXPECT_EQ(fields["CATEGORY"], "event-store");
  EXPECT_EQ(fields["CODE_FILE"], "Tests/Logging/PLVLogTest.cpp");
  EXPECT_EQ(fields["CODE_FUNC"], "+[Caller report]");
  EXPECT_GT(std::stoi(fields["CODE_LINE"]), 1);
  EXPECT_EQ(fields["TID"], std::to_string(::gettid()));

  Caller().complain();
  fields = next();
  EXPECT_EQ(fields["MESSAGE"], "two\nlines");
  EXPECT_EQ(fields["CODE_FUNC"], "-[Caller complain]");
}

TEST_F(PLVLogToJournal, EvaluatesArgumentsOnlyForWhatIsSent) {
  int evaluations = 0;
  const auto evaluated = [&] { return ++evaluations; };
  QXLogInfo("Count [%d]", evaluated());
  setLevel(PLVLogLevel::Info);
  QXLogInfo("Count [%d]", evaluated());
  PLVLog(kEventStoreLog, PLVLogType::Debug, "Count [%d]", evaluated());
  EXPECT_EQ(evaluations, 1);
  EXPECT_EQ(next()["MESSAGE"], "Count [1]");
}

TEST_F(PLVLogToJournal, SendsNothingForWhatCannotBeUnderstood) {
  setLevel(PLVLogLevel::Info);
  const std::vector<std::string> formats{"%{public}", "100%", "%s", "%1$d %d", "[%{public}@] %ld"};
  for (const auto& format : formats)
    QXLogInfo(log::RuntimeFormat{format}, 1);
  QXLogInfo("understood");
  EXPECT_EQ(next()["MESSAGE"], "understood");
}

// What the compiler refuses, and what it lets through.
TEST(CheckedFormat, KnowsWhatAConversionTakes) {
  using enum log::ArgumentKind;
  static_assert(log::argumentKind<bool>() == integer && log::argumentKind<std::size_t>() == longInteger);
  static_assert(log::argumentKind<ErrorPtr>() == text && log::argumentKind<const char*>() == text);
  static_assert(log::argumentKind<const void*>() == address &&
                log::argumentKind<unsigned char[16]>() == bytes &&
                log::argumentKind<std::array<unsigned char, 16>>() == bytes);
  static_assert(log::goTogether("%d%% %{public}@ %-5.2f", std::array{integer, text, real}));
  static_assert(log::goTogether("%ld %lu %*.*f %.16P %p",
                                std::array{integer, longInteger, integer, integer, real, bytes, address}));
  static_assert(log::goTogether("%{public}@ %s", std::array{none, none}));
  static_assert(!log::goTogether("%d", std::array{longInteger}));
  static_assert(!log::goTogether("%d", std::array{text}) && !log::goTogether("%@", std::array{integer}));
  static_assert(!log::goTogether("%d", std::array<log::ArgumentKind, 0>{}));
  static_assert(!log::goTogether("none", std::array{integer}));
  static_assert(!log::goTogether("%n", std::array{address}) && !log::goTogether("%", std::array{integer}));
}

TEST_F(ConcurrentPLVLogToJournal, TakesLinesOfManyThreads) {
  setLevel(PLVLogLevel::Debug);
  constexpr int kThreads = 4, kLines = 200;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([thread] {
        for (int line = 0; line < kLines; ++line)
          QXLogInfo("%d %d", thread, line);
      });
    }
  }
  ASSERT_TRUE(journal.waitFor(kThreads * kLines));
  std::map<std::string, int> lines;
  for (const auto& datagram : journal.take())
    ++lines[journalFields(datagram)["MESSAGE"]];
  EXPECT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
}

TEST_F(ConcurrentPLVLogToJournal, FollowsLevelsThatChangeUnderItsFeet) {
  std::jthread writer([](const std::stop_token& stop) {
    while (!stop.stop_requested())
      QXLogInfo("line");
  });
  for (int round = 0; round < 200; ++round) {
    setLevel(PLVLogLevel::Default);
    setLevel(PLVLogLevel::NotLoaded);
    setLevel(PLVLogLevel::Info);
    ASSERT_TRUE(journal.waitFor(1));
    journal.take();
  }
}

class PLVLogToSyslog : public ::testing::Test {
 protected:
  std::string next() {
    EXPECT_TRUE(syslog.waitFor(1));
    const auto lines = syslog.take();
    EXPECT_EQ(lines.size(), 1U);
    return lines.empty() ? std::string() : lines.front();
  }

  VolumeRoot root;
  LogSocket syslog{root.path() + std::string(log::kSyslogSocketPath)};
};

TEST_F(PLVLogToSyslog, StampsEachLineAndWritesItToStandardErrorToo) {
  testing::internal::CaptureStderr();
  Caller::report();
  const auto errors = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(errors.ends_with(" <Error>: Not saved [513] by <private>\n")) << errors;
  const auto line = next();
  EXPECT_TRUE(line.starts_with("<11>")) << line;  // facility user, error
  const auto image = std::string(program_invocation_name);
  for (const std::string& part :
       {std::string("Not saved [513] by <private> [PLV "), "PLVProcessImagePath=\"" + image + "\"",
        std::string("Facility=\"com.qx.device.monitoring\" PLVCategory=\"event-store\""),
        std::string(R"(PLVSource.symbol="+[Caller report\]" PLVFilePath="Tests/Logging/PLVLogTest.cpp")"),
        std::string(R"(PLVSource.file="PLVLogTest.cpp" PLVSource.line=")"),
        std::string(R"(PLVMessageType="Error")"), std::string("PLVSenderImagePath=\""),
        std::string("PLVSource.image=\"qx_logging_tests\"")})
    EXPECT_NE(line.find(part), std::string::npos) << part << " in " << line;

  for (const auto& [type, priority] : std::map<PLVLogType, std::string>{{PLVLogType::Default, "<12>"},
                                                                        {PLVLogType::Info, "<13>"},
                                                                        {PLVLogType::Debug, "<13>"},
                                                                        {PLVLogType::Fault, "<10>"}}) {
    setLevel(PLVLogLevel::Debug);
    PLVLog(kEventStoreLog, type, "typed");
    EXPECT_TRUE(next().starts_with(priority));
  }
}

struct AtThreadEnd {
  ~AtThreadEnd() { Caller::report(); }
};

TEST_F(PLVLogToSyslog, TakesTheLastWordsOfAThread) {
  std::thread([] {
    static thread_local AtThreadEnd words;  // made first, so it outlives what the log keeps for the thread
    static_cast<void>(words);
    Caller::report();
  }).join();
  EXPECT_TRUE(syslog.waitFor(2));
}

TEST_F(PLVLogToSyslog, KeepsALogForEachThread) {
  ASLLog* const own = ASLLog::currentThread();
  EXPECT_EQ(own, ASLLog::currentThread());
  std::string other;
  std::thread([&] {
    EXPECT_NE(own, ASLLog::currentThread());
    other = *ASLLog::currentThread()->preparedMessage().find("PLVThreadID");
  }).join();
  EXPECT_NE(*own->preparedMessage().find("PLVThreadID"), other);
  EXPECT_EQ(own->message().entries().size(), 2U);
  EXPECT_EQ(own->client().evaluateSend(log::ASLClient::kNotice), log::ASLClient::kWanted);
  log::ASLClient client;
  client.setFilter(1U << log::ASLClient::kError);
  EXPECT_EQ(client.evaluateSend(log::ASLClient::kNotice), 0U);
  const auto description = own->description();
  EXPECT_TRUE(description.starts_with("<com.qx.eventstoring.ASLLog: 0x")) << description;
  EXPECT_NE(description.find("\n\tPLVThreadID: 0x"), std::string::npos) << description;
  EXPECT_TRUE(description.ends_with("\n}")) << description;
}

template <std::size_t size>
std::string methodName(const char (&prettyFunction)[size]) {
  return log::MethodName(prettyFunction).text();
}

TEST(MethodName, IsReadFromWhatTheCompilerSaysOfAFunction) {
  EXPECT_EQ(methodName("void QXDatabaseAccessor::initPrivately()"), "-[QXDatabaseAccessor initPrivately]");
  EXPECT_EQ(methodName("static QXEventStore& QXEventStore::sharedQXEventStore()"),
            "+[QXEventStore sharedQXEventStore]");
  EXPECT_EQ(methodName("std::map<int, std::function<void(int)> > qx::A::b(std::function<int(int)>) const"),
            "-[A b]");
  EXPECT_EQ(methodName("qx::A::run()::<lambda(int)>"), "-[A run]");
  EXPECT_EQ(methodName("auto qx::A::run()::(anonymous class)::operator()(int) const"), "-[A run]");
  EXPECT_EQ(methodName("void qx::{anonymous}::Inner::go()"), "-[Inner go]");
  EXPECT_EQ(methodName("void qx::(anonymous namespace)::Inner::go()"), "-[Inner go]");
  EXPECT_EQ(methodName("void qx::(anonymous namespace)::write(int)"), "write");
  EXPECT_EQ(methodName("A::A()"), "-[A A]");
  EXPECT_EQ(methodName("int main()"), "main");
  EXPECT_EQ(methodName("void A::b(T) [with T = int]"), "-[A b]");
  EXPECT_EQ(methodName("bool A::operator==(int) const"), "bool A::operator==(int) const");
  for (const auto& [name, made] : std::map<std::string, std::string>{
           {methodName(""), ""}, {methodName("("), "("}, {methodName("::("), "::("}, {methodName("x"), "x"}})
    EXPECT_EQ(name, made);
}

}  // namespace
}  // namespace qx::test
