// The tool as a user runs it: real processes, each test on a volume root of its own.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/Support/Process.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

using qx::test::Process;
using qx::test::ProcessResult;
using qx::test::TemporaryDirectory;

constexpr const char* kFirstID = "D9C35628-AE8B-4666-B5DC-E0F2F92E0099";
constexpr const char* kStoreFile = "Users/Shared/QX/QX Event Store/QXEventStore.qxstore";

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  return lines;
}

bool contains(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

/// A machine of its own.
class Qxevents : public testing::Test {
 protected:
  ProcessResult run(std::vector<std::string> arguments, const Process::Streams& streams = {}) const {
    return runIn(root_.path(), std::move(arguments), streams);
  }

  static ProcessResult runIn(const std::string& root, std::vector<std::string> arguments,
                             const Process::Streams& streams = {}) {
    arguments.insert(arguments.begin(), {QX_TOOL, "--volume-root", root});
    return Process::run(std::move(arguments), streams);
  }

  /// Adds an event and returns its ID.
  std::string add(std::vector<std::string> more = {}) const {
    std::vector<std::string> arguments = {
        "add", "--class", "com.qx.printer.state.media.empty", "--source", "S1", "--source-name", "Printer"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const auto result = run(arguments);
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    return result.firstLine();
  }

  std::string show(const std::string& id) const { return run({"show", "--json", id}).output; }
  std::string count(std::vector<std::string> filters = {}) const {
    filters.insert(filters.begin(), "count");
    return run(filters).firstLine();
  }

  TemporaryDirectory root_;
};

TEST_F(Qxevents, ExportsWhatItImportedAndReadsItBackUnchanged) {
  const auto imported = run({"import", QX_GOOD_EVENTS});
  EXPECT_EQ(imported.exitCode, 0);
  EXPECT_EQ(imported.errors, "added 400, refused 0\n");
  EXPECT_EQ(imported.output, "");
  EXPECT_EQ(count(), "400");

  const auto first = run({"export"});
  EXPECT_EQ(first.exitCode, 0) << first.errors;
  EXPECT_EQ(linesOf(first.output).size(), 400U);

  const TemporaryDirectory other;
  const auto again = runIn(other.path(), {"import", "-"}, {.input = first.output});
  EXPECT_EQ(again.errors, "added 400, refused 0\n");
  EXPECT_TRUE(runIn(other.path(), {"export"}).output == first.output);

  const auto twice = run({"import"}, {.input = first.output});
  EXPECT_EQ(twice.exitCode, 1);
  EXPECT_EQ(twice.lastErrorLine(), "added 0, refused 400");
  EXPECT_EQ(count(), "400");
}

TEST_F(Qxevents, AddsTheGoodLinesBetweenBadOnesAndLeavesNoTraceOfTheBad) {
  auto bad = linesOf(contentOf(QX_BAD_EVENTS));
  const auto last = bad.back();
  bad.pop_back();
  bad.push_back(R"({"class":"c","info":{"a":)" + std::string(100000, '[') + std::string(100000, ']') + "}}");
  bad.push_back(R"({"class":"c","info":{"a":")" + std::string(std::size_t{5} << 20U, 'x') + "\"}}");
  bad.push_back(last);
  const auto good = linesOf(contentOf(QX_GOOD_EVENTS));

  std::string mixed;
  std::vector<std::size_t> badNumbers;
  std::size_t number = 0;
  for (std::size_t i = 0; i < good.size(); ++i) {
    mixed += good[i] + "\n";
    ++number;
    if (i % 10 != 0) continue;
    mixed += bad[i / 10] + "\n";
    badNumbers.push_back(++number);
  }
  ASSERT_EQ(badNumbers.size(), bad.size());

  const auto result = run({"import"}, {.input = mixed});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.lastErrorLine(), "added 400, refused 40");
  const auto errors = linesOf(result.errors);
  ASSERT_EQ(errors.size(), badNumbers.size() + 1);
  for (std::size_t i = 0; i < badNumbers.size(); ++i) {
    EXPECT_EQ(errors[i].rfind("qxevents: -:" + std::to_string(badNumbers[i]) + ": ", 0), 0U) << errors[i];
  }
  EXPECT_TRUE(contains(errors[6], "handler: missing")) << errors[6];
  EXPECT_TRUE(contains(errors[14], kFirstID)) << errors[14];
  EXPECT_TRUE(contains(errors[37], "more than 100 levels")) << errors[37];
  EXPECT_TRUE(contains(errors[38], "longer than 1048576 bytes")) << errors[38];

  const auto clean = TemporaryDirectory();
  ASSERT_EQ(runIn(clean.path(), {"import", QX_GOOD_EVENTS}).exitCode, 0);
  EXPECT_EQ(run({"sources"}).output, runIn(clean.path(), {"sources"}).output);
  const auto rowsOf = [](const std::string& status) {
    return status.substr(std::min(status.find("\"rows\""), status.size()));
  };
  EXPECT_EQ(rowsOf(run({"status", "--json"}).output),
            rowsOf(runIn(clean.path(), {"status", "--json"}).output));
}

