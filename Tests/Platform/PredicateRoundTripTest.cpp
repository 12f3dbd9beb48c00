#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Tests/Platform/PredicateTestSupport.h"

namespace qx {
namespace {

/// Builds predicates and expressions of every kind.
class Generator {
 public:
  PredicatePtr predicate(int depth) {
    const unsigned choice = pick(depth > 0 ? 8 : 4);
    if (choice == 0) return Predicate::constant(pick(2) == 0);
    if (choice < 4) return comparison(depth);
    if (choice == 4) return Predicate::negation(predicate(depth - 1));
    std::vector<PredicatePtr> members;
    for (unsigned count = 2 + pick(3); count > 0; --count)
      members.push_back(predicate(depth - 1));
    return choice % 2 == 0 ? Predicate::conjunction(members) : Predicate::disjunction(members);
  }

 private:
  using Operator = Predicate::Operator;

  unsigned pick(unsigned bound) { return static_cast<unsigned>(random_() % bound); }

  Value value() {
    switch (pick(9)) {
      case 0:
        return nullptr;
      case 1:
        return pick(2) == 0;
      case 2:
        return static_cast<std::int64_t>(pick(3)) - 1;
      case 3:
        return static_cast<std::int64_t>(random_());
      case 4:
        return random_();
      case 5:
        return std::ldexp(static_cast<double>(static_cast<std::int64_t>(random_())),
                          static_cast<int>(pick(200)) - 160);
      case 6:
        return Date{static_cast<double>(pick(1000)) / 8 - 50};
      case 7:
        return text();
      default:
        return Array{text(), static_cast<int>(pick(3)), Array{}};
    }
  }

  std::string text() {
    constexpr std::string_view kCharacters = "ab\"'\\\n\t%@${} n0";
    std::string result;
    for (unsigned length = pick(5); length > 0; --length)
      result += kCharacters[pick(kCharacters.size())];
    return result;
  }

  std::string path() {
    constexpr const char* kPaths[] = {"a", "b.c", "rel.size", "self", "NULL.in", "a.@count", "grün._1"};
    return kPaths[pick(std::size(kPaths))];
  }

  ExpressionPtr leaf() {
    const unsigned choice = pick(8);
    if (choice == 0) return Expression::self();
    if (choice == 1) return Expression::variable("x");
    return choice < 4 ? Expression::constant(value()) : Expression::keyPath(path());
  }

  ExpressionPtr expression(int depth) {
    const auto inner = [this, depth] { return expression(depth - 1); };
    switch (pick(depth > 0 ? 12 : 4)) {
      case 4:
        return Expression::aggregate({inner(), inner()});
      case 5:
        return Expression::negated(inner());
      case 6:
        return Expression::element(inner(), inner());
      case 7:
        return Expression::element(inner(), static_cast<Expression::Element>(1 + pick(3)));
      case 8:
        return Expression::path(inner(), pick(2) == 0 ? "@sum.a" : path());
      case 9:
        return Expression::subquery(inner(), "x", predicate(depth - 1));
      case 10:
      case 11:
        return Expression::arithmetic(inner(), static_cast<Expression::Operation>(pick(5)), inner());
      default:
        return leaf();
    }
  }

  ExpressionPtr rightSide(Operator op, int depth) {
    if (op == Operator::between) return Expression::aggregate({expression(depth), expression(depth)});
    if (op == Operator::matches)
      return Expression::constant(pick(2) == 0 ? "^a\\.\"[b\n]*$" : "(?i)grün{1,2}");
    if (op != Operator::in) return expression(depth);
    return Expression::constant(pick(2) == 0 ? Value(text()) : Value(Array{value(), value(), value()}));
  }

  PredicatePtr comparison(int depth) {
    const int inside = std::min(depth, 3);
    const auto op = static_cast<Operator>(pick(13));
    Predicate::Options options;
    if (pick(3) == 0) options = {pick(2) == 0, pick(2) == 0, pick(2) == 0};
    const auto modifier = pick(3) == 0 ? static_cast<Predicate::Modifier>(pick(3)) : Predicate::Modifier{};
    return Predicate::comparison(expression(inside), op, rightSide(op, inside), options, modifier);
  }

