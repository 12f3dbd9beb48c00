#include <QXEventStoring/Platform/Predicate.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <ctime>
#include <limits>
#include <string>
#include <vector>

namespace qx {
namespace {

using Operator = Predicate::Operator;
using Operation = Expression::Operation;
using Modifier = Predicate::Modifier;

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

ExpressionPtr k(std::string_view path) {
  return Expression::keyPath(path);
}

ExpressionPtr c(Value value) {
  return Expression::constant(std::move(value));
}

bool holds(const Value& left, Operator op, const Value& right, Modifier modifier = Modifier::direct,
           Predicate::Options options = {}) {
  const DictionarySubject subject({{"left", left}, {"right", right}});
  const auto answer = [&](ExpressionPtr side) {
    return Predicate::comparison(k("left"), op, std::move(side), options, modifier)->evaluate(subject);
  };
  const bool result = answer(k("right"));
  EXPECT_EQ(answer(c(right)), result) << left.description() << " and " << right.description();
  return result;
}

// What each cell of the table says: == != < <= > >=
struct OrderCase {
  Value left, right;
  const char* expected;
};

TEST(PredicateEvaluation, ComparesTwoValuedWithNilAndKindsApart) {
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
  constexpr Operator kOperators[] = {Operator::equal,       Operator::notEqual, Operator::less,
                                     Operator::lessOrEqual, Operator::greater,  Operator::greaterOrEqual};
  for (const OrderCase& each : cases) {
    const DictionarySubject subject({{"left", each.left}, {"right", each.right}});
    std::string answers;
    for (const Operator op : kOperators) {
      const PredicatePtr keys =
          Predicate::comparison(Expression::keyPath("left"), op, Expression::keyPath("right"));
      const PredicatePtr constant =
          Predicate::comparison(Expression::keyPath("left"), op, Expression::constant(each.right));
      EXPECT_EQ(keys->evaluate(subject), constant->evaluate(subject));
      answers += keys->evaluate(subject) ? '1' : '0';
    }
    EXPECT_EQ(answers, each.expected) << each.left.description() << " and " << each.right.description();
  }
}

TEST(PredicateEvaluation, EvaluatesTextsOnASubject) {
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
    ASSERT_NE(predicate, nullptr) << text;
    EXPECT_EQ(predicate->evaluate(subject), expected) << text;
  }
}

constexpr Predicate::Options kFolded{.caseInsensitive = true, .diacriticInsensitive = true};

TEST(PredicateEvaluation, KnowsListsAndRanges) {
  const Value list = Array{1, "text", nullptr, Date{5}};
  const Value entries = Dictionary{{"a", 1}, {"b", "\u00c9"}};
  struct Case {
    Value left;
    Operator op;
    Value right;
    bool expected;
    Predicate::Options options = {};
  };
  const std::vector<Case> cases = {
      {1, Operator::between, Array{1, 2}, true},
      {2.0, Operator::between, Array{1, 2}, true},
      {2.5, Operator::between, Array{1, 2}, false},
      {1, Operator::between, Array{2, 1}, false},
      {"b", Operator::between, Array{"a", "c"}, true},
      {"B", Operator::between, Array{"a", "c"}, false},
      {"B", Operator::between, Array{"a", "c"}, true, kFolded},
      {Date{2}, Operator::between, Array{Date{1}, Date{3}}, true},
      {2, Operator::between, Array{1, "3"}, false},
      {nullptr, Operator::between, Array{nullptr, nullptr}, false},
      {1, Operator::between, Array{1}, false},
      {1, Operator::between, Array{0, 1, 2}, false},
      {1, Operator::between, 1, false},
      {1.0, Operator::in, list, true},
      {"TEXT", Operator::in, list, false},
      {"TEXT", Operator::in, list, true, kFolded},
      {nullptr, Operator::in, list, true},
      {nullptr, Operator::in, Array{1}, false},
      {"e", Operator::in, entries, true, kFolded},
      {list, Operator::contains, "text", true},
      {list, Operator::contains, nullptr, true},
      {list, Operator::contains, "ex", false},
      {entries, Operator::contains, 1, true},
      {list, Operator::beginsWith, 1, false},
      {list, Operator::in, Array{list}, true},
      {5, Operator::contains, 5, false},
      {5, Operator::like, "5", false},
      {"5", Operator::like, 5, false},
      {nullptr, Operator::like, "*", false},
      {nullptr, Operator::contains, nullptr, false},
      {"a", Operator::equal, "A", true, kFolded},
      {"a", Operator::notEqual, "A", false, kFolded},
      {"a", Operator::greaterOrEqual, "\u00c4", true, kFolded},
      {"b", Operator::less, "\u00c4", false, kFolded},
      {1, Operator::equal, 1.0, true, kFolded},
      {nullptr, Operator::equal, nullptr, true, kFolded},
  };
  for (const Case& each : cases)
    EXPECT_EQ(holds(each.left, each.op, each.right, Modifier::direct, each.options), each.expected)
        << each.left.description() << " op " << static_cast<int>(each.op) << " " << each.right.description();
}

TEST(PredicateEvaluation, ComparesSomeOrEveryMember) {
  const Value none = Array{};
  const Value list = Array{1, 2, 3};
  const Value texts = Array{"abc", "abd"};
  struct Case {
    Value left;
    Operator op;
    Value right;
    bool any, all;
  };
  const std::vector<Case> cases = {
      {list, Operator::equal, 2, true, false},
      {list, Operator::notEqual, 4, true, true},
      {list, Operator::between, Array{1, 3}, true, true},
      {list, Operator::in, Array{3, 4}, true, false},
      {texts, Operator::like, "ab?", true, true},
      {texts, Operator::contains, "c", true, false},
      {Dictionary{{"a", 1}, {"b", 2}}, Operator::less, 2, true, false},
      {none, Operator::equal, 1, false, true},
      {nullptr, Operator::equal, nullptr, false, false},
      {1, Operator::equal, 1, false, false},
      {"abc", Operator::like, "abc", false, false},
      {Array{nullptr}, Operator::equal, nullptr, true, true},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(holds(each.left, each.op, each.right, Modifier::any), each.any) << each.left.description();
    EXPECT_EQ(holds(each.left, each.op, each.right, Modifier::all), each.all) << each.left.description();
  }
}

/// Whether both are of one kind, or numbers, and print alike.
void expectValue(const Value& value, const Value& expected, const std::string& what) {
  EXPECT_EQ(value.description(), expected.description()) << what;
  EXPECT_TRUE(value.kind() == expected.kind() || (value.isNumber() && expected.isNumber())) << what;
}

TEST(PredicateEvaluation, CalculatesExactlyWhileNumbersFit) {
  constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  constexpr std::uint64_t kMostUnsigned = std::numeric_limits<std::uint64_t>::max();
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  struct Case {
    Value left;
    Operation operation;
    Value right, expected;
  };
  const std::vector<Case> cases = {
      {1, Operation::add, 2, 3},
      {true, Operation::add, 1, 2},
      {kMost - 1, Operation::add, 1, kMost},
      {kMost, Operation::add, 1, 9223372036854775808U},
      {kMostUnsigned, Operation::add, 1, 18446744073709551616.0},
      {kLeast, Operation::subtract, 1, -9223372036854775809.0},
      {3037000500, Operation::multiply, 3037000500, 9223372037000250000U},
      {kMostUnsigned, Operation::multiply, kMostUnsigned, 3.4028236692093846e38},
      {kLeast, Operation::multiply, -1, 9223372036854775808U},
      {7, Operation::divide, 2, 3},
      {-7, Operation::divide, 2, -3},
      {7, Operation::divide, 2.0, 3.5},
      {kLeast, Operation::divide, -1, 9223372036854775808U},
      {1, Operation::divide, 0, nullptr},
      {1, Operation::divide, false, nullptr},
      {1, Operation::divide, 0.0, kInfinity},
      {2, Operation::power, 10, 1024},
      {2, Operation::power, -1, 0.5},
      {0.5, Operation::subtract, 1, -0.5},
      {"1", Operation::add, 1, nullptr},
      {1, Operation::add, nullptr, nullptr},
      {Date{1}, Operation::subtract, Date{0}, nullptr},
      {Array{1}, Operation::add, 1, nullptr},
  };
  const DictionarySubject nobody({});
  for (const Case& each : cases) {
    const Value value = Expression::arithmetic(c(each.left), each.operation, c(each.right))->evaluate(nobody);
    expectValue(value, each.expected, each.left.description() + " " + each.right.description());
  }
  expectValue(Expression::negated(c(kLeast))->evaluate(nobody), 9223372036854775808U, "-least");
  expectValue(Expression::negated(c(1.5))->evaluate(nobody), -1.5, "-1.5");
  expectValue(Expression::negated(c("1"))->evaluate(nobody), nullptr, "-text");
}

TEST(PredicateEvaluation, FollowsKeysThroughCollections) {
  const Array teams{Dictionary{{"name", "a"}, {"points", 3}, {"tags", Array{"x"}}},
                    Dictionary{{"name", "b"}, {"points", 4.5}, {"tags", Array{}}}, Dictionary{{"name", "c"}}};
  const DictionarySubject subject({{"teams", teams},
                                   {"league", Dictionary{{"teams", teams}, {"size", 3}}},
                                   {"none", Array{}},
                                   {"mixed", Array{1, "x"}},
                                   {"dates", Array{Date{2}, nullptr, Date{1}}},
                                   {"text", "abc"},
                                   {"n", 1}});
  const auto at = [](const ExpressionPtr& base, const Value& index) {
    return Expression::element(base, c(index));
  };
  const std::vector<std::pair<ExpressionPtr, Value>> cases = {
      {k("teams.name"), Array{"a", "b", "c"}},
      {k("league.teams.points"), Array{3, 4.5, nullptr}},
      {k("teams.tags"), Array{Array{"x"}, Array{}, nullptr}},
      {k("league.size"), 3},
      {k("league.size.x"), nullptr},
      {k("text.x"), nullptr},
      {k("teams.@count"), 3},
      {k("league.@count"), 2},
      {k("league.teams.@count"), 3},
      {k("text.@count"), nullptr},
      {k("missing.@count"), nullptr},
      {k("teams.@sum.points"), 7.5},
      {k("teams.points.@sum"), 7.5},
      {k("league.teams.points.@max"), 4.5},
      {k("teams.@min.name"), "a"},
      {k("teams.points.@avg"), 2.5},
      {k("teams.@avg.name"), nullptr},
      {k("dates.@min"), Date{1}},
      {k("dates.@max"), Date{2}},
      {k("none.@count"), 0},
      {k("none.@sum"), 0},
      {k("none.@avg"), nullptr},
      {k("none.@min"), nullptr},
      {k("mixed.@sum"), nullptr},
      {k("mixed.@max"), nullptr},
      {k("teams.@nothing"), nullptr},
      {k("teams.@sum.@count"), nullptr},
      {at(k("teams.name"), 1), "b"},
      {at(k("teams.name"), 1.0), "b"},
      {at(k("teams.name"), 1.5), nullptr},
      {at(k("teams.name"), 3), nullptr},
      {at(k("teams.name"), -1), nullptr},
      {at(k("teams.name"), "1"), nullptr},
      {Expression::element(k("teams.name"), k("n")), "b"},
      {at(k("league"), "size"), 3},
      {at(k("text"), 0), nullptr},
      {Expression::element(k("teams.name"), Expression::Element::first), "a"},
      {Expression::element(k("teams.name"), Expression::Element::last), "c"},
      {Expression::element(k("teams"), Expression::Element::size), 3},
      {Expression::element(k("none"), Expression::Element::first), nullptr},
      {Expression::element(k("text"), Expression::Element::size), nullptr},
      {Expression::path(at(k("teams"), 0), "tags.@count"), 1},
      {Expression::path(Expression::self(), "league.size"), 3},
      {Expression::path(Expression::self(), "teams.@count"), 3},
      {Expression::aggregate({k("n"), Expression::aggregate({k("text")}), c(2)}), Array{1, Array{"abc"}, 2}},
      {Expression::variable("x"), nullptr},
  };
  for (const auto& [expression, expected] : cases)
    expectValue(expression->evaluate(subject), expected, std::to_string(&expected - &cases[0].second));
}

ExpressionPtr variable(const char* name, const char* path = nullptr) {
  ExpressionPtr result = Expression::variable(name);
  return path != nullptr ? Expression::path(result, path) : result;
}

TEST(PredicateEvaluation, SelectsWithSubqueriesInSubqueries) {
  const auto team = [](const char* name, Array players) {
    return Dictionary{{"name", name}, {"players", std::move(players)}};
  };
  const DictionarySubject subject(
      {{"teams", Array{team("a", {1, 5}), team("b", {7, 8}), team("c", {})}}, {"least", 5}, {"name", "a"}});
  const PredicatePtr atLeast = Predicate::comparison(variable("p"), Operator::greaterOrEqual, k("least"));
  const ExpressionPtr players = Expression::subquery(variable("t", "players"), "p", atLeast);
  const auto teamsWith = [&](std::int64_t count) {
    return Expression::subquery(
        k("teams"), "t",
        Predicate::comparison(Expression::path(players, "@count"), Operator::equal, c(count)));
  };
  expectValue(Expression::path(teamsWith(1), "name")->evaluate(subject), Array{"a"}, "one player");
  expectValue(Expression::path(teamsWith(2), "name")->evaluate(subject), Array{"b"}, "two players");
  expectValue(Expression::path(teamsWith(0), "@count")->evaluate(subject), 1, "none");

  const PredicatePtr sameName = Predicate::comparison(variable("t", "name"), Operator::equal, k("name"));
  const ExpressionPtr same = Expression::subquery(k("teams"), "t", sameName);
  expectValue(Expression::path(same, "@count")->evaluate(subject), 1, "keys are the subject's");
  // The inner variable of the same name hides the outer one.
  const ExpressionPtr hidden = Expression::subquery(
      k("teams"), "t", Predicate::comparison(Expression::path(same, "@count"), Operator::equal, c(1)));
  expectValue(Expression::path(hidden, "@count")->evaluate(subject), 3, "hidden");
  const ExpressionPtr unbound = Expression::subquery(
      k("teams"), "t", Predicate::comparison(variable("u"), Operator::equal, c(nullptr)));
  expectValue(Expression::path(unbound, "@count")->evaluate(subject), 3, "unbound");
  EXPECT_TRUE(Expression::subquery(k("name"), "t", sameName)->evaluate(subject).isNull());
}

TEST(PredicateEvaluation, EndsSoonWhateverIsDoneForEachMember) {
  const Value hostile = std::string(60, 'a');
  const Array longTexts(50, std::string(1 << 20, 'a'));
  Array numbers;
  for (int i = 0; i < 3000; ++i)
    numbers.push_back(i);
  const DictionarySubject subject({{"numbers", numbers},
                                   {"texts", Array(100, hostile)},
                                   {"long", longTexts},
                                   {"expression", std::string(32000, '.')}});
  const std::vector<const char*> formats = {
      "SUBQUERY(numbers, $x, %@ MATCHES '(a+)+b').@count == 0",
      "ANY texts MATCHES '(a+)+b' OR NOT ALL texts MATCHES '(a+)+b|a+'",
      "SUBQUERY(numbers, $x, SUBQUERY(numbers, $y, -1 IN numbers).@count > 0).@count == 0",
      "SUBQUERY(numbers, $x, SUBQUERY(numbers, $y, numbers CONTAINS[c] 'x').@count > 0).@count == 0",
      "SUBQUERY(numbers, $x, SUBQUERY(numbers, $y, ANY numbers < 0).@count > 0).@count == 0",
      "SUBQUERY(numbers, $x, SUBQUERY(numbers, $y, ANY numbers IN numbers).@count > 0).@count == 0",
      "SUBQUERY(numbers, $x, SUBQUERY(numbers, $y, numbers.@sum < 0).@count > 0).@count == 0",
      "SUBQUERY(numbers, $x, SUBQUERY(long, $y, $y ==[cd] long[0]).@count < 0).@count == 0",
      "SUBQUERY(numbers, $x, SUBQUERY(long, $y, $y CONTAINS 'b').@count > 0).@count == 0",
      "SUBQUERY(numbers, $x, SUBQUERY(long, $y, $y LIKE '*aaaa?b*').@count > 0).@count == 0",
      "SUBQUERY(numbers, $x, 'a' MATCHES expression).@count == 0",
  };
  for (const char* format : formats) {
    const PredicatePtr predicate = Predicate::withFormat(format, {hostile});
    ASSERT_NE(predicate, nullptr) << format;
    const auto spentBefore = std::clock();
    EXPECT_EQ(predicate->evaluate(subject), std::string_view(format).starts_with("ANY")) << format;
    EXPECT_LT(std::clock() - spentBefore, 5 * CLOCKS_PER_SEC) << format;
  }
  // What is done once is never too much.
  const PredicatePtr wide = Predicate::comparison(c(-1), Operator::in, c(Array(3'000'000, -1.0)));
  EXPECT_TRUE(wide->evaluate(subject));
  const PredicatePtr far = Predicate::comparison(c(Array(3'000'000, 0)), Operator::contains, c(1));
  EXPECT_TRUE(Predicate::negation(far)->evaluate(subject));
}

TEST(PredicateEvaluation, EndsWhateverTheSubqueries) {
  const DictionarySubject subject({{"list", Array{1, 2, 3, 4}}});
  // 4^100 members to look at, and a list that doubles with each level.
  PredicatePtr wide = Predicate::constant(true);
  ExpressionPtr list = variable("x");
  PredicatePtr growing = Predicate::comparison(list, Operator::equal, c(0));
  for (int level = 0; level < 100; ++level) {
    wide = Predicate::comparison(Expression::path(Expression::subquery(k("list"), "x", wide), "@count"),
                                 Operator::notEqual, c(0));
    growing = Predicate::comparison(
        Expression::path(Expression::subquery(Expression::aggregate({list, list}), "x", growing), "@count"),
        Operator::notEqual, c(9));
  }
  EXPECT_FALSE(wide->evaluate(subject));
  EXPECT_TRUE(Expression::subquery(k("list"), "x", wide)->evaluate(subject).isNull());
  EXPECT_FALSE(Predicate::comparison(Expression::subquery(k("list"), "x", growing), Operator::equal, c(1))
                   ->evaluate(subject));
  ExpressionPtr deep = k("list");
  for (int level = 0; level < 2 * Expression::kDeepest; ++level)
    deep = Expression::subquery(Expression::aggregate({deep, c(1)}), "x",
                                Predicate::comparison(deep, Operator::equal, variable("x")));
  EXPECT_LE(deep->depth(), Expression::kDeepest);
  deep->evaluate(subject);
  ExpressionPtr doubled = k("list");
  for (int level = 1; level < Expression::kDeepest; ++level)
    doubled = Expression::arithmetic(doubled, Operation::add, doubled);
  EXPECT_TRUE(doubled->evaluate(subject).isNull());
}

}  // namespace
}  // namespace qx
