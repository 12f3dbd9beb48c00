#include "ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace benchmarks {

namespace {

[[noreturn]] void fail(int code, const std::string& what) {
  throw std::system_error(code, std::generic_category(), what);
}

}  // namespace

Descriptor::Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(number_, other.number_);
  return *this;
}

void Descriptor::close() {
  if (number_ >= 0) ::close(std::exchange(number_, -1));
}

Pipe::Pipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) fail(errno, "pipe");
  reading = Descriptor(ends[0]);
  writing = Descriptor(ends[1]);
}

ChildProcess::ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                           int standardInput)
    : name_(program.filename().string() + (arguments.empty() ? "" : " " + arguments.front())) {
  std::vector<std::string> texts{program.string()};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts)
    pointers.push_back(text.data());
  pointers.push_back(nullptr);

  Pipe pipe;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (standardInput >= 0) posix_spawn_file_actions_adddup2(&actions, standardInput, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, pipe.writing.number(), STDOUT_FILENO);
  const int result = posix_spawn(&process_, program.c_str(), &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (result != 0) {
    process_ = -1;
    fail(result, "starting " + name_);
  }
  output_ = std::move(pipe.reading);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : name_(std::move(other.name_)),
      process_(std::exchange(other.process_, -1)),
      output_(std::move(other.output_)),
      read_(std::move(other.read_)) {}

ChildProcess::~ChildProcess() {
  if (process_ < 0) return;
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

bool ChildProcess::readMore() {
  char buffer[4096];
  const ssize_t count = read(output_.number(), buffer, sizeof buffer);
  if (count < 0) fail(errno, "reading from " + name_);
  read_.append(buffer, static_cast<std::size_t>(count));
  return count > 0;
}

std::string ChildProcess::readLine() {
  std::size_t end = read_.find('\n');
  for (; end == std::string::npos; end = read_.find('\n'))
    if (!readMore()) throw std::runtime_error(name_ + " ended before it was done");
  std::string line = read_.substr(0, end);
  read_.erase(0, end + 1);
  return line;
}

std::string ChildProcess::readAll() {
  while (readMore()) {
  }
  return std::exchange(read_, {});
}

void ChildProcess::wait() {
  int status = 0;
  if (waitpid(std::exchange(process_, -1), &status, 0) < 0) fail(errno, "waiting for " + name_);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(name_ + " failed");
}

std::filesystem::path ownProgram() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

TemporaryDirectory::TemporaryDirectory(const std::filesystem::path& in) {
  std::filesystem::create_directories(in);
  std::string path = (in / "qx-benchmark.XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) fail(errno, "making a directory in " + in.string());
  path_ = path;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace benchmarks
