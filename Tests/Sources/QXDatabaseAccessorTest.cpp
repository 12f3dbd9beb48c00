// Starting, saving and repairing: the accessor on real files.
#include "Sources/QXDatabaseAccessor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <list>
#include <thread>

#include "Tests/Sources/AccessorTesting.h"
#include "Tests/Support/ChildProcess.h"

namespace qx::test {
namespace {

using Codes = std::vector<std::int64_t>;
using Lines = std::vector<std::string>;

std::int64_t codeOf(const ErrorPtr& error) {
  return error ? error->code() : 0;
}

/// Sets or clears the immutable flag; false when the file system has none or we may not.
bool setImmutable(const fs::path& path, bool immutable) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int flags = 0;
  bool done = ::ioctl(file, FS_IOC_GETFLAGS, &flags) == 0;
  flags = immutable ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
  done = done && ::ioctl(file, FS_IOC_SETFLAGS, &flags) == 0;
  ::close(file);
  return done;
}

class DatabaseAccessor : public AccessorTest {
 protected:
  /// A store file of a model that is not ours, in the store's place.
  void replaceStoreByOtherModels() {
    const fs::path model = under("/other.mom");
    writeFile(model, R"(<?xml version="1.0"?><plist version="1.0"><dict>
        <key>version</key><string>9</string><key>entities</key><array><dict>
        <key>name</key><string>QXDestinationApplication</string><key>attributes</key><array>
        <dict><key>name</key><string>path</string><key>type</key><string>string</string></dict>
        </array><key>relationships</key><array/><key>indexes</key><array/>
        </dict></array></dict></plist>)");
    ErrorPtr error;
    const auto other = ManagedObjectModel::load(model, &error);
    ASSERT_NE(other, nullptr) << error->summary();
    makeStore(under("/other.qxstore"), other, {"/other"});
    fs::rename(under("/other.qxstore"), store());
  }

  void placeSeed() const {
    fs::create_directories(store().parent_path());
    fs::copy_file(seedPath(), store());
  }

