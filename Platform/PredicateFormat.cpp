// Printing. The text is not for people only: placeholder keys are replaced in it before it is parsed
// again, so blanks, operators and numbers must be spelt exactly so. Compound members stand in parentheses
// always, the outermost predicate never. Numbers are written with std::to_chars, since a process may run
// in a decimal-comma locale.
//
// A real without a fraction is printed as an integer, but not in arithmetic, where 1 / 2 is 0 and 1 / 2.0 is
// not, nor in the collection of a subquery, whose variable may stand in arithmetic.
//
// What withFormat() made can be read back and means the same, but for constants that the language has no
// literal for: data and dictionaries are printed for people.

#include <QXEventStoring/Platform/Predicate.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "Platform/PredicateLexer.h"
#include "Platform/PredicateNesting.h"

namespace qx {

namespace {

/// Room for the longest double in fixed notation, 309 digits and 6 decimals.
using NumberBuffer = std::array<char, 336>;

template <typename... Format>
void appendNumber(std::string& out, Format... numberAndFormat) {
  NumberBuffer buffer;
  const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), numberAndFormat...);
  out.append(buffer.data(), result.ptr);
}

/// `keepsKind`: so that a real is read back.
void appendReal(std::string& out, double value, bool keepsKind) {
  if (value == 0 && !keepsKind) return appendNumber(out, 0);  // -0 would come back as the integer 0
  if (std::isinf(value)) {
    out += value < 0 ? "-1e999" : "1e999";  // read as infinity; "inf" would be a key
    return;
  }
  const double magnitude = std::abs(value);
  const bool fixed = magnitude >= 1e-4 && magnitude < 1e16;
  appendNumber(out, value, fixed || value == 0 ? std::chars_format::fixed : std::chars_format::scientific);
  if (keepsKind && (fixed || value == 0) && value == std::trunc(value)) out += ".0";
}

void appendDate(std::string& out, Date date) {
  out += "CAST(";
  appendNumber(out, date.secondsSinceReferenceDate, std::chars_format::fixed, 6);
  out += ", \"NSDate\")";
}

void appendString(std::string& out, std::string_view text) {
  out += '"';
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
}

/// "{a, b}" of anything that `append` writes.
template <typename Members, typename Append>
void appendList(std::string& out, const Members& members, Append append) {
  out += '{';
  const char* separator = "";
  for (const auto& member : members) {
    out += separator;
    append(out, member);
    separator = ", ";
  }
  out += '}';
}

void appendConstant(std::string& out, const Value& value, bool keepsKind) {
  switch (value.kind()) {
    case Value::Kind::null:
      out += "nil";
      return;
    case Value::Kind::boolean:
      out += *value.asBool() ? '1' : '0';
      return;
    case Value::Kind::integer:
      return appendNumber(out, *value.asInteger());
    case Value::Kind::unsignedInteger:
      return appendNumber(out, *value.asUnsigned());
    case Value::Kind::real:
      return appendReal(out, *value.asReal(), keepsKind);
    case Value::Kind::date:
      return appendDate(out, *value.asDate());
    case Value::Kind::string:
      return appendString(out, *value.asString());
    case Value::Kind::array:
      return appendList(out, *value.asArray(), [keepsKind](std::string& text, const Value& member) {
        appendConstant(text, member, keepsKind);
      });
    case Value::Kind::data:
    case Value::Kind::dictionary:
      out += value.description();
      return;
  }
}

void appendComponents(std::string& out, const std::vector<std::string>& components) {
  const char* separator = "";
  for (const std::string& component : components) {
    out += separator;
    if (detail::isReservedPredicateWord(component)) out += '#';
    out += component;
    separator = ".";
  }
}

std::string_view spelling(Expression::Operation operation) {
  switch (operation) {
    case Expression::Operation::add:
      return " + ";
    case Expression::Operation::subtract:
      return " - ";
    case Expression::Operation::multiply:
      return " * ";
    case Expression::Operation::divide:
      return " / ";
    case Expression::Operation::power:
      return " ** ";
    case Expression::Operation::negate:
      return "-";
  }
  return {};
}

void appendExpression(std::string& out, const Expression& expression, bool keepsKind = false);
void appendPredicate(std::string& out, const Predicate& root);

void appendMember(std::string& out, const Expression& expression, std::size_t member, bool keepsKind) {
  const bool parenthesised = detail::isParenthesised(expression, member);
  if (parenthesised) out += '(';
  appendExpression(out, *expression.members()[member], keepsKind);
  if (parenthesised) out += ')';
}

void appendArithmetic(std::string& out, const Expression& expression) {
  if (expression.operation() == Expression::Operation::negate) {
    out += spelling(expression.operation());
    return appendMember(out, expression, 0, true);
  }
  appendMember(out, expression, 0, true);
  out += spelling(expression.operation());
  appendMember(out, expression, 1, true);
}

