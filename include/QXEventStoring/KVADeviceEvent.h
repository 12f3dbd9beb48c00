#pragma once

#include <cstdint>

#include <QXEventStoring/Platform/Export.h>
#include <QXEventStoring/Platform/Value.h>

/// The device-event protocol: what consumers of device events ask of one. Values are handed on as the
/// device reported them, without a check of their type; the null marker stands for "not reported".
class QX_EXPORT KVADeviceEvent {
 public:
  virtual ~KVADeviceEvent() = default;

  virtual qx::Value alertID() const = 0;
  virtual qx::Value alertType() const = 0;
  virtual std::int64_t severity() const = 0;
  virtual qx::Value errorCode() const = 0;
  virtual qx::Dictionary properties() const = 0;
  virtual qx::Dictionary deviceProperties() const = 0;
  /// Optional; the null marker unless a class provides it.
  virtual qx::Value supplyCategory() const;
};
