// Rows as they come from SQLite, and the statements that they come with.
#include "ObjectStore/SQLiteRows.h"

#include "ObjectStore/PredicateSQL.h"
#include "ObjectStore/SQLiteSchema.h"

namespace qx {

EntitySQL::EntitySQL(const EntityDescription& entity, const ManagedObjectModel& model) {
  const std::string& table = entity.table();
  std::string joins;
  select = "SELECT t0.Z_PK, " + columnList(entity, "t0.");
  int column = 1;
  for (const PropertyDescription& property : entity.properties())
    column += property.column.empty() ? 0 : 1;
  for (std::size_t i = 0; i < entity.properties().size(); ++i) {
    const PropertyDescription& property = entity.properties()[i];
    if (property.kind != PropertyDescription::Kind::toOne) continue;
    const EntityDescription& other = *model.entity(property.destination);
    const std::string alias = relationshipAlias(i);
    select += ", " + alias + ".Z_PK, " + columnList(other, alias + ".");
    joins += join(other, alias, property);
    parts.push_back({i, &other, column});
    column += 1;
    for (const PropertyDescription& p : other.properties())
      column += p.column.empty() ? 0 : 1;
  }
  select += " FROM " + table + " AS t0" + joins;
  insert = "INSERT INTO " + table + " (Z_PK, Z_ENT, Z_OPT, " + columnList(entity, "") + ") VALUES (?, " +
           std::to_string(entity.number()) + ", 1";
  for (const PropertyDescription& property : entity.properties())
    if (!property.column.empty()) insert += ", ?";
  insert += ")";
  remove = "DELETE FROM " + table + " WHERE Z_PK = ?";
  // The table has the last word: a counter that is behind it, however that came, must not stop every add.
  lastRow = "SELECT MAX(IFNULL(CAST(Z_MAX AS INTEGER), 0), IFNULL((SELECT MAX(Z_PK) FROM " + table +
            "), 0)) FROM Z_PRIMARYKEY WHERE Z_ENT = ?";
}

std::string EntitySQL::join(const EntityDescription& other, const std::string& alias,
                            const PropertyDescription& property) {
  return " LEFT JOIN " + other.table() + " AS " + alias + " ON " + alias + ".Z_PK = t0." + property.column;
}

namespace {

void readProperties(const SQLiteStatement& statement, const EntityDescription& entity, int column,
                    std::vector<Value>& values) {
  const auto& properties = entity.properties();
  for (std::size_t i = 0; i < properties.size(); ++i) {
    if (properties[i].column.empty()) continue;
    const bool isAttribute = properties[i].kind == PropertyDescription::Kind::attribute;
    values[i] = statement.value(column++, isAttribute ? properties[i].type : AttributeType::integer);
  }
}

}  // namespace

void FetchedRow::read(std::vector<Value>& values) const {
  readProperties(statement_, entity_, 1, values);
}

const FetchedRow::Part* FetchedRow::part(std::size_t property) const {
  for (const Part& part : parts_)
    if (part.property == property) return &part;
  return nullptr;
}

std::int64_t FetchedRow::relatedRowNumber(std::size_t property) const {
  const Part* found = part(property);
  return found != nullptr ? statement_.integer(found->firstColumn) : 0;
}

void FetchedRow::readRelated(std::size_t property, std::vector<Value>& values) const {
  if (const Part* found = part(property))
    readProperties(statement_, *found->entity, found->firstColumn + 1, values);
}

}  // namespace qx
