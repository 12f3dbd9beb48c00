// Datagrams to the log daemon.
//
// The socket is connected, which spares each datagram the way along the daemon's path, and connected again
// when its daemon has gone: one that was restarted has a new socket at the same path. Threads need no lock to
// send.
//
// libsystemd's sd_journal_sendv() is not used: it waits while the journal's buffer is full, and it leaves its
// caller no say over the socket's path.

#include "Logging/LogTransport.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <utility>

#include "Logging/Backlog.h"
#include "Logging/WriteSignals.h"
#include "Platform/FileDescriptor.h"

namespace qx::log {
namespace {

constexpr int kSendBufferBytes = 8 << 20;           // as journald's own clients
constexpr std::size_t kAlwaysPossible = 64U << 10;  // bytes that the kernel finds room for, if it has any
constexpr int kFirstDescriptor = 3;                 // the standard streams' numbers are left to the program

/// Where datagrams go. A path that is longer than an address is reached through a descriptor of the socket's
/// file.
class Destination {
 public:
  explicit Destination(const std::string& path) {
    std::string reachable = path;
    if (path.size() >= sizeof address_.sun_path) {
      file_ = FileDescriptor(::open(path.c_str(), O_PATH | O_CLOEXEC));
      if (!file_) error_ = errno;
      reachable = "/proc/self/fd/" + std::to_string(file_.get());
    }
    address_.sun_family = AF_UNIX;
    std::memcpy(address_.sun_path, reachable.c_str(), reachable.size() + 1);
  }

  /// Connects `socket` to it; 0 or the error number.
  int connect(int socket) const {
    if (error_ != 0) return error_;
    const auto* const address = reinterpret_cast<const sockaddr*>(&address_);
    while (::connect(socket, address, sizeof address_) != 0) {
      if (errno != EINTR) return errno;
    }
    return 0;
  }

 private:
  sockaddr_un address_{};
  FileDescriptor file_;
  int error_ = 0;
};

/// A socket that all threads share, opened when it is first needed. A program that closes descriptors it does
/// not know may have given the number to a file of its own since: then that is left alone, and another socket
/// opened.
class SharedSocket {
 public:
  explicit SharedSocket(const std::string& path) : path_(path) {}
  SharedSocket(const SharedSocket&) = delete;
  SharedSocket& operator=(const SharedSocket&) = delete;
  ~SharedSocket() { close(); }

  /// Its descriptor, or -1 and errno.
  int descriptor() {
    std::uint64_t known = identity_.load(std::memory_order_acquire);
    if (isOpen(known)) return descriptorOf(known);
    FileDescriptor opened = open();
    const std::uint64_t made = identityOf(opened.get());
    if (made == kNone) return -1;
    if (!identity_.compare_exchange_strong(known, made)) return descriptorOf(known);  // another thread's
    return opened.release();
  }

  void close() {
    const std::uint64_t known = identity_.exchange(kNone);
    if (isOpen(known)) ::close(descriptorOf(known));
  }

 private:
  // The descriptor and, in the upper half, the number that tells its socket from other files.
  static constexpr std::uint64_t kNone = 0;

  static std::uint64_t identityOf(int descriptor) {
    struct stat status {};
    if (descriptor < 0 || ::fstat(descriptor, &status) != 0 || !S_ISSOCK(status.st_mode)) return kNone;
    return static_cast<std::uint64_t>(status.st_ino) << 32U | static_cast<std::uint32_t>(descriptor);
  }
  static int descriptorOf(std::uint64_t identity) { return static_cast<int>(identity & 0xFFFFFFFFU); }
  static bool isOpen(std::uint64_t identity) {
    return identity != kNone && identityOf(descriptorOf(identity)) == identity;
  }

  FileDescriptor open() const {
    const FileDescriptor made(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!made) return {};
    FileDescriptor opened(::fcntl(made.get(), F_DUPFD_CLOEXEC, kFirstDescriptor));
    if (!opened) return {};
    enlargeBuffer(opened);
    Destination(path_).connect(opened.get());  // when there is no daemon yet, sending finds that out
    return opened;
  }

