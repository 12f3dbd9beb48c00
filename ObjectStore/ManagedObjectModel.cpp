#include "ObjectStore/ManagedObjectModel.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "Platform/PropertyList.h"
#include "Platform/UUID.h"

namespace qx {

namespace {

constexpr std::int64_t kReadFailed = 256;
constexpr std::int64_t kNoSuchFile = 260;
constexpr std::int64_t kNotAModel = 259;
constexpr std::size_t kMostProperties = 64;  // one bit each in a managed object

bool isIdentifier(const std::string& text) {
  const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  return !text.empty() && text.size() <= 64 && isLetter(text.front()) &&
         std::all_of(text.begin(), text.end(), [&](char c) { return isLetter(c) || isDigit(c) || c == '_'; });
}

std::string upperCase(std::string text) {
  for (char& c : text)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return text;
}

std::optional<AttributeType> attributeType(std::string_view name) {
  if (name == "string") return AttributeType::string;
  if (name == "integer") return AttributeType::integer;
  if (name == "boolean") return AttributeType::boolean;
  if (name == "date") return AttributeType::date;
  if (name == "binary") return AttributeType::binary;
  return std::nullopt;
}

Value::Kind defaultKind(AttributeType type) {
  switch (type) {
    case AttributeType::string:
      return Value::Kind::string;
    case AttributeType::integer:
      return Value::Kind::integer;
    case AttributeType::boolean:
      return Value::Kind::boolean;
    case AttributeType::date:
      return Value::Kind::date;
    case AttributeType::binary:
      return Value::Kind::data;
  }
  return Value::Kind::null;
}

const std::string* textIn(const Value& value, std::string_view key) {
  const Dictionary* dictionary = value.asDictionary();
  const Value* found = dictionary != nullptr ? dictionary->find(key) : nullptr;
  return found != nullptr ? found->asString() : nullptr;
}

const Array& arrayIn(const Value& value, std::string_view key) {
  static const Array none;
  const Dictionary* dictionary = value.asDictionary();
  const Value* found = dictionary != nullptr ? dictionary->find(key) : nullptr;
  const Array* array = found != nullptr ? found->asArray() : nullptr;
  return array != nullptr ? *array : none;
}

}  // namespace

/// Builds a model from its file's dictionary; the first thing that is wrong ends up in `problem_`.
class ModelReader {
 public:
  std::shared_ptr<const ManagedObjectModel> read(const Value& root) {
    auto model = std::make_shared<ManagedObjectModel>();
    if (const std::string* version = textIn(root, "version")) model->version_ = *version;
    for (const Value& entity : arrayIn(root, "entities"))
      model->entities_.push_back(readEntity(entity));
    if (model->entities_.empty()) fail("it has no entities");
    auto& entities = model->entities_;
    std::sort(entities.begin(), entities.end(),
              [](const auto& a, const auto& b) { return a.name_ < b.name_; });
    int number = 0;
    for (EntityDescription& entity : entities)
      entity.number_ = ++number;
    check(*model);
    if (!problem_.empty()) return nullptr;
    for (EntityDescription& entity : entities)
      entity.versionHash_ = hash(entity);
    return model;
  }

  const std::string& problem() const { return problem_; }

 private:
  void fail(const std::string& what) {
    if (problem_.empty()) problem_ = what;
  }

  EntityDescription readEntity(const Value& source) {
    EntityDescription entity;
    const std::string* name = textIn(source, "name");
    if (name == nullptr || !isIdentifier(*name))
      fail("an entity has no usable name");
    else
      entity.name_ = *name;
    entity.table_ = "Z" + upperCase(entity.name_);
    for (const Value& attribute : arrayIn(source, "attributes"))
      readAttribute(attribute, entity);
    for (const Value& relationship : arrayIn(source, "relationships"))
      readRelationship(relationship, entity);
    for (const Value& index : arrayIn(source, "indexes")) {
      std::vector<std::string>& keys = entity.indexes_.emplace_back();
      const Array* names = index.asArray();
      if (names == nullptr || names->empty())
        fail("an index of " + entity.name_ + " has no keys");
      else
        for (const Value& key : *names)
          keys.push_back(key.stringValue().value_or(""));
    }
    if (entity.properties_.size() > kMostProperties) fail(entity.name_ + " has too many properties");
    return entity;
  }

  void readAttribute(const Value& source, EntityDescription& entity) {
    PropertyDescription& property = addProperty(source, entity);
    const std::string* type = textIn(source, "type");
    const auto known = attributeType(type != nullptr ? *type : std::string());
    if (known)
      property.type = *known;
    else
      fail(entity.name_ + "." + property.name + " has no known type");
    const Dictionary* values = source.asDictionary();
    const Value* given = values != nullptr ? values->find("default") : nullptr;
    if (given == nullptr) return;
    if (given->kind() != defaultKind(property.type))
      fail(entity.name_ + "." + property.name + " has a default of another type");
    property.defaultValue = *given;
  }

