#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace benchmarks {

/// A file descriptor that closes itself.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept;
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor() { close(); }
  int number() const { return number_; }
  void close();

 private:
  int number_;
};

struct Pipe {
  Pipe();
  Descriptor reading, writing;
};

/// A program that runs beside us; its standard output is read line by line. Killed when it goes before it
/// was waited for. Failures are exceptions.
class ChildProcess {
 public:
  /// `standardInput`: -1 for none.
  ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
               int standardInput = -1);
  ChildProcess(ChildProcess&& other) noexcept;
  ~ChildProcess();

  /// The next line; an exception when the program ended.
  std::string readLine();
  std::string readAll();
  /// Waits for its end; an exception unless it was a success.
  void wait();

 private:
  bool readMore();
  std::string name_;
  pid_t process_ = -1;
  Descriptor output_;
  std::string read_;
};

/// This program's own file.
std::filesystem::path ownProgram();

/// A new directory, removed with all that is in it.
class TemporaryDirectory {
 public:
  explicit TemporaryDirectory(const std::filesystem::path& in);
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace benchmarks
