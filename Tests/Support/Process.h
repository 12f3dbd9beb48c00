#pragma once

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace qx::test {

/// How a program ended and what it wrote.
struct ProcessResult {
  int exitCode = -1;  // -1 when a signal ended it
  int signal = 0;
  std::string output;
  std::string errors;

  /// Without its line end.
  std::string firstLine() const { return output.substr(0, output.find('\n')); }
  /// Of standard error, without its line end.
  std::string lastErrorLine() const {
    const auto end = errors.find_last_not_of('\n');
    if (end == std::string::npos) return {};
    const auto start = errors.find_last_of('\n', end);
    return errors.substr(start + 1, end - start);
  }
};

/// Runs a program of ours: real process, real pipes. Where a stream leads elsewhere than to the pipes is
/// told by `Streams`.
class Process {
 public:
  struct Streams {
    std::string_view input = {};       // written to its standard input
    const char* outputFile = nullptr;  // opened for standard output instead of the pipe
    bool closesOutput = false;         // nobody reads standard output
  };

  static ProcessResult run(std::vector<std::string> arguments) {
    return run(std::move(arguments), Streams());
  }
  static ProcessResult run(std::vector<std::string> arguments, const Streams& streams) {
    std::signal(SIGPIPE, SIG_IGN);  // a program may end before it has read all
    Pipe input, output, errors;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.readEnd, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errors.writeEnd, STDERR_FILENO);
    if (streams.outputFile != nullptr) {
      posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, streams.outputFile, O_WRONLY, 0);
    } else {
      posix_spawn_file_actions_adddup2(&actions, output.writeEnd, STDOUT_FILENO);
    }
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

    std::vector<char*> texts;
    for (auto& argument : arguments)
      texts.push_back(argument.data());
    texts.push_back(nullptr);
    pid_t process = 0;
    const int failure = ::posix_spawn(&process, texts[0], &actions, &attributes, texts.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (failure != 0) throw std::runtime_error(arguments[0] + ": " + std::strerror(failure));

    input.close(input.readEnd);
    output.close(output.writeEnd);
    errors.close(errors.writeEnd);
    if (streams.closesOutput) output.close(output.readEnd);
    ProcessResult result;
    exchange(input, streams.input, output, result.output, errors, result.errors);
    int status = 0;
    ::waitpid(process, &status, 0);
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
  }

 private:
  struct Pipe {
    Pipe() {
      std::array<int, 2> ends{};
      if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
      readEnd = ends[0];
      writeEnd = ends[1];
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
      close(readEnd);
      close(writeEnd);
    }
    static void close(int& end) {
      if (end >= 0) ::close(end);
      end = -1;
    }
    int readEnd = -1;
    int writeEnd = -1;
  };

  /// Feeds the one and collects the others until both have ended.
  static void exchange(Pipe& input, std::string_view rest, Pipe& output, std::string& outputText,
                       Pipe& errors, std::string& errorText) {
    ::fcntl(input.writeEnd, F_SETFL, O_NONBLOCK);
    while (output.readEnd >= 0 || errors.readEnd >= 0) {
      if (rest.empty()) input.close(input.writeEnd);
      std::array<pollfd, 3> waiting{
          {{input.writeEnd, POLLOUT, 0}, {output.readEnd, POLLIN, 0}, {errors.readEnd, POLLIN, 0}}};
      if (::poll(waiting.data(), waiting.size(), -1) < 0) continue;
      if (waiting[0].revents != 0) {
        const auto written = ::write(input.writeEnd, rest.data(), rest.size());
        if (written > 0) rest.remove_prefix(static_cast<std::size_t>(written));
        if (written < 0 && errno != EAGAIN) rest = {};
      }
      if (waiting[1].revents != 0) collect(output, outputText);
      if (waiting[2].revents != 0) collect(errors, errorText);
    }
  }

  static void collect(Pipe& pipe, std::string& text) {
    std::array<char, 65536> piece{};
    const auto count = ::read(pipe.readEnd, piece.data(), piece.size());
    if (count > 0) {
      text.append(piece.data(), static_cast<std::size_t>(count));
    } else {
      pipe.close(pipe.readEnd);
    }
  }
};

}  // namespace qx::test
