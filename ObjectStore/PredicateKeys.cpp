#include "ObjectStore/PredicateKeys.h"

#include <algorithm>
#include <functional>
#include <unordered_set>
#include <utility>

namespace qx {

namespace {

/// Its own stacks instead of the thread's: predicates can be built without bound, those of subqueries too.
class KeyCollector {
 public:
  explicit KeyCollector(const Expression& expression) : expressions_{&expression} {}
  explicit KeyCollector(const Predicate& predicate) : predicates_{&predicate} {}

  std::vector<KeyPath> run() {
    while (!expressions_.empty() || !predicates_.empty()) {
      if (!expressions_.empty())
        visit(*expressions_.back());
      else
        visit(*predicates_.back());
    }
    return std::move(keys_);
  }

 private:
  void visit(const Predicate& predicate) {
    predicates_.pop_back();
    if (!seen_.insert(&predicate).second) return;
    for (const PredicatePtr& member : predicate.members())
      predicates_.push_back(member.get());
    if (predicate.kind() != Predicate::Kind::comparison) return;
    expressions_.push_back(predicate.left().get());
    expressions_.push_back(predicate.right().get());
  }

  void visit(const Expression& expression) {
    expressions_.pop_back();
    if (!seen_.insert(&expression).second) return;
    const bool isOfSelf =
        expression.kind() == Expression::Kind::path && expression.base()->kind() == Expression::Kind::self;
    if (expression.kind() == Expression::Kind::keyPath || isOfSelf)
      return note(withoutOperators(expression.components()));
    if (expression.kind() == Expression::Kind::self) return note({});
    for (const ExpressionPtr& member : expression.members())
      expressions_.push_back(member.get());
    if (expression.predicate() != nullptr) predicates_.push_back(expression.predicate().get());
  }

  void note(KeyPath key) {
    if (noted_.insert(key).second) keys_.push_back(std::move(key));
  }

  struct Hash {
    std::size_t operator()(const KeyPath& key) const {
      std::size_t result = key.size();
      for (const std::string& component : key)
        result = result * 31 + std::hash<std::string>()(component);
      return result;
    }
  };

  std::vector<const Expression*> expressions_;
  std::vector<const Predicate*> predicates_;
  std::unordered_set<const void*> seen_;  // parts that a builder has used more than once
  std::vector<KeyPath> keys_;
  std::unordered_set<KeyPath, Hash> noted_;
};

}  // namespace

KeyPath withoutOperators(const KeyPath& components) {
  const auto isOperator = [](const std::string& component) { return component.starts_with('@'); };
  return {components.begin(), std::find_if(components.begin(), components.end(), isOperator)};
}

std::vector<KeyPath> keysOf(const Expression& expression) {
  return KeyCollector(expression).run();
}

std::vector<KeyPath> keysOf(const Predicate& predicate) {
  return KeyCollector(predicate).run();
}

}  // namespace qx
