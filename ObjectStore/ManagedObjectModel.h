#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/Value.h>

namespace qx {

/// What an attribute's column holds.
enum class AttributeType { string, integer, boolean, date, binary };

/// An attribute or a relationship of an entity.
struct PropertyDescription {
  enum class Kind { attribute, toOne, toMany };

  std::string name;
  Kind kind = Kind::attribute;
  AttributeType type = AttributeType::string;  // attributes only
  Value defaultValue;                          // attributes: what rows of a version without it get
  std::string destination;                     // relationships: name of the other entity
  std::string column;                          // "ZEVENTID"; none for a to-many relationship
  std::size_t ordinal = 0;                     // position among the entity's to-one relationships
};

/// One kind of object: a table of the store. Immutable; any thread.
class EntityDescription {
 public:
  const std::string& name() const { return name_; }
  /// Number in the model, from 1, in the order of the names: the rows' Z_ENT.
  int number() const { return number_; }
  /// "ZQXEVENT".
  const std::string& table() const { return table_; }
  const std::vector<PropertyDescription>& properties() const { return properties_; }
  /// Position in properties(), or nothing for an unknown name.
  std::optional<std::size_t> indexOf(std::string_view name) const;
  std::size_t toOneCount() const { return toOneCount_; }
  /// Lists of property names that the store keeps an index over.
  const std::vector<std::vector<std::string>>& indexes() const { return indexes_; }
  /// 16 bytes that change whenever name, attributes, types or relationships do; indexes and defaults do not
  /// count.
  const Data& versionHash() const { return versionHash_; }

 private:
  friend class ModelReader;
  std::string name_;
  int number_ = 0;
  std::string table_;
  std::vector<PropertyDescription> properties_;
  std::vector<std::vector<std::string>> indexes_;
  std::size_t toOneCount_ = 0;
  Data versionHash_;
};

/// What a store says of itself: its Z_METADATA row.
struct StoreMetadata {
  std::string uuid;
  Dictionary values;  // among them kStoreModelVersionHashesKey
};

inline constexpr std::string_view kStoreModelVersionHashesKey = "NSStoreModelVersionHashes";
inline constexpr std::string_view kStoreTypeKey = "NSStoreType";
inline constexpr std::string_view kStoreUUIDKey = "NSStoreUUID";

/// The kinds of objects that a store holds. Immutable; any thread.
class ManagedObjectModel {
 public:
  /// Reads a model file: an XML property list as in Resources/QXStoreModel.momd. Null, with *error of
  /// NSCocoaErrorDomain (260 missing, 259 not a model, naming what is wrong), when it cannot be used.
  static std::shared_ptr<const ManagedObjectModel> load(const std::string& path, ErrorPtr* error = nullptr);
  /// The versions of a model: every ".mom" file of `directory`. Nothing, with *error of NSCocoaErrorDomain
  /// (256, with what was wrong underneath), when one of them or the directory cannot be read.
  static std::optional<std::vector<std::shared_ptr<const ManagedObjectModel>>> loadAll(
      const std::string& directory, ErrorPtr* error = nullptr);

  /// The version's own name: "3"; empty when the file gives none.
  const std::string& version() const { return version_; }
  /// In the order of their numbers.
  const std::vector<EntityDescription>& entities() const { return entities_; }
  const EntityDescription* entity(std::string_view name) const;
  /// Entity name to version hash: what a store made for this model carries in its metadata.
  Dictionary versionHashes() const;
  /// Whether a store with that metadata was made for exactly this model.
  bool isCompatibleWith(const StoreMetadata& metadata) const;

 private:
  friend class ModelReader;
  std::string version_;
  std::vector<EntityDescription> entities_;
};

using ManagedObjectModelPtr = std::shared_ptr<const ManagedObjectModel>;

/// Gives the versions of a model that stores may have been made for, all of them or, with *error, none. Asked
/// only when a store is met that is not of the present one.
using ModelVersions = std::function<std::optional<std::vector<ManagedObjectModelPtr>>(ErrorPtr* error)>;

}  // namespace qx