  std::string pathInLog() const { return store().string(); }
};

TEST_F(DatabaseAccessor, CopiesTheKnownEventClassesAtTheFirstStart) {
  ::umask(077);
  ASSERT_EQ(QXDatabaseAccessor::sharedDBAccessor(), &accessor());
  EXPECT_TRUE(accessor().isPersistentStoreCreated());
  EXPECT_TRUE(accessor().isStoreMetaDataCompatible(nullptr));
  EXPECT_GT(eventClassCount(), 100U);
  EXPECT_EQ(modeOf(under("/Users/Shared")), 0777U);
  EXPECT_EQ(modeOf(under("/Users/Shared/QX")), 0777U);
  EXPECT_EQ(modeOf(under("/Users/Shared/QX/QX Event Store")), 0777U);
  EXPECT_EQ(modeOf(store()), 0666U);

  ASSERT_NE(addApplication("/bin/true"), nullptr);
  EXPECT_TRUE(save());
  EXPECT_EQ(applications(), std::set<std::string>{"/bin/true"});
  EXPECT_FALSE(fs::exists(store().string() + "-wal"));
  EXPECT_EQ(contentsOf(store()).substr(18, 2), "\1\1") << "no rollback journal";
}

TEST_F(DatabaseAccessor, IsOneObjectForAllThreadsAndProcessesThatStartTogether) {
  std::list<ChildProcess> processes;
  for (int process = 0; process < 4; ++process) {
    processes.emplace_back([](const ChildProcess::Line& line) {
      line.wait();
      return accessor().isPersistentStoreCreated() && eventClassCount() > 100 ? 0 : 1;
    });
  }
  for (const auto& process : processes)
    process.line().signal();
  for (auto& process : processes)
    EXPECT_EQ(process.exitStatus(), 0);
  std::vector<QXDatabaseAccessor*> seen(4);
  std::vector<std::thread> threads;
  threads.reserve(seen.size());
  for (auto& each : seen)
    threads.emplace_back([&each] { each = QXDatabaseAccessor::sharedDBAccessor(); });
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(seen, std::vector<QXDatabaseAccessor*>(seen.size(), &accessor()));
}

TEST_F(DatabaseAccessor, LogsTheStartThatMakesTheStore) {
  CollectedLines lines(journal);
  accessor();
  const auto logged = lines.take();
  ASSERT_EQ(logged.size(), 5U) << Value(Array(logged.begin(), logged.end())).description();
  EXPECT_EQ(logged[0], "Registered for notification [com.qx.tests]");
  EXPECT_EQ(logged[1], "File does not exist at path the required path[" + pathInLog() + "]");
  EXPECT_EQ(logged[2], "Not nil");
  EXPECT_EQ(logged[3], "Error occurred is=============================== [0]");
  const std::string opened = "Persistent store at path:== [" + pathInLog() + "] is [";
  EXPECT_EQ(logged[4].substr(0, opened.size()), opened);
}

TEST_F(DatabaseAccessor, LogsTheStartThatFindsTheStore) {
  placeSeed();
  CollectedLines lines(journal);
  accessor();
  auto logged = lines.take();
  ASSERT_EQ(logged.size(), 5U) << Value(Array(logged.begin(), logged.end())).description();
  EXPECT_EQ(logged[1], "Error occured is[file does not exist [(null)] userinfo = [(null)]");
  EXPECT_EQ(logged[2], "Error occured is[file exist] [(null)]");
  EXPECT_EQ(logged[3], "Error occurred is=============================== [0]");
}

TEST_F(DatabaseAccessor, OpensUpAStoreThatSomebodyLocked) {
  placeSeed();
  fs::permissions(store(), fs::perms::owner_read);
  const bool locked = setImmutable(store(), true);
  EXPECT_TRUE(!locked || ::open(store().c_str(), O_WRONLY | O_CLOEXEC) < 0);
  EXPECT_TRUE(accessor().isPersistentStoreCreated());
  EXPECT_EQ(modeOf(store()), 0666U);
  addApplication("/bin/true");
  ErrorPtr error;
  EXPECT_TRUE(save(&error)) << error->summary();

  // The flag also goes when it comes back while the store is open.
  setImmutable(store(), locked);
  addApplication("/bin/false");
  EXPECT_TRUE(save(&error)) << error->summary();
  if (!locked) GTEST_SKIP() << "the immutable flag could not be set here";
}

TEST_F(DatabaseAccessor, RefusesALinkInTheStoresPlace) {
  const fs::path victim = under("/victim");
  fs::copy_file(seedPath(), victim);
  fs::permissions(victim, fs::perms(0600));
  fs::create_directories(store().parent_path());
  fs::create_symlink(victim, store());
  const std::string before = contentsOf(victim);

  CollectedLines lines(journal);
  EXPECT_FALSE(accessor().isPersistentStoreCreated());
  const auto logged = lines.take();
  EXPECT_EQ(logged[logged.size() - 3].find("error[persistent store is nil] "), 0U);
  EXPECT_EQ(logged.back(), "m_Store = [(null)]");
  addApplication("/bin/true");
  EXPECT_FALSE(save());
  EXPECT_EQ(contentsOf(victim), before);
  EXPECT_EQ(modeOf(victim), 0600U);
  // The event classes stay at hand.
  EXPECT_EQ(accessor().eventSeverityFromInternalDatabase("com.qx.printer.frontpanelevent.scan"), 0);
  EXPECT_TRUE(accessor().searchInInternalDatabase("com.qx.printer.frontpanelevent.scan"));
}

TEST_F(DatabaseAccessor, LogsASaveAndSaysSoWhenThereWasNothingToWrite) {
  accessor();
  CollectedLines lines(journal);
  ErrorPtr error = Error::make("former", 1);
  EXPECT_TRUE(save(&error));
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(lines.take(),
            (Lines{"saveEventToStore called", "saveContext called", "IsMetaDataCompatible?? [1] ",
                   "Error while saving the context : [Code = 0] :[Description = (null)]",
                   "******Is successfully saved = [1]******", "[QXDatabaseAccessor savestatus[1]]"}));
}

TEST_F(DatabaseAccessor, LeavesAReplacedFileAloneWhenItSaves) {
  addApplication("/lost");
  ASSERT_NO_FATAL_FAILURE(replaceStoreByOtherModels());
  const std::string before = contentsOf(store());
  CollectedLines lines(journal);
  ErrorPtr error;
  EXPECT_FALSE(save(&error));
  EXPECT_EQ(codeOf(error), 259);
  EXPECT_EQ(error->domain(), kCocoaErrorDomain);
  EXPECT_EQ(contentsOf(store()), before);
  const auto logged = lines.take();
  ASSERT_EQ(logged.size(), 6U);
  EXPECT_EQ(logged[2].find("Error in creating source metadata [Error Domain=NSCocoaErrorDomain Code=259"),
            0U);
  EXPECT_EQ(logged[3], "IsMetaDataCompatible?? [0] ");
  EXPECT_EQ(logged[4], "******Is successfully saved = [0]******");
  EXPECT_EQ(logged[5], "[QXDatabaseAccessor savestatus[0]]");
}

TEST_F(DatabaseAccessor, ReportsAMissingOrDamagedFileWhenItSaves) {
  addApplication("/kept");
  fs::rename(store(), under("/aside"));
  ErrorPtr error;
  EXPECT_FALSE(save(&error));
  EXPECT_EQ(codeOf(error), 260);
  EXPECT_FALSE(fs::exists(store()));
  writeFile(store(), std::string(5000, 'x'));
  EXPECT_FALSE(save(&error));
  EXPECT_EQ(codeOf(error), 259);
  EXPECT_EQ(contentsOf(store()), std::string(5000, 'x'));
  fs::rename(under("/aside"), store());
  EXPECT_TRUE(save(&error)) << "the change is still there";
  EXPECT_EQ(applications(), std::set<std::string>{"/kept"});
}

TEST_F(DatabaseAccessor, TurnsAnExceptionOfTheSaveIntoAnError) {
  EXPECT_TRUE(accessor().removeCorruptedStore(nullptr));
  placeSeed();
  addApplication("/bin/true");
  CollectedLines lines(journal);
  ErrorPtr error;
  EXPECT_FALSE(save(&error));
  EXPECT_EQ(error->domain(), kCocoaErrorDomain);
  EXPECT_EQ(codeOf(error), 134030);
  const auto logged = lines.take();
  ASSERT_EQ(logged.size(), 8U) << Value(Array(logged.begin(), logged.end())).description();
  EXPECT_EQ(logged[3].find("Catch Exception [Name = "), 0U);
  EXPECT_EQ(logged[4], "Error:Required file is missing");
  EXPECT_EQ(logged[5].find("Error while saving the context : [Code = 134030] :[Description = "), 0U);
  EXPECT_EQ(logged[6], "******Is successfully saved = [0]******");
}

TEST_F(DatabaseAccessor, ReportsFailedReadsToWhomAsksForErrors) {
  accessor();
  const std::lock_guard guard(accessor());
  CollectedLines lines(journal);
  ErrorPtr error;
  EXPECT_TRUE(accessor().getManagedObjects(kDestinationAppEntity, nullptr, nullptr));
  EXPECT_EQ(lines.take(), Lines());
  EXPECT_TRUE(accessor().getManagedObjects(kDestinationAppEntity, nullptr, &error));
  EXPECT_EQ(lines.take(), Lines{"Error in getManagedObjectsFromEntity:[(null)]"});
  EXPECT_FALSE(accessor().getManagedObjects("NoSuchEntity", nullptr, &error));
  EXPECT_EQ(lines.take(), Lines{"Error in getManagedObjectsFromEntity:[" + error->summary() + "]"});
  EXPECT_EQ(accessor().countOfManagedObjects("NoSuchEntity", nullptr, &error),
            ManagedObjectContext::kNotFound);
  EXPECT_EQ(lines.take(), Lines{"Count of managed objects [18446744073709551615]"});
  accessor().removeObject(nullptr);
  accessor().refreshObject(nullptr);
}

TEST_F(DatabaseAccessor, OpensTheFixedPlaceWhateverExistingFileItIsGiven) {
  accessor();
  makeStore(under("/elsewhere.qxstore"), currentModel(), {"/elsewhere"});
  EXPECT_TRUE(accessor().updateStoreWithPath(under("/elsewhere.qxstore")));
  EXPECT_EQ(applications(), std::set<std::string>());
}

TEST_F(DatabaseAccessor, StaysClosedWhenTheEventClassesCannotBeCopied) {
  accessor();
  EXPECT_FALSE(accessor().updateStoreWithPath(under("/no/such/directory/new.qxstore")));
  EXPECT_EQ(eventClassCount(), ManagedObjectContext::kNotFound) << "it works on the original";
  EXPECT_TRUE(accessor().updateStoreWithPath(store()));
  EXPECT_GT(eventClassCount(), 100U);
}

TEST_F(DatabaseAccessor, OpensTheStoreThatAnotherProcessMadeInTheMeantime) {
  struct Machine : PosixHost {
    std::string notYetThere;
    bool fileExists(const std::string& path) const override {
      return path != notYetThere && PosixHost::fileExists(path);
    }
  } machine;
  makeStore(store(), currentModel(), {"/of/the/other"});
  machine.notYetThere = store();
  const ScopedHost scope(machine);
  EXPECT_TRUE(accessor().isPersistentStoreCreated());
  EXPECT_EQ(applications(), std::set<std::string>{"/of/the/other"});
}

TEST_F(DatabaseAccessor, TellsWhetherItsDirectoriesCanBeWritten) {
  struct Machine : PosixHost {
    std::string missing, locked;
    bool fileExists(const std::string& path) const override {
      return missing.empty() || !std::string_view(path).ends_with(missing);
    }
    bool isWritable(const std::string& path) const override {
      return locked.empty() || !std::string_view(path).ends_with(locked);
    }
  } machine;
  accessor();
  const ScopedHost scope(machine);
  const struct {
    std::string missing, locked;
    bool writable;
  } cases[] = {{"", "", true},
               {"/Users/Shared", "", false},
               {"", "/Users/Shared", false},
               {"/QX", "/QX", true},
               {"", "/QX", false},
               {"/QX Event Store", "/QX Event Store", true},
               {"", "/QX Event Store", false}};
  for (const auto& each : cases) {
    machine.missing = each.missing;
    machine.locked = each.locked;
    EXPECT_EQ(accessor().isStoreWritable(), each.writable) << each.missing << " | " << each.locked;
  }
}

TEST_F(DatabaseAccessor, MakesAMissingStoreAgainAndSaysSo) {
  FileUpdates updates;
  const auto object = addApplication("/lost");
  fs::remove_all(under("/Users/Shared/QX"));
  CollectedLines lines(journal);
  EXPECT_TRUE(accessor().handleError(134030));
  EXPECT_EQ(lines.take().front(), "Create new file==========>>>In handle error");
  EXPECT_EQ(updates.takeCodes(), Codes{134030});
  EXPECT_FALSE(object->isValid());
  EXPECT_TRUE(accessor().isPersistentStoreCreated());
  EXPECT_GT(eventClassCount(), 100U);
  EXPECT_EQ(modeOf(store().parent_path()), 0777U);

  fs::remove_all(under("/Users/Shared/QX"));
  lines.take();
  EXPECT_TRUE(accessor().createNewStore(nullptr));
  EXPECT_EQ(updates.takeCodes(), Codes{134030});
  const auto logged = lines.take();
  EXPECT_EQ(logged.front(), "QXDatabaseAccessor::createNewStore::");
  EXPECT_EQ(logged.back(), "New store is created successfully :: [1]");
  addApplication("/bin/true");
  EXPECT_TRUE(save());

  accessor().initializeContext();
  EXPECT_EQ(updates.takeCodes(), Codes{0});
  EXPECT_EQ(modeOf(store()), 0666U);
}

TEST_F(DatabaseAccessor, OpensTheStoreAgainAfterOtherFailures) {
  FileUpdates updates;
  addApplication("/bin/true");
  EXPECT_TRUE(save());
  CollectedLines lines(journal);
  EXPECT_TRUE(accessor().handleError(256));
  EXPECT_EQ(lines.take().front(), "Problem with permission");
  EXPECT_FALSE(accessor().handleError(259));
  EXPECT_EQ(lines.take().front(), "Problem with corrupted database");
  EXPECT_FALSE(accessor().correctPermission(nullptr));
  EXPECT_EQ(lines.take(), Lines{"QXDatabaseAccessor::Correct the permission"});
  EXPECT_EQ(updates.takeCodes(), (Codes{256, 100, 256}));
  EXPECT_EQ(applications(), std::set<std::string>{"/bin/true"});

  // Even when it cannot be opened.
  fs::remove(store());
  fs::create_directory(store());
  EXPECT_TRUE(accessor().handleError(256));
  EXPECT_FALSE(accessor().isPersistentStoreCreated());
  EXPECT_TRUE(accessor().handleError(259));
  EXPECT_FALSE(accessor().createNewStore(nullptr));
  EXPECT_EQ(updates.takeCodes(), (Codes{256, 256, 134030}));
  const auto logged = lines.take();
  EXPECT_EQ(logged[logged.size() - 2], "Store is nil");
  EXPECT_EQ(logged.back(), "New store is created successfully :: [0]");
}

TEST_F(DatabaseAccessor, ClosesAndRemovesACorruptStore) {
  accessor();
  FileUpdates updates;
  writeFile(store(), "not a store at all");
  CollectedLines lines(journal);
  EXPECT_TRUE(accessor().removeCorruptedStore(nullptr));
  EXPECT_EQ(lines.take(), (Lines{"Remove corrupted store", "Corrupted store in [removeCorruptedStore]"}));
  EXPECT_FALSE(fs::exists(store()));
  EXPECT_FALSE(accessor().isPersistentStoreCreated());
  EXPECT_FALSE(accessor().removeCorruptedStore(nullptr));
  EXPECT_EQ(updates.takeCodes(), (Codes{100, 100}));

  // A closed store is opened for the record operations only, and nothing is announced.
  lines.take();
  EXPECT_TRUE(accessor().handleError(259));
  EXPECT_EQ(lines.take(), (Lines{"Problem with corrupted database", "The persistent store is nil@@@",
                                 "Persistent store created successfully@@@"}));
  EXPECT_EQ(modeOf(store()), 0666U);
  EXPECT_FALSE(accessor().isPersistentStoreCreated());
  EXPECT_EQ(updates.takeCodes(), Codes());
  addApplication("/bin/true");
  EXPECT_TRUE(save());
  EXPECT_TRUE(accessor().createNewStore(nullptr));
  EXPECT_EQ(applications(), std::set<std::string>{"/bin/true"});
}

TEST_F(DatabaseAccessor, OpensTheStoreAgainWhenAnotherProcessReplacedIt) {
  accessor();
  auto& center = DistributedNotificationCenter::defaultCenter();
  const auto post = [&center](const String& object, const std::string& user, const Value& code) {
    Dictionary userInfo{{"User Name", user}};
    if (!code.isNull()) userInfo.set("Error code", code);
    center.post("File Updated", object, userInfo, 3);
    ASSERT_TRUE(center.drain(10'000));
  };
  const std::string user = Host::current().userName();
  const struct {
    String object;
    std::string user;
    Value code;
    std::string firstLine;  // after the line of every notification; none: it is ignored
  } cases[] = {
      {"com.qx.tests", user, {}, ""},
      {"com.qx.tests", user, 100, ""},
      {"com.qx.tests", "somebody", {}, "Need to update the context"},
      {"com.example.other", user, {}, "Need to update the context"},
      {std::nullopt, user, {}, "Need to update the context"},
      {"com.example.other", user, 134030,
       "Recieved notification for handling file missing in application*** [com.qx.tests]"},
      {"com.example.other", user, 256,
       "Recieved notification for file update in application*** [com.qx.tests]"},
      {"com.example.other", user, 100, "Error occured is[file does not exist [(null)] userinfo = [(null)]"},
      {"com.example.other", user, "text",
       "Error occured is[file does not exist [(null)] userinfo = [(null)]"},
  };
  CollectedLines lines(journal);
  for (const auto& each : cases) {
    SCOPED_TRACE(each.object.value_or("(none)") + " " + each.user + " " + each.code.description());
    const auto object = addApplication("/unsaved");
    lines.take();
    post(each.object, each.user, each.code);
    EXPECT_EQ(object->isValid(), each.firstLine.empty());
    const auto logged = lines.take();
    if (each.firstLine.empty()) {
      EXPECT_EQ(logged, Lines());
      continue;
    }
    ASSERT_GE(logged.size(), 2U);
    EXPECT_EQ(logged[0], "*******Notification Recieved*****[com.qx.tests]");
    EXPECT_EQ(logged[1], each.firstLine);
    EXPECT_TRUE(accessor().isPersistentStoreCreated());
  }

  // One without a poster's name is nobody's own, not even for a program without a name.
  Bundle::setMainBundleIdentifier("");
  lines.take();
  post(std::nullopt, user, {});
  EXPECT_FALSE(lines.take().empty());
  Bundle::setMainBundleIdentifier(kTestApplication);

  accessor().removeCorruptedStore(nullptr);
  center.drain(10'000);
  lines.take();
  post("com.example.other", user, 100);
  EXPECT_EQ(lines.take(),
            (Lines{"*******Notification Recieved*****[com.qx.tests]", "The persistent store is nil+++++",
                   "Persistent store created successfully +++ After recieving notification"}));
  EXPECT_FALSE(accessor().isPersistentStoreCreated());
}

}  // namespace
}  // namespace qx::test