  std::mt19937_64 random_{20};  // NOLINT: reproducible on purpose
};

TEST(PredicateRoundTrip, ReadsEveryGeneratedTreeBackFromItsText) {
  Generator generator;
  for (int round = 0; round < 5000; ++round) {
    const PredicatePtr original = generator.predicate(4);
    const std::string text = original->predicateFormat();
    ErrorPtr error;
    const PredicatePtr again = Predicate::withFormat(text, {}, &error);
    ASSERT_NE(again, nullptr) << test::message(error) << '\n' << text;
    ASSERT_EQ(again->predicateFormat(), text);
    ASSERT_TRUE(*again == *original) << text;
  }
}

TEST(PredicateRoundTrip, KeepsRealsWhereArithmeticTellsThemFromIntegers) {
  const std::vector<std::pair<const char*, bool>> cases = {
      {"SUBQUERY({2.0}, $x, 3 / $x == 1.5).@count == 1", true},
      {"SUBQUERY({2}, $x, 3 / $x == 1.5).@count == 1", false},
      {"SUBQUERY(SUBQUERY({{2.0}}[0], $y, TRUEPREDICATE), $x, 3 / $x == 1.5).@count == 1", true},
      {"SUBQUERY({-0.0}, $x, 1 / $x < 0).@count == 1", true},
  };
  for (const auto& [format, expected] : cases) {
    const PredicatePtr predicate = Predicate::withFormat(format);
    ASSERT_NE(predicate, nullptr) << test::printed(format);
    EXPECT_EQ(predicate->predicateFormat(), format);
    EXPECT_EQ(predicate->evaluate(test::EmptySubject()), expected) << format;
  }
  // A tree whose text would be without end is equal to itself all the same.
  ExpressionPtr doubled = Expression::keyPath("a");
  for (int level = 0; level < 100; ++level)
    doubled = Expression::arithmetic(doubled, Expression::Operation::add, doubled);
  EXPECT_TRUE(*doubled == *Expression::arithmetic(doubled->members()[0], Expression::Operation::add,
                                                  doubled->members()[1]));
}

TEST(PredicateRoundTrip, TellsDifferentTreesApart) {
  const std::vector<const char*> texts = {
      "a == 1",
      "a != 1",
      "a == 2",
      "a == '1'",
      "b == 1",
      "a.b == 1",
      "a == nil",
      "a == b",
      "1 == a",
      "a ==[c] 1",
      "a ==[d] 1",
      "ANY a == 1",
      "ALL a == 1",
      "NOT a == 1",
      "NOT NOT a == 1",
      "TRUEPREDICATE",
      "SELF == 1",
      "$a == 1",
      "$b == 1",
      "a + 1 == 1",
      "a - 1 == 1",
      "1 + a == 1",
      "-a == 1",
      "a[0] == 1",
      "a[1] == 1",
      "a[FIRST] == 1",
      "a[LAST] == 1",
      "a[0].b == 1",
      "a[0].c == 1",
      "a IN {1, b}",
      "a IN {b, 1}",
      "a == CAST(1, 'NSDate')",
      "SUBQUERY(a, $x, b == 1) == 1",
      "SUBQUERY(a, $x, b == 2) == 1",
      "SUBQUERY(a, $y, b == 1) == 1",
      "SUBQUERY({2}, $x, 3 / $x == 1.5).@count == 1",
      "SUBQUERY({2.0}, $x, 3 / $x == 1.5).@count == 1",
      "{{2}, a}[0][0] / 4 == 1",
      "{{2.0}, a}[0][0] / 4 == 1",
      "a == 1 AND b == 1",
      "a == 1 OR b == 1",
      "b == 1 AND a == 1",
      "a == 1 AND b == 1 AND c == 1",
      "(a == 1 AND b == 1) AND c == 1",
  };
  for (const char* one : texts) {
    const PredicatePtr a = Predicate::withFormat(one);
    ASSERT_NE(a, nullptr) << test::printed(one);
    for (const char* other : texts) {
      EXPECT_EQ(*a == *Predicate::withFormat(other), one == other) << one << " and " << other;
    }
  }
  EXPECT_TRUE(*Predicate::withFormat("a == TRUE") == *Predicate::withFormat("a == 1.0"));
  EXPECT_TRUE(*Predicate::withFormat("{a, b}[2.0] + 1 == 2") == *Predicate::withFormat("{a, b}[2] + 1 == 2"));
}

}  // namespace
}  // namespace qx
