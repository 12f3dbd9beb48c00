#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "LineReader.h"

namespace qxevents {
namespace {

constexpr std::size_t kLimit = 10;

/// What the reader makes of `input`, written to a pipe in pieces of `piece` bytes.
std::vector<std::string> linesOf(const std::string& input, std::size_t piece) {
  int ends[2] = {};
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  std::thread writer([&] {
    for (std::size_t i = 0; i < input.size(); i += piece) {
      const auto part = input.substr(i, piece);
      EXPECT_EQ(::write(ends[1], part.data(), part.size()), static_cast<ssize_t>(part.size()));
    }
    ::close(ends[1]);
  });
  LineReader reader(ends[0], kLimit);
  std::vector<std::string> lines;
  std::string_view line;
  for (auto result = reader.next(line); result != LineReader::Result::end; result = reader.next(line)) {
    lines.push_back(result == LineReader::Result::line ? std::string(line) : "too long");
    EXPECT_EQ(reader.lineNumber(), lines.size());
  }
  EXPECT_EQ(reader.bytesRead(), input.size());
  writer.join();
  ::close(ends[0]);
  return lines;
}

TEST(LineReader, FindsLinesWhateverThePiecesTheyComeIn) {
  using Lines = std::vector<std::string>;
  const std::string null("a\0b", 3);
  const std::string huge(300000, 'x');  // past the reader's buffer
  const std::vector<std::pair<std::string, Lines>> cases = {
      {"", {}},
      {"\n", {""}},
      {"one", {"one"}},
      {"one\ntwo\n", {"one", "two"}},
      {"\n\nthree", {"", "", "three"}},
      {null + "\nb", {null, "b"}},
      {"0123456789\n0123456789A\nok", {"0123456789", "too long", "ok"}},
      {huge + "\nok\n" + huge, {"too long", "ok", "too long"}},
      {"ok\n" + huge + "\n", {"ok", "too long"}},
  };
  for (const auto& [input, expected] : cases) {
    for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{100000}}) {
      if (piece < 100 && input.size() > 1000) continue;
      EXPECT_EQ(linesOf(input, piece), expected) << input.substr(0, 40);
    }
  }
}

TEST(LineReader, ComesBackWhenTheWriterPauses) {
  int ends[2] = {};
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ASSERT_EQ(::write(ends[1], "one\ntw", 6), 6);
  LineReader reader(ends[0], kLimit);
  std::string_view line;
  EXPECT_EQ(reader.next(line, true), LineReader::Result::line);
  EXPECT_EQ(reader.next(line, true), LineReader::Result::idle);
  ASSERT_EQ(::write(ends[1], "o\n", 2), 2);
  EXPECT_EQ(reader.next(line, true), LineReader::Result::line);
  EXPECT_EQ(line, "two");
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(LineReader, TellsWhyItCannotRead) {
  const int directory = ::open("/", O_RDONLY | O_CLOEXEC);
  LineReader reader(directory);
  std::string_view line;
  EXPECT_EQ(reader.next(line), LineReader::Result::failed);
  EXPECT_EQ(reader.error(), EISDIR);
  ::close(directory);
}

}  // namespace
}  // namespace qxevents