TEST_F(Qxevents, TakesALastLineWithoutEndAByteOrderMarkAndEmptyLines) {
  const auto line = linesOf(contentOf(QX_GOOD_EVENTS)).front();
  const auto result = run({"import"}, {.input = "\xEF\xBB\xBF\n\r\n" + line});
  EXPECT_EQ(result.errors, "added 1, refused 0\n");
  const auto repeated = run({"import"}, {.input = line + "\n{\n" + line});
  EXPECT_EQ(repeated.lastErrorLine(), "added 0, refused 3");
}

TEST_F(Qxevents, LetsAKnownClassSupplyWhatIsMissing) {
  const auto shown = show(add());
  EXPECT_TRUE(
      contains(shown, R"("severity":3,"handler":"com.qx.eventhandler.media","state":1,"totalStates":2)"))
      << shown;
  const auto unknown = run({"add", "--class", "x", "--source", "s", "--source-name", "n"});
  EXPECT_EQ(unknown.exitCode, 2);
  EXPECT_TRUE(contains(unknown.errors, "--handler")) << unknown.errors;
  EXPECT_EQ(count(), "1");
}

TEST_F(Qxevents, StoresWhatAddIsGiven) {
  const auto id = add({"--id",
                       kFirstID,
                       "--severity",
                       "-1",
                       "--handler",
                       "h",
                       "--state",
                       "3",
                       "--total-states",
                       "4",
                       "--read",
                       "--time",
                       "2026-11-02T01:00:00+01:00",
                       "--info-json",
                       R"({"a":1,"b":{"$data":"AP8="}})",
                       "--info",
                       "b=x=y",
                       "--info",
                       "c=",
                       "--alternate-name",
                       "An",
                       "--make-and-model",
                       "Mm",
                       "--product-number",
                       "Pn",
                       "--service-id",
                       "Si"});
  EXPECT_EQ(id, kFirstID);
  const auto shown = show(id);
  for (
      const auto* part :
      {R"("handler":"h","state":3,"totalStates":4,"triggerTime":"2026-11-02T00:00:00.000Z","read":true,"solved":false)",
       R"("source":{"id":"S1","name":"Printer","alternateName":"An","makeAndModel":"Mm","productNumber":"Pn","serviceID":"Si"})",
       R"("info":{"a":1,"b":)", R"("c":""})"}) {
    EXPECT_TRUE(contains(shown, part)) << shown << part;
  }
  EXPECT_EQ(
      run({"add", "--class", "c", "--handler", "h", "--source", "s", "--source-name", "n", "--id", kFirstID})
          .exitCode,
      1);
}

