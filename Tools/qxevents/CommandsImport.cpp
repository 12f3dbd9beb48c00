#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include <fmt/format.h>
#include <sys/stat.h>

#include <QXEventStoring/QXEventStore.h>

#include "CommandLine.h"
#include "EventBuilder.h"
#include "Import.h"
#include "Text.h"

namespace qxevents {
namespace {

struct AddOptions {
  std::optional<std::string> id, classID, handler;
  std::optional<std::string> sourceID, sourceName, alternateName, makeAndModel, productNumber, serviceID;
  std::optional<std::int64_t> severity, state, totalStates;
  std::optional<qx::Date> time;
  bool read = false;
  qx::Dictionary info;
};

EventRecord recordOf(const AddOptions& options) {
  EventRecord record;
  record.id = options.id.value_or("");
  record.classID = options.classID.value_or("");
  record.handler = options.handler.value_or("");
  record.severity = options.severity;
  if (options.state) record.state = static_cast<std::uint64_t>(*options.state);
  if (options.totalStates) record.totalStates = static_cast<std::uint64_t>(*options.totalStates);
  record.triggerTime = options.time.value_or(qx::Date::now());
  record.read = options.read;
  record.source = {options.sourceID.value_or(""), options.sourceName.value_or(""), options.alternateName,
                   options.makeAndModel,          options.productNumber,           options.serviceID};
  record.info = options.info;
  return record;
}

int runAdd(Context& context, const AddOptions& options) {
  auto& store = QXEventStore::sharedQXEventStore();
  EventBuilder builder;
  std::string refusal;
  const auto event = builder.build(recordOf(options), refusal);
  if (event == nullptr) {
    // A store that cannot be read knows no class either.
    if (const auto problem = store.status().problem) {
      complain(*problem);
      return kFailed;
    }
    complain("--" + refusal);
    return kWrongUsage;
  }
  if (options.id && QXEvent::eventWithEventID(options.id) != nullptr) {
    complain(fmt::format("--id: {} is the ID of a stored event", *options.id));
    return kFailed;
  }
  qx::ErrorPtr error;
  if (!store.addEvent(event, &error)) {
    complain(error == nullptr ? "the event could not be added" : errorText(*error));
    if (error != nullptr && error->suggestion()) complain(printable(*error->suggestion()));
    return kFailed;
  }
  if (context.json) {
    std::string line;
    encodeEvent(line, *event, store.isEventBlocked(event));
    context.output.write(line + "\n");
  } else {
    context.output.write(*event->identifier() + "\n");
  }
  return kDone;
}

/// What is going on, in one line of a terminal that is drawn over and over.
class ProgressBar {
 public:
  explicit ProgressBar(int input) {
    struct stat status {};
    if (::fstat(input, &status) == 0 && S_ISREG(status.st_mode))
      size_ = static_cast<std::uint64_t>(status.st_size);
  }

  void draw(const Import::Progress& progress) {
    const auto now = std::chrono::steady_clock::now();
    if (width_ < 40 || now - drawn_ < std::chrono::milliseconds(100)) return;
    drawn_ = now;
    constexpr std::size_t kBarWidth = 20;
    std::string text;
    if (size_ != 0) {
      const auto share = std::min(1.0, static_cast<double>(progress.bytes) / static_cast<double>(size_));
      const auto full = static_cast<std::size_t>(share * kBarWidth);
      text = fmt::format("[{:<{}}] {:3.0f} %  ", std::string(full, '#'), kBarWidth, share * 100);
    }
    text += fmt::format("added {}, refused {}", progress.added, progress.refused);
    fmt::print(stderr, "\r{}\x1b[K", fitted(text, width_ - 1));
    isShown_ = true;
  }

  void clear() {
    if (isShown_) fmt::print(stderr, "\r\x1b[K");
    isShown_ = false;
  }

