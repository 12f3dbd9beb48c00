// A predicate text and its arguments, the text hostile: whatever it is, it is refused with an error or read;
// and what is read can be printed, evaluated and taken apart, and comes back equal from its text.
//
// The first byte of the input chooses the arguments, the rest is the text.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <QXEventStoring/Platform/Predicate.h>

namespace {

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

struct Arguments {
  std::vector<qx::Value> values;
  bool readable = true;  // the text that they are printed as can be read
};

const std::vector<Arguments>& argumentSets() {
  static const std::vector<Arguments> sets = {
      {{}},
      {{"n", 1, "rel.first", "text", qx::Array{"text", 2, nullptr}, qx::Date{5}, 2.5, true, -3}},
      {{qx::Array{1, 2}, "SELF.list", qx::Array{qx::Array{}, "\"\\\n", qx::Date{0.5}}, "@count", -1e300,
        nullptr}},
      {{"x y", "a..$<b>", qx::Dictionary{{"n", 1}}, qx::Data("bytes"), ".", "self."}, false},
  };
  return sets;
}

class Subject : public qx::PredicateSubject {
 public:
  qx::Value valueForKeyPath(const std::vector<std::string>& keyPath) const override {
    const qx::Dictionary* level = &entries_;
    const qx::Value* value = nullptr;
    for (const std::string& component : keyPath) {
      value = level != nullptr ? level->find(component) : nullptr;
      if (value == nullptr) return {};
      level = value->asDictionary();
    }
    return value != nullptr ? *value : qx::Value();
  }

 private:
  qx::Dictionary entries_ = {{"n", 5},
                             {"s", "text"},
                             {"d", qx::Date{100}},
                             {"list", qx::Array{1, "text", nullptr, qx::Array{2.5}}},
                             {"rel", qx::Dictionary{{"n", 5}, {"first", -1}}},
                             {"SELF", "itself"}};
};

qx::PredicatePtr readBack(const std::string& text) {
  qx::PredicatePtr predicate = qx::Predicate::withFormat(text);
  require(predicate != nullptr, "what is printed can be read");
  require(predicate->predicateFormat() == text, "what is read back is printed the same");
  return predicate;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const Arguments& arguments = argumentSets()[data[0] % argumentSets().size()];
  const std::string_view format(reinterpret_cast<const char*>(data) + 1, size - 1);

  qx::ErrorPtr error;
  const qx::PredicatePtr predicate = qx::Predicate::withFormat(format, arguments.values, &error);
  require((predicate == nullptr) == (error != nullptr), "a refusal has its error");
  if (predicate == nullptr) {
    require(qx::isValidUTF8(error->localizedDescription()), "the error is well-formed");
    return 0;
  }
  const bool truth = predicate->evaluate(Subject());
  require(predicate->evaluate(Subject()) == truth, "evaluation is repeatable");
  const std::string text = predicate->predicateFormat();
  if (!arguments.readable) return 0;

  const qx::PredicatePtr again = readBack(text);
  // The text of a date has microseconds only, so the first one can be lost.
  require(*again == *predicate || text.find("CAST(") != std::string::npos, "what is read back is equal");
  require(*readBack(text) == *again, "reading the same text gives the same tree");
  return 0;
}
