#pragma once

#include <string_view>

// Keys of an event's additional information, which device monitors write. Those that the library itself
// reads name the view that does.
inline constexpr std::string_view QXDeviceMonitoringValueInitialKey = "Event: Initial Value";
inline constexpr std::string_view QXDeviceMonitoringValueNewKey = "Event: New Value";
inline constexpr std::string_view QXDeviceMonitoringValueOldKey = "Event: Old Value";
inline constexpr std::string_view QXDeviceMonitoringValueConnectionKey = "Event: Connection Status";
inline constexpr std::string_view QXDeviceMonitoringSupplyColorNameKey = "Event: Supply Color";  // supplyInfo
inline constexpr std::string_view QXDeviceMonitoringSupplyTypeKey = "Event: Supply Type";
// supplyInfo
inline constexpr std::string_view QXDeviceMonitoringSupplyTypeNumberKey = "Event: Supply Type Number";
inline constexpr std::string_view QXDeviceMonitoringSupplyCountKey = "Event: Supply Count";
inline constexpr std::string_view QXDeviceMonitoringPrintHeadCountKey = "Event: Print Head Count";
inline constexpr std::string_view QXDeviceMonitoringAdditionalEventDetailsKey = "Event: Additional Details";
inline constexpr std::string_view QXDeviceMonitoringCoverIDKey = "Event: Cover Identifier";
// supplyInfo
inline constexpr std::string_view QXDeviceMonitoringSupplyPartNumberKey = "Event: Supply Part Number";
// supplyInfo
inline constexpr std::string_view QXDeviceMonitoringSupplyPartNumberListKey =
    "Event: Supply Part Number List";
// supplyInfo
inline constexpr std::string_view QXDeviceMonitoringSupplySelectabilityNumberKey =
    "Event: Supply Selectability Number";
inline constexpr std::string_view QXDeviceMonitoringSupplySupportMessageTypeKey =
    "Event: Supply Support Message Type";
inline constexpr std::string_view QXDeviceMonitoringSupplySupportMessageValueKey =
    "Event: Supply Support Message Value";
inline constexpr std::string_view QXDeviceMonitoringSubscriptionErrorKey = "Event: Subscription Error";
inline constexpr std::string_view QXDeviceMonitoringAlertSeverityKey = "Event: Alert Severity";
// alertID
inline constexpr std::string_view QXDeviceMonitoringAlertIOReferenceKey = "Event: Alert IO Reference";
// alertID, alertType
inline constexpr std::string_view QXDeviceMonitoringAlertProductStatusAlertID =
    "Event: Product Status Alert ID";
// severity
inline constexpr std::string_view QXDeviceMonitoringOverriddenSeverityKey = "Event: Overridden Severity";
// severity
inline constexpr std::string_view QXDeviceMonitoringReportedSeverityKey = "Event: Reported Severity";
inline constexpr std::string_view QXDeviceMonitoringInkSubscriptionFeatureKey =
    "Event: Ink Subscription State";
inline constexpr std::string_view QXDeviceMonitoringAuthenticatedRewardsFeatureKey =
    "Event: Authenticated Rewards State";
inline constexpr std::string_view QXDeviceMonitoringSupplyUniqueIdentifiers =
    "Event: Supply Unique Identifiers";
inline constexpr std::string_view QXDeviceMonitoringInputBinKey = "Event: Input Bin";        // properties
inline constexpr std::string_view QXDeviceMonitoringJamLocationKey = "Event: Jam Location";  // properties
inline constexpr std::string_view QXDeviceMonitoringMediaTypeKey = "Event: Media Type";
inline constexpr std::string_view QXDeviceMonitoringMediaSizeKey = "Event: Media Size";
// deviceProperties
inline constexpr std::string_view QXDeviceMonitoringFirmwareDateKey = "Event: Firmware Date";
// deviceProperties
inline constexpr std::string_view QXDeviceMonitoringCountryCodeKey = "Event: Country Code";
inline constexpr std::string_view QXDeviceMonitoringLanguageKey = "Event: Language";  // deviceProperties
inline constexpr std::string_view QXDeviceMonitoringErrorCode = "Event: Error Code";  // errorCode

// Keys of the device-event protocol: of the additional information (the first three), and of the
// dictionaries that the views of an event return.
inline constexpr std::string_view kKVAEventSoftwareAlertIDKey = "KVAEventSoftwareAlertID";  // alertID
// localizedEventStatusParameterForKey
inline constexpr std::string_view kKVAEventParametersKey = "KVAEventStatusParameters";
inline constexpr std::string_view kKVAEventActionIDKey = "KVAEventActionID";
// properties
inline constexpr std::string_view kKVAEventPropertySupplyInfoKey = "KVAEventPropertySupplyInfo";
// properties
inline constexpr std::string_view kKVAEventPropertyInputBinNameKey = "KVAEventPropertyInputBinName";
// properties
inline constexpr std::string_view kKVAEventPropertyJamLocationKey = "KVAEventPropertyJamLocation";
inline constexpr std::string_view kKVASupplyColorNameKey = "KVASupplyColorName";  // supplyInfo
// supplyInfo
inline constexpr std::string_view kKVASupplySelectabilityNumberKey = "KVASupplySelectabilityNumber";
inline constexpr std::string_view kKVASupplyPartNumberKey = "KVASupplyPartNumber";        // supplyInfo
inline constexpr std::string_view kKVASupplyTypeKey = "KVASupplyType";                    // supplyInfo
inline constexpr std::string_view kKVADeviceModelNameKey = "KVADeviceModelName";          // deviceProperties
inline constexpr std::string_view kKVADeviceProductNumberKey = "KVADeviceProductNumber";  // deviceProperties
inline constexpr std::string_view kKVADeviceServiceIDKey = "KVADeviceServiceID";          // deviceProperties
inline constexpr std::string_view kKVADeviceSerialNumberKey = "KVADeviceSerialNumber";    // deviceProperties
inline constexpr std::string_view kKVADeviceFirmwareDateKey = "KVADeviceFirmwareDate";    // deviceProperties
inline constexpr std::string_view kKVADeviceCountryCodeKey = "KVADeviceCountryCode";      // deviceProperties
inline constexpr std::string_view kKVADeviceLanguageKey = "KVADeviceLanguage";            // deviceProperties
// deviceProperties
inline constexpr std::string_view kKVADeviceUserFriendlyNameKey = "KVADeviceUserFriendlyName";