void appendElement(std::string& out, const Expression& expression, bool keepsKind) {
  appendMember(out, expression, 0, keepsKind);
  switch (expression.element()) {
    case Expression::Element::at:
      out += '[';
      appendMember(out, expression, 1, false);
      out += ']';
      return;
    case Expression::Element::first:
      out += "[FIRST]";
      return;
    case Expression::Element::last:
      out += "[LAST]";
      return;
    case Expression::Element::size:
      out += "[SIZE]";
      return;
  }
}

void appendSubquery(std::string& out, const Expression& expression) {
  out += "SUBQUERY(";
  appendExpression(out, *expression.base(), true);
  out += ", $";
  out += expression.name();
  out += ", ";
  appendPredicate(out, *expression.predicate());
  out += ')';
}

void appendExpression(std::string& out, const Expression& expression, bool keepsKind) {
  switch (expression.kind()) {
    case Expression::Kind::constant:
      return appendConstant(out, expression.value(), keepsKind);
    case Expression::Kind::keyPath:
      return appendComponents(out, expression.components());
    case Expression::Kind::self:
      out += "SELF";
      return;
    case Expression::Kind::aggregate:
      return appendList(out, expression.members(),
                        [keepsKind](std::string& text, const ExpressionPtr& member) {
                          appendExpression(text, *member, keepsKind);
                        });
    case Expression::Kind::variable:
      out += '$';
      out += expression.name();
      return;
    case Expression::Kind::arithmetic:
      return appendArithmetic(out, expression);
    case Expression::Kind::element:
      return appendElement(out, expression, keepsKind);
    case Expression::Kind::path:
      appendMember(out, expression, 0, keepsKind);
      out += '.';
      return appendComponents(out, expression.components());
    case Expression::Kind::subquery:
      return appendSubquery(out, expression);
  }
}

std::string_view spelling(Predicate::Operator op) {
  switch (op) {
    case Predicate::Operator::equal:
      return "==";
    case Predicate::Operator::notEqual:
      return "!=";
    case Predicate::Operator::less:
      return "<";
    case Predicate::Operator::lessOrEqual:
      return "<=";
    case Predicate::Operator::greater:
      return ">";
    case Predicate::Operator::greaterOrEqual:
      return ">=";
    case Predicate::Operator::between:
      return "BETWEEN";
    case Predicate::Operator::in:
      return "IN";
    case Predicate::Operator::contains:
      return "CONTAINS";
    case Predicate::Operator::beginsWith:
      return "BEGINSWITH";
    case Predicate::Operator::endsWith:
      return "ENDSWITH";
    case Predicate::Operator::like:
      return "LIKE";
    case Predicate::Operator::matches:
      return "MATCHES";
  }
  return {};
}

void appendOptions(std::string& out, Predicate::Options options) {
  if (!options.any()) return;
  out += '[';
  if (options.caseInsensitive) out += 'c';
  if (options.diacriticInsensitive) out += 'd';
  if (options.normalized) out += 'n';
  out += ']';
}

void appendLeaf(std::string& out, const Predicate& predicate) {
  if (predicate.kind() == Predicate::Kind::comparison) {
    if (predicate.modifier() == Predicate::Modifier::any) out += "ANY ";
    if (predicate.modifier() == Predicate::Modifier::all) out += "ALL ";
    appendExpression(out, *predicate.left());
    out += ' ';
    out += spelling(predicate.comparisonOperator());
    appendOptions(out, predicate.options());
    out += ' ';
    appendExpression(out, *predicate.right());
    return;
  }
  out += predicate.constantValue() ? "TRUEPREDICATE" : "FALSEPREDICATE";
}

/// A predicate whose members are being printed. Its own stack instead of the thread's: a builder can nest
/// without bound.
struct Frame {
  const Predicate* predicate;
  bool parenthesised;
  std::size_t nextMember = 0;
};

void appendBeforeMember(std::string& out, const Frame& frame) {
  if (frame.nextMember > 0) {
    out += frame.predicate->kind() == Predicate::Kind::conjunction ? " AND " : " OR ";
    return;
  }
  if (frame.parenthesised) out += '(';
  if (frame.predicate->kind() == Predicate::Kind::negation) out += "NOT ";
}

void appendPredicate(std::string& out, const Predicate& root) {
  std::vector<Frame> open;
  const auto print = [&](const Predicate& predicate) {
    if (predicate.members().empty()) return appendLeaf(out, predicate);
    open.push_back({&predicate, !open.empty()});
  };
  print(root);
  while (!open.empty()) {
    Frame& frame = open.back();
    if (frame.nextMember < frame.predicate->members().size()) {
      appendBeforeMember(out, frame);
      print(*frame.predicate->members()[frame.nextMember++]);
      continue;
    }
    if (frame.parenthesised) out += ')';
    open.pop_back();
  }
}

}  // namespace

std::string Expression::format() const {
  std::string text;
  appendExpression(text, *this);
  return text;
}

std::string Predicate::predicateFormat() const {
  std::string text;
  appendPredicate(text, *this);
  return text;
}

}  // namespace qx
