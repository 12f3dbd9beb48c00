#include <QXEventStoring/Platform/Value.h>

namespace qx {

Data::Data(std::string bytes)
    : bytes_(bytes.empty() ? nullptr : std::make_shared<const std::string>(std::move(bytes))) {}

}  // namespace qx