  /// Past the system's limit where we may, else up to it.
  static void enlargeBuffer(const FileDescriptor& opened) {
    const int size = kSendBufferBytes;
    if (::setsockopt(opened.get(), SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) == 0) return;
    ::setsockopt(opened.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  }

  const std::string& path_;
  std::atomic<std::uint64_t> identity_ = kNone;
};

/// Sends now or not at all; 0 or the error number.
int sendBytes(int socket, std::string_view bytes) {
  for (;;) {
    if (::send(socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return 0;
    if (errno != EINTR) return errno;
  }
}

/// An empty datagram that brings the descriptor of `file`.
int sendFile(int socket, const FileDescriptor& file) {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  const int descriptor = file.get();
  std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  return ::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0 ? 0 : errno;
}

/// A memory file with `bytes` that nobody can change any more; none, and errno, when it cannot be made.
FileDescriptor sealedFile(std::string_view bytes) {
  FileDescriptor file(::memfd_create("log-message", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  const WriteSignals signals;  // the program's limit for files counts for this one too
  while (file && !bytes.empty()) {
    const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
    if (written < 0 && errno == EFBIG) {
      signals.takeAway();
      errno = EFBIG;
    }
    if (written < 0 && errno != EINTR) return {};
    if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
  if (!file || ::fcntl(file.get(), F_ADD_SEALS, kSeals) != 0) return {};
  return file;
}

/// At most `limit` bytes of `text`, ending with a whole character.
std::string_view cutText(std::string_view text, std::size_t limit) {
  constexpr std::size_t kLongestCharacter = 4;
  const auto isContinuation = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80; };
  std::size_t end = limit;
  while (end > 0 && limit - end < kLongestCharacter && isContinuation(text[end]))
    --end;
  return text.substr(0, isContinuation(text[end]) ? limit : end);
}

class DatagramOutlet final : public Outlet {
 public:
  DatagramOutlet(std::string path, LogTransport::Oversize oversize, LogTransport::LostMessage lostMessage)
      : path_(std::move(path)), oversize_(oversize), lostMessage_(lostMessage) {}

  Outcome write(std::string_view* rest) override {
    const Outcome outcome = outcomeOf(send(*rest));
    if (outcome == Outcome::finished) *rest = {};
    return outcome;
  }
  std::string lostMessage(std::uint64_t count) override { return lostMessage_(count); }
  void beginInChild() override { socket_.close(); }

 private:
  static Outcome outcomeOf(int error) {
    switch (error) {
      case 0:
        return Outcome::finished;
      case EAGAIN:
      case EBADF:  // closed by the program; the next attempt opens another
      case EMFILE:
      case ENFILE:
      case ENOBUFS:
      case ENOMEM:
      case ETOOMANYREFS:
        return Outcome::full;
      case ECONNREFUSED:
      case ECONNRESET:
      case ENOENT:
      case ENOTCONN:
      case ENOTDIR:
      case EPIPE:
        return Outcome::away;
      default:
        return Outcome::refused;
    }
  }

  /// Whether the size is what the socket does not take: a large datagram may also find no memory in one
  /// piece.
  static bool isTooLarge(int error, std::size_t size) {
    return error == EMSGSIZE || (error == ENOBUFS && size > kAlwaysPossible);
  }

  static bool isDisconnected(int error) {
    return error == ENOTCONN || error == ECONNREFUSED || error == ECONNRESET || error == EPIPE;
  }

  int send(std::string_view datagram) {
    const int socket = socket_.descriptor();
    if (socket < 0) return errno;
    const int error = sendConnected(socket, [&] { return sendBytes(socket, datagram); });
    if (!isTooLarge(error, datagram.size())) return error;
    if (oversize_ == LogTransport::Oversize::cut) return sendCut(socket, datagram);
    const FileDescriptor file = sealedFile(datagram);
    return file ? sendConnected(socket, [&] { return sendFile(socket, file); }) : errno;
  }

  int sendCut(int socket, std::string_view datagram) {
    int error = EMSGSIZE;
    while (isTooLarge(error, datagram.size()) && datagram.size() > 1) {
      datagram = cutText(datagram, datagram.size() / 2);
      error = sendConnected(socket, [&] { return sendBytes(socket, datagram); });
    }
    return error;
  }

  /// Sends, once more after connecting when there was no daemon at the other end.
  template <typename Send>
  int sendConnected(int socket, Send send) {
    const int error = send();
    if (!isDisconnected(error)) return error;
    const int failure = Destination(path_).connect(socket);
    return failure != 0 ? failure : send();
  }

  const std::string path_;
  const LogTransport::Oversize oversize_;
  const LogTransport::LostMessage lostMessage_;
  SharedSocket socket_{path_};
};

}  // namespace

LogTransport::LogTransport(std::string socketPath, Oversize oversize, LostMessage lostMessage)
    : backlog_(Backlog::make(std::make_unique<DatagramOutlet>(std::move(socketPath), oversize, lostMessage),
                             Backlog::Writing::severalAtATime, kBacklogBytes)) {}

LogTransport::~LogTransport() = default;

void LogTransport::send(std::string_view datagram) {
  backlog_->send(datagram);
}

bool LogTransport::flush(std::chrono::milliseconds patience) {
  return backlog_->flush(patience, patience);
}

}  // namespace qx::log
