#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/FileDescriptor.h"

namespace qx::test {

/// A log daemon: a real datagram socket and a thread that collects what arrives, memory files as their
/// content. All calls from one thread.
class LogSocket {
 public:
  using Datagrams = std::vector<std::string>;

  /// Makes the directories of `path`, which may be longer than an address, and opens the socket.
  explicit LogSocket(std::string path) : path_(std::move(path)) { reopen(); }
  LogSocket(const LogSocket&) = delete;
  LogSocket& operator=(const LogSocket&) = delete;
  ~LogSocket() { close(); }

  const std::string& path() const { return path_; }

  /// What came since the last take().
  Datagrams take() {
    const std::lock_guard guard(mutex_);
    return std::exchange(received_, {});
  }

  /// Until at least `count` datagrams wait to be taken; false when they do not come.
  bool waitFor(std::size_t count) {
    std::unique_lock guard(mutex_);
    return arrived_.wait_for(guard, kPatience, [&] { return received_.size() >= count; });
  }

  /// The first of those that wait to be taken for which `isWanted` holds, as soon as it comes; it stays
  /// there.
  std::optional<std::string> waitFor(const std::function<bool(const std::string&)>& isWanted) {
    std::unique_lock guard(mutex_);
    std::optional<std::string> found;
    arrived_.wait_for(guard, kPatience, [&] {
      const auto wanted = std::find_if(received_.begin(), received_.end(), isWanted);
      if (wanted != received_.end()) found = *wanted;
      return found.has_value();
    });
    return found;
  }

  /// How many datagrams came as sealed memory files.
  std::size_t sealedFiles() {
    const std::lock_guard guard(mutex_);
    return sealedFiles_;
  }

  /// Nothing is read from now on, so that the socket's queue fills.
  void pause() {
    if (!reader_.joinable()) return;
    ::eventfd_write(stop_.get(), 1);
    reader_.join();
  }
  void resume() {
    if (reader_.joinable()) return;
    stop_ = FileDescriptor(::eventfd(0, EFD_CLOEXEC));
    reader_ = std::thread([this] { read(); });
  }

  /// The daemon goes, and what it has not read with it.
  void close() {
    pause();
    socket_.reset();
    std::filesystem::remove(path_);
  }
  /// It is back, with a new socket at the same path.
  void reopen() {
    close();
    const std::filesystem::path path = path_;
    std::filesystem::create_directories(path.parent_path());
    const FileDescriptor directory(::open(path.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::string reachable =
        "/proc/self/fd/" + std::to_string(directory.get()) + "/" + path.filename().string();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (reachable.size() >= sizeof address.sun_path) throw std::runtime_error("too long: " + path_);
    std::memcpy(address.sun_path, reachable.c_str(), reachable.size());
    socket_ = FileDescriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error(path_ + ": " + std::strerror(errno));
    }
    resume();
  }

 private:
  static constexpr std::chrono::seconds kPatience{60};

  void read() {
    for (;;) {
      std::array<pollfd, 2> polled{{{stop_.get(), POLLIN, 0}, {socket_.get(), POLLIN, 0}}};
      if (::poll(polled.data(), polled.size(), -1) < 0) continue;
      if (polled[0].revents != 0) return;
      receive();
    }
  }

  void receive() {
    const ssize_t size = ::recv(socket_.get(), nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
    if (size < 0) return;
    std::string bytes(static_cast<std::size_t>(size), '\0');
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    iovec part{bytes.data(), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    if (::recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC) < 0) return;
    const std::optional<FileDescriptor> file = passedFile(message);
    if (file) bytes = contentOf(*file);
    const std::lock_guard guard(mutex_);
    if (file && isSealed(*file)) ++sealedFiles_;
    received_.push_back(std::move(bytes));
    arrived_.notify_all();
  }

  static std::optional<FileDescriptor> passedFile(const msghdr& message) {
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_type != SCM_RIGHTS) return std::nullopt;
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
    return FileDescriptor(descriptor);
  }

  static std::string contentOf(const FileDescriptor& file) {
    const off_t size = ::lseek(file.get(), 0, SEEK_END);
    std::string content(static_cast<std::size_t>(size), '\0');
    std::size_t done = 0;
    while (done < content.size()) {
      const ssize_t count =
          ::pread(file.get(), &content[done], content.size() - done, static_cast<off_t>(done));
      if (count <= 0) throw std::runtime_error("a passed file cannot be read");
      done += static_cast<std::size_t>(count);
    }
    return content;
  }

  static bool isSealed(const FileDescriptor& file) {
    constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
    return ::fcntl(file.get(), F_GET_SEALS) == kSeals;
  }

  const std::string path_;
  FileDescriptor socket_;  // changed while no thread reads
  FileDescriptor stop_;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  Datagrams received_;           // guarded by mutex_
  std::size_t sealedFiles_ = 0;  // guarded by mutex_
};

/// The fields of a journal datagram ("Native Journal Protocol" of systemd); throws when it is malformed.
inline std::map<std::string, std::string> journalFields(std::string_view datagram) {
  std::map<std::string, std::string> fields;
  while (!datagram.empty()) {
    const std::size_t nameEnd = datagram.find_first_of("=\n");
    if (nameEnd == std::string_view::npos) throw std::runtime_error("a field without a value");
    const std::string name(datagram.substr(0, nameEnd));
    const bool isLine = datagram[nameEnd] == '=';
    datagram.remove_prefix(nameEnd + 1);
    std::uint64_t length = datagram.find('\n');
    for (std::size_t i = 8; !isLine && i-- > 0;)
      length = length << 8U | static_cast<unsigned char>(datagram.at(i));
    if (!isLine) datagram.remove_prefix(sizeof length);
    if (length >= datagram.size() || datagram[length] != '\n') throw std::runtime_error("no end of " + name);
    if (!fields.emplace(name, datagram.substr(0, length)).second) throw std::runtime_error("twice: " + name);
    datagram.remove_prefix(length + 1);
  }
  return fields;
}

}  // namespace qx::test
