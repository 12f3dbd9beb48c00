#include <QXEventStoring/Platform/Error.h>

namespace qx {

Error::Error(std::string_view domain, std::int64_t code, Details details)
    : domain_(domain), code_(code), details_(std::move(details)) {}

ErrorPtr Error::make(std::string_view domain, std::int64_t code) {
  return std::make_shared<const Error>(domain, code);
}

ErrorPtr Error::make(std::string_view domain, std::int64_t code, std::string description) {
  Details details;
  details.description = std::move(description);
  return make(domain, code, std::move(details));
}

ErrorPtr Error::make(std::string_view domain, std::int64_t code, Details details) {
  return std::make_shared<const Error>(domain, code, std::move(details));
}

std::string Error::localizedDescription() const {
  if (details_.description) return *details_.description;
  return "The operation could not be completed. (" + domain_ + " error " + std::to_string(code_) + ".)";
}

Dictionary Error::userInfo() const {
  Dictionary info;
  if (details_.description) info.set("NSLocalizedDescription", *details_.description);
  if (details_.suggestion) info.set("NSLocalizedRecoverySuggestion", *details_.suggestion);
  if (!details_.recoveryOptions.empty()) {
    info.set("NSLocalizedRecoveryOptions",
             Array(details_.recoveryOptions.begin(), details_.recoveryOptions.end()));
  }
  if (details_.underlying) info.set("NSUnderlyingError", details_.underlying->summary());
  return info;
}

std::string Error::summary() const {
  return "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" +
         details_.description.value_or("(null)") + '"';
}

}  // namespace qx
