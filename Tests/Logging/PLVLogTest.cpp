#include "Logging/PLVLog.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Logging/EventStoreLog.h"

namespace {

constexpr PLVLogCategoryDescriptor kCategory{"com.example.subsystem", "tests"};

template <typename... Arguments>
std::string formatted(std::string_view format, Arguments&&... arguments) {
  return qx::log::format({kCategory,
                          PLVLogType::Info,
                          {__FILE__, __LINE__, __func__},
                          format,
                          qx::log::arguments(std::forward<Arguments>(arguments)...)});
}

/// Collects the text of every line while it lives.
class CollectedLines {
 public:
  CollectedLines() {
    qx::log::setSink([this](const qx::log::Message& message) { lines_.push_back(qx::log::format(message)); });
  }
  ~CollectedLines() { qx::log::setSink({}); }
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  std::vector<std::string> lines_;
};

TEST(LogFormat, PrintsEveryConversionWithItsArgument) {
  using namespace std::string_literals;
  EXPECT_EQ(formatted("Add event [%{public}@] of %@", "id", "ä\0b"s), "Add event [id] of ä\0b"s);
  EXPECT_EQ(formatted("%d %i %u %ld %lu %lld %%", -1, true, 3U, -4L, std::uint64_t{1} << 63, INT64_MIN),
            "-1 1 3 -4 9223372036854775808 -9223372036854775808 %");
  EXPECT_EQ(formatted("%lx %x %X %o %#x", -1L, -1, 255, 8, 255), "ffffffffffffffff ffffffff FF 10 0xff");
  EXPECT_EQ(formatted("%f|%.2f|%g|%e", 1.5, 2.0F, 0.1L, 0), "1.500000|2.00|0.1|0.000000e+00");
  EXPECT_EQ(formatted("%s %c%c%c", std::string(5000, 'x'), 'q', 0x20AC, 0x1F600),
            std::string(5000, 'x') + " q€😀");
  EXPECT_EQ(formatted("%5d|%-5d|%05d|%*d|%-*d|%8@|%-4s|%p", 42, 42, 42, 4, 7, 3, 7, "text", "ab", 4096),
            "   42|42   |00042|   7|7  |    text|ab  |0x1000");
  const auto error = qx::Error::make("Domain", 5, "went wrong");
  EXPECT_EQ(formatted("%{public}@ %@", error, qx::Dictionary{{"key", 1}}),
            error->summary() + " " + qx::Value(qx::Dictionary{{"key", 1}}).description());
}

TEST(LogFormat, PrintsNullForWhatIsMissing) {
  EXPECT_EQ(formatted("%@ %d %s %f %x %c %p %*d"), "(null) (null) (null) (null) (null) (null) (null) (null)");
  const char* const noText = nullptr;
  EXPECT_EQ(formatted("%@ %@ %s %@", nullptr, qx::String(), noText, qx::ErrorPtr()),
            "(null) (null) (null) (null)");
}

TEST(LogFormat, PrintsAnArgumentOfAnotherKindAsItIs) {
  EXPECT_EQ(formatted("%d %s %@ %f %x %lu %c", "text", 5, 0.25, "real", 1.5, -1, "word"),
            "text 5 0.25 real 1.5 18446744073709551615 word");
  EXPECT_EQ(formatted("%d %c|", std::numeric_limits<std::uint64_t>::max(), 0xD800), "18446744073709551615 |");
}

TEST(LogFormat, CopiesWhatIsNoConversion) {
  for (const std::string_view text :
       {"100%", "%{public", "%{public}", "%k", "%llllld", "%1$@", "%n", "%-", "%.", "%*"}) {
    EXPECT_EQ(formatted(text), text);
  }
  EXPECT_EQ(formatted("%y%d%*y%d", 1, 2), "%y1%*y2");
  EXPECT_EQ(formatted("plain", 1, 2), "plain");
}

TEST(LogFormat, BoundsWidthAndPrecision) {
  EXPECT_EQ(formatted("%999999999999d", 1).size(), 1024U);
  EXPECT_EQ(formatted("%*d", std::numeric_limits<std::int64_t>::min(), 1).size(), 1024U);
  EXPECT_EQ(formatted("%.2000000000f", 1.0).size(), 1026U);
  EXPECT_EQ(formatted("%.*f", -1, 1.0), "1.000000");
}

TEST(Log, EvaluatesArgumentsOnlyWhileThereIsASink) {
  int evaluations = 0;
  const auto evaluated = [&evaluations] { return ++evaluations; };
  QXLogInfo("Count [%d]", evaluated());
  EXPECT_EQ(evaluations, 0);
  {
    const CollectedLines collected;
    QXLogInfo("Count [%d]", evaluated());
    QXLogInfo("No arguments");
    EXPECT_EQ(collected.lines(), (std::vector<std::string>{"Count [1]", "No arguments"}));
  }
  QXLogInfo("Count [%d]", evaluated());
  EXPECT_EQ(evaluations, 1);
}

TEST(Log, TellsTheSinkWhereAndWhatALineIs) {
  int calls = 0;
  qx::log::setSink([&calls](const qx::log::Message& message) {
    ++calls;
    EXPECT_STREQ(message.descriptor.subsystem, "com.qx.device.monitoring");
    EXPECT_STREQ(message.descriptor.category, "event-store");
    EXPECT_EQ(message.type, PLVLogType::Info);
    EXPECT_STREQ(message.source.file, __FILE__);
    EXPECT_STREQ(message.source.function, "TestBody");
  });
  QXLogInfo("line");
  qx::log::setSink({});
  EXPECT_EQ(calls, 1);
}

TEST(Log, SurvivesASinkThatLogsAndOneThatThrows) {
  int calls = 0;
  qx::log::setSink([&calls](const qx::log::Message&) {
    ++calls;
    QXLogInfo("from the sink");
    throw std::runtime_error("full");
  });
  EXPECT_NO_THROW(QXLogInfo("first"));
  EXPECT_NO_THROW(QXLogInfo("second"));
  qx::log::setSink({});
  EXPECT_EQ(calls, 2);
}

TEST(ConcurrentLog, LosesNoLineWhileSinksAreExchanged) {
  constexpr int kThreads = 4;
  constexpr int kLines = 2000;
  std::atomic<int> received = 0;
  const auto count = [&received](const qx::log::Message& message) {
    received += qx::log::format(message) == "line 7" ? 1 : 0;
  };
  qx::log::setSink(count);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int index = 0; index < kThreads; ++index) {
    threads.emplace_back([] {
      for (int line = 0; line < kLines; ++line)
        QXLogInfo("line %d", 7);
    });
  }
  for (int exchange = 0; exchange < 200; ++exchange)
    qx::log::setSink(count);
  for (std::thread& thread : threads)
    thread.join();
  qx::log::setSink({});
  EXPECT_EQ(received, kThreads * kLines);
}

}  // namespace
