#pragma once

#include <string_view>

// The names of the object model (Resources/QXStoreModel.momd): entities, attributes, relationships and key
// paths. docs/file-format.md tells what every attribute is for.

/// One row per device.
inline constexpr std::string_view kSourceEntity = "QXEventSource";
inline constexpr std::string_view kSourceID = "sourceID";
inline constexpr std::string_view kSourceName = "sourceName";
inline constexpr std::string_view kSourceAlternateName = "sourceAlternateName";
inline constexpr std::string_view kSourceMakeAndModel = "makeAndModel";
inline constexpr std::string_view kSourceProducNumber = "productNumber";
inline constexpr std::string_view kSourceServiceID = "serviceID";
inline constexpr std::string_view kSourceIcon = "sourceIcon";
inline constexpr std::string_view kSourceLocalizedInfo = "localizedSources";

/// One row per event class, with no source ID, and one more for each source that reports other details for
/// the class.
inline constexpr std::string_view kEventClassEntity = "QXEventClass";
inline constexpr std::string_view kEventClassID = "eventClassID";
inline constexpr std::string_view kEventHandler = "eventHandler";
inline constexpr std::string_view kEventSeverity = "eventSeverity";
inline constexpr std::string_view kEventTotalStates = "totalStates";

/// One row per event; its source is named by kEventSourceID, its class is a to-one relationship.
inline constexpr std::string_view kEventEntity = "QXEvent";
inline constexpr std::string_view kEventID = "eventID";
inline constexpr std::string_view kEventReadStatus = "eventReadStatus";
inline constexpr std::string_view kEventTriggerTime = "eventTriggerTime";
inline constexpr std::string_view kEventCurrentState = "eventCurrentState";
inline constexpr std::string_view kEventVersionNo = "eventVersionNumber";
inline constexpr std::string_view kEventClass = "eventClass";
inline constexpr std::string_view kEventSourceID = "eventSourceID";
/// A dictionary as a binary property list.
inline constexpr std::string_view kEventAdditionalInfo = "eventAdditionalInfo";

// Key paths from an event over its class, and predicates on an event.
inline constexpr std::string_view kEventClassIDRelation = "eventClass.eventClassID";
inline constexpr std::string_view kEventSeverityRelationKey = "eventClass.eventSeverity";
inline constexpr std::string_view kEventTotalStatesRelation = "eventClass.totalStates";
inline constexpr std::string_view kIsEventSolved = "eventCurrentState == eventClass.totalStates";
inline constexpr std::string_view kIsEventUnsolved = "eventCurrentState != eventClass.totalStates";

/// Part of the model; the library keeps no rows of it.
inline constexpr std::string_view kLocalizedSourceEntity = "QXLocalizedSource";

/// One row per application that is started when an event arrives.
inline constexpr std::string_view kDestinationAppEntity = "QXDestinationApplication";
inline constexpr std::string_view kDestinationAppPath = "path";

/// One row per block; a missing class or source ID stands for every one.
inline constexpr std::string_view kBlockedEventEntity = "QXBlockedEvent";
inline constexpr std::string_view kBlockedEventClassID = "blockedEventClassID";
inline constexpr std::string_view kBlockedSourceID = "blockedEventSourceID";

/// Distributed notification: stored events or sources changed.
inline constexpr std::string_view kStoreUpdated = "Store Updated";
// Keys of its user info for a changed source: the source's ID, the dictionary of its new values.
inline constexpr std::string_view kModifiedSourceId = "Modified source id";
inline constexpr std::string_view kModifiedSourceDict = "Modified source dictionary";