TEST_F(Qxevents, ChangesEventsAndGoesOnAfterAFailure) {
  const auto a = add();
  const auto b = add();
  EXPECT_EQ(count({"--unread"}), "2");
  const auto partly = run({"mark-read", a, "missing", b});
  EXPECT_EQ(partly.exitCode, 1);
  EXPECT_TRUE(
      contains(partly.errors, "missing: The QXEvent is not present in the store (com.qx.eventstoring -995)"))
      << partly.errors;
  EXPECT_EQ(count({"--read"}), "2");
  EXPECT_EQ(run({"mark-unread", a}).exitCode, 0);
  EXPECT_TRUE(contains(show(a), R"("read":false)"));

  EXPECT_EQ(run({"set-state", a, "0"}).exitCode, 0);
  EXPECT_TRUE(contains(show(a), R"("state":0,)"));
  EXPECT_EQ(run({"solve", a}).exitCode, 0);
  EXPECT_EQ(count({"--solved"}), "1");
  EXPECT_TRUE(contains(show(a), R"("state":2,"totalStates":2)"));

  EXPECT_EQ(run({"set-info", a, "Event: Input Bin=Tray 1", "n:=[1,2.5,true]",
                 "d:={\"$date\":\"2026-11-02T00:00:00Z\"}"})
                .exitCode,
            0);
  EXPECT_EQ(run({"set-info", a, "--unset", "n"}).exitCode, 0);
  EXPECT_TRUE(
      contains(show(a), R"("info":{"Event: Input Bin":"Tray 1","d":{"$date":"2026-11-02T00:00:00.000Z"}})"))
      << show(a);

  EXPECT_EQ(run({"remove", a, b}).exitCode, 0);
  EXPECT_EQ(count(), "0");
  EXPECT_EQ(run({"show", a}).exitCode, 1);
}

TEST_F(Qxevents, ListsNewestFirstAndFilters) {
  ASSERT_EQ(run({"import", QX_GOOD_EVENTS}).exitCode, 0);
  const auto listed = linesOf(run({"list", "--json"}).output);
  ASSERT_EQ(listed.size(), 400U);
  const auto timeOf = [](const std::string& line) { return line.substr(line.find("\"triggerTime\""), 40); };
  for (std::size_t i = 1; i < listed.size(); ++i)
    EXPECT_GE(timeOf(listed[i - 1]), timeOf(listed[i]));

  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--source", "QXD82K4410"}, "54"},
      {{"--source", "QXD82K4410", "--source", "QXL60N3321"}, "71"},
      {{"--read"}, "246"},
      {{"--unread"}, "154"},
      {{"--solved"}, "277"},
      {{"--unsolved"}, "123"},
      {{"--min-severity", "3"}, "189"},
      {{"--min-severity", "4"}, "1"},
      {{"--class", "com.qx.printer.state.réseau.lent"}, "1"},
      {{"--since", "2026-11-02T00:00:00.001Z"}, "399"},
      {{"--until", "2026-11-02T00:00:00Z"}, "0"},
      {{"--source", "QXD82K4410", "--class", "no such class"}, "0"},
      {{"--where", "SourceID IN {'QXD82K4410', 'QXL60N3321'} AND NOT EventReadStatus == YES"}, "27"},
      {{"--where", "EventSolutionStatus != 1 OR 1 == EventSolutionStatus"}, "400"},
      {{"--where", "EventSolutionStatus == NO", "--unread"}, "88"},
      {{"--where", "EventTriggerTime < \"2026-11-02T00:00:00.001Z\" or EventSeverity + 1 > 4"}, "2"},
      {{"--where", "EventClassID ENDSWITH[c] 'RÉSEAU.LENT'"}, "1"},
      {{"--where", "SourceID == \"'); DROP TABLE ZQXEVENT; --\""}, "0"},
  };
  for (auto [filters, expected] : cases)
    EXPECT_EQ(count(filters), expected) << filters[0];

  const auto table = linesOf(run({"list", "--limit", "3"}).output);
  ASSERT_EQ(table.size(), 4U);
  EXPECT_EQ(table[0].rfind("ID  ", 0), 0U);
  EXPECT_EQ(run({"list"}).output.find('\x1b'), std::string::npos);
}

TEST_F(Qxevents, KeepsStoredControlCharactersFromTheTerminal) {
  const auto id = add({"--info", "key\x1b[2J=value\x07", "--alternate-name", "a\nb"});
  for (const auto& command :
       std::vector<std::vector<std::string>>{{"list"}, {"show", id}, {"sources"}, {"show", "--json", id}}) {
    const auto output = run(command).output;
    EXPECT_EQ(output.find_first_of("\x1b\x07"), std::string::npos) << output;
  }
  EXPECT_TRUE(contains(run({"show", id}).output, "key\\u001B[2J: value\\u0007"));
}

