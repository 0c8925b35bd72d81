#include "frame/log.h"

#include "support/log_recorder.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <locale>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace TQ::test {
namespace {

using TQ::detail::Log;
using Texts = std::vector<std::string>;

/// A piece of text that counts how often it is written.
struct Piece {
  uint32_t* written;
  friend std::ostream& operator<<(std::ostream& stream, const Piece& piece) {
    ++*piece.written;
    return stream << "piece";
  }
};

constexpr _tag_TQ_LOG_LEVEL LEVELS[] = {TQ_LOG_CRITICAL, TQ_LOG_ERROR, TQ_LOG_WARNING, TQ_LOG_INFO};

/// A callback that must not be called.
uint32_t g_calls = 0;
void CountCall(uint32_t, int32_t, const char*) { ++g_calls; }

/// Logs once on every level and gives how often text was composed.
uint32_t ComposedOnAllLevels() {
  uint32_t written = 0;
  for (const _tag_TQ_LOG_LEVEL level : LEVELS) Log(level, "text ", Piece{&written});
  return written;
}

TEST(Log, IsSilentWhenNobodyHasConfiguredIt) {
  EXPECT_EQ(TQ::detail::g_logMask.load(), 0u);
  EXPECT_EQ(TQ::detail::g_logVerbosity.load(), 0);
  EXPECT_EQ(TQ::detail::g_logCallback.load(), nullptr);
  EXPECT_EQ(ComposedOnAllLevels(), 0u);
}

TEST(Log, TheLevelsAreSingleBits) {
  EXPECT_EQ(static_cast<uint32_t>(TQ_LOG_CRITICAL), 1u);
  EXPECT_EQ(static_cast<uint32_t>(TQ_LOG_ERROR), 2u);
  EXPECT_EQ(static_cast<uint32_t>(TQ_LOG_WARNING), 4u);
  EXPECT_EQ(static_cast<uint32_t>(TQ_LOG_INFO), 8u);
}

TEST(Log, SetLogLevelStoresTheThreeValues) {
  TQSetLogLevel(0x80000005, -7, CountCall);
  EXPECT_EQ(TQ::detail::g_logMask.load(), 0x80000005u);
  EXPECT_EQ(TQ::detail::g_logVerbosity.load(), -7);
  EXPECT_EQ(TQ::detail::g_logCallback.load(), &CountCall);
  TQSetLogLevel(0, 0, nullptr);
  EXPECT_EQ(TQ::detail::g_logMask.load(), 0u);
  EXPECT_EQ(TQ::detail::g_logVerbosity.load(), 0);
  EXPECT_EQ(TQ::detail::g_logCallback.load(), nullptr);
}

TEST(Log, WithoutALevelComposesAndCallsNothing) {
  TQSetLogLevel(0, 5, CountCall);
  EXPECT_EQ(ComposedOnAllLevels(), 0u);
  EXPECT_EQ(g_calls, 0u);
}

TEST(Log, WithANegativeVerbosityComposesAndCallsNothing) {
  for (const int32_t verbosity : {-1, -1000, INT32_MIN}) {
    TQSetLogLevel(15, verbosity, CountCall);
    EXPECT_EQ(ComposedOnAllLevels(), 0u);
  }
  EXPECT_EQ(g_calls, 0u);
}

TEST(Log, WithoutACallbackComposesNothing) {
  TQSetLogLevel(15, 5, nullptr);
  EXPECT_EQ(ComposedOnAllLevels(), 0u);
}

TEST(Log, WithOtherLevelsOnComposesNothing) {
  for (const _tag_TQ_LOG_LEVEL level : LEVELS) {
    uint32_t written = 0;
    TQSetLogLevel(~static_cast<uint32_t>(level), 0, CountCall);
    Log(level, Piece{&written});
    EXPECT_EQ(written, 0u) << level;
  }
  EXPECT_EQ(g_calls, 0u);
}

TEST(Log, TheMaskSelectsBitsAndIsNoThreshold) {
  for (const _tag_TQ_LOG_LEVEL wanted : LEVELS) {
    const LogRecorder log(wanted);
    for (const _tag_TQ_LOG_LEVEL level : LEVELS) Log(level, "line");
    ASSERT_EQ(log.Lines().size(), 1u) << wanted;
    EXPECT_EQ(log.Lines()[0].level, static_cast<uint32_t>(wanted));
  }
}

TEST(Log, EveryVerbosityFromZeroDeliversLinesOfVerbosityZero) {
  for (const int32_t verbosity : {0, 1, INT32_MAX}) {
    const LogRecorder log(ALL_LOG_LEVELS, verbosity);
    EXPECT_EQ(ComposedOnAllLevels(), 4u);
    ASSERT_EQ(log.Lines().size(), 4u);
    for (const LogLine& line : log.Lines()) EXPECT_EQ(line.verbosity, 0);
  }
}

TEST(Log, JoinsThePiecesOfALineWithoutLineEnd) {
  const LogRecorder log;
  const std::string text = "text";
  Log(TQ_LOG_INFO, "Initializing with: host=", "<NULL>", " port=", -5, '/', text, uint16_t{7});
  Log(TQ_LOG_INFO, "");
  EXPECT_EQ(log.Texts(), (Texts{"Initializing with: host=<NULL> port=-5/text7", ""}));
}

TEST(Log, CallsBackOnTheThreadThatLogsBeforeItReturns) {
  const LogRecorder log;
  std::thread::id id;
  size_t linesAtReturn = 0;
  std::thread thread([&] {
    id = std::this_thread::get_id();
    Log(TQ_LOG_ERROR, "line");
    linesAtReturn = log.Lines().size();
  });
  thread.join();
  EXPECT_EQ(linesAtReturn, 1u);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].thread, id);
}