  void readRelationship(const Value& source, EntityDescription& entity) {
    PropertyDescription& property = addProperty(source, entity);
    const Dictionary* values = source.asDictionary();
    const Value* toMany = values != nullptr ? values->find("toMany") : nullptr;
    const bool isToMany = toMany != nullptr && toMany->boolValue();
    property.kind = isToMany ? PropertyDescription::Kind::toMany : PropertyDescription::Kind::toOne;
    if (isToMany) {
      property.column.clear();
    } else {
      property.ordinal = entity.toOneCount_++;
    }
    if (const std::string* destination = textIn(source, "destination")) property.destination = *destination;
  }

  PropertyDescription& addProperty(const Value& source, EntityDescription& entity) {
    PropertyDescription& property = entity.properties_.emplace_back();
    const std::string* name = textIn(source, "name");
    if (name == nullptr || !isIdentifier(*name))
      fail("a property of " + entity.name_ + " has no usable name");
    else
      property.name = *name;
    property.column = "Z" + upperCase(property.name);
    return property;
  }

  void check(const ManagedObjectModel& model) {
    std::set<std::string> tables;
    for (const EntityDescription& entity : model.entities()) {
      if (!tables.insert(entity.table()).second) fail("two entities share the table " + entity.table());
      std::set<std::string> columns;
      for (const PropertyDescription& property : entity.properties()) {
        const bool isAttribute = property.kind == PropertyDescription::Kind::attribute;
        if (!property.column.empty() && !columns.insert(property.column).second)
          fail(entity.name() + " has two properties in the column " + property.column);
        if (!isAttribute && model.entity(property.destination) == nullptr)
          fail(entity.name() + "." + property.name + " leads to an unknown entity");
      }
      for (const auto& index : entity.indexes())
        for (const std::string& key : index)
          if (const auto at = entity.indexOf(key); !at || entity.properties()[*at].column.empty())
            fail("an index of " + entity.name() + " names the unknown key " + key);
    }
  }

  static Data hash(const EntityDescription& entity) {
    std::string text = entity.name();
    for (const PropertyDescription& property : entity.properties()) {
      text += '\n' + property.name + ' ' + std::to_string(static_cast<int>(property.kind)) + ' ';
      text += property.destination.empty() ? std::to_string(static_cast<int>(property.type))
                                           : property.destination;
    }
    return Data(nameUUIDBytes(text));
  }

  std::string problem_;
};

std::optional<std::size_t> EntityDescription::indexOf(std::string_view name) const {
  for (std::size_t i = 0; i < properties_.size(); ++i)
    if (properties_[i].name == name) return i;
  return std::nullopt;
}

std::shared_ptr<const ManagedObjectModel> ManagedObjectModel::load(const std::string& path, ErrorPtr* error) {
  ErrorPtr readError;
  const auto root = readXMLPropertyListFile(path, &readError);
  if (!root) {
    const bool missing = readError && readError->code() == kNoSuchFile;
    setError(error,
             Error::make(kCocoaErrorDomain, missing ? kNoSuchFile : kNotAModel,
                         Error::Details{.description = "The object model \"" + path + "\" could not be read.",
                                        .suggestion = {},
                                        .recoveryOptions = {},
                                        .recoveryAttempter = nullptr,
                                        .underlying = readError,
                                        .items = {}}));
    return nullptr;
  }
  ModelReader reader;
  auto model = reader.read(*root);
  if (!model)
    setError(error,
             Error::make(kCocoaErrorDomain, kNotAModel,
                         "The object model \"" + path + "\" cannot be used: " + reader.problem() + "."));
  return model;
}

std::optional<std::vector<ManagedObjectModelPtr>> ManagedObjectModel::loadAll(const std::string& directory,
                                                                              ErrorPtr* error) {
  namespace fs = std::filesystem;
  std::vector<ManagedObjectModelPtr> models;
  std::error_code failure;
  ErrorPtr problem;
  fs::directory_iterator file(directory, failure);
  for (; !problem && !failure && file != fs::directory_iterator(); file.increment(failure)) {
    if (file->path().extension() != ".mom") continue;
    models.push_back(load(file->path().string(), &problem));
  }
  if (failure) problem = Error::make(kPOSIXErrorDomain, failure.value(), failure.message());
  if (!problem) return models;
  setError(error, Error::make(kCocoaErrorDomain, kReadFailed,
                              Error::Details{.description = "The versions of the object model in \"" +
                                                            directory + "\" could not all be read.",
                                             .suggestion = {},
                                             .recoveryOptions = {},
                                             .recoveryAttempter = nullptr,
                                             .underlying = problem,
                                             .items = {}}));
  return std::nullopt;
}

const EntityDescription* ManagedObjectModel::entity(std::string_view name) const {
  for (const EntityDescription& entity : entities_)
    if (entity.name() == name) return &entity;
  return nullptr;
}

Dictionary ManagedObjectModel::versionHashes() const {
  Dictionary hashes;
  for (const EntityDescription& entity : entities_)
    hashes.set(entity.name(), entity.versionHash());
  return hashes;
}

bool ManagedObjectModel::isCompatibleWith(const StoreMetadata& metadata) const {
  const Value* hashes = metadata.values.find(kStoreModelVersionHashesKey);
  return hashes != nullptr && hashes->asDictionary() != nullptr && *hashes->asDictionary() == versionHashes();
}

}  // namespace qx
