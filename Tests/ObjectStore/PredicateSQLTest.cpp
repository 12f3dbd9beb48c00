#include "ObjectStore/PredicateSQL.h"

#include <algorithm>
#include <random>

#include "Tests/ObjectStore/StoreFixture.h"

namespace qx::test {
namespace {

using PredicateSQLTest = StoreTest;

TEST_F(PredicateSQLTest, BindsEveryValueAndNamesOnlyKnownColumns) {
  const auto compile = [](const char* format, const std::vector<Value>& arguments = {}) {
    const PredicatePtr predicate = Predicate::withFormat(format, arguments);
    const auto compiled =
        PredicateSQL::compile(*predicate, *productModel()->entity("QXEvent"), *productModel(), nullptr);
    return compiled ? compiled->condition : "refused";
  };
  EXPECT_EQ(compile("eventID == %@", {"'); DROP TABLE ZQXEVENT; --"}), "t0.ZEVENTID = ?");
  EXPECT_EQ(compile("NOT eventID == 'x'"), "NOT (t0.ZEVENTID IS ?)");
  EXPECT_EQ(compile("eventID == nil AND 5 > eventCurrentState"),
            "((t0.ZEVENTID IS NULL) AND (t0.ZEVENTCURRENTSTATE < ?))");
  EXPECT_EQ(compile("eventCurrentState == '5'"), "0");
  EXPECT_EQ(compile("%K == 1", {"Z_PK"}), "refused");
  EXPECT_EQ(compile("%K == 1", {"eventClass.eventSeverity.x"}), "refused");
  EXPECT_EQ(compile("%K == 1", {"eventID\" = 1 --"}), "refused");
}

/// Builds random predicates over the attributes of an event and its class.
class PredicateMaker {
 public:
  explicit PredicateMaker(std::mt19937& random) : random_(random) {}

  PredicatePtr make(int depth) {
    switch (depth > 0 ? random_() % 5 : 0) {
      case 1:
        return Predicate::conjunction({make(depth - 1), make(depth - 1)});
      case 2:
        return Predicate::disjunction({make(depth - 1), make(depth - 1)});
      case 3:
        return Predicate::negation(make(depth - 1));
      default:
        return comparison();
    }
  }

 private:
  Value value() {
    static const Value values[] = {Value(),   Value(0),   Value(1),   Value(2),    Value(1.5),
                                   Value(""), Value("a"), Value("B"), Value(true), Value(Date{5})};
    return values[random_() % std::size(values)];
  }
  ExpressionPtr side() {
    static const char* const keys[] = {
        "eventID",          "eventCurrentState",       "eventReadStatus",
        "eventTriggerTime", "eventClass.eventClassID", "eventClass.totalStates",
        "eventSourceID",    "eventClass.eventSeverity"};
    return random_() % 4 == 0 ? Expression::constant(value())
                              : Expression::keyPath(keys[random_() % std::size(keys)]);
  }
  PredicatePtr comparison() {
    if (random_() % 6 == 0) {
      Array members;
      for (auto i = random_() % 4; i > 0; --i)
        members.push_back(value());
      ExpressionPtr left = side();
      while (left->kind() != Expression::Kind::keyPath)
        left = side();
      return Predicate::comparison(left, Predicate::Operator::in, Expression::constant(members));
    }
    const auto op = static_cast<Predicate::Operator>(random_() % 6);
    return Predicate::comparison(side(), op, random_() % 2 == 0 ? Expression::constant(value()) : side());
  }

  std::mt19937& random_;
};

TEST_F(PredicateSQLTest, SelectsWhatTheEvaluatorSelectsMissingValuesIncluded) {
  std::mt19937 random(7);
  Stack stack(path_);
  const auto maybe = [&](std::initializer_list<Value> values) {
    return *(values.begin() + random() % values.size());
  };
  std::vector<ManagedObjectPtr> classes(4);
  for (auto& eventClass : classes) {
    eventClass = stack.context.insert("QXEventClass");
    eventClass->setValue("eventClassID", maybe({Value(), Value("a"), Value("B")}));
    eventClass->setValue("totalStates", maybe({Value(), Value(1), Value(2)}));
    eventClass->setValue("eventSeverity", maybe({Value(), Value(0), Value(3)}));
  }
  classes.push_back(nullptr);
  for (int i = 0; i < 100; ++i) {
    const auto event = stack.context.insert("QXEvent");
    event->setValue("eventID", maybe({Value(), Value(""), Value("a"), Value("b")}));
    event->setValue("eventSourceID", maybe({Value(), Value("a"), Value("B")}));
    event->setValue("eventCurrentState", maybe({Value(), Value(0), Value(1), Value(2)}));
    event->setValue("eventReadStatus", maybe({Value(), Value(true), Value(false)}));
    event->setValue("eventTriggerTime", maybe({Value(), Value(Date{5}), Value(Date{6})}));
    event->setRelated("eventClass", classes[random() % classes.size()]);
  }
  ASSERT_TRUE(stack.context.save());
  const auto everything = stack.context.fetch("QXEvent", nullptr);
  for (int round = 0; round < 1500; ++round) {
    const PredicatePtr predicate = PredicateMaker(random).make(3);
    ManagedObjects expected;
    std::copy_if(everything->begin(), everything->end(), std::back_inserter(expected),
                 [&](const auto& event) { return predicate->evaluate(*event); });
    ErrorPtr error;
    const auto found = stack.context.fetch("QXEvent", predicate, &error);
    ASSERT_TRUE(found) << predicate->predicateFormat() << ": " << error->summary();
    ASSERT_EQ(*found, expected) << predicate->predicateFormat();
    ASSERT_EQ(stack.context.count("QXEvent", predicate), expected.size());
  }
}

}  // namespace
}  // namespace qx::test
