// The log of running programs: other processes' levels, real sockets.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "Tests/Support/LogSocket.h"
#include "Tests/Support/Process.h"
#include "Tests/System/StoreMachine.h"

namespace qx::test {
namespace {

class Logging : public StoreMachine {
 protected:
  ProcessResult logLevel(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {QX_TOOL, "--volume-root", root(), "log-level"});
    return Process::run(std::move(arguments));
  }
  std::string journalPath() const { return root_ / "run/systemd/journal/socket"; }
};

bool tellsOfAdd(const std::string& datagram) {
  return journalFields(datagram)["MESSAGE"] == "Event is added successfully";
}

// As an administrator does it: the program that is looked at goes on as it is.
TEST_F(Logging, IsRaisedAndLoweredInARunningProcess) {
  LogSocket journal(journalPath());
  WorkerProcess worker(root());
  int added = 0;
  const auto add = [&] { EXPECT_EQ(worker.askAll("add 1 event" + std::to_string(added++)), "done"); };
  const auto isLogged = [&] {
    add();
    const auto lines = journal.take();
    return std::any_of(lines.begin(), lines.end(), tellsOfAdd);
  };
  add();
  EXPECT_TRUE(journal.take().empty());

  for (const std::string level : {"debug", "none", "info"}) {
    ASSERT_EQ(logLevel({level}).exitCode, 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (isLogged() != (level != "none"))
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << level;
  }
  add();
  const auto line = journal.waitFor(tellsOfAdd);
  ASSERT_TRUE(line);
  auto fields = journalFields(*line);
  EXPECT_EQ(fields["SUBSYSTEM"], "com.qx.device.monitoring");
  EXPECT_EQ(fields["CATEGORY"], "event-store");
  EXPECT_EQ(fields["MESSAGE_TYPE"], "Info");
  EXPECT_EQ(fields["CODE_FILE"], "Sources/QXEventStore.cpp");
  EXPECT_EQ(fields["CODE_FUNC"], "-[QXEventStore addEvent]");
  EXPECT_EQ(fields["SYSLOG_IDENTIFIER"], "qx_store_worker");
}

TEST_F(Logging, GoesToSyslogAndStandardErrorWithoutAJournal) {
  LogSocket syslog(root() + "/dev/log");
  ASSERT_EQ(logLevel({"info"}).exitCode, 0);
  const auto count = Process::run({QX_TOOL, "--volume-root", root(), "count"});
  EXPECT_EQ(count.exitCode, 0);
  EXPECT_EQ(count.output, "0\n");
  EXPECT_NE(count.errors.find(" <Notice>: Count of managed objects [0]\n"), std::string::npos)
      << count.errors;
  const auto line = syslog.waitFor([](const std::string& datagram) {
    return datagram.find("Count of managed objects [0]") != std::string::npos;
  });
  ASSERT_TRUE(line);
  EXPECT_TRUE(line->starts_with("<13>")) << *line;  // facility user, notice
  for (const char* const key :
       {R"(Facility="com.qx.device.monitoring")", R"(PLVCategory="event-store")", R"(PLVMessageType="Info")",
        R"(PLVSource.symbol="-[QXDatabaseAccessor countOfManagedObjects\]")",
        R"(PLVFilePath="Sources/QXDatabaseAccessor.cpp")", R"(PLVSource.file="QXDatabaseAccessor.cpp")",
        "PLVSource.line=\"", "PLVThreadID=\"0x", "PLVSource.image=\"libQXEventStoring.so",
        "PLVProcessImagePath=\""})
    EXPECT_NE(line->find(key), std::string::npos) << key << " in " << *line;
}

TEST_F(Logging, LosesNoLineOfAProcessWhileItsDaemonIsAway) {
  LogSocket journal(journalPath());
  ASSERT_EQ(logLevel({"info"}).exitCode, 0);
  WorkerProcess worker(root());
  ASSERT_EQ(worker.askAll("add 1 first"), "done");
  ASSERT_TRUE(journal.waitFor(tellsOfAdd));
  journal.take();
  journal.close();
  ASSERT_EQ(worker.askAll("add 20 away"), "done");
  journal.reopen();
  ASSERT_EQ(worker.askAll("add 1 last"), "done");
  ASSERT_EQ(worker.finish(), 0);
  const auto lines = journal.take();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), tellsOfAdd), 21);
}

// A word that is no level, in front of one: what the tool tells is what a process does.
TEST_F(Logging, AgreesWithItsProcessesOnWhatIsNoLevel) {
  ASSERT_EQ(logLevel({"info", "--maker", "--all-users"}).exitCode, 0);
  ASSERT_EQ(logLevel({"debug", "--maker"}).exitCode, 0);
  const std::string file = root() + "/config/QXEventStoring/com.qx.device.logging.plist";
  auto list = contentsOf(file);
  list.replace(list.find("debug"), 5, "loud");
  std::ofstream(file) << list;
  EXPECT_TRUE(logLevel({}).output.starts_with("Level:   none\n"));
  EXPECT_EQ(Process::run({QX_TOOL, "--volume-root", root(), "count"}).errors, "");
}

TEST_F(Logging, TellsItsLevelsAndRefusesWhatIsNone) {
  EXPECT_EQ(logLevel({}).output, "Level:   none\nSent to: syslog and standard error\n");
  const auto set = logLevel({"debug", "--application", "com.example.agent"});
  EXPECT_EQ(set.exitCode, 0);
  EXPECT_NE(set.output.find("Level:   debug"), std::string::npos) << set.output;
  EXPECT_NE(set.output.find("config/QXEventStoring/com.example.agent.plist"), std::string::npos)
      << set.output;
  EXPECT_EQ(logLevel({}).output, "Level:   none\nSent to: syslog and standard error\n");

  for (const std::vector<std::string>& wrong : {std::vector<std::string>{"loud"},
                                                {"info", "debug"},
                                                {"info", "--subsystem", "--maker"},
                                                {"info", "--all-users", "--this-machine"},
                                                {"--maker"},
                                                {"info", "--application", ""},
                                                {"info", "--application", "../../x"},
                                                {"info", "--application", "a\nb"}})
    EXPECT_EQ(logLevel(wrong).exitCode, 2) << wrong.back();

  const std::string file = root() + "/etc/xdg/QXEventStoring/com.qx.device.logging.plist";
  ASSERT_EQ(logLevel({"info", "--maker", "--all-users"}).exitCode, 0);
  ASSERT_TRUE(fs::exists(file));
  std::ofstream(file) << "<plist>damaged";
  EXPECT_EQ(logLevel({"info"}).exitCode, 0);
  const auto damaged = logLevel({});
  EXPECT_EQ(damaged.exitCode, 1);
  EXPECT_NE(damaged.errors.find(file), std::string::npos) << damaged.errors;
  EXPECT_EQ(logLevel({"debug", "--maker", "--all-users"}).exitCode, 1);
  EXPECT_EQ(contentsOf(file), "<plist>damaged");
}

}  // namespace
}  // namespace qx::test
