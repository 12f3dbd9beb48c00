// The read-only database of known event classes: its look-ups, and the program that builds it.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "Tests/Sources/AccessorTesting.h"

namespace qx::test {
namespace {

class EventClassDatabase : public AccessorTest {
 protected:
  /// Runs a program with its standard error in a file; its exit status.
  int run(const std::string& command) const {
    const int status = std::system((command + " 2>'" + under("/stderr").string() + "'").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

TEST_F(EventClassDatabase, HoldsEveryClassOfItsTable) {
  std::ifstream table(QX_EVENT_CLASS_TABLE);
  std::string line;
  std::getline(table, line);
  int count = 0;
  for (; std::getline(table, line); ++count) {
    std::istringstream fields(line);
    std::string identifier, severity, handler, totalStates;
    std::getline(fields, identifier, ',');
    std::getline(fields, severity, ',');
    std::getline(fields, handler, ',');
    std::getline(fields, totalStates, ',');
    const Dictionary expected{{"eventClassID", identifier},
                              {"eventSeverity", std::stoi(severity)},
                              {"eventHandler", handler},
                              {"totalStates", std::stoi(totalStates)}};
    for (int time = 0; time < 2; ++time) {  // looked up, then remembered
      EXPECT_EQ(accessor().searchInInternalDatabase(identifier), expected);
      EXPECT_EQ(accessor().eventSeverityFromInternalDatabase(identifier), std::stoi(severity));
    }
  }
  EXPECT_GT(count, 100);
  EXPECT_EQ(eventClassCount(), static_cast<std::uint64_t>(count));
}

TEST_F(EventClassDatabase, DoesNotKnowOtherClasses) {
  const std::string known = "com.qx.printer.frontpanelevent.scan";
  ASSERT_TRUE(accessor().searchInInternalDatabase(known));
  for (const String& identifier :
       {String(), String(""), String("com.qx.printer.frontpanelevent.Scan"),
        String(known + std::string(1, '\0')), String("com.qx.printer.frontpanelevent.%"), String("\xff"),
        String(std::string(100'000, 'x'))}) {
    for (int time = 0; time < 2; ++time) {
      EXPECT_FALSE(accessor().searchInInternalDatabase(identifier))
          << identifier.value_or("(null)").substr(0, 80);
      EXPECT_EQ(accessor().eventSeverityFromInternalDatabase(identifier), 0);
    }
  }
  // More of them than are remembered.
  for (int number = 0; number < 10'100; ++number) {
    ASSERT_EQ(accessor().eventSeverityFromInternalDatabase("unknown " + std::to_string(number)), 0);
  }
  EXPECT_TRUE(accessor().searchInInternalDatabase(known));
}

TEST_F(EventClassDatabase, IsNeededForAnAccessorWhichIsBuiltOnceItIsThere) {
  // A copy of this program finds its resources beside itself.
  const fs::path copy = under("/copy/tests");
  fs::create_directories(copy.parent_path() / "QXEventStoring");
  fs::copy_file("/proc/self/exe", copy);
  const auto resources = copy.parent_path() / "QXEventStoring/Resources";
  fs::copy(fs::path(seedPath()).parent_path(), resources, fs::copy_options::recursive);
  fs::rename(resources / "EventClassStore.qxstore", resources / "aside");
  EXPECT_EQ(run("QX_RESOURCES='" + resources.string() + "' '" + copy.string() +
                "' --gtest_also_run_disabled_tests "
                "--gtest_filter=EventClassDatabase.DISABLED_ComesLateInAProcessOfItsOwn >/dev/null"),
            0)
      << contentsOf(under("/stderr"));
}

TEST_F(EventClassDatabase, DISABLED_ComesLateInAProcessOfItsOwn) {
  const fs::path resources(std::getenv("QX_RESOURCES"));
  EXPECT_EQ(QXDatabaseAccessor::sharedDBAccessor(), nullptr);
  writeFile(resources / "EventClassStore.qxstore", std::string(5000, 'x'));
  EXPECT_EQ(QXDatabaseAccessor::sharedDBAccessor(), nullptr);
  EXPECT_FALSE(fs::exists(store())) << "nothing is made before the accessor is sure to be";
  fs::rename(resources / "aside", resources / "EventClassStore.qxstore");
  ASSERT_NE(QXDatabaseAccessor::sharedDBAccessor(), nullptr);
  EXPECT_TRUE(accessor().isPersistentStoreCreated());
}

TEST_F(EventClassDatabase, IsNotBuiltFromABadTable) {
  const fs::path table = under("/table.csv");
  const fs::path output = under("/output.qxstore");
  const auto build = [&](const std::string& contents) {
    writeFile(table, contents);
    return run(std::string("'" QX_BUILD_EVENT_CLASSES "' '" QX_MODEL_FILE "' '") + table.string() + "' '" +
               output.string() + "'");
  };
  const std::string header = "classID,severity,handler,totalStates,comment\n";
  const struct {
    std::string contents, message;
  } cases[] = {
      {"", "holds no event class"},
      {header, "holds no event class"},
      {"classID,severity,handler,totalStates\na,1,h,2\n", "table.csv:1: "},
      {header + "a,1,h,2,\nb,1,h,2\n", "table.csv:3: 5 columns expected"},
      {header + "a,1,h,2,one, two\n", "table.csv:2: 5 columns expected"},
      {header + "a,1,h,2,\na,2,h,2,\n", "table.csv:3: class a stands here a second time"},
      {header + "a,high,h,2,\n", "table.csv:2: severity is no number in range: \"high\""},
      {header + "a,1,h,-2,\n", "table.csv:2: totalStates is no number in range: \"-2\""},
      {header + "a,1,h,99999999999,\n", "table.csv:2: totalStates"},
      {header + "a,1,h,2 ,\n", "table.csv:2: totalStates"},
      {header + ",1,h,2,\n", "table.csv:2: classID is empty"},
      {header + "a,1,,2,\n", "table.csv:2: handler is empty"},
      {header + "a,1,h,2,\"open\n", "table.csv:2: a quoted field"},
  };
  writeFile(output, "former");
  for (const auto& each : cases) {
    EXPECT_EQ(build(each.contents), 1) << each.contents;
    EXPECT_NE(contentsOf(under("/stderr")).find(each.message), std::string::npos)
        << each.contents << contentsOf(under("/stderr"));
    EXPECT_EQ(contentsOf(output), "former");
  }
  ASSERT_EQ(build(header + "\"a,\"\"b\",-1,h,2,\"one, two\"\r\n"), 0) << contentsOf(under("/stderr"));
  EXPECT_EQ(std::distance(fs::directory_iterator(root.path()), fs::directory_iterator()), 5)
      << "run, Users, the table, the output, the standard error";
  const auto coordinator = std::make_shared<PersistentStoreCoordinator>(currentModel());
  ASSERT_TRUE(coordinator->addPersistentStore(kSQLiteStoreType, output,
                                              {{std::string(kReadOnlyPersistentStoreOption), true}}));
  ManagedObjectContext context(coordinator);
  const auto classes = context.fetch(kEventClassEntity, nullptr);
  ASSERT_TRUE(classes && classes->size() == 1);
  EXPECT_EQ(classes->front()->value(kEventClassID), Value("a,\"b"));
  EXPECT_EQ(classes->front()->value(kEventSeverity), Value(-1));
  EXPECT_TRUE(classes->front()->value(kSourceID).isNull());
}

}  // namespace
}  // namespace qx::test
