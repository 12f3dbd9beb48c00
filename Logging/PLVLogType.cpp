#include "Logging/PLVLogType.h"

const char* nameOfLogType(PLVLogType type) {
  switch (type) {
    case PLVLogType::Info:
      return "Info";
    case PLVLogType::Debug:
      return "Debug";
    case PLVLogType::Error:
      return "Error";
    case PLVLogType::Fault:
      return "Fault";
    case PLVLogType::Default:
      break;
  }
  return "Default";
}
