#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "Tests/Platform/PredicateTestSupport.h"

namespace qx {
namespace {

using test::message;

struct PrintCase {
  const char* format;
  std::vector<Value> arguments;
  const char* expected;
};

void expectPrinted(const std::vector<PrintCase>& cases) {
  for (const PrintCase& each : cases) {
    ErrorPtr error;
    const PredicatePtr predicate = Predicate::withFormat(each.format, each.arguments, &error);
    ASSERT_NE(predicate, nullptr) << message(error);
    const std::string text = predicate->predicateFormat();
    EXPECT_EQ(text, each.expected) << each.format;
    if (text.find("$<") != std::string::npos || text.find("x y") != std::string::npos) continue;  // no words
    const PredicatePtr again = Predicate::withFormat(text, {}, &error);
    ASSERT_NE(again, nullptr) << message(error);
    EXPECT_EQ(again->predicateFormat(), text) << "read again: " << each.format;
    EXPECT_TRUE(*again == *predicate) << each.format;
  }
}

TEST(PredicateFormat, PrintsComparisonsInTheOneFormThatTheRewritingLooksFor) {
  expectPrinted({
      {"a=1", {}, "a == 1"},
      {"a<>b.c", {}, "a != b.c"},
      {"a =< 1 or a=>2", {}, "a <= 1 OR a >= 2"},
      {"\t a\n<1 && b>\r2", {}, "a < 1 AND b > 2"},
      {"YES == a", {}, "1 == a"},
      {"nIl != null", {}, "nil != nil"},
      {"%K == YES", {"__$<EventSolutionStatus>$__"}, "__$<EventSolutionStatus>$__ == 1"},
      {"%K = %@", {"__$<EventSolutionStatus>$__", true}, "__$<EventSolutionStatus>$__ == 1"},
      {"%K==1.0", {"__$<EventSolutionStatus>$__"}, "__$<EventSolutionStatus>$__ == 1"},
      {"0 == %K", {"__$<EventSolutionStatus>$__"}, "0 == __$<EventSolutionStatus>$__"},
      {"NOT (%K == 1)", {"__$<EventSolutionStatus>$__"}, "NOT __$<EventSolutionStatus>$__ == 1"},
      {"%K.%K IN %@", {"eventClass", "x y", Array{"a", 1, nullptr}}, "eventClass.x y IN {\"a\", 1, nil}"},
  });
}

TEST(PredicateFormat, PrintsLiteralsSoThatTheyReadBack) {
  const double infinity = std::numeric_limits<double>::infinity();
  const std::vector<PrintCase> cases = {
      {"a == 0x1F", {}, "a == 31"},
      {"a == 0o17", {}, "a == 15"},
      {"a == 0b101", {}, "a == 5"},
      {"a == 007", {}, "a == 7"},
      {"a == .5", {}, "a == 0.5"},
      {"a == 5.", {}, "a == 5"},
      {"a == 1e3", {}, "a == 1000"},
      {"a == 1e15", {}, "a == 1000000000000000"},
      {"a == 1e20", {}, "a == 1e+20"},
      {"a == 0.0001", {}, "a == 0.0001"},
      {"a == 9.2e-5", {}, "a == 9.2e-05"},
      {"a == - 3", {}, "a == -3"},
      {"a == -0.0", {}, "a == 0"},
      {"a == -9223372036854775808", {}, "a == -9223372036854775808"},
      {"a == 9223372036854775807", {}, "a == 9223372036854775807"},
      {"a == 18446744073709551615", {}, "a == 18446744073709551615"},
      {"a == 0xFFFFFFFFFFFFFFFF", {}, "a == 18446744073709551615"},
      {"a == 18446744073709551616", {}, "a == 1.8446744073709552e+19"},
      {"a == 1e400", {}, "a == 1e999"},
      {"a == 1e-400", {}, "a == 0"},
      {"a == %f", {-infinity}, "a == -1e999"},
      {"a == %lf", {3}, "a == 3"},
      {"a == %d AND b == %llu AND c == %hx", {-1, 2, true}, "a == -1 AND b == 2 AND c == 1"},
      {"a == %@", {nullptr}, "a == nil"},
      {"a == %@", {Date{-978307200}}, "a == CAST(-978307200.000000, \"NSDate\")"},
      {"a > cast(1000, 'NSDate')", {}, "a > CAST(1000.000000, \"NSDate\")"},
      {"a > CAST(-(3) + 2 * 60.5, 'NSDate')", {}, "a > CAST(118.000000, \"NSDate\")"},
      {"a > CAST(%@, %s)", {-0.25, "NSDate"}, "a > CAST(-0.250000, \"NSDate\")"},
      {"a IN {}", {}, "a IN {}"},
      {"a IN { 1 , b.c, {'x', %@} }", {Array{}}, "a IN {1, b.c, {\"x\", {}}}"},
  };
  expectPrinted(cases);
}

TEST(PredicateFormat, PrintsStringsWithOnlyQuotesAndBackslashesEscaped) {
  expectPrinted({
      {"a == \"Lowe's\"", {}, "a == \"Lowe's\""},
      {"a == 'say \"x\"'", {}, "a == \"say \\\"x\\\"\""},
      {R"(a == '\\ \' \" \n \t \q')", {}, "a == \"\\\\ ' \\\" \n \t q\""},
      {R"(a == '\101\x41\u0041\u00e9')", {}, "a == \"AAA\u00e9\""},
      {R"(a == '\ud83d\ude00\1\xZ\u12')",
       {},
       "a == \"\U0001F600"
       "1xZu12\""},
      {"a == '%@ %K $x {1} AND %%'", {}, "a == \"%@ %K $x {1} AND %%\""},
      {"a == %@", {"back\\slash\ttab \"%@\" \xC3\xB6"}, "a == \"back\\\\slash\ttab \\\"%@\\\" \xC3\xB6\""},
      {"a == %s", {"AND b == 1"}, "a == \"AND b == 1\""},
      {"a == '\xFF'", {}, "a == \"\xFF\""},
  });
}

TEST(PredicateFormat, PrintsKeysWithReservedWordsMarked) {
  expectPrinted({
      {"#size == #foo.#IN", {}, "#size == foo.#IN"},
      {"%K == 1", {"rel.first"}, "rel.#first == 1"},
      {"self == %K", {"Self"}, "SELF == SELF"},
      {"SELF.x == %K AND %K.y == 1", {"self.x", "SELF"}, "x == x AND y == 1"},
      {"#self == 1", {}, "#self == 1"},
      {"gr\u00f6\u00dfe . \u5024 == 1", {}, "gr\u00f6\u00dfe.\u5024 == 1"},
      {"e\u0301\u0663 == \U00020000", {}, "e\u0301\u0663 == \U00020000"},
  });
}

TEST(PredicateFormat, BindsOrWeakerThanAndThanNotThanComparison) {
  expectPrinted({
      {"a == 1 OR b == 1 AND c == 1", {}, "a == 1 OR (b == 1 AND c == 1)"},
      {"a == 1 AND b == 1 OR c == 1 && d == 1", {}, "(a == 1 AND b == 1) OR (c == 1 AND d == 1)"},
      {"a == 1 and (b == 1 or c == 1) and d == 1", {}, "a == 1 AND (b == 1 OR c == 1) AND d == 1"},
      {"NOT a == 1 AND b == 1", {}, "(NOT a == 1) AND b == 1"},
      {"!(a == 1 || b == 1)", {}, "NOT (a == 1 OR b == 1)"},
      {"not !a == 1", {}, "NOT (NOT a == 1)"},
      {"((((a)) == (1)))", {}, "a == 1"},
      {"(a == 1) AND ((b == 1))", {}, "a == 1 AND b == 1"},
      {"(a == 1 AND b == 2) AND (c == 1 AND d == 1)", {}, "(a == 1 AND b == 2) AND (c == 1 AND d == 1)"},
      {"TruePredicate AND NOT FALSEPREDICATE", {}, "TRUEPREDICATE AND (NOT FALSEPREDICATE)"},
  });
}

TEST(PredicateFormat, PrintsEveryOperatorWithItsOptionsAndModifier) {
  expectPrinted({
      {"a between {1,5}", {}, "a BETWEEN {1, 5}"},
      {"a BETWEEN %@ AND b BETWEEN c", {Array{1, 5}}, "a BETWEEN {1, 5} AND b BETWEEN c"},
      {"NOT (n BETWEEN {x, 3})", {}, "NOT n BETWEEN {x, 3}"},
      {"a contains 'x' && a BeginsWith 'y'", {}, "a CONTAINS \"x\" AND a BEGINSWITH \"y\""},
      {"a endswith b OR a like '*?' OR a matches '.+'",
       {},
       "a ENDSWITH b OR a LIKE \"*?\" OR a MATCHES \".+\""},
      {"'ex' in a and b IN 'text'", {}, "\"ex\" IN a AND b IN \"text\""},
      {"a ==[c] 'x' AND a = [ DC ] b AND a <[nDc] b", {}, "a ==[c] \"x\" AND a ==[cd] b AND a <[cdn] b"},
      {"a IN[cc]{'x'} OR a CONTAINS[n]'x'", {}, "a IN[c] {\"x\"} OR a CONTAINS[n] \"x\""},
      {"any a.b == 1 OR some b IN {1}", {}, "ANY a.b == 1 OR ANY b IN {1}"},
      {"ALL (age) >= 21", {}, "ALL age >= 21"},
      {"NONE a.b ==[c] 'x'", {}, "NOT ANY a.b ==[c] \"x\""},
      {"NONE a == 1 AND NOT NONE b == 2", {}, "(NOT ANY a == 1) AND (NOT (NOT ANY b == 2))"},
      {"(ANY a == 1)", {}, "ANY a == 1"},
  });
}

TEST(PredicateFormat, PrintsArithmeticWithItsOperandsInParentheses) {
  expectPrinted({
      {"a+1>b", {}, "a + 1 > b"},
      {"a * 2 + 1 == b", {}, "(a * 2) + 1 == b"},
      {"a + b * c ** d == 1", {}, "a + (b * (c ** d)) == 1"},
      {"a - b - c == 1 / 2 * 3", {}, "(a - b) - c == (1 / 2) * 3"},
      {"(a + 1) * 2 == b AND ((a) + 1 == b)", {}, "(a + 1) * 2 == b AND a + 1 == b"},
      {"2 ** 3 ** 4 == 1 + 2", {}, "(2 ** 3) ** 4 == 1 + 2"},
      {"-a ** -b == - 2 ** 2", {}, "(-a) ** (-b) == -2 ** 2"},
      {"a - -3 == a--3", {}, "a - -3 == a - -3"},
      {"-(3) == - -3", {}, "-(3) == -(-3)"},
      {"--a == -(a + 1)", {}, "-(-a) == -(a + 1)"},
      {"-%d == -'x'", {3}, "-(3) == -\"x\""},
      {"NOT (a + 1) * 2 == 3", {}, "NOT (a + 1) * 2 == 3"},
      {"a IN {b + 1, -c}", {}, "a IN {b + 1, -c}"},
  });
}

TEST(PredicateFormat, PrintsElementsPathsAndSubqueries) {
  expectPrinted({
      {"l[0]=1 && l[ first ]=l[LAST] && l[Size] > 2",
       {},
       "l[0] == 1 AND l[FIRST] == l[LAST] AND l[SIZE] > 2"},
      {"a.b['k'][i + 1].c.d == SELF[#first]", {}, "a.b[\"k\"][i + 1].c.d == SELF[#first]"},
      {"(a + 1)[0] == (3).x", {}, "(a + 1)[0] == (3).x"},
      {"-3[0] == (-3)[0]", {}, "-(3)[0] == (-3)[0]"},
      {"{1, 2}.@count == {a}[0]", {}, "{1, 2}.@count == {a}[0]"},
      {"'x'.length == %@.y", {5}, "\"x\".length == (5).y"},
      {"a.@count > 2 AND a.@max.b == #in.#and", {}, "a.@count > 2 AND a.@max.b == #in.#and"},
      {"(a).b.c == ((a.b)).c", {}, "a.b.c == a.b.c"},
      {"SELF.@count == %K", {"@count"}, "SELF.@count == SELF.@count"},
      {"$x == 1 AND $x.a.b == $y[0]", {}, "$x == 1 AND $x.a.b == $y[0]"},
      {"$x.SELF == a.self.b", {}, "$x == a.b"},
      {"$x.%K == a[0].%K", {"b.first", "self"}, "$x.b.#first == a[0]"},
      {"subquery(teams, $t, $t.key == 'x').@count > 0",
       {},
       "SUBQUERY(teams, $t, $t.key == \"x\").@count > 0"},
      {"SUBQUERY({1, a}, $i, ($i > 0 OR ANY b == $i) AND NOT c == 1)[0] == nil",
       {},
       "SUBQUERY({1, a}, $i, ($i > 0 OR ANY b == $i) AND (NOT c == 1))[0] == nil"},
      {"0 < SUBQUERY(a, $x, SUBQUERY($x.b, $y, $y == $x)[SIZE] == 1).@count",
       {},
       "0 < SUBQUERY(a, $x, SUBQUERY($x.b, $y, $y == $x)[SIZE] == 1).@count"},
  });
}

}  // namespace
}  // namespace qx
