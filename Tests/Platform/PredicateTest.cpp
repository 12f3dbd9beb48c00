#include <QXEventStoring/Platform/Predicate.h>
#include <QXEventStoring/Platform/PredicateBuilder.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
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

std::string repeated(std::size_t count, std::string_view part) {
  std::string text;
  text.reserve(count * part.size());
  for (std::size_t i = 0; i < count; ++i)
    text += part;
  return text;
}

struct PrintCase {
  const char* format;
  std::vector<Value> arguments;
  const char* expected;
};

void expectPrinted(const std::vector<PrintCase>& cases) {
  for (const PrintCase& each : cases) {
    const std::string text = printed(each.format, each.arguments);
    EXPECT_EQ(text, each.expected) << each.format;
    if (text.find('$') != std::string::npos || text.find("x y") != std::string::npos) continue;  // no words
    EXPECT_EQ(printed(text), text) << "read again: " << each.format;
  }
}

TEST(Predicate, PrintsComparisonsInTheOneFormThatTheRewritingLooksFor) {
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

TEST(Predicate, PrintsLiteralsSoThatTheyReadBack) {
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
      {"a > CAST(%@, %s)", {-0.25, "NSDate"}, "a > CAST(-0.250000, \"NSDate\")"},
      {"a IN {}", {}, "a IN {}"},
      {"a IN { 1 , b.c, {'x', %@} }", {Array{}}, "a IN {1, b.c, {\"x\", {}}}"},
  };
  expectPrinted(cases);
}

