#include "frame/settings.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <locale>
#include <string>
#include <thread>
#include <vector>

namespace TQ::detail {
namespace {

/// Bytes that differ from their neighbours and are not zero.
AuthBlock Marked(uint8_t first) {
  AuthBlock block;
  for (uint32_t i = 0; i < block.size(); ++i) {
    block[i] = static_cast<uint8_t>(1 + (first + i * 7) % 255);
  }
  return block;
}

/// The first `count` bytes of `block`, then zeros.
AuthBlock StartOf(const AuthBlock& block, uint32_t count) {
  AuthBlock start{};
  std::copy_n(block.begin(), count, start.begin());
  return start;
}

void ExpectBlocks(const AuthBlock& expected) {
  EXPECT_EQ(limits.CopyAuthBlock(), expected);
  EXPECT_EQ(defaultLimits.CopyAuthBlock(), expected);
}

bool Equal(const _tag_TQLIMITS& a, const _tag_TQLIMITS& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// ---- at load ------------------------------------------------------------------------------------

TEST(Settings, HoldTheDefaultsAtLoad) {
  for (const LimitSettings* settings : {&limits, &defaultLimits}) {
    const _tag_TQLIMITS record = settings->Snapshot();
    EXPECT_EQ(record.size, 292u);
    EXPECT_EQ(record.MAX_CONNECTIONS, 100u);
    EXPECT_EQ(record.RESERVED_LIMIT_2, 64u);
    EXPECT_EQ(record.MAX_READ_SIZE, 0x40000000u);
    EXPECT_EQ(record.RESERVED_LIMIT_4, 0x40000000u);
    EXPECT_EQ(record.RESERVED_LIMIT_5, 64u);
    EXPECT_EQ(record.RESERVED_LIMIT_6, 0x04000000u);
    EXPECT_EQ(record.RESERVED_LIMIT_7, 0x40000000u);
    EXPECT_EQ(record.IO_TIMEOUT_MS, 60000u);
    EXPECT_TRUE(std::all_of(std::begin(record.authBlock), std::end(record.authBlock),
                            [](uint8_t byte) { return byte == 0; }));
    EXPECT_EQ(settings->MaxConnections(), 100u);
    EXPECT_EQ(settings->MaxReadSize(), 0x40000000u);
    EXPECT_EQ(settings->IoTimeoutMs(), 60000u);
  }
}

TEST(Settings, HoldNoNameNoStopAndNoListenersAtLoad) {
  EXPECT_EQ(localApplicationName.Copy(), "");
  EXPECT_EQ(stopAll.load(), 0u);
  EXPECT_FALSE(StopAllRequested());
  EXPECT_EQ(g_connectListener.load(), nullptr);
  EXPECT_EQ(g_disconnectListener.load(), nullptr);
  EXPECT_EQ(g_authFailedListener.load(), nullptr);
  EXPECT_EQ(g_unknownConnectListener.load(), nullptr);
}

// ---- limits -------------------------------------------------------------------------------------

TEST(Settings, TakeEachLimitOfARecordThatIsNotZero) {
  LimitSettings settings(DEFAULT_RECORD);
  const _tag_TQLIMITS record = {292, 1, 2, 3, 4, 5, 6, 7, 8, {}};
  settings.Override(record);
  EXPECT_TRUE(Equal(settings.Snapshot(), record));
  EXPECT_EQ(settings.MaxConnections(), 1u);
  EXPECT_EQ(settings.MaxReadSize(), 3u);
  EXPECT_EQ(settings.IoTimeoutMs(), 8u);
}

TEST(Settings, KeepTheirLimitWhereARecordHasZero) {
  using Word = uint32_t _tag_TQLIMITS::*;
  const std::vector<Word> words = {
      &_tag_TQLIMITS::MAX_CONNECTIONS,  &_tag_TQLIMITS::RESERVED_LIMIT_2,
      &_tag_TQLIMITS::MAX_READ_SIZE,    &_tag_TQLIMITS::RESERVED_LIMIT_4,
      &_tag_TQLIMITS::RESERVED_LIMIT_5, &_tag_TQLIMITS::RESERVED_LIMIT_6,
      &_tag_TQLIMITS::RESERVED_LIMIT_7, &_tag_TQLIMITS::IO_TIMEOUT_MS};
  for (size_t i = 0; i < words.size(); ++i) {
    SCOPED_TRACE(i);
    LimitSettings settings(DEFAULT_RECORD);
    _tag_TQLIMITS record{};
    record.size = 292;
    record.*words[i] = 0xFFFFFFFF;
    settings.Override(record);
    _tag_TQLIMITS expected = DEFAULT_RECORD;
    expected.*words[i] = 0xFFFFFFFF;
    EXPECT_TRUE(Equal(settings.Snapshot(), expected));
  }
}

TEST(Settings, TakeTheBlockOfARecordAlsoIfItIsZero) {
  LimitSettings settings(DEFAULT_RECORD);
  settings.SetAuthBlock(Marked(1));
  settings.Override({292, 0, 0, 0, 0, 0, 0, 0, 0, {}});
  EXPECT_EQ(settings.CopyAuthBlock(), AuthBlock{});
  _tag_TQLIMITS record = DEFAULT_RECORD;
  const AuthBlock block = Marked(9);
  std::copy(block.begin(), block.end(), record.authBlock);
  settings.Override(record);
  EXPECT_EQ(settings.CopyAuthBlock(), block);
  EXPECT_TRUE(Equal(settings.Snapshot(), record));
}

TEST(Settings, CopyAllLimitsAndTheBlock) {
  LimitSettings from({292, 1, 2, 3, 4, 5, 6, 7, 8, {}});
  from.SetAuthBlock(Marked(3));
  LimitSettings to(DEFAULT_RECORD);
  to.CopyFrom(from);
  EXPECT_TRUE(Equal(to.Snapshot(), from.Snapshot()));
  EXPECT_EQ(to.CopyAuthBlock(), Marked(3));
}

// ---- the authentication block -------------------------------------------------------------------

TEST(Settings, AuthenticationInfoOf256BytesFillsTheBlock) {
  const AuthBlock block = Marked(1);
  EXPECT_EQ(TQSetAuthenticationInfo(block.data(), 256), TQ_ERR_OK);
  ExpectBlocks(block);
}

TEST(Settings, AuthenticationInfoOf257BytesFailsAndChangesNothing) {
  const AuthBlock block = Marked(1);
  ASSERT_EQ(TQSetAuthenticationInfo(block.data(), 256), TQ_ERR_OK);
  const std::vector<uint8_t> longer(300, 0xEE);
  EXPECT_EQ(TQSetAuthenticationInfo(longer.data(), 257), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetAuthenticationInfo(longer.data(), 300), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetAuthenticationInfo(nullptr, INT32_MAX), TQ_ERR_FAILED);
  ExpectBlocks(block);
}

TEST(Settings, ShorterAuthenticationInfoLeavesNoTraceOfTheFormer) {
  const AuthBlock before = Marked(1);
  ASSERT_EQ(TQSetAuthenticationInfo(before.data(), 256), TQ_ERR_OK);
  const AuthBlock block = Marked(100);
  EXPECT_EQ(TQSetAuthenticationInfo(block.data(), 3), TQ_ERR_OK);
  ExpectBlocks(StartOf(block, 3));
  EXPECT_EQ(TQSetAuthenticationInfo(block.data(), 255), TQ_ERR_OK);
  ExpectBlocks(StartOf(block, 255));
}

TEST(Settings, AuthenticationInfoOfNoBytesClearsTheBlock) {
  const AuthBlock before = Marked(1);
  ASSERT_EQ(TQSetAuthenticationInfo(before.data(), 256), TQ_ERR_OK);
  EXPECT_EQ(TQSetAuthenticationInfo(nullptr, 0), TQ_ERR_OK);
  ExpectBlocks(AuthBlock{});
}

TEST(Settings, AuthenticationInfoOfANegativeLengthClearsTheBlockAndCopiesNothing) {
  for (const int32_t length : {-1, -256, INT32_MIN}) {
    const AuthBlock before = Marked(1);
    ASSERT_EQ(TQSetAuthenticationInfo(before.data(), 256), TQ_ERR_OK);
    EXPECT_EQ(TQSetAuthenticationInfo(before.data(), length), TQ_ERR_OK);
    ExpectBlocks(AuthBlock{});
  }
}

TEST(Settings, AuthenticationInfoChangesNoLimit) {
  const AuthBlock block = Marked(1);
  TQSetAuthenticationInfo(block.data(), 256);
  _tag_TQLIMITS expected = DEFAULT_RECORD;
  std::copy(block.begin(), block.end(), expected.authBlock);
  EXPECT_TRUE(Equal(limits.Snapshot(), expected));
}

TEST(Settings, AuthenticationInfoSurvivesAFirstInitialisation) {
  const AuthBlock block = Marked(1);
  TQSetAuthenticationInfo(block.data(), 256);
  ASSERT_EQ(TQInitialize("name", 0, nullptr), TQ_ERR_OK);
  ExpectBlocks(block);
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  ExpectBlocks(block);
}

TEST(Settings, ARecordReplacesTheBlockInForceAloneAndTheDefaultComesBack) {
  const AuthBlock block = Marked(1);
  TQSetAuthenticationInfo(block.data(), 256);
  _tag_TQLIMITS record{};
  record.size = sizeof record;
  record.IO_TIMEOUT_MS = 2000;
  ASSERT_EQ(TQInitialize("name", 0, &record), TQ_ERR_OK);
  EXPECT_EQ(limits.CopyAuthBlock(), AuthBlock{});
  EXPECT_EQ(limits.IoTimeoutMs(), 2000u);
  EXPECT_EQ(limits.MaxConnections(), 100u);
  EXPECT_EQ(defaultLimits.CopyAuthBlock(), block);
  EXPECT_EQ(defaultLimits.IoTimeoutMs(), 60000u);
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);

  // A later life starts from the defaults again.
  ASSERT_EQ(TQInitialize("name", 0, nullptr), TQ_ERR_OK);
  ExpectBlocks(block);
  EXPECT_EQ(limits.IoTimeoutMs(), 60000u);
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
}

TEST(Settings, TheBlockIsCopiedWholeWhileOthersSetIt) {
  const AuthBlock one = Marked(1);
  const AuthBlock other = Marked(2);
  TQSetAuthenticationInfo(one.data(), 256);
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) {
      TQSetAuthenticationInfo(i % 2 == 0 ? other.data() : one.data(), 256);
    }
  });
  uint32_t torn = 0;
  for (int i = 0; i < 2000; ++i) {
    const AuthBlock seen = limits.CopyAuthBlock();
    if (seen != one && seen != other) ++torn;
  }
  writer.join();
  EXPECT_EQ(torn, 0u);
}

