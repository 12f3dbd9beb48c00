#include "ObjectStore/PredicateFunction.h"

#include <sqlite3.h>

#include <cmath>
#include <cstring>
#include <exception>
#include <unordered_set>
#include <utility>

#include "ObjectStore/SQLiteConnection.h"
#include "Platform/TextPattern.h"

namespace qx {

namespace {

/// A row during one call.
class RowSubject : public PredicateSubject {
 public:
  RowSubject(const std::vector<RowCondition::Key>& keys, sqlite3_value* const* columns)
      : keys_(keys), columns_(columns) {}

  Value valueForKeyPath(const std::vector<std::string>& keyPath) const override {
    for (std::size_t i = 0; i < keys_.size(); ++i)
      if (keys_[i].path == keyPath) return value(keys_[i], columns_[i]);
    return {};
  }

 private:
  static Value value(const RowCondition::Key& key, sqlite3_value* column) {
    Value value = valueOf(column, key.type);
    if (!key.isObject) return value;
    // As ManagedObject has it. A row number that leads nowhere is no object.
    return value.integerValue() > 0 ? Value(Dictionary()) : Value();
  }

  const std::vector<RowCondition::Key>& keys_;
  sqlite3_value* const* columns_;
};

class Evaluation : public RowCondition {
 public:
  Evaluation(const Predicate& predicate, std::vector<Key> keys)
      : predicate_(predicate), keys_(std::move(keys)) {}
  bool holds(sqlite3_value* const* columns) const override {
    return predicate_.evaluate(RowSubject(keys_, columns));
  }

 private:
  const Predicate& predicate_;
  std::vector<Key> keys_;
};

template <class T>
std::string bytesOf(T value) {
  std::string bytes(sizeof value, '\0');
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

class Membership : public RowCondition {
 public:
  Membership(const Array& list, AttributeType type, Predicate::Options options)
      : type_(type), options_(options) {
    members_.reserve(list.size());
    for (const Value& member : list)
      if (String key = keyOf(member)) members_.insert(std::move(*key));
  }

  bool holds(sqlite3_value* const* columns) const override {
    const String key = keyOf(valueOf(*columns, type_));
    return key && members_.contains(*key);
  }

 private:
  /// What equal values share, and no other value does; none for what no column of the type can equal.
  String keyOf(const Value& value) const {
    if (value.isNull()) return "n";
    switch (type_) {
      case AttributeType::string:
        return value.asString() != nullptr ? "s" + detail::foldedText(*value.asString(), options_) : String();
      case AttributeType::integer:
      case AttributeType::boolean: {
        const std::int64_t integer = value.integerValue();
        return value.isNumber() && detail::predicateEqual(integer, value) ? bytesOf(integer) : String();
      }
      case AttributeType::date: {
        if (value.asDate() == nullptr) return {};
        const double seconds = value.asDate()->secondsSinceReferenceDate;
        if (std::isnan(seconds)) return {};
        return bytesOf(seconds + 0.0);  // the two zeros are equal
      }
      case AttributeType::binary:
        return value.asData() != nullptr ? "d" + std::string(value.asData()->bytes()) : String();
    }
    return {};
  }

  AttributeType type_;
  Predicate::Options options_;
  std::unordered_set<std::string> members_;
};

/// No exception may pass through SQLite.
void callCondition(sqlite3_context* context, int count, sqlite3_value** arguments) noexcept {
  const void* bound = count > 0 ? sqlite3_value_pointer(arguments[0], RowCondition::kPointerType) : nullptr;
  if (bound == nullptr) return sqlite3_result_error(context, "there is no condition", -1);
  try {
    detail::wasMatchGivenUp();  // by somebody else
    const bool holds = static_cast<const RowCondition*>(bound)->holds(arguments + 1);
    if (detail::wasMatchGivenUp()) return sqlite3_result_error(context, RowCondition::kUndecided, -1);
    sqlite3_result_int(context, holds ? 1 : 0);
  } catch (const std::exception&) {
    sqlite3_result_error_nomem(context);
  }
}

}  // namespace

std::shared_ptr<const RowCondition> RowCondition::evaluation(const Predicate& predicate,
                                                             std::vector<Key> keys) {
  return std::make_shared<Evaluation>(predicate, std::move(keys));
}

std::shared_ptr<const RowCondition> RowCondition::membership(const Array& list, AttributeType type,
                                                             Predicate::Options options) {
  return std::make_shared<Membership>(list, type, options);
}

bool registerPredicateFunction(sqlite3* handle) {
  constexpr int kAnyNumberOfArguments = -1;
  return sqlite3_create_function_v2(handle, RowCondition::kFunction, kAnyNumberOfArguments,
                                    SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_DIRECTONLY, nullptr,
                                    callCondition, nullptr, nullptr, nullptr) == SQLITE_OK;
}

}  // namespace qx
