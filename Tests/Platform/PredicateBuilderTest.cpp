#include <QXEventStoring/Platform/PredicateBuilder.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "Tests/Platform/PredicateTestSupport.h"

namespace qx {
namespace {

TEST(PredicateBuilder, BuildsTheTreeThatTheTextIsReadInto) {
  constexpr Predicate::Options kCaseAndMarks = {.caseInsensitive = true, .diacriticInsensitive = true};
  const std::vector<std::pair<Condition, const char*>> cases = {
      {key("a") == 1, "a == 1"},
      {key("a.b") != "x", "a.b != \"x\""},
      {key("a") < key("b") && key("a") >= key("c"), "a < b AND a >= c"},
      {key("a") == key("b") || key("a") != key("b"), "a == b OR a != b"},
      {key("a") > nullptr || key("a") <= 2.5, "a > nil OR a <= 2.5"},
      {key("a").isNull(), "a == nil"},
      {key("a").in({"x", 2}), "a IN {\"x\", 2}"},
      {key("a").in({"x"}, kCaseAndMarks), "a IN[cd] {\"x\"}"},
      {key("a").between(1, 5), "a BETWEEN {1, 5}"},
      {key("a").between(key("b"), key("c") + 1), "a BETWEEN {b, c + 1}"},
      {key("a").contains(1) && key("a").contains("x", {.normalized = true}),
       "a CONTAINS 1 AND a CONTAINS[n] \"x\""},
      {key("a").beginsWith("x") && key("a").endsWith("y", kCaseAndMarks),
       "a BEGINSWITH \"x\" AND a ENDSWITH[cd] \"y\""},
      {key("a").like("x*") || key("a").matches("x.*", {.caseInsensitive = true}),
       "a LIKE \"x*\" OR a MATCHES[c] \"x.*\""},
      {key("a").compare(Predicate::Operator::equal, key("b"), kCaseAndMarks), "a ==[cd] b"},
      {key("a.b").any() == 1 && key("c").all().in({1}), "ANY a.b == 1 AND ALL c IN {1}"},
      {key("a").any() > key("b") && key("a").all() != nullptr, "ANY a > b AND ALL a != nil"},
      {1 == key("n") && "x" != key("n") && 2 < key("n"), "1 == n AND \"x\" != n AND 2 < n"},
      {1 <= key("n") || 2.5 > key("n") || nullptr >= key("n"), "1 <= n OR 2.5 > n OR nil >= n"},
      {key("self") == key("SELF.a") && key("Self.@count") > 1, "SELF == a AND SELF.@count > 1"},
      {key("a") + 1 > key("b"), "a + 1 > b"},
      {(key("a") - key("b")) * 2 == 1 - key("c") / key("d"), "(a - b) * 2 == 1 - (c / d)"},
      {-key("a") == power(2 * key("b"), 3) / (4 + key("c")), "-a == ((2 * b) ** 3) / (4 + c)"},
      {key("a").first() == key("a").last() && key("a").size() > key("b").at("k"),
       "a[FIRST] == a[LAST] AND a[SIZE] > b[\"k\"]"},
      {KeyBuilder(Expression::path(Expression::variable("x"), "y")) == 1, "$x.y == 1"},
      {key("a") == 1 && key("b") == 2 && key("c") == 3, "a == 1 AND b == 2 AND c == 3"},
      {key("a") == 1 && (key("b") == 2 || key("c") == 3 || !(key("d") == 4)),
       "a == 1 AND (b == 2 OR c == 3 OR (NOT d == 4))"},
  };
  for (const auto& [condition, text] : cases) {
    const PredicatePtr predicate = condition;
    EXPECT_EQ(predicate->predicateFormat(), text);
    ErrorPtr error;
    const PredicatePtr read = Predicate::withFormat(text, {}, &error);
    ASSERT_NE(read, nullptr) << test::message(error);
    EXPECT_TRUE(*read == *predicate) << text;
  }
}

template <class A, class B>
constexpr bool kCanAdd = requires(A a, B b) {
  a + b;
};
template <class A, class B>
constexpr bool kCanCompare = requires(A a, B b) {
  a.compare(Predicate::Operator::less, b);
};

// What says ANY or ALL stands on the left of a comparison and nowhere else.
static_assert(kCanAdd<KeyBuilder, KeyBuilder> && kCanAdd<KeyBuilder, int>);
static_assert(!kCanAdd<MembersBuilder, int> && !kCanAdd<KeyBuilder, MembersBuilder>);
static_assert(kCanCompare<KeyBuilder, KeyBuilder> && kCanCompare<MembersBuilder, KeyBuilder>);
static_assert(!kCanCompare<KeyBuilder, MembersBuilder> && !kCanCompare<MembersBuilder, MembersBuilder>);

TEST(PredicateBuilder, TakesNullForFalseAndForNil) {
  EXPECT_EQ(Predicate::conjunction({})->predicateFormat(), "TRUEPREDICATE");
  EXPECT_EQ(Predicate::disjunction({})->predicateFormat(), "FALSEPREDICATE");
  const PredicatePtr shells =
      Predicate::conjunction({Predicate::disjunction({key("a") == 1}), Predicate::conjunction({})});
  EXPECT_EQ(shells->predicateFormat(), "a == 1 AND TRUEPREDICATE");
  EXPECT_TRUE(*shells == *Predicate::withFormat("a == 1 AND TRUEPREDICATE"));
  EXPECT_TRUE(*Predicate::conjunction({shells}) == *shells);
  EXPECT_EQ(Predicate::disjunction({nullptr})->kind(), Predicate::Kind::constant);

  const PredicatePtr nothing = Condition(nullptr) && Condition(nullptr);
  EXPECT_EQ(nothing->predicateFormat(), "FALSEPREDICATE AND FALSEPREDICATE");
  EXPECT_EQ(PredicatePtr(KeyBuilder(ExpressionPtr()) + 1 == 2)->predicateFormat(), "nil + 1 == 2");
  EXPECT_TRUE(Predicate::conjunction({})->evaluate(test::EmptySubject()));
  EXPECT_FALSE(Predicate::disjunction({})->evaluate(test::EmptySubject()));
}

}  // namespace
}  // namespace qx
