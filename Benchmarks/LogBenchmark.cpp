// What log calls cost: one that is not sent, one that is, and all those of an added event. Prints a JSON
// array of figures. Argument: an empty directory on a memory file system.
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <QXEventStoring/Platform/Volume.h>

#include "AddModule.h"
#include "Figures.h"
#include "Logging/EventStoreLog.h"
#include "Logging/JournalLog.h"
#include "Logging/LogCategory.h"
#include "Logging/LogSubsystem.h"

namespace benchmarks {
namespace {

namespace fs = std::filesystem;

/// As few as the smallest queue of a Unix socket (net.unix.max_dgram_qlen) holds.
constexpr std::size_t kInQueue = 8;

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.at(values.size() / 2);
}

/// The journal's socket, read by this program when it is not measuring.
class Journal {
 public:
  explicit Journal(const fs::path& path) : receiver_(open()), sender_(open()) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    fs::create_directories(path.parent_path());
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* any = reinterpret_cast<const sockaddr*>(&address);
    if (::bind(receiver_, any, sizeof address) != 0 || ::connect(sender_, any, sizeof address) != 0)
      throw std::runtime_error("no socket at " + path.string());
  }
  ~Journal() {
    ::close(receiver_);
    ::close(sender_);
  }
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  /// The last datagram that arrived; empties the queue. `count` must have come.
  std::string drain(std::size_t count) {
    std::string last;
    std::array<char, 65536> buffer{};
    for (ssize_t size = 0; (size = ::recv(receiver_, buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0;
         --count)
      last.assign(buffer.data(), static_cast<std::size_t>(size));
    if (count != 0) throw std::runtime_error("log lines were not sent, or not at once");
    return last;
  }
  void send(const std::string& datagram) const {
    if (::send(sender_, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
      throw std::runtime_error("the bare socket did not take a datagram");
  }

 private:
  static int open() { return ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0); }
  int receiver_, sender_;
};

[[gnu::noinline]] void logLine(int number) {
  QXLogInfo("Error while saving the context : [Code = %ld] :[Description = %{public}@]", long{number},
            "The file could not be saved because the volume is full.");
}

double nanosecondsOf(std::size_t calls, const std::function<void()>& body) {
  const auto start = Clock::now();
  body();
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / static_cast<double>(calls);
}

Figure disabledCall() {
  constexpr std::size_t kCalls = 100'000;
  std::vector<double> rounds;
  for (int round = 0; round < 51; ++round) {
    rounds.push_back(nanosecondsOf(kCalls, [] {
      for (std::size_t i = 0; i < kCalls; ++i)
        logLine(static_cast<int>(i));
    }));
  }
  return {.measure = "log call, not sent",
          .unit = "ns",
          .ours = median(rounds),
          .target = Target{Target::Subject::ours, false, 10}};
}

Figure enabledCall(Journal& journal) {
  auto& category = LogSubsystem::categoryForContext(kEventStoreLog);
  category.setLevel(PLVLogLevel::Info);
  logLine(0);
  const auto datagram = journal.drain(1);
  std::vector<double> ours, bare;
  alternate(
      20'000, 1,
      [&](std::size_t) {
        ours.push_back(nanosecondsOf(kInQueue, [] {
          for (std::size_t i = 0; i < kInQueue; ++i)
            logLine(static_cast<int>(i));
        }));
        journal.drain(kInQueue);
      },
      [&](std::size_t) {
        bare.push_back(nanosecondsOf(kInQueue, [&] {
          for (std::size_t i = 0; i < kInQueue; ++i)
            journal.send(datagram);
        }));
        journal.drain(kInQueue);
      });
  category.setLevel(PLVLogLevel::NotLoaded);
  return {.measure = "log call, sent",
          .unit = "ns",
          .ours = median(ours),
          .yardstick = median(bare),
          .yardstickName = "bare socket, same bytes",
          .target = Target{Target::Subject::ratio, false, 2.5}};
}

class Module {
 public:
  Module(const char* path, const fs::path& volumeRoot, std::size_t count)
      : handle_(::dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) throw std::runtime_error(::dlerror());
    add_ = reinterpret_cast<AddEvent>(::dlsym(handle_, "addEvent"));
    fs::create_directories(volumeRoot);
    const auto prepare = reinterpret_cast<PrepareAdds>(::dlsym(handle_, "prepareAdds"));
    if (!prepare(volumeRoot.c_str(), count)) throw std::runtime_error("no store");
  }
  double add(std::size_t number) const {
    const double taken = add_(number);
    if (taken < 0) throw std::runtime_error("an event was not added");
    return taken;
  }

 private:
  void* handle_;
  AddEvent add_;
};

Figure addWithLoggingOff(const fs::path& directory) {
  constexpr std::size_t kEvents = 8'000, kFirst = 200;
  const Module ours(QX_ADD_MODULE, directory / "ours", kFirst + kEvents);
  const Module silent(QX_SILENT_ADD_MODULE, directory / "silent", kFirst + kEvents);
  for (std::size_t i = 0; i < kFirst; ++i) {  // statements and caches
    ours.add(i);
    silent.add(i);
  }
  std::vector<double> withCalls, without;
  alternate(
      kEvents, 10, [&](std::size_t i) { withCalls.push_back(ours.add(kFirst + i) / 1000); },
      [&](std::size_t i) { without.push_back(silent.add(kFirst + i) / 1000); });
  return {.measure = "add one, logging off",
          .unit = "us",
          .ours = median(withCalls),
          .yardstick = median(without),
          .yardstickName = "log calls compiled out",
          .target = Target{Target::Subject::ratio, false, 1.02}};
}

void run(const fs::path& directory) {
  qx::ErrorPtr error;
  if (!qx::setVolumeRoot(directory.string(), &error)) throw std::runtime_error(error->summary());
  Journal journal(directory.string() + std::string(qx::log::kJournalSocketPath));
  auto figures = nlohmann::json::array();
  figures.push_back(toJson(disabledCall()));
  figures.push_back(toJson(enabledCall(journal)));
  figures.push_back(toJson(addWithLoggingOff(directory)));
  std::cout << figures.dump() << '\n';
}

}  // namespace
}  // namespace benchmarks

int main(int argumentCount, char** arguments) {
  try {
    if (argumentCount != 2) throw std::runtime_error("usage: qx_log_benchmark DIRECTORY");
    benchmarks::run(arguments[1]);
  } catch (const std::exception& failure) {
    std::cerr << "qx_log_benchmark: " << failure.what() << '\n';
    return 1;
  }
}
