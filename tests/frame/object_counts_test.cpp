#include "frame/object_counts.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace TQ::detail {
namespace {

bool IsZero(const TQObjectCounts& counts) {
  const TQObjectCounts zero{};
  return std::memcmp(&counts, &zero, sizeof counts) == 0;
}

TEST(ObjectCounts, AreAllZeroAtLoad) { EXPECT_TRUE(IsZero(DEBUG_TQObjectCount())); }

TEST(ObjectCounts, EachCounterHasItsField) {
  g_objectCounts.sessions = 1;
  g_objectCounts.messages = 2;
  g_objectCounts.pendingCalls = 3;
  g_objectCounts.paramLists = 4;
  g_objectCounts.writeCalls = 5;
  g_objectCounts.readCalls = 0xFFFFFFFF;
  const TQObjectCounts counts = DEBUG_TQObjectCount();
  EXPECT_EQ(counts.sessions, 1u);
  EXPECT_EQ(counts.messages, 2u);
  EXPECT_EQ(counts.pendingCalls, 3u);
  EXPECT_EQ(counts.reserved1, 0u);
  EXPECT_EQ(counts.reserved2, 0u);
  EXPECT_EQ(counts.paramLists, 4u);
  EXPECT_EQ(counts.writeCalls, 5u);
  EXPECT_EQ(counts.readCalls, 0xFFFFFFFFu);
  EXPECT_EQ(counts.reserved3, 0u);
  EXPECT_EQ(counts.reserved4, 0u);
}

TEST(ObjectCounts, OfListsRiseAndFallWithThem) {
  const uint32_t before = DEBUG_TQObjectCount().paramLists;
  const _tag_HTQPARAMLIST list = TQCreateParamList();
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, before + 1);
  TQReferenceHandle(list);
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, before + 1);
  TQCloseHandle(list);
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, before + 1);
  TQCloseHandle(list);
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, before);
}

TEST(ObjectCounts, OfListsAreRightWithManyThreads) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 5000; ++i) TQCloseHandle(TQCreateParamList());
    });
  }
  for (int i = 0; i < 100; ++i) EXPECT_LE(DEBUG_TQObjectCount().paramLists, 4u);
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(IsZero(DEBUG_TQObjectCount()));
}

TEST(ObjectCounts, AreASnapshot) {
  const TQObjectCounts before = DEBUG_TQObjectCount();
  const _tag_HTQPARAMLIST list = TQCreateParamList();
  EXPECT_EQ(before.paramLists, 0u);
  TQCloseHandle(list);
}

TEST(ObjectCounts, TheUsageLogDoesNothing) {
  static uint32_t lines = 0;
  TQSetLogLevel(15, 0, [](uint32_t, int32_t, const char*) { ++lines; });
  const _tag_HTQPARAMLIST list = TQCreateParamList();
  const TQObjectCounts before = DEBUG_TQObjectCount();
  TQHandleUsageLog();
  const TQObjectCounts after = DEBUG_TQObjectCount();
  EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
  EXPECT_EQ(lines, 0u);
  TQCloseHandle(list);
}

}  // namespace
}  // namespace TQ::detail
