#include "Logging/PLVLogArgument.h"

namespace qx::log {

Argument::Argument(const ErrorPtr& error) {
  if (error) storage_ = error->summary();
}

Argument::Argument(const Dictionary& values) : Argument(Value(values)) {}

Argument::Argument(const Value& value) : storage_(value.description()) {}

}  // namespace qx::log
