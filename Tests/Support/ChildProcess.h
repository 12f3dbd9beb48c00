#pragma once

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <exception>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace qx::test {

/// A real second process that runs `body` and exits with its result. Both sides meet at signal() and
/// wait(). Make it before the test starts threads. Killed at the end when it still runs.
class ChildProcess {
 public:
  /// One side's end of the line between the two.
  class Line {
   public:
    explicit Line(int descriptor) : descriptor_(descriptor) {}
    Line(Line&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    ~Line() { ::close(descriptor_); }

    int descriptor() const { return descriptor_; }
    void signal() const { [[maybe_unused]] const ssize_t sent = ::send(descriptor_, "x", 1, MSG_NOSIGNAL); }
    /// Until the other side signals; false when it has gone.
    bool wait() const {
      char byte = 0;
      return ::recv(descriptor_, &byte, 1, 0) == 1;
    }

   private:
    int descriptor_;
  };

  explicit ChildProcess(const std::function<int(const Line&)>& body) : ChildProcess(body, makeEnds()) {}
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    if (process_ <= 0) return;
    kill(SIGKILL);
    exitStatus();
  }

  const Line& line() const { return line_; }
  pid_t number() const { return process_; }
  void kill(int number) const { ::kill(process_, number); }
  /// Until the kernel has stopped it (after kill(SIGSTOP)).
  void awaitStop() const { ::waitpid(process_, nullptr, WUNTRACED); }
  /// Until it has ended: what its body returned, or -1 when it was killed.
  int exitStatus() {
    int status = 0;
    ::waitpid(std::exchange(process_, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  using Ends = std::array<int, 2>;

  static Ends makeEnds() {
    Ends ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      throw std::runtime_error("socketpair failed");
    }
    return ends;
  }

  ChildProcess(const std::function<int(const Line&)>& body, const Ends& ends)
      : line_(ends[0]), process_(::fork()) {
    if (process_ == 0) {
      ::close(ends[0]);
      ::_exit(run(body, Line(ends[1])));
    }
    ::close(ends[1]);
  }

  /// Nothing gets out of the body: the test that forked must not go on in two processes.
  static int run(const std::function<int(const Line&)>& body, const Line& line) {
    try {
      return body(line);
    } catch (const std::exception& problem) {
      std::cerr << "child process: " << problem.what() << std::endl;
    } catch (...) {
      std::cerr << "child process: failed" << std::endl;
    }
    return 125;
  }

  Line line_;
  pid_t process_;
};

}  // namespace qx::test