// ---- listeners ----------------------------------------------------------------------------------

void OnConnect(const char*, const char*, const char*, const char*, int32_t, const char*) {}
void OnDisconnect(const char*, const char*, int32_t, const char*) {}
void OnAuthFailed(const char*, const char*, const char*) {}
void OnUnknownConnect(const char*, const char*) {}

TEST(Settings, ListenersAreSetEachByItsFunction) {
  EXPECT_EQ(TQSetConnectListener(OnConnect), TQ_ERR_OK);
  EXPECT_EQ(g_connectListener.load(), &OnConnect);
  EXPECT_EQ(g_disconnectListener.load(), nullptr);
  EXPECT_EQ(TQSetDisconnectListener(OnDisconnect), TQ_ERR_OK);
  EXPECT_EQ(g_disconnectListener.load(), &OnDisconnect);
  EXPECT_EQ(g_authFailedListener.load(), nullptr);
  EXPECT_EQ(TQSetAuthFailedListener(OnAuthFailed), TQ_ERR_OK);
  EXPECT_EQ(g_authFailedListener.load(), &OnAuthFailed);
  EXPECT_EQ(g_unknownConnectListener.load(), nullptr);
  EXPECT_EQ(TQSetUnknownConnectListener(OnUnknownConnect), TQ_ERR_OK);
  EXPECT_EQ(g_unknownConnectListener.load(), &OnUnknownConnect);
  EXPECT_EQ(g_connectListener.load(), &OnConnect);
}

