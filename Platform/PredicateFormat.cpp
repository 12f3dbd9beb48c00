// Printing. The text is not for people only: placeholder keys are replaced in it before it is parsed
// again, so blanks, operators and numbers must be spelt exactly so. Compound members stand in parentheses
// always, the outermost predicate never. Numbers are written with std::to_chars, since a process may run
// in a decimal-comma locale.
//
// What withFormat() made can be read back and means the same, but for constants that the language has no
// literal for: data and dictionaries are printed for people.

#include <QXEventStoring/Platform/Predicate.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "Platform/PredicateLexer.h"

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

void appendReal(std::string& out, double value) {
  if (value == 0) return appendNumber(out, 0);  // -0 would come back as the integer 0
  if (std::isinf(value)) {
    out += value < 0 ? "-1e999" : "1e999";  // read as infinity; "inf" would be a key
    return;
  }
  const double magnitude = std::abs(value);
  const bool fixed = magnitude >= 1e-4 && magnitude < 1e16;
  appendNumber(out, value, fixed ? std::chars_format::fixed : std::chars_format::scientific);
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

void appendConstant(std::string& out, const Value& value) {
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
      return appendReal(out, *value.asReal());
    case Value::Kind::date:
      return appendDate(out, *value.asDate());
    case Value::Kind::string:
      return appendString(out, *value.asString());
    case Value::Kind::array:
      return appendList(out, *value.asArray(), appendConstant);
    case Value::Kind::data:
    case Value::Kind::dictionary:
      out += value.description();
      return;
  }
}

void appendKeyPath(std::string& out, const std::vector<std::string>& components) {
  const char* separator = "";
  for (const std::string& component : components) {
    out += separator;
    if (!detail::reservedPredicateWord(component).empty()) out += '#';
    out += component;
    separator = ".";
  }
}

void appendExpression(std::string& out, const Expression& expression) {
  switch (expression.kind()) {
    case Expression::Kind::constant:
      return appendConstant(out, expression.value());
    case Expression::Kind::keyPath:
      return appendKeyPath(out, expression.components());
    case Expression::Kind::self:
      out += "SELF";
      return;
    case Expression::Kind::aggregate:
      return appendList(out, expression.members(), [](std::string& text, const ExpressionPtr& member) {
        appendExpression(text, *member);
      });
    default:
      return;
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
    case Predicate::Operator::in:
      return "IN";
    default:
      break;
  }
  return {};
}

void appendLeaf(std::string& out, const Predicate& predicate) {
  if (predicate.kind() == Predicate::Kind::comparison) {
    appendExpression(out, *predicate.left());
    out += ' ';
    out += spelling(predicate.comparisonOperator());
    out += ' ';
    appendExpression(out, *predicate.right());
    return;
  }
  const bool truth = predicate.kind() == Predicate::Kind::constant
                         ? predicate.constantValue()
                         : predicate.kind() == Predicate::Kind::conjunction;  // of nothing
  out += truth ? "TRUEPREDICATE" : "FALSEPREDICATE";
}

/// An AND or OR of one member says nothing of its own.
const Predicate& withoutEmptyShells(const Predicate& predicate) {
  const Predicate* inner = &predicate;
  while (inner->members().size() == 1 && inner->kind() != Predicate::Kind::negation) {
    inner = inner->members().front().get();
  }
  return *inner;
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

}  // namespace

std::string Expression::format() const {
  std::string text;
  appendExpression(text, *this);
  return text;
}

std::string Predicate::predicateFormat() const {
  std::string text;
  std::vector<Frame> open;
  const auto print = [&](const Predicate& predicate) {
    const Predicate& shown = withoutEmptyShells(predicate);
    if (shown.members().empty()) return appendLeaf(text, shown);
    open.push_back({&shown, !open.empty()});
  };
  print(*this);
  while (!open.empty()) {
    Frame& frame = open.back();
    if (frame.nextMember < frame.predicate->members().size()) {
      appendBeforeMember(text, frame);
      print(*frame.predicate->members()[frame.nextMember++]);
      continue;
    }
    if (frame.parenthesised) text += ')';
    open.pop_back();
  }
  return text;
}

}  // namespace qx