TEST(Predicate, PrintsStringsWithOnlyQuotesAndBackslashesEscaped) {
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

TEST(Predicate, PrintsKeysWithReservedWordsMarked) {
  expectPrinted({
      {"#size == #foo.#IN", {}, "#size == foo.#IN"},
      {"%K == 1", {"rel.first"}, "rel.#first == 1"},
      {"self == %K", {"Self"}, "SELF == SELF"},
      {"SELF.x == %K AND %K.y == 1", {"self.x", "SELF"}, "x == x AND y == 1"},
      {"#self == 1", {}, "#self == 1"},
      {"gr\u00f6\u00dfe . \u5024 == 1", {}, "gr\u00f6\u00dfe.\u5024 == 1"},
  });
}

TEST(Predicate, BindsOrWeakerThanAndThanNotThanComparison) {
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

TEST(Predicate, RefusesMalformedTextWithItsPositionAndReason) {
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
      {"a IN 5", 5, "needs a list"},
      {"a == --1", 6, "not supported"},
      {"a == -b", 6, "expected a number"},
      {"a BETWEEN {1, 2}", 2, "\"BETWEEN\" is not supported"},
      {"a ==[c] 'x'", 4, "\"[\" is not supported"},
      {"a uti-conforms-to 'x'", 2, "\"UTI-CONFORMS-TO\" is not supported"},
      {"ANY a.b == 1", 0, "\"ANY\" is not supported"},
      {"a == 1 + 2", 7, "\"+\" is not supported"},
      {"a.@count == 1", 2, "\"@count\" is not supported"},
      {"a == $x", 5, "\"$x\" is not supported"},
      {"a == CAST(b, 'NSDate')", 10, "found \"b\""},
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

TEST(Predicate, ClearsTheErrorOnSuccess) {
  ErrorPtr error = Error::make("x", 1);
  EXPECT_NE(Predicate::withFormat("a == 1", {"left over"}, &error), nullptr);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(Predicate::withFormat("a =="), nullptr);
}

TEST(Predicate, RefusesNestingPastItsLimitAndReadsWhatItPrintsBelowIt) {
  const std::size_t many = 100000;
  for (const char* opening : {"(", "!", "NOT ", "NOT(", "a IN {", "a == (", "a IN {(", "(!"}) {
    EXPECT_EQ(Predicate::withFormat(repeated(many, opening) + "a == 1"), nullptr) << opening;
  }
  EXPECT_EQ(Predicate::withFormat("a IN " + repeated(many, "{") + repeated(many, "}")), nullptr);
  EXPECT_NE(Predicate::withFormat(repeated(200, "(") + "a == 1" + repeated(200, ")")), nullptr);
  EXPECT_EQ(Predicate::withFormat(repeated(201, "(") + "a == 1" + repeated(201, ")")), nullptr);

  Value list = Array{};
  for (int i = 0; i < 200; ++i)
    list = Array{list};
  EXPECT_EQ(Predicate::withFormat("a IN %@", {list}), nullptr);

  const std::vector<std::pair<std::string, std::string>> shells = {
      {"NOT ", ""},
      {"NOT (NOT ", ")"},
      {"(a == 1 OR ", ")"},
      {"a == 1 OR b == 1 AND (", " OR TRUEPREDICATE)"}};
  for (const auto& [before, after] : shells) {
    for (const std::size_t levels : {99, 100, 101, 199, 200}) {
      const std::string text = repeated(levels, before) + "z == 1" + repeated(levels, after);
      const PredicatePtr predicate = Predicate::withFormat(text);
      if (predicate == nullptr) continue;
      EXPECT_EQ(printed(predicate->predicateFormat()), predicate->predicateFormat()) << before << levels;
    }
  }
  EXPECT_NE(Predicate::withFormat(repeated(200, "NOT ") + "z == 1"), nullptr);
}

TEST(Predicate, HasNoLimitOnWidthOrOnBuiltDepth) {
  const std::size_t many = 100000;
  const PredicatePtr wide = Predicate::withFormat(repeated(many, "a == 1 AND ") + "a == 1");
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(wide->members().size(), many + 1);

  PredicatePtr deep =
      Predicate::comparison(Expression::keyPath("a"), Predicate::Operator::equal, Expression::constant(1));
  for (std::size_t i = 0; i < many; ++i) {
    deep = Predicate::conjunction({Predicate::negation(deep), Predicate::constant(true)});
  }
  const DictionarySubject subject({{"a", 1}});
  EXPECT_TRUE(wide->evaluate(subject));
  EXPECT_TRUE(deep->evaluate(subject));
  const std::string text = deep->predicateFormat();
  EXPECT_EQ(Predicate::withFormat(text), nullptr);
  const PredicatePtr kept = deep->members()[0];
  deep.reset();
  EXPECT_TRUE(kept->evaluate(subject));
}

TEST(Predicate, SurvivesHostileTexts) {
  std::mt19937 random(7);  // NOLINT: reproducible on purpose
  const std::vector<std::string> pieces = {
      "a",  "AND", "OR ", "NOT ", "(", ")",  "==", "<",    "IN ", "{", "}", ",",    "'", "\"", "\\",
      "%K", "%@",  ".",   "1",    "-", "0x", "1e", "CAST", "nil", "#", "$", "\xC3", " ", "[",  "SELF"};
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

TEST(Predicate, BuildsFromKeysWhatTheTextSays) {
  const Condition chain = key("a") == 1 && key("b.c") != "x" && key("d") < 2 && !(key("e") >= 3.5);
  EXPECT_EQ(PredicatePtr(chain)->predicateFormat(), "a == 1 AND b.c != \"x\" AND d < 2 AND (NOT e >= 3.5)");
  const Condition choice = key("a") <= 1 || (chain || key("f").in({"x", 2})) || key("g") > nullptr;
  EXPECT_EQ(PredicatePtr(choice)->members().size(), 4U);

  EXPECT_EQ(Predicate::conjunction({})->predicateFormat(), "TRUEPREDICATE");
  EXPECT_EQ(Predicate::disjunction({})->predicateFormat(), "FALSEPREDICATE");
  const PredicatePtr shells =
      Predicate::conjunction({Predicate::disjunction({key("a") == 1}), Predicate::conjunction({})});
  EXPECT_EQ(shells->predicateFormat(), "a == 1 AND TRUEPREDICATE");

  const DictionarySubject subject(Dictionary{});
  EXPECT_TRUE(Predicate::conjunction({})->evaluate(subject));
  EXPECT_FALSE(Predicate::disjunction({})->evaluate(subject));
  EXPECT_FALSE((Condition(nullptr) && Condition(nullptr)).operator PredicatePtr()->evaluate(subject));
  EXPECT_TRUE(Predicate::comparison(nullptr, Predicate::Operator::equal, nullptr)->evaluate(subject));
}

/// Builds predicates of every kind over the keys a to d.
class Generator {
 public:
  PredicatePtr predicate(int depth) {
    const unsigned choice = pick(depth > 0 ? 8 : 4);
    if (choice == 0) return Predicate::constant(pick(2) == 0);
    if (choice < 4) return comparison();
    if (choice == 4) return Predicate::negation(predicate(depth - 1));
    std::vector<PredicatePtr> members;
    for (unsigned count = pick(4); count > 0; --count)
      members.push_back(predicate(depth - 1));
    return choice % 2 == 0 ? Predicate::conjunction(members) : Predicate::disjunction(members);
  }

  Value value() {
    switch (pick(9)) {
      case 0:
        return nullptr;
      case 1:
        return pick(2) == 0;
      case 2:
        return static_cast<std::int64_t>(pick(3)) - 1;
      case 3:
        return static_cast<std::int64_t>(wide());
      case 4:
        return wide();
      case 5:
        return std::ldexp(static_cast<double>(static_cast<std::int64_t>(wide())),
                          static_cast<int>(pick(200)) - 160);
      case 6:
        return Date{static_cast<double>(pick(1000)) / 8};
      case 7:
        return text();
      default:
        return Array{text(), static_cast<int>(pick(3))};
    }
  }

 private:
  unsigned pick(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  std::uint64_t wide() { return random_(); }

  std::string text() {
    constexpr std::string_view kCharacters = "ab\"'\\\n\t%@${} n0";
    std::string result;
    for (unsigned length = pick(5); length > 0; --length)
      result += kCharacters[pick(kCharacters.size())];
    return result;
  }

  ExpressionPtr expression() {
    switch (pick(6)) {
      case 0:
        return Expression::self();
      case 1:
        return Expression::keyPath("rel.size");
      case 2:
        return Expression::aggregate({Expression::keyPath("a"), Expression::constant(value())});
      case 3:
        return Expression::constant(value());
      default:
        return Expression::keyPath(std::string(1, static_cast<char>('a' + pick(4))));
    }
  }

  PredicatePtr comparison() {
    const auto op = static_cast<Predicate::Operator>(pick(7));
    if (op != Predicate::Operator::in) return Predicate::comparison(expression(), op, expression());
    return Predicate::comparison(expression(), op, Expression::constant(Array{value(), value(), value()}));
  }

  std::mt19937_64 random_{20};  // NOLINT: reproducible on purpose
};

TEST(Predicate, ReadsBackEveryGeneratedPredicateWithTheSameMeaning) {
  Generator generator;
  for (int round = 0; round < 3000; ++round) {
    const PredicatePtr original = generator.predicate(4);
    const std::string text = original->predicateFormat();
    ErrorPtr error;
    const PredicatePtr again = Predicate::withFormat(text, {}, &error);
    ASSERT_NE(again, nullptr) << message(error);
    ASSERT_EQ(again->predicateFormat(), text);
    for (int sample = 0; sample < 4; ++sample) {
      const DictionarySubject subject({{"a", generator.value()},
                                       {"b", generator.value()},
                                       {"c", generator.value()},
                                       {"rel", Dictionary{{"size", generator.value()}}}});
      ASSERT_EQ(again->evaluate(subject), original->evaluate(subject)) << text;
    }
  }
}

}  // namespace
}  // namespace qx