 private:
  std::size_t width_ = terminalWidth(STDERR_FILENO);
  std::uint64_t size_ = 0;  // of a regular file
  std::chrono::steady_clock::time_point drawn_;
  bool isShown_ = false;
};

int openInput(const std::string& file) {
  return file == "-" ? ::dup(STDIN_FILENO) : ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
}

int runImport(const std::string& file) {
  const auto shownName = printable(file);
  const int descriptor = openInput(file);
  if (descriptor < 0) {
    complain(fmt::format("{}: {}", shownName, std::strerror(errno)));
    return kFailed;
  }
  // Lines are not to blame for a store that cannot be used.
  if (const auto problem = QXEventStore::sharedQXEventStore().status().problem) {
    ::close(descriptor);
    complain(*problem);
    fmt::print(stderr, "added 0, refused 0\n");
    return kFailed;
  }
  const std::unique_ptr<const int, void (*)(const int*)> closer(&descriptor,
                                                                [](const int* open) { ::close(*open); });

  LineReader reader(descriptor);
  ProgressBar bar(descriptor);
  const auto refused = [&](std::uint64_t line, const std::string& reason) {
    bar.clear();
    complain(fmt::format("{}:{}: {}", shownName, line, reason));
  };
  Import import(reader, {refused, [&bar](const auto& progress) { bar.draw(progress); }});
  qx::ErrorPtr error;
  const bool isComplete = import.run(&error);
  bar.clear();
  if (error != nullptr) complain(*error);
  if (import.firstLineNotStored() != 0) {
    complain(fmt::format("{}: stopped; the lines from {} on were not added", shownName,
                         import.firstLineNotStored()));
  }
  if (reader.error() != 0) complain(fmt::format("{}: {}", shownName, std::strerror(reader.error())));
  const auto& progress = import.progress();
  fmt::print(stderr, "added {}, refused {}\n", progress.added, progress.refused);
  return isComplete && progress.refused == 0 ? kDone : kFailed;
}

CLI::Option* checkUUID(CLI::Option* option) {
  return option->check([](const std::string& text) {
    return isUUID(text) ? std::string() : fmt::format("\"{}\" is not a UUID", excerpt(text));
  });
}

}  // namespace

void addAddCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<AddOptions>();
  auto& add = *app.add_subcommand("add", "Adds one event and prints its ID.");
  addText(add, "--class", options->classID, "Event class ID")->required();
  addText(add, "--source", options->sourceID, "ID of the device")->required();
  addText(add, "--source-name", options->sourceName, "Name of the device")->required();
  addText(add, "--handler", options->handler, "Event handler; a known class supplies it");
  addInteger(
      add, "--severity", options->severity,
      "0 information, 1 warning, 2 left to applications, 3 error; a known class supplies it, else 0. An\n"
      "event read back tells its class's severity (0 for an unknown class), unless the information\n"
      "overrides or reports one");
  addInteger(add, "--state", options->state, "Current state; 1 unless given", 0, kMaximumState);
  addInteger(add, "--total-states", options->totalStates,
             "Number of states; a known class supplies it, else 1. For the earlier events of this source\n"
             "and class too, when it is not the class's",
             0, kMaximumTotalStates);
  addTime(add, "--time", options->time, "When it happened (RFC 3339); now unless given");
  add.add_flag("--read", options->read, "The user has read it");
  addInfoJson(add, "--info-json", options->info, "Additional information, a JSON object");
  addPairs(add, "--info", options->info, false, "Additional information, a string; may be repeated")
      ->allow_extra_args(false);
  checkUUID(addText(add, "--id", options->id, "Event ID, a UUID; a fresh one unless given"));
  addText(add, "--alternate-name", options->alternateName, "Second name of the device");
  addText(add, "--make-and-model", options->makeAndModel, "Make and model of the device");
  addText(add, "--product-number", options->productNumber, "Product number of the device");
  addText(add, "--service-id", options->serviceID, "Service ID of the device");
  add.callback(
      [&context, options] { context.command = [&context, options] { return runAdd(context, *options); }; });
}

void addImportCommand(CLI::App& app, Context& context) {
  const auto file = std::make_shared<std::string>("-");
  auto& import = *app.add_subcommand(
      "import",
      "Adds events, one JSON object a line, as export prints them. A line that is refused is named on "
      "standard\n"
      "error with its number and the reason, and the others are added; the exit code is then 1.");
  import.add_option("FILE", *file, "The input; - (the default) is standard input");
  import.callback([&context, file] { context.command = [file] { return runImport(*file);
};
}  // namespace qxevents
);
}

}  // namespace qxevents
