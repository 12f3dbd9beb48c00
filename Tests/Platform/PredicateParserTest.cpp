#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Tests/Platform/PredicateTestSupport.h"

namespace qx {
namespace {

using test::message;
using test::repeated;

TEST(PredicateParser, RefusesMalformedTextWithItsPositionAndReason) {
  struct Case {
    std::string format;
    std::size_t position;
    const char* reason;
    std::vector<Value> arguments = {};
  };
  const std::vector<Case> cases = {
      {"", 0, "the text ends"},
      {" \n ", 3, "the text ends"},
      {"a", 1, "expected a comparison operator, but the text ends"},
      {"'x'", 3, "expected a comparison operator"},
      {"(a) AND b == 1", 4, "expected a comparison operator"},
      {"a == 1 b", 7, "expected AND, OR or the end, found \"b\""},
      {"a == b == c", 7, "found \"==\""},
      {"a == 'x' 'y'", 9, "expected AND, OR"},
      {"a == (b == 1)", 5, "found a predicate"},
      {"a == TRUEPREDICATE", 5, "found a predicate"},
      {"a == 1 AND", 10, "the text ends"},
      {"(a == 1", 7, "expected \")\""},
      {"a == 1)", 6, "found \")\""},
      {"a == 'x", 5, "closing quote"},
      {"a == 'x\\", 5, "closing quote"},
      {"a == \"x'", 5, "closing quote"},
      {"a == '\\ud83d'", 6, "surrogate"},
      {"a == '\\ud83d\\u0041'", 6, "surrogate"},
      {"1eventCurrentState == 2", 0, "runs into a word"},
      {"a == 0x", 5, "without digits"},
      {"a == 0b12", 5, "runs into a word"},
      {"a == 1e99999999", 5, "out of range"},
      {"a ? b", 2, "no meaning"},
      {"a & b", 2, "no meaning"},
      {"__$<EventSolutionStatus>$__ == 2", 2, "without a name"},
      {"a == 1;", 6, "no meaning"},
      {"a == # b", 5, "without a name"},
      {"in == 1", 0, "reserved word \"IN\" (a key of that name is written with a #"},
      {"a.first == 1", 2, "reserved word \"FIRST\""},
      {"a. == 1", 3, "expected a key"},
      {"a IN {1, }", 9, "expected a key or a value"},
      {"a IN {1 2}", 8, "expected \"}\""},
      {"a IN 5", 5, "needs a list, a string or a key"},
      {"a BETWEEN {1}", 10, "a list of two"},
      {"a BETWEEN {b, 1, 2}", 10, "a list of two"},
      {"a BETWEEN 5", 10, "a list of two"},
      {"a BETWEEN %@", 10, "a list of two", {Array{1, 2, 3}}},
      {"a ==[x] 'x'", 5, "expected the letters c, d and n, found \"x\""},
      {"a ==[] 'x'", 5, "expected the letters"},
      {"a ==[c 'x'", 7, "expected \"]\""},
      {"ANY a", 5, "expected a comparison operator"},
      {"ANY (a == 1)", 4, "found a predicate"},
      {"ANY ALL a == 1", 4, "reserved word \"ALL\""},
      {"a == ANY b", 5, "reserved word \"ANY\""},
      {"a NOT IN {1}", 2, "NOT is written before the comparison"},
      {"a == 1 +", 8, "the text ends"},
      {"a + (b == 1) == 2", 4, "found a predicate"},
      {"(a == 1) + 2 == 3", 9, "found \"+\""},
      {"a == * 2", 5, "expected a key or a value, found \"*\""},
      {"a ** == 2", 5, "found \"==\""},
      {"a[1 == 2", 4, "expected \"]\""},
      {"a[FIRST 1] == 2", 8, "expected \"]\""},
      {"a[b == 1] == 2", 4, "expected \"]\""},
      {"a[] == 2", 2, "expected a key or a value"},
      {"a.'x' == 1", 2, "expected a key"},
      {"@count == 1", 0, "found \"@count\""},
      {"a == $", 5, "without a name"},
      {"a.@ == 1", 2, "without a name"},
      {"SUBQUERY(a, x, b == 1) == 2", 12, "expected a variable"},
      {"SUBQUERY(a, $x, b) == 2", 17, "expected a comparison operator"},
      {"SUBQUERY(a, $x) == 2", 14, "expected \",\""},
      {"SUBQUERY(a, $x, b == 1", 22, "expected \")\""},
      {"a uti-conforms-to 'x'", 2, "\"UTI-CONFORMS-TO\" is not supported"},
      {"a UTI-equals 'x'", 2, "\"UTI-EQUALS\" is not supported"},
      {"ANYKEY == 1", 0, "\"ANYKEY\" is not supported"},
      {"a MATCHES 'x{0'", 10, "a malformed repetition {...} at byte 3"},
      {"a MATCHES[d] '[z-\u00e1]'", 13, "a malformed set [...] at byte"},
      {"a MATCHES %@ OR a MATCHES %@",
       26,
       "longer than 65536 bytes together",
       {repeated(32768, "a"), repeated(32769, "a")}},
      {"a MATCHES %@", 10, "more than 1000 groups", {repeated(1001, "()")}},
      {"a MATCHES %@", 10, "the regular expression cannot be used", {"(("}},
      {"a == CAST(b, 'NSDate')", 10, "needs a number"},
      {"a == CAST(1 + b, 'NSDate')", 10, "it takes no key"},
      {"a == CAST(1 / 0, 'NSDate')", 10, "needs a number"},
      {"a == 0" + repeated(201, " + 1"), 803, "the expression is too long"},
      {"a == CAST('1', 'NSDate')", 10, "needs a number"},
      {"a == CAST(1, 'NSNumber')", 13, "not supported"},
      {"a == CAST(1e999, 'NSDate')", 10, "without a moment"},
      {"a == %@ AND b == %d", 17, "argument 2 for %d is missing", {1}},
      {"a == %% 1", 5, "known conversions"},
      {"a == %", 5, "known conversions"},
      {"%@", 2, "expected a comparison operator", {"a == 1"}},
      {"%K == 1", 0, "is no string", {nullptr}},
      {"%K == 1", 0, "empty key", {""}},
      {"a == %d", 5, "no integer", {1.5}},
      {"a == %f", 5, "no number", {"1"}},
      {"a == %s", 5, "no string", {nullptr}},
      {"a == %@", 5, "not a number", {std::nan("")}},
      {"a == %@", 5, "without a moment", {Array{Date{std::nan("")}}}},
      {std::string("a == \0 1", 8), 5, "no meaning"},
      {"a == \xFF\xFE", 5, "malformed UTF-8"},
      {"a\u00a0== 1", 1, "no meaning"},
      {"n == \u201cx\u201d", 5, "no meaning"},
      {"a\u200b == 1", 1, "no meaning"},
      {"$\u20ac == 1", 0, "without a name"},
      {"a == 1\u00e9", 5, "runs into a word"},
      {"a\xC3 == 1", 1, "malformed UTF-8"},
  };
  for (const Case& each : cases) {
    ErrorPtr error;
    ASSERT_EQ(Predicate::withFormat(each.format, each.arguments, &error), nullptr) << each.format;
    ASSERT_NE(error, nullptr) << each.format;
    EXPECT_EQ(error->domain(), "NSCocoaErrorDomain");
    EXPECT_EQ(error->code(), 2048);
    const std::string text = message(error);
    EXPECT_NE(text.find("position " + std::to_string(each.position) + ": "), std::string::npos) << text;
    EXPECT_NE(text.find(each.reason), std::string::npos) << text;
    EXPECT_TRUE(isValidUTF8(text)) << text;
  }
}

TEST(PredicateParser, TakesAListInBracesForOneArgument) {
  const Array classes = {"a", "b"};
  const auto printed = [](const PredicatePtr& predicate) {
    return predicate != nullptr ? predicate->predicateFormat() : "none";
  };
  EXPECT_EQ(printed(Predicate::withFormat("s IN %@", {classes})), "s IN {\"a\", \"b\"}");
  EXPECT_EQ(printed(Predicate::withFormat("%K IN %@", {"s", classes})), "s IN {\"a\", \"b\"}");
  EXPECT_EQ(printed(Predicate::withFormat("s == %@ OR s == %@", classes)), "s == \"a\" OR s == \"b\"");
  EXPECT_EQ(printed(Predicate::withFormat("s == %@", {})), "none");
}

TEST(PredicateParser, ClearsTheErrorOnSuccess) {
  ErrorPtr error = Error::make("x", 1);
  EXPECT_NE(Predicate::withFormat("a == 1", {"left over"}, &error), nullptr);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(Predicate::withFormat("a =="), nullptr);
}

TEST(PredicateParser, RefusesNestingPastItsLimit) {
  const std::size_t many = 100000;
  for (const char* opening : {"(", "!", "NOT ", "NOT(", "a IN {", "a == (", "a IN {(", "(!", "a == -", "a[",
                              "CAST(", "SUBQUERY(", "SUBQUERY(a, $x, ", "a ** -(", "ANY (", "a + (NOT "}) {
    ErrorPtr error;
    EXPECT_EQ(Predicate::withFormat(repeated(many, opening) + "a == 1", {}, &error), nullptr) << opening;
    EXPECT_NE(message(error).find("position"), std::string::npos) << opening;
  }
  for (const char* suffix : {"[0]", "[FIRST].a", " + 1", " ** 2 * 2", "[b[0]]"}) {
    EXPECT_NE(Predicate::withFormat("a" + repeated(50, suffix) + " == 1"), nullptr) << suffix;
    EXPECT_EQ(Predicate::withFormat("a" + repeated(many, suffix) + " == 1"), nullptr) << suffix;
  }
  EXPECT_EQ(Predicate::withFormat("a IN " + repeated(many, "{") + repeated(many, "}")), nullptr);
  EXPECT_NE(Predicate::withFormat(repeated(200, "(") + "a == 1" + repeated(200, ")")), nullptr);
  EXPECT_EQ(Predicate::withFormat(repeated(201, "(") + "a == 1" + repeated(201, ")")), nullptr);
  EXPECT_NE(Predicate::withFormat(repeated(200, "NOT ") + "z == 1"), nullptr);

  Value list = Array{};
  for (int i = 0; i < 200; ++i)
    list = Array{list};
  EXPECT_EQ(Predicate::withFormat("a IN %@", {list}), nullptr);
}

TEST(PredicateParser, RefusesMorePartsThanItsLimit) {
  const std::size_t most = 1'000'000;
  const std::vector<std::pair<std::string, std::size_t>> cases = {
      {"a IN {" + repeated(most, "1,") + "1}", 6 + 2 * (most - 4)},
      {repeated(most, "1=1 OR ") + "a == 1", 7 * (most / 3) + 1},
      {repeated(most, "a.") + "a == 1", 2 * (most - 1)},
  };
  for (const auto& [format, position] : cases) {
    ErrorPtr error;
    EXPECT_EQ(Predicate::withFormat(format, {}, &error), nullptr);
    EXPECT_NE(message(error).find("position " + std::to_string(position) + ": the predicate has more than"),
              std::string::npos)
        << message(error);
  }
}

TEST(PredicateParser, ReadsWhatItPrintsAtTheDeepestLevelThatItAccepts) {
  struct Shell {
    const char* before;
    const char* after;
  };
  const std::vector<Shell> shells = {
      {"NOT ", ""},
      {"NOT (NOT ", ")"},
      {"(a == 1 OR ", ")"},
      {"a == 1 OR b == 1 AND (", " OR TRUEPREDICATE)"},
      {"1 + 2 - ", ""},
      {"-", ""},
      {"-(", " + 1)"},
      {"a[", "]"},
      {"{", ", CAST(1, 'NSDate')}.x"},
      {"", "[0].b"},
      {"(", " * 2)[0]"},
      {"", " - 1 * 2"},
      {"SUBQUERY(", ", $x, a == 1 OR b == 1 AND c == 1).@count"},
      {"a == 1 OR b == 1 AND 0 < SUBQUERY(a, $x, ", ").@count"},
  };
  for (const Shell& shell : shells) {
    const auto wrapped = [&shell](std::size_t levels, std::string text) {
      text.insert(0, repeated(levels, shell.before));
      return text += repeated(levels, shell.after);
    };
    const auto read = [&wrapped](std::size_t levels) {
      const PredicatePtr compared = Predicate::withFormat(wrapped(levels, "z") += " == 1");
      return compared != nullptr ? compared : Predicate::withFormat(wrapped(levels, "z == 1"));
    };
    std::size_t levels = 1;
    while (levels <= 201 && read(levels + 1) != nullptr)
      ++levels;
    EXPECT_GT(levels, 40U) << shell.before << shell.after;
    EXPECT_LE(levels, 200U) << shell.before << shell.after;
    const PredicatePtr deepest = read(levels);
    const std::string format = deepest->predicateFormat();
    ErrorPtr error;
    const PredicatePtr again = Predicate::withFormat(format, {}, &error);
    ASSERT_NE(again, nullptr) << shell.before << levels << message(error);
    EXPECT_EQ(again->predicateFormat(), format);
    EXPECT_TRUE(*again == *deepest) << shell.before << levels;
  }
}

TEST(PredicateParser, HasNoLimitOnWidthOrOnBuiltDepth) {
  const std::size_t many = 100000;
  const PredicatePtr wide = Predicate::withFormat(repeated(many, "a == 1 AND ") + "a == 1");
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(wide->members().size(), many + 1);
  EXPECT_TRUE(*Predicate::withFormat(wide->predicateFormat()) == *wide);
  for (const char* member : {"1, ", "b, "}) {
    const PredicatePtr list = Predicate::withFormat("a IN {" + repeated(many, member) + "2}");
    ASSERT_NE(list, nullptr);
    EXPECT_TRUE(*Predicate::withFormat(list->predicateFormat()) == *list);
  }
  EXPECT_NE(Predicate::withFormat(repeated(many, "a.") + "a == 1"), nullptr);
  EXPECT_NE(Predicate::withFormat("a IN %@", {Array(2'000'000, 1)}), nullptr);

  const auto build = [many](int value) {
    PredicatePtr deep = Predicate::comparison(Expression::keyPath("a"), Predicate::Operator::equal,
                                              Expression::constant(value));
    for (std::size_t i = 0; i < many; ++i)
      deep = Predicate::conjunction({Predicate::negation(deep), Predicate::constant(true)});
    return deep;
  };
  PredicatePtr deep = build(1);
  EXPECT_TRUE(*deep == *build(1));
  EXPECT_FALSE(*deep == *build(2));
  EXPECT_EQ(Predicate::withFormat(deep->predicateFormat()), nullptr);
  const PredicatePtr kept = deep->members()[0];
  deep.reset();
  EXPECT_FALSE(kept->evaluate(test::EmptySubject()));
}

TEST(PredicateParser, SurvivesHostileTexts) {
  std::mt19937 random(7);  // NOLINT: reproducible on purpose
  const std::vector<std::string> pieces = {
      "a",    "AND", "OR ",    "NOT ", "(",     ")",        "==",       "<",       "IN ",  "{",    "}",
      ",",    "'",   "\"",     "\\",   "%K",    "%@",       ".",        "1",       "-",    "0x",   "1e",
      "CAST", "nil", "#",      "$",    "\xC3",  " ",        "[",        "SELF",    "]",    "+",    "**",
      "/ ",   "$x",  "@count", "ANY ", "NONE ", "BETWEEN ", "SUBQUERY", "[FIRST]", "[cd]", "LIKE "};
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    for (std::size_t length = random() % 24; length > 0; --length) {
      text +=
          random() % 8 == 0 ? std::string(1, static_cast<char>(random())) : pieces[random() % pieces.size()];
    }
    ErrorPtr error;
    const PredicatePtr predicate = Predicate::withFormat(text, {"k", 1, Array{"x"}}, &error);
    ASSERT_NE(predicate == nullptr, error == nullptr);
    ASSERT_TRUE(isValidUTF8(message(error)));
  }
  for (const char* part : {"'", "\"", "\\", "%", "a.", "-", "=", "\xE2\x82", "9", "a == 1 OR "}) {
    ErrorPtr error;
    EXPECT_EQ(Predicate::withFormat(repeated(200000, part), {}, &error), nullptr) << part;
    EXPECT_LT(message(error).size(), 1000U);
  }
}

}  // namespace
}  // namespace qx
