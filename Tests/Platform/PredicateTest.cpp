#include <QXEventStoring/Platform/PredicateBuilder.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace qx {
namespace {

/// A subject whose keys are the dictionary's; a path goes down through nested dictionaries.
class DictionarySubject : public PredicateSubject {
 public:
  explicit DictionarySubject(Dictionary entries) : entries_(std::move(entries)) {}

  Value valueForKeyPath(const std::vector<std::string>& keyPath) const override {
    const Dictionary* level = &entries_;
    const Value* value = nullptr;
    for (const std::string& component : keyPath) {
      value = level != nullptr ? level->find(component) : nullptr;
      if (value == nullptr) return {};
      level = value->asDictionary();
    }
    return value != nullptr ? *value : Value();
  }

 private:
  Dictionary entries_;
};

std::string message(const ErrorPtr& error) {
  return error != nullptr ? error->localizedDescription() : "none";
}

std::string printed(std::string_view format, const std::vector<Value>& arguments = {}) {
  ErrorPtr error;
  const PredicatePtr predicate = Predicate::withFormat(format, arguments, &error);
  return predicate != nullptr ? predicate->predicateFormat() : message(error);
}

// What each cell of the table says: == != < <= > >=
struct OrderCase {
  Value left, right;
  const char* expected;
};

TEST(Predicate, ComparesTwoValuedWithNilAndKindsApart) {
  const std::int64_t large = 9007199254740993;  // 2^53 + 1, not a double
  const std::vector<OrderCase> cases = {
      {nullptr, nullptr, "100101"},
      {nullptr, 1, "010000"},
      {"a", nullptr, "010000"},
      {1, 1.0, "100101"},
      {true, 1, "100101"},
      {1, 2, "011100"},
      {2.5, 2, "010011"},
      {large, 9007199254740992.0, "010011"},
      {std::numeric_limits<std::uint64_t>::max(), -1, "010011"},
      {"a", "b", "011100"},
      {"B", "a", "011100"},
      {"e\u0301", "\u00e9", "011100"},
      {"1", 1, "010000"},
      {Date{1}, 1, "010000"},
      {Date{1}, Date{2}, "011100"},
      {Date{1}, Date{1}, "100101"},
      {std::nan(""), std::nan(""), "010000"},
      {Array{1, "a"}, Array{true, "a"}, "100000"},
  };
  using Operator = Predicate::Operator;
  constexpr Operator kOperators[] = {Operator::equal,       Operator::notEqual, Operator::less,
                                     Operator::lessOrEqual, Operator::greater,  Operator::greaterOrEqual};
  for (const OrderCase& each : cases) {
    const DictionarySubject subject({{"left", each.left}, {"right", each.right}});
    std::string answers;
    for (const Operator op : kOperators) {
      const PredicatePtr keys =
          Predicate::comparison(Expression::keyPath("left"), op, Expression::keyPath("right"));
      const PredicatePtr mirrored = key("left").compare(op, each.right);
      EXPECT_EQ(keys->evaluate(subject), mirrored->evaluate(subject));
      answers += keys->evaluate(subject) ? '1' : '0';
    }
    EXPECT_EQ(answers, each.expected) << each.left.description() << " and " << each.right.description();
  }
}

TEST(Predicate, EvaluatesTextsOnASubject) {
  const DictionarySubject subject({{"n", 5},
                                   {"s", "text"},
                                   {"read", false},
                                   {"when", Date{100}},
                                   {"list", Array{1, "text", nullptr}},
                                   {"rel", Dictionary{{"id", "x"}, {"n", 5}}},
                                   {"SELF", "itself"}});
  const std::vector<std::pair<const char*, bool>> cases = {
      {"n == 5 AND s == 'text'", true},
      {"n == 5 AND s == 'Text'", false},
      {"n == 4 OR rel.n == n", true},
      {"missing != 'a'", true},
      {"NOT missing == 'a'", true},
      {"missing == other.missing", true},
      {"rel.missing.id == nil", true},
      {"read == NO AND read == 0", true},
      {"when > CAST(99.5, 'NSDate') AND when =< CAST(100, 'NSDate')", true},
      {"n IN {1, 5}", true},
      {"n IN {'5'}", false},
      {"n IN {}", false},
      {"missing IN {1}", false},
      {"missing IN {1, nil}", true},
      {"n IN {1, rel.n}", true},
      {"s IN list AND NOT n IN list", true},
      {"missing IN list", true},
      {"n IN rel", true},
      {"'ex' IN s AND NOT 'EX' IN s", true},
      {"'' IN s OR n IN s OR n IN missing", false},
      {"SELF == 'itself'", true},
      {"TRUEPREDICATE AND NOT FALSEPREDICATE", true},
      {"n == 5 OR n == 5 AND n == 4", true},
      {"NOT n == 4 AND n == 4", false},
  };
  for (const auto& [text, expected] : cases) {
    const PredicatePtr predicate = Predicate::withFormat(text);
    ASSERT_NE(predicate, nullptr) << printed(text);
    EXPECT_EQ(predicate->evaluate(subject), expected) << text;
  }
}

}  // namespace
}  // namespace qx