TEST_F(Qxevents, NamesTheArgumentOfWrongUsage) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "subcommand"},
      {{"frobnicate"}, "frobnicate"},
      {{"list", "--no-such"}, "--no-such"},
      {{"list", "--limit", "x"}, "--limit"},
      {{"list", "--limit", "-1"}, "--limit"},
      {{"list", "--min-severity", "9223372036854775808"}, "--min-severity"},
      {{"count", "--since", "2026-11-02T00:00:00"}, "--since"},
      {{"count", "--read", "--unread"}, "--unread"},
      {{"count", "--where", "EventSeverity =="},
       "--where: The predicate format \"EventSeverity ==\" cannot be read"},
      {{"list", "--where", "Severity == 1"}, "there is no key \"Severity\"; the keys are SourceID"},
      {{"list", "--where", "EventSolutionStatus > 0"}, "EventSolutionStatus can only be"},
      {{"export", "--where", "EventTriggerTime > 'yesterday'"},
       "EventTriggerTime can only be compared with RFC 3339"},
      {{"count", "--where", "EventTriggerTime LIKE '2026*' OR EventSeverity == 1"},
       "EventTriggerTime can only"},
      {{"count", "--where", "EventTriggerTime + 1 > nil"}, "only numbers can be calculated with"},
      {{"count", "--where", "{'3'} CONTAINS EventSeverity"},
       "EventSeverity can only be compared with numbers"},
      {{"count", "--where", "SourceID == 7"}, "SourceID can only be compared with texts"},
      {{"block"}, "needs --class, --source or both"},
      {{"count", "--source", "\xC3("}, "--source: \"\\xC3(\""},
      {{"add", "--class", "c"}, "--source"},
      {{"add", "--class", "c", "--source", "s", "--source-name", "n", "--info", "novalue"}, "--info"},
      {{"add", "--class", "c", "--source", "s", "--source-name", "n", "--info-json", "[]"}, "--info-json"},
      {{"add", "--class", "c", "--source", "s", "--source-name", "n", "--id", "x"}, "--id"},
      {{"set-state", "x", "4294967296"}, "N"},
      {{"set-info", "x", "k:=nul"}, "PAIRS"},
      {{"set-info", "x"}, "set-info"},
      {{"show"}, "ID"},
  };
  for (const auto& [arguments, expected] : cases) {
    const auto result = run(arguments);
    EXPECT_EQ(result.exitCode, 2) << expected << result.errors;
    EXPECT_TRUE(contains(result.errors, expected)) << expected << ": " << result.errors;
    EXPECT_EQ(result.output, "");
  }
  EXPECT_FALSE(std::filesystem::exists(root_ / "Users"));
  const auto rootless = runIn("/no/such/directory", {"count"});
  EXPECT_EQ(rootless.exitCode, 2);
  EXPECT_TRUE(contains(rootless.errors, "--volume-root: /no/such/directory")) << rootless.errors;
  for (const auto* option : {"--help", "--version", "--help-all"}) {
    const auto result = run({option});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.output, "qxevents")) << result.output;
  }
}

TEST_F(Qxevents, EndsQuietlyWhenNobodyReadsAndLoudlyWhenTheDiskIsFull) {
  ASSERT_EQ(run({"import", QX_GOOD_EVENTS}).exitCode, 0);
  const auto unread = run({"export"}, {.closesOutput = true});
  EXPECT_EQ(unread.signal, 0);
  EXPECT_EQ(unread.exitCode, 0);
  EXPECT_EQ(unread.errors, "");
  const auto full = run({"export"}, {.outputFile = "/dev/full"});
  EXPECT_EQ(full.exitCode, 1);
  EXPECT_EQ(full.errors, "qxevents: standard output: No space left on device\n");
}

