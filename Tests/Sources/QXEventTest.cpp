// The records and the device-event views: no store is touched.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <QXEventStoring/QXEvent.h>
#include <QXEventStoring/QXEventKeys.h>

#include "Platform/UUID.h"
#include "Sources/StringUUID.h"

namespace {

using qx::Array;
using qx::Date;
using qx::Dictionary;
using qx::Value;

QXEventSourcePtr makeSource(const std::string& identifier, const qx::String& name) {
  auto source = std::make_shared<QXEventSource>();
  source->setIdentifier(identifier);
  source->setName(name);
  return source;
}

QXEvent& fill(QXEvent& event) {
  event.setClassID("class");
  event.setHandler("handler");
  event.setTriggerTime(Date{0});
  event.setSource(makeSource("S1", "Printer"));
  return event;
}

TEST(EventRecord, KeepsItsValuesWhenGivenNothing) {
  QXEvent event;
  EXPECT_TRUE(qx::isUUID(*event.identifier()));
  fill(event);
  const auto source = event.source();
  for (const qx::String& nothing : {qx::String(), qx::String("")}) {
    event.setClassID(nothing);
    event.setHandler(nothing);
  }
  event.setTriggerTime(std::nullopt);
  event.setSource(nullptr);
  event.setSource(std::make_shared<QXEventSource>());
  EXPECT_EQ(event.classID(), "class");
  EXPECT_EQ(event.handler(), "handler");
  EXPECT_EQ(event.triggerTime(), Date{0});
  EXPECT_EQ(event.source(), source);
}

TEST(EventRecord, IsValidWithEverythingButSeverityStateAndInfo) {
  const auto lacks = [](int part) {
    QXEvent event(part == 0 ? qx::String() : qx::String(""));
    if (part != 1) event.setClassID("class");
    if (part != 2) event.setHandler("handler");
    if (part != 3) event.setTriggerTime(Date{0});
    if (part != 4) event.setSource(makeSource("S1", part == 5 ? qx::String() : qx::String("Printer")));
    return event.isValidEvent();
  };
  for (const int part : {0, 1, 2, 3, 4, 5})
    EXPECT_FALSE(lacks(part)) << part;
  EXPECT_TRUE(lacks(6)) << "an empty identifier is one";
}

TEST(EventRecord, TakesNoSeverityOnceItIsStored) {
  QXEvent event;
  event.setSeverity(2);
  event.setAsPersistentlyStored(true);
  event.setSeverity(5);
  EXPECT_EQ(event.severity(), 2);
  event.setAsPersistentlyStored(false);
  event.setSeverity(5);
  EXPECT_EQ(event.severity(), 5);
}

TEST(EventRecord, DerivesItsSeverityFromTheAdditionalInfo) {
  struct Case {
    Value reported, overridden;
    std::int64_t severity;
  };
  for (const Case& c : {Case{"Error", {}, 3},
                        {"StrictWarning", {}, 1},
                        {"Warning", {}, 1},
                        {"Info", {}, 0},
                        {"Critical", {}, 7},
                        {"error", {}, 7},
                        {3, {}, 7},
                        {{}, {}, 7},
                        {"Error", 2, 2},
                        {"Error", "2", 2},
                        {"Error", "none", 0},
                        {{}, true, 1}}) {
    QXEvent event;
    event.setSeverity(7);
    event.setValue(c.reported, std::string(QXDeviceMonitoringReportedSeverityKey));
    event.setValue(c.overridden, std::string(QXDeviceMonitoringOverriddenSeverityKey));
    EXPECT_EQ(event.severity(), c.severity) << c.reported.description() << c.overridden.description();
  }
}

TEST(EventRecord, ReadsAndWritesItsAdditionalInfoByKey) {
  QXEvent event;
  EXPECT_TRUE(event.valueForKey("identifier").isNull());
  event.setValue(5, "x");
  event.setValue(6, std::nullopt);
  EXPECT_EQ(event.additionalInfo(), (Dictionary{{"x", 5}}));
  EXPECT_EQ(event.valueForKey("x"), Value(5));
  EXPECT_TRUE(event.valueForKey(std::nullopt).isNull());
  event.setValue(nullptr, "x");
  EXPECT_TRUE(event.additionalInfo().empty());
}

TEST(EventRecord, DescribesItself) {
  EXPECT_EQ(QXEvent(std::nullopt).description(),
            "QX Event with ID:(null)\n\tClassID : (null)\n\tSource : (null)\n\tTrigger Time : (null)\n\t"
            "Event Handler : (null)\n\tRead : NO\n\tSolved : YES\n\tEvent severity : 0\n\t"
            "Event Current Status : 0\n\tAdditional info : " +
                Value(Dictionary()).description() + " ");
  QXEvent event("E1");
  fill(event).setSeverity(-1);
  event.setReadStatus(true);
  event.setStatus({1, 3});
  event.setValue("Error", std::string(QXDeviceMonitoringReportedSeverityKey));
  EXPECT_EQ(event.description(),
            "QX Event with ID:E1\n\tClassID : class\n\tSource : Printer\n\tTrigger Time : " +
                Date{0}.description() +
                "\n\tEvent Handler : handler\n\tRead : YES\n\tSolved : NO\n\tEvent severity : -1\n\t"
                "Event Current Status : 1\n\tAdditional info : " +
                Value(event.additionalInfo()).description() + " ");
}

TEST(SourceRecord, HasOneNameWhateverTheLanguage) {
  const auto source = makeSource("S1", std::nullopt);
  EXPECT_FALSE(source->isValidSource());
  source->setName("Beta", "fr");
  source->setName("Gamma", "en");
  source->setName("");
  source->setIdentifier("");
  EXPECT_TRUE(source->isValidSource());
  source->setAlternateName("Second");
  source->setServiceID("");
  EXPECT_EQ(source->description(),
            "QX Event Source with ID:S1\n\tName : Gamma\n\tAlternate Name : Second\n\tmakeAndModel: (null)"
            "\n\tproduct number: (null)\n\tservice ID: ");
}

TEST(SourceRecord, TellsItsObserversBeforeAndAfterAChange) {
  const auto source = makeSource("S1", "Old");
  std::vector<std::string> calls;
  auto token =
      source->addObserver("name", [&](const QXEventSource& changed, std::string_view key, auto phase) {
        const bool before = phase == QXEventSource::ChangePhase::willChange;
        calls.push_back((before ? "will " : "did ") + std::string(key) + " " + *changed.name());
      });
  auto failing = source->addObserver("name", [](const auto&...) { throw std::runtime_error("full"); });
  source->setName("New");
  source->setName("");
  source->setAlternateName("Other");
  EXPECT_EQ(calls, (std::vector<std::string>{"will name Old", "did name New"}));
  token.cancel();
  source->setName("Newest");
  EXPECT_EQ(calls.size(), 2U);
}

TEST(TextReplacement, ReplacesInOrderAndSeesWhatItPutIn) {
  using Texts = std::vector<std::string_view>;
  const auto replaced = [](const char* text, const Texts& patterns, const Texts& replacements) {
    return NSStringUUID::replaceArray(text, patterns, replacements);
  };
  EXPECT_EQ(replaced("abc", {}, {"x"}), "abc");
  EXPECT_EQ(replaced("a-a", {"a", "bb"}, {"bb", "c"}), "c-c");
  EXPECT_EQ(replaced("aaa", {"aa"}, {"b"}), "ba");
  EXPECT_EQ(replaced("abc", {"a", "b", "c"}, {"1"}), "1bc") << "no replacement, no change";
  EXPECT_EQ(replaced("abc", {""}, {"x"}), "abc");
}

QXEvent& withInfo(QXEvent& event, const Dictionary& info) {
  event.additionalInfo() = info;
  return event;
}

TEST(DeviceEventViews, NameTheAlert) {
  QXEvent event;
  EXPECT_TRUE(event.alertID().isNull());
  EXPECT_TRUE(event.supplyCategory().isNull());
  withInfo(event, {{"KVAEventSoftwareAlertID", "software"}});
  EXPECT_EQ(event.alertID(), Value("software"));
  event.setValue("status", "Event: Product Status Alert ID");
  EXPECT_EQ(event.alertID(), Value("status"));
  event.setValue(12, "Event: Alert IO Reference");
  event.setValue("E-1", "Event: Error Code");
  EXPECT_EQ(event.alertID(), Value(12)) << "handed on as it was reported";
  EXPECT_EQ(event.alertType(), Value("status"));
  EXPECT_EQ(event.errorCode(), Value("E-1"));
}

TEST(DeviceEventViews, ListTheSuppliesByColour) {
  struct Case {
    const char* title;
    Dictionary info;
    Array supplies;
  };
  const auto supply = [](const char* colour, Dictionary rest) {
    rest.set("KVASupplyColorName", colour);
    return Value(rest);
  };
  const Value colours = Array{"Cyan", "Black"};
  const std::vector<Case> cases{
      {"no colours", {{"Event: Supply Part Number", "P1"}}, {}},
      {"a colour that is no collection", {{"Event: Supply Color", "Cyan"}}, {}},
      {"values for every colour",
       {{"Event: Supply Color", colours},
        {"Event: Supply Selectability Number", "1"},
        {"Event: Supply Part Number", "P1"},
        {"Event: Supply Type", "ink"},
        {"Event: Supply Type Number", 3}},
       {supply("Cyan",
               {{"KVASupplySelectabilityNumber", "1"}, {"KVASupplyPartNumber", "P1"}, {"KVASupplyType", 3}}),
        supply(
            "Black",
            {{"KVASupplySelectabilityNumber", "1"}, {"KVASupplyPartNumber", "P1"}, {"KVASupplyType", 3}})}},
      {"values by colour; the single part number counts for none",
       {{"Event: Supply Color", colours},
        {"Event: Supply Selectability Number", Dictionary{{"Black", 2}}},
        {"Event: Supply Part Number List", Dictionary{{"Cyan", "C1"}}},
        {"Event: Supply Part Number", "P1"}},
       {supply("Cyan", {{"KVASupplyPartNumber", "C1"}}),
        supply("Black", {{"KVASupplySelectabilityNumber", 2}})}},
      {"values of other kinds",
       {{"Event: Supply Color", Array{7}},
        {"Event: Supply Selectability Number", 1},
        {"Event: Supply Part Number List", Array{"C1"}}},
       {Dictionary{{"KVASupplyColorName", 7}}}},
  };
  for (const Case& c : cases) {
    QXEvent event;
    withInfo(event, c.info);
    EXPECT_EQ(Value(event.supplyInfo()), Value(c.supplies)) << c.title;
    EXPECT_EQ(event.properties().contains("KVAEventPropertySupplyInfo"), !c.supplies.empty()) << c.title;
  }
}

TEST(DeviceEventViews, GatherPropertiesOfEventAndDevice) {
  QXEvent event;
  EXPECT_EQ(event.properties(), Dictionary());
  withInfo(event, {{"Event: Input Bin", "Tray 2"},
                   {"Event: Jam Location", "Duplexer"},
                   {"Event: Firmware Date", "20260101"},
                   {"Event: Country Code", 49},
                   {"Event: Language", "de"}});
  EXPECT_EQ(event.properties(), (Dictionary{{"KVAEventPropertyInputBinName", "Tray 2"},
                                            {"KVAEventPropertyJamLocation", "Duplexer"}}));
  Dictionary expected{
      {"KVADeviceFirmwareDate", "20260101"}, {"KVADeviceCountryCode", 49}, {"KVADeviceLanguage", "de"}};
  EXPECT_EQ(event.deviceProperties(), expected) << "without a source";
  const auto source = makeSource("SN1", "Model");
  source->setMakeAndModel("takes no part");
  source->setProductNumber("PN");
  source->setAlternateName("Hall");
  event.setSource(source);
  expected.merge({{"KVADeviceModelName", "Model"},
                  {"KVADeviceSerialNumber", "SN1"},
                  {"KVADeviceProductNumber", "PN"},
                  {"KVADeviceUserFriendlyName", "Hall"}});
  EXPECT_EQ(event.deviceProperties(), expected);
}

}  // namespace
