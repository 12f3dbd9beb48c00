#pragma once

// A machine of the test's own with processes of several users on it, and a look at its store file from
// outside.

#include <grp.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryDirectory.h"

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define QX_TESTS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define QX_TESTS_SANITIZED 1
#endif
#endif
#ifndef QX_TESTS_SANITIZED
#define QX_TESTS_SANITIZED 0
#endif

namespace qx::test {

namespace fs = std::filesystem;

inline constexpr const char* kStoreFile = "Users/Shared/QX/QX Event Store/QXEventStore.qxstore";

/// A store worker under way. Its lines are read one by one; one that stays silent for a minute has failed.
class WorkerProcess {
 public:
  struct Options {
    std::optional<uid_t> user = std::nullopt;  // who runs it; none: who runs the test
    mode_t umask = 022;
  };

  explicit WorkerProcess(const std::string& root) : WorkerProcess(root, Options()) {}
  WorkerProcess(const std::string& root, const Options& options)
      : process_([&](const ChildProcess::Line& line) { return become(line, root, options); }) {
    const timeval patience{60, 0};
    ::setsockopt(process_.line().descriptor(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }

  void tell(const std::string& command) const {
    const std::string line = command + "\n";
    if (::send(process_.line().descriptor(), line.data(), line.size(), MSG_NOSIGNAL) < 0) {
      ADD_FAILURE() << "the worker has gone: " << command;
    }
  }

  /// Its next line; nothing once it has ended.
  std::optional<std::string> nextLine() {
    for (;;) {
      const auto end = unread_.find('\n');
      if (end != std::string::npos) {
        std::string line = unread_.substr(0, end);
        unread_.erase(0, end + 1);
        return line;
      }
      char piece[4096];
      const ssize_t count = ::recv(process_.line().descriptor(), piece, sizeof piece, 0);
      if (count <= 0) return std::nullopt;
      unread_.append(piece, static_cast<std::size_t>(count));
    }
  }

  std::string ask(const std::string& command) {
    tell(command);
    return nextLine().value_or("(ended)");
  }

  /// The answer that follows the lines "added ID".
  std::string lastLine() {
    std::string line = nextLine().value_or("(ended)");
    while (line.starts_with("added "))
      line = nextLine().value_or("(ended)");
    return line;
  }
  std::string askAll(const std::string& command) {
    tell(command);
    return lastLine();
  }

  void kill(int number) const { process_.kill(number); }
  /// Lets it end of itself; its exit status.
  int finish() {
    ::shutdown(process_.line().descriptor(), SHUT_WR);
    return process_.exitStatus();
  }
  /// Until it has ended, of itself or not.
  int exitStatus() { return process_.exitStatus(); }

 private:
  static int become(const ChildProcess::Line& line, const std::string& root, const Options& options) {
    ::dup2(line.descriptor(), STDIN_FILENO);
    ::dup2(line.descriptor(), STDOUT_FILENO);
    ::umask(options.umask);
    if (options.user) {
      const bool changed = ::setgroups(0, nullptr) == 0 && ::setgid(*options.user) == 0 &&
                           ::setuid(*options.user) == 0 && ::chdir("/") == 0;
      if (!changed) return 126;
    }
    ::execl(QX_STORE_WORKER, QX_STORE_WORKER, root.c_str(), nullptr);
    return 127;
  }

  ChildProcess process_;
  std::string unread_;
};

/// A store file as any SQLite program sees it.
class RawStore {
 public:
  explicit RawStore(const std::string& path) {
    if (sqlite3_open_v2(path.c_str(), &handle_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) fail(path);
    sqlite3_busy_timeout(handle_, 30'000);
  }
  RawStore(const RawStore&) = delete;
  RawStore& operator=(const RawStore&) = delete;
  ~RawStore() { sqlite3_close(handle_); }

  /// The first column of every row.
  std::vector<std::string> texts(const std::string& sql) const {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(handle_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) fail(sql);
    std::vector<std::string> result;
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
      const auto* const text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
      result.emplace_back(text != nullptr ? text : "(null)");
    }
    sqlite3_finalize(statement);
    if (step != SQLITE_DONE) fail(sql);
    return result;
  }
  std::string text(const std::string& sql) const {
    const auto rows = texts(sql);
    return rows.empty() ? "(no row)" : rows.front();
  }
  std::int64_t number(const std::string& sql) const { return std::stoll(text(sql)); }
  void execute(const std::string& sql) const { texts(sql); }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error(what + ": " + sqlite3_errmsg(handle_));
  }

  sqlite3* handle_ = nullptr;
};

inline std::string contentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

inline mode_t modeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

/// A volume root that every user may enter, with a shared directory that every user may write.
class StoreMachine : public testing::Test {
 protected:
  StoreMachine() {
    ::setenv("XDG_CONFIG_HOME", (root_ / "config").c_str(), 1);
    fs::create_directories(root_ / "Users/Shared");
    for (const char* const directory : {"", "Users"})
      ::chmod((root_ / directory).c_str(), 0755);
    ::chmod((root_ / "Users/Shared").c_str(), 0777);
  }

  const std::string& root() const { return root_.path(); }
  std::string store() const { return root_ / kStoreFile; }
  std::string storeDirectory() const { return fs::path(store()).parent_path(); }
  RawStore rawStore() const { return RawStore(store()); }

  /// A user who is not the one that runs the test; none, said once, where that cannot be.
  std::optional<uid_t> anotherUser() const {
    constexpr uid_t kNobody = 65534;
    if (::geteuid() == 0 && isReachable(root()) && isReachable(QX_STORE_WORKER)) return kNobody;
    std::cout << "[  NOTE    ] no second user: not run by root, or the files are not reachable for others\n";
    return std::nullopt;
  }

  WorkerProcess start(std::optional<uid_t> user = std::nullopt) const {
    return WorkerProcess(root(), {.user = user});
  }

  /// Makes the store, with `count` events "PREFIX.0" ..., by a process that ends.
  void makeStore(int count = 0, const std::string& prefix = "old") const {
    WorkerProcess worker(root());
    ASSERT_EQ(worker.ask("status"), "open " + store());
    ASSERT_EQ(worker.askAll("add " + std::to_string(count) + " " + prefix), "done");
    ASSERT_EQ(worker.finish(), 0);
  }

  TemporaryDirectory root_;

  static void expectSound(const RawStore& store) {
    EXPECT_EQ(store.texts("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
    EXPECT_EQ(store.text("PRAGMA journal_mode"), "delete");
    for (const char* const table : {"ZQXEVENT", "ZQXEVENTCLASS", "ZQXEVENTSOURCE"}) {
      const std::string name(table);
      const std::string counter =
          "(SELECT Z_MAX FROM Z_PRIMARYKEY WHERE 'Z' || UPPER(Z_NAME) = '" + name + "')";
      EXPECT_EQ(store.number("SELECT COUNT(DISTINCT Z_PK) = COUNT(*) AND MAX(Z_PK) <= " + counter + " FROM " +
                             name),
                1)
          << name;
      EXPECT_EQ(store.number("SELECT COUNT(*) FROM " + name +
                             " AS t WHERE t.Z_ENT != (SELECT Z_ENT FROM "
                             "Z_PRIMARYKEY WHERE 'Z' || UPPER(Z_NAME) = '" +
                             name + "')"),
                0)
          << name;
    }
    EXPECT_EQ(store.texts("SELECT ZEVENTID FROM ZQXEVENT GROUP BY ZEVENTID HAVING COUNT(*) > 1"),
              std::vector<std::string>{});
    EXPECT_EQ(store.texts("SELECT ZSOURCEID FROM ZQXEVENTSOURCE GROUP BY ZSOURCEID HAVING COUNT(*) > 1"),
              std::vector<std::string>{});
    EXPECT_EQ(store.texts("SELECT ZEVENTCLASSID || ' of ' || IFNULL(ZSOURCEID, 'all') FROM ZQXEVENTCLASS "
                          "GROUP BY ZEVENTCLASSID, ZSOURCEID HAVING COUNT(*) > 1"),
              std::vector<std::string>{});
    EXPECT_EQ(store.number("SELECT COUNT(*) FROM ZQXEVENT WHERE ZEVENTCLASS NOT IN (SELECT Z_PK FROM "
                           "ZQXEVENTCLASS) OR ZEVENTSOURCEID NOT IN (SELECT ZSOURCEID FROM ZQXEVENTSOURCE)"),
              0);
  }

 private:
  /// Whether every user may walk down to it.
  static bool isReachable(const std::string& path) {
    for (fs::path directory = fs::path(path).parent_path();; directory = directory.parent_path()) {
      if ((modeOf(directory) & S_IXOTH) == 0) return false;
      if (directory == directory.root_path()) return true;
    }
  }
};

}  // namespace qx::test
