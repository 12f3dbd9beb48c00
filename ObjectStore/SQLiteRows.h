#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <QXEventStoring/Platform/Value.h>

#include "ObjectStore/ManagedObjectModel.h"
#include "ObjectStore/SQLiteConnection.h"

namespace qx {

/// One row of a fetch, and of the tables that its to-one relationships lead to.
class FetchedRow {
 public:
  std::int64_t rowNumber() const { return statement_.integer(0); }
  /// Fills `values` (one per property of the fetched entity).
  void read(std::vector<Value>& values) const;
  /// The row behind the relationship `property`; 0 when there is none.
  std::int64_t relatedRowNumber(std::size_t property) const;
  void readRelated(std::size_t property, std::vector<Value>& values) const;

 private:
  friend class SQLiteStore;
  friend struct EntitySQL;
  struct Part {
    std::size_t property;  // of the fetched entity
    const EntityDescription* entity;
    int firstColumn;
  };
  FetchedRow(const SQLiteStatement& statement, const EntityDescription& entity,
             const std::vector<Part>& parts)
      : statement_(statement), entity_(entity), parts_(parts) {}
  const Part* part(std::size_t property) const;

  const SQLiteStatement& statement_;
  const EntityDescription& entity_;
  const std::vector<Part>& parts_;
};

/// The statements of one entity. Immutable.
struct EntitySQL {
  std::string select;  // with every related row
  std::string insert;
  std::string remove;
  std::string lastRow;  // the last row number that was handed out
  std::vector<FetchedRow::Part> parts;

  EntitySQL(const EntityDescription& entity, const ManagedObjectModel& model);
  /// " LEFT JOIN ..." with the table behind a to-one relationship.
  static std::string join(const EntityDescription& other, const std::string& alias,
                          const PropertyDescription& property);
};

}  // namespace qx
