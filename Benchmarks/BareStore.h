#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace benchmarks {

/// An event's row, the class's beside it, as a program without the library would keep it.
struct BareRow {
  std::int64_t number = 0, state = 0, version = 0, severity = 0, states = 0;
  bool read = false;
  double triggerTime = 0;
  std::string id, sourceID, info, classID, handler, classSourceID;
};

/// The yardstick: the library's statements on a copy of its store file, straight on SQLite, prepared once,
/// with the same durability (rollback journal, synchronous = FULL) and nothing else.
///
/// Threads: one at a time. Failures are exceptions.
class BareStore {
 public:
  explicit BareStore(const std::string& path);
  ~BareStore();
  BareStore(const BareStore&) = delete;
  BareStore& operator=(const BareStore&) = delete;

  /// The first `count` rows, to make new ones from.
  std::vector<BareRow> firstRows(std::size_t count);
  std::vector<std::string> eventIDs();

  /// One transaction: look up class and source, raise the counter, insert.
  void add(const BareRow& row);
  /// As the library adds a list: refuses known IDs, looks up each class and source once, raises the counter
  /// once, inserts. The transaction is the caller's.
  void addList(const std::vector<BareRow>& rows);
  void begin();
  void commit();
  /// Look-up, then the update in a transaction.
  void markRead(const std::string& id);
  void remove(const std::string& id);

  std::vector<BareRow> fetchAll();
  std::vector<BareRow> fetchBySource(const std::string& sourceID);
  BareRow fetchByID(const std::string& id);
  /// The newest of a source, of that severity or a higher one.
  std::vector<BareRow> fetchNewest(const std::string& sourceID, std::int64_t severity, std::int64_t count);
  /// Those of a source from a moment on, of that severity or a higher one.
  std::vector<BareRow> fetchSince(const std::string& sourceID, double moment, std::int64_t severity);
  /// The sources of events that are neither of a blocked source, nor of a blocked class, nor of the pair.
  std::vector<std::string> distinctSources(const std::vector<std::string>& blockedSources,
                                           const std::string& blockedClass, const std::string& pairClass,
                                           const std::string& pairSource);
  std::uint64_t count();
  std::uint64_t countUnread();
  std::uint64_t countDistinctIDs();

 private:
  struct Close {
    void operator()(sqlite3* database) const;
  };
  class Statement;
  std::int64_t classRow(const BareRow& row);
  bool hasSource(const std::string& id);
  std::int64_t reserve(std::int64_t count);
  void insert(const BareRow& row, std::int64_t number, std::int64_t classNumber);
  std::uint64_t countOf(const char* sql);
  std::vector<BareRow> rowsOf(Statement& statement);

  std::unique_ptr<sqlite3, Close> database_;
  std::unique_ptr<Statement> begin_, commit_, genericClass_, sourceClass_, source_, lastRow_, reserve_,
      insert_, known_, numberByID_, markRead_, remove_, all_, bySource_, byID_, newest_, since_;
};

}  // namespace benchmarks