TEST(Log, PassesTheCallbacksExceptionOn) {
  TQSetLogLevel(15, 0, [](uint32_t, int32_t, const char*) { throw std::runtime_error("host"); });
  EXPECT_THROW(Log(TQ_LOG_INFO, "line"), std::runtime_error);
}

TEST(Log, MayBeSetFromTheCallback) {
  static std::vector<std::string> lines;
  TQSetLogLevel(15, 0, [](uint32_t, int32_t, const char* text) {
    lines.emplace_back(text);
    TQSetLogLevel(0, 0, nullptr);
  });
  Log(TQ_LOG_INFO, "first");
  Log(TQ_LOG_INFO, "second");
  EXPECT_EQ(lines, Texts{"first"});
}

TEST(Log, MayBeUsedAgainFromTheCallback) {
  static std::vector<std::string> lines;
  TQSetLogLevel(15, 0, [](uint32_t, int32_t, const char* text) {
    lines.emplace_back(text);
    if (lines.size() == 1) Log(TQ_LOG_WARNING, "inner ", lines.size());
    lines.back() += std::string(" after ") + text;
  });
  Log(TQ_LOG_INFO, "outer");
  EXPECT_EQ(lines, (Texts{"outer", "inner 1 after inner 1 after outer"}));
}

TEST(Log, LinesOfManyThreadsAllArrive) {
  const LogRecorder log;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 100; ++i) Log(TQ_LOG_INFO, "thread ", t, " line ", i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(log.Lines().size(), 400u);
  for (int t = 0; t < 4; ++t) {
    EXPECT_EQ(log.CountOf("thread " + std::to_string(t) + " line 99"), 1u);
  }
}

TEST(Log, SettingsMayChangeWhileOthersLog) {
  std::thread thread([] {
    for (int i = 0; i < 2000; ++i) Log(TQ_LOG_INFO, "line ", i);
  });
  for (int i = 0; i < 500; ++i) {
    TQSetLogLevel(15, 0, [](uint32_t, int32_t, const char*) {});
    TQSetLogLevel(0, -1, nullptr);
  }
  thread.join();
}

// ---- the host's locale --------------------------------------------------------------------------

/// Numbers as some countries write them.
class Separators : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return '.'; }
  char do_decimal_point() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

/// A host's global locale, for a scope.
class GlobalLocale {
 public:
  GlobalLocale() : before(std::locale::global({std::locale(), new Separators})) {}
  ~GlobalLocale() { std::locale::global(before); }

 private:
  std::locale before;
};

TEST(Log, NumbersHaveNoSeparatorsWhateverTheHostsLocale) {
  const GlobalLocale changed;
  const LogRecorder log;
  Log(TQ_LOG_INFO, "port ", 65535, " code ", -1234567, " bytes ", uint64_t{1} << 40);
  EXPECT_EQ(log.Texts(), Texts{"port 65535 code -1234567 bytes 1099511627776"});
}

TEST(Log, TheLibrarysOwnLinesHaveNoSeparatorsEither) {
  const GlobalLocale changed;
  const LogRecorder log;
  ASSERT_EQ(TQInitializeEx(nullptr, "name", 0, nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQInitializeEx("host", "name", 12345, nullptr), TQ_ERR_NAME_REJECTED);
  TQShutdown();
  TQShutdown();
  EXPECT_EQ(log.CountOf("Initializing with: host=<NULL> port=0"), 1u) << log.Dump();
  EXPECT_EQ(log.CountOf("Initializing with: host=host port=12345"), 1u) << log.Dump();
  const auto named = log.FirstWithPrefix("Application=");
  ASSERT_TRUE(named);
  EXPECT_EQ(named->level, static_cast<uint32_t>(TQ_LOG_INFO));
  uint32_t withPort = 0;
  for (const std::string& text : log.Texts()) {
    if (text.find(":12345/name") != std::string::npos) ++withPort;
  }
  EXPECT_EQ(withPort, 1u) << log.Dump();
}

}  // namespace
}  // namespace TQ::test
