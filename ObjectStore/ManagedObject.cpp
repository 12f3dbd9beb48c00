#include "ObjectStore/ManagedObject.h"

#include <cmath>
#include <limits>

#include "ObjectStore/ObjectRegistry.h"

namespace qx {

namespace {

const Value kNull;

Value integerOf(const Value& value) {
  if (value.kind() == Value::Kind::unsignedInteger) return {};
  if (const double* real = value.asReal()) {
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    if (!(std::trunc(*real) == *real && *real >= -kLimit && *real < kLimit)) return {};
  }
  return value.integerValue();
}

/// `value` as an attribute of that type holds it; null when it cannot.
Value converted(Value value, AttributeType type) {
  switch (type) {
    case AttributeType::string:
      return value.asString() != nullptr ? std::move(value) : Value();
    case AttributeType::integer:
      return value.isNumber() ? integerOf(value) : Value();
    case AttributeType::boolean:
      return value.isNumber() ? Value(value.boolValue()) : Value();
    case AttributeType::date:
      return value.asDate() != nullptr ? std::move(value) : Value();
    case AttributeType::binary:
      return value.asData() != nullptr ? std::move(value) : Value();
  }
  return {};
}

}  // namespace

ManagedObject::ManagedObject(Key, const EntityDescription& entity, std::shared_ptr<ObjectRegistry> registry)
    : entity_(&entity), registry_(std::move(registry)), values_(entity.properties().size()) {}

ManagedObject::~ManagedObject() {
  if (rowNumber_ != 0) registry_->remove(*this);
}

bool ManagedObject::isValid() const {
  return !registry_->isRetired();
}

const Value& ManagedObject::value(std::string_view attribute) const {
  const auto at = entity_->indexOf(attribute);
  if (!at || !isValid() || entity_->properties()[*at].kind != PropertyDescription::Kind::attribute)
    return kNull;
  return values_[*at];
}

const Value& ManagedObject::valueAt(std::size_t property) const {
  return isValid() && property < values_.size() ? values_[property] : kNull;
}

void ManagedObject::setValue(std::string_view attribute, Value value) {
  const auto at = entity_->indexOf(attribute);
  if (!at || !isValid() || entity_->properties()[*at].kind != PropertyDescription::Kind::attribute) return;
  Value taken = converted(std::move(value), entity_->properties()[*at].type);
  if (taken == values_[*at]) return;
  values_[*at] = std::move(taken);
  markChanged(*at);
}

ManagedObjectPtr ManagedObject::related(std::string_view relationship) const {
  const auto at = entity_->indexOf(relationship);
  if (!at || !isValid() || related_.empty()) return nullptr;
  const PropertyDescription& property = entity_->properties()[*at];
  if (property.kind != PropertyDescription::Kind::toOne) return nullptr;
  const ManagedObjectPtr& other = related_[property.ordinal];
  return other && other->isValid() ? other : nullptr;
}

void ManagedObject::setRelated(std::string_view relationship, ManagedObjectPtr object) {
  const auto at = entity_->indexOf(relationship);
  if (!at || !isValid() || entity_->properties()[*at].kind != PropertyDescription::Kind::toOne) return;
  if (object && object->entity().name() != entity_->properties()[*at].destination) return;
  if (related_.empty()) related_.resize(entity_->toOneCount());
  ManagedObjectPtr& related = related_[entity_->properties()[*at].ordinal];
  const bool same = object ? related == object : values_[*at].isNull() && !related;
  if (same) return;
  values_[*at] = object && object->rowNumber() != 0 ? Value(object->rowNumber()) : Value();
  related = std::move(object);
  markChanged(*at);
}

Dictionary ManagedObject::changedValues() const {
  Dictionary result;
  for (std::size_t i = 0; i < values_.size(); ++i)
    if (((changed_ >> i) & 1U) != 0 && entity_->properties()[i].kind == PropertyDescription::Kind::attribute)
      result.set(entity_->properties()[i].name, values_[i]);
  return result;
}

Value ManagedObject::valueForKeyPath(const std::vector<std::string>& keyPath) const {
  if (keyPath.size() == 1) {
    const Value& own = value(keyPath.front());
    // An object at the other end is something, and equal to nothing that has a name in a predicate.
    return own.isNull() && related(keyPath.front()) ? Value(Dictionary{}) : own;
  }
  if (keyPath.size() != 2) return {};
  const ManagedObjectPtr other = related(keyPath.front());
  return other ? other->value(keyPath.back()) : Value();
}

void ManagedObject::markChanged(std::size_t property) {
  const bool first = !hasChanges();
  changed_ |= std::uint64_t{1} << property;
  if (first) registry_->changes(*entity_).updated.push_back(shared_from_this());
}

}  // namespace qx