TEST_F(Qxevents, TellsWhatKeepsTheInputFromBeingRead) {
  const auto missing = run({"import", root_ / "none"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_TRUE(contains(missing.errors, "none: No such file or directory")) << missing.errors;
  const auto directory = run({"import", root_.path()});
  EXPECT_EQ(directory.exitCode, 1);
  EXPECT_TRUE(contains(directory.errors, "Is a directory")) << directory.errors;
  EXPECT_EQ(directory.lastErrorLine(), "added 0, refused 0");
}

TEST_F(Qxevents, TellsAStoreThatCannotBeUsed) {
  const auto healthy = run({"status", "--json"});
  EXPECT_EQ(healthy.exitCode, 0) << healthy.errors;
  EXPECT_TRUE(contains(healthy.output, R"("compatible":true)")) << healthy.output;

  root_.write(kStoreFile, std::string(8192, 'x'));
  const auto input = linesOf(contentOf(QX_GOOD_EVENTS)).front();
  for (const auto& command : std::vector<std::vector<std::string>>{
           {"status"},
           {"list"},
           {"count"},
           {"import"},
           {"classes", "--known"},
           {"add", "--class", "c", "--source", "s", "--source-name", "n"}}) {
    const auto result = run(command, {.input = input});
    EXPECT_EQ(result.exitCode, 1) << command[0] << result.output;
    EXPECT_TRUE(contains(result.errors, "(com.qx.eventstoring -998)")) << command[0] << ": " << result.errors;
    if (command[0] == "import") {
      EXPECT_EQ(result.lastErrorLine(), "added 0, refused 0");
    }
  }
}

/// Every line is another process's.
TEST_F(Qxevents, HidesWhatAnotherProcessBlocked) {
  const std::string empty = "com.qx.printer.state.media.empty";
  const auto jsonOf = [&](std::vector<std::string> command) {
    command.push_back("--json");
    return linesOf(run(command).output);
  };
  const std::vector<std::pair<std::string, std::string>> events{
      {empty, "S1"}, {"com.qx.printer.frontpanelevent.copy", "S1"}, {empty, "S2"}};
  for (const auto& [classID, source] : events)
    ASSERT_EQ(run({"add", "--class", classID, "--source", source, "--source-name", "Printer"}).exitCode, 0);
  struct Case {
    std::vector<std::string> block;
    const char* listed;  // events
    const char* counted;
    std::size_t sources;
  };
  for (const Case& c : std::vector<Case>{{{"--source", "S1"}, "1", "3", 1},
                                         {{"--class", empty}, "1", "3", 1},
                                         {{"--class", empty, "--source", "S2"}, "2", "2", 1}}) {
    auto command = c.block;
    command.insert(command.begin(), "block");
    EXPECT_EQ(run(command).exitCode, 0);
    EXPECT_EQ(run(command).exitCode, 0) << "blocked already";
    EXPECT_EQ(jsonOf({"blocks"}).size(), 1U);
    EXPECT_EQ(std::to_string(jsonOf({"list"}).size()), c.listed);
    EXPECT_EQ(count(), c.counted);
    EXPECT_EQ(jsonOf({"sources"}).size(), c.sources);
    EXPECT_EQ(jsonOf({"sources", "--all"}).size(), 2U);
    command.front() = "unblock";
    EXPECT_EQ(run(command).exitCode, 0);
    const auto again = run(command);
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_TRUE(contains(again.errors, "nothing to unblock")) << again.errors;
  }
  EXPECT_EQ(run({"blocks"}).output, "");
  EXPECT_EQ(jsonOf({"list"}).size(), 3U);
  EXPECT_TRUE(contains(run({"block", "--source", "nobody"}).errors, "no source nobody"));
}

TEST_F(Qxevents, ListsKnownClassesAndThoseOfStoredEvents) {
  EXPECT_EQ(run({"classes"}).output, "");
  add();
  const auto known = run({"classes", "--known", "--json"}).output;
  EXPECT_EQ(linesOf(known).size(), 218U);
  EXPECT_TRUE(contains(
      known,
      R"({"class":"com.qx.printer.state.media.empty","severity":3,"handler":"com.qx.eventhandler.media","totalStates":2})"));
  EXPECT_EQ(run({"classes", "--json"}).output,
            "{\"class\":\"com.qx.printer.state.media.empty\",\"events\":1}\n");
  ASSERT_EQ(run({"add", "--class", "com.example", "--handler", "h", "--severity", "1", "--total-states", "1",
                 "--source", "S1", "--source-name", "Printer"})
                .exitCode,
            0);
  EXPECT_EQ(linesOf(run({"classes", "--json"}).output).front(), R"({"class":"com.example","events":1})");
  EXPECT_EQ(run({"sources", "--json"}).output, "{\"id\":\"S1\",\"name\":\"Printer\",\"events\":2}\n");
}

}  // namespace
