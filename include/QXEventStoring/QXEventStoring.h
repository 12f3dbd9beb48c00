#pragma once

// Everything that an application needs of the device-event store.
#include <QXEventStoring/KVADeviceEvent.h>
#include <QXEventStoring/PLVLogLevels.h>
#include <QXEventStoring/Platform/Bundle.h>
#include <QXEventStoring/Platform/Date.h>
#include <QXEventStoring/Platform/Error.h>
#include <QXEventStoring/Platform/NotificationCenter.h>
#include <QXEventStoring/Platform/Predicate.h>
#include <QXEventStoring/Platform/PredicateBuilder.h>
#include <QXEventStoring/Platform/Value.h>
#include <QXEventStoring/Platform/Volume.h>
#include <QXEventStoring/QXEvent.h>
#include <QXEventStoring/QXEventKeys.h>
#include <QXEventStoring/QXEventSource.h>
#include <QXEventStoring/QXEventStore.h>