TEST(Settings, NullListenersSwitchTheCallbackOff) {
  TQSetConnectListener(OnConnect);
  TQSetDisconnectListener(OnDisconnect);
  TQSetAuthFailedListener(OnAuthFailed);
  TQSetUnknownConnectListener(OnUnknownConnect);
  EXPECT_EQ(TQSetConnectListener(nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQSetDisconnectListener(nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQSetAuthFailedListener(nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQSetUnknownConnectListener(nullptr), TQ_ERR_OK);
  EXPECT_EQ(g_connectListener.load(), nullptr);
  EXPECT_EQ(g_disconnectListener.load(), nullptr);
  EXPECT_EQ(g_authFailedListener.load(), nullptr);
  EXPECT_EQ(g_unknownConnectListener.load(), nullptr);
}

// ---- the application's name ---------------------------------------------------------------------

TEST(Settings, TheNameIsHostPortAndChosenName) {
  EXPECT_EQ(ComposeApplicationName("machine", 5000, "server"), "machine:5000/server");
  EXPECT_EQ(ComposeApplicationName("machine", 0, "client"), "machine:0/client");
  EXPECT_EQ(ComposeApplicationName("machine", -1, "x"), "machine:-1/x");
  EXPECT_EQ(ComposeApplicationName("machine", INT32_MIN, "x"), "machine:-2147483648/x");
  EXPECT_EQ(ComposeApplicationName("m", 70000, ""), "m:70000/");
  EXPECT_EQ(ComposeApplicationName("m", 1, "a/b:c"), "m:1/a/b:c");
}

TEST(Settings, TheNameHasNoBound) {
  const std::string chosen(100000, 'n');
  EXPECT_EQ(ComposeApplicationName("m", 1, chosen.c_str()), "m:1/" + chosen);
}

/// Numbers as some countries write them.
class Separators : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(Settings, TheNamesPortHasNoSeparatorsWhateverTheHostsLocale) {
  const std::locale before = std::locale::global({std::locale(), new Separators});
  EXPECT_EQ(ComposeApplicationName("machine", 50000, "server"), "machine:50000/server");
  std::locale::global(before);
}

TEST(Settings, TextsAreCopiedWholeWhileOthersSetThem) {
  GuardedText text;
  const std::string one(1000, 'a');
  const std::string other(2000, 'b');
  text.Set(one);
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) text.Set(i % 2 == 0 ? other : one);
  });
  uint32_t torn = 0;
  for (int i = 0; i < 2000; ++i) {
    const std::string seen = text.Copy();
    if (seen != one && seen != other) ++torn;
  }
  writer.join();
  EXPECT_EQ(torn, 0u);
}

}  // namespace
}  // namespace TQ::detail
