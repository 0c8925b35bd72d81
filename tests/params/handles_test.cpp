#include "params/list_store.h"
#include "support/child_process.h"
#include "support/host_conditions.h"
#include "support/param_lists.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace TQ::test {
namespace {

constexpr _tag_HTQPARAMLIST NO_LIST = {nullptr};

TEST(Handles, OfNewListsAreDifferentAndCounted) {
  const uint32_t before = ListsAlive();
  const _tag_HTQPARAMLIST one = TQCreateParamList();
  const _tag_HTQPARAMLIST two = TQCreateParamList();
  ASSERT_NE(one.impl, nullptr);
  ASSERT_NE(two.impl, nullptr);
  EXPECT_NE(one.impl, two.impl);
  EXPECT_EQ(ListsAlive(), before + 2);
  EXPECT_EQ(TQCloseHandle(one), TQ_ERR_OK);
  EXPECT_EQ(ListsAlive(), before + 1);
  EXPECT_EQ(TQCloseHandle(two), TQ_ERR_OK);
  EXPECT_EQ(ListsAlive(), before);
}

TEST(Handles, HaveOneReferenceEach) {
  const uint32_t before = ListsAlive();
  const _tag_HTQPARAMLIST list = TQCreateParamList();
  EXPECT_EQ(TQReferenceHandle(list).impl, list.impl);
  EXPECT_EQ(TQReferenceHandle(list).impl, list.impl);
  EXPECT_EQ(TQCloseHandle(list), TQ_ERR_OK);
  EXPECT_EQ(TQCloseHandle(list), TQ_ERR_OK);
  EXPECT_EQ(ListsAlive(), before + 1);
  TQSetInt32Value(list, "a", 1);
  EXPECT_EQ(TQCloseHandle(list), TQ_ERR_OK);
  EXPECT_EQ(ListsAlive(), before);
}

TEST(Handles, ThatAreNullCanBeReferencedAndClosed) {
  EXPECT_EQ(TQReferenceHandle(NO_LIST).impl, nullptr);
  EXPECT_EQ(TQCloseHandle(NO_LIST), TQ_ERR_OK);
  EXPECT_EQ(TQCloseHandle(TQReferenceHandle(NO_LIST)), TQ_ERR_OK);
}

TEST(Handles, TheNullHandleOfTheLibraryIsNull) {
  EXPECT_EQ(TQ::detail::g_nullParamList.impl, nullptr);
  const OwnedList list;
  EXPECT_EQ(TQGetHandleValue(list, "absent").impl, TQ::detail::g_nullParamList.impl);
}

TEST(Handles, LastCloseDropsTheNestedListsAtOnce) {
  const uint32_t before = ListsAlive();
  _tag_HTQPARAMLIST top = TQCreateParamList();
  for (int depth = 0; depth < 100; ++depth) {
    const _tag_HTQPARAMLIST parent = TQCreateParamList();
    TQSetHandleValue(parent, "child", top);
    TQCloseHandle(top);
    top = parent;
  }
  EXPECT_EQ(ListsAlive(), before + 101);
  TQCloseHandle(top);
  EXPECT_EQ(ListsAlive(), before);
}

TEST(Handles, OfListsThatOthersHoldToo) {
  const uint32_t before = ListsAlive();
  OwnedList nested;
  OwnedList parent;
  TQSetHandleValue(parent, "a", nested);
  TQSetHandleValue(parent, "b", nested);
  parent.Close();
  EXPECT_EQ(ListsAlive(), before + 1);
  EXPECT_EQ(TQSetInt32Value(nested, "n", 1), TQ_ERR_OK);
  nested.Close();
  EXPECT_EQ(ListsAlive(), before);
}

// ---- cycles -------------------------------------------------------------------------------------

/// Lists that hold themselves are never freed. They stay reachable from here, so that the leak
/// checker takes these and no others for wanted.
_tag_HTQPARAMLIST g_selfStored;
_tag_HTQPARAMLIST g_pairStored;

TEST(Handles, OfAListThatIsStoredInItselfNeverLetItGo) {
  const uint32_t before = ListsAlive();
  g_selfStored = TQCreateParamList();
  EXPECT_EQ(TQSetHandleValue(g_selfStored, "self", g_selfStored), TQ_ERR_OK);
  EXPECT_EQ(TQCloseHandle(g_selfStored), TQ_ERR_OK);
  EXPECT_EQ(ListsAlive(), before + 1);
  EXPECT_EQ(TQGetHandleById(g_selfStored, 0).impl, g_selfStored.impl);
  EXPECT_EQ(BlockHex(g_selfStored), "07 73 65 6c 66 00 00 04 00 00 00 00");
}

TEST(Handles, OfListsThatAreStoredInEachOtherNeverLetThemGo) {
  const uint32_t before = ListsAlive();
  g_pairStored = TQCreateParamList();
  {
    const OwnedList other;
    TQSetHandleValue(g_pairStored, "other", other);
    TQSetHandleValue(other, "other", g_pairStored);
  }
  TQCloseHandle(g_pairStored);
  EXPECT_EQ(ListsAlive(), before + 2);
}

TEST(Handles, OfAListThatIsTakenOutOfItselfLetItGo) {
  const uint32_t before = ListsAlive();
  const _tag_HTQPARAMLIST list = TQCreateParamList();
  TQSetHandleValue(list, "self", list);
  TQRemoveValue(list, "self");
  EXPECT_EQ(ListsAlive(), before + 1);
  TQCloseHandle(list);
  EXPECT_EQ(ListsAlive(), before);
}

// ---- threads ------------------------------------------------------------------------------------

TEST(Handles, AreReferencedAndClosedFromManyThreads) {
  const uint32_t before = ListsAlive();
  OwnedList list;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([handle = TQReferenceHandle(list)] {
      for (int i = 0; i < 5000; ++i) TQCloseHandle(TQReferenceHandle(handle));
      TQCloseHandle(handle);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ListsAlive(), before + 1);
  list.Close();
  EXPECT_EQ(ListsAlive(), before);
}

TEST(Handles, OfManyThreadsAreAllCounted) {
  const uint32_t before = ListsAlive();
  std::vector<std::thread> threads;
  std::vector<std::vector<_tag_HTQPARAMLIST>> made(4);
  for (auto& lists : made) {
    threads.emplace_back([&lists] {
      for (int i = 0; i < 500; ++i) {
        lists.push_back(TQCreateParamList());
        OwnedList();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ListsAlive(), before + 2000);
  // The last reference may go on any thread.
  for (const auto& lists : made) {
    for (const _tag_HTQPARAMLIST list : lists) TQCloseHandle(list);
  }
  EXPECT_EQ(ListsAlive(), before);
}

// ---- exhaustion ---------------------------------------------------------------------------------

/// Uses the memory up and says what the library makes of it.
TQ_TEST_ROLE(createListsWithoutMemory) {
  if (!LimitAddressSpace(uint64_t{512} << 20)) {
    Say("not limited");
    return 0;
  }
  const OwnedList before;
  const uint32_t alive = ListsAlive();
  std::vector<void*> taken;
  taken.reserve(100000);
  for (uint64_t size = uint64_t{64} << 20; size != 0; size /= 2) {
    while (void* block = TQAllocate(size)) {
      if (taken.size() == taken.capacity()) {
        TQFree(block);
        break;
      }
      taken.push_back(block);
    }
  }
  const bool listRefused = TQCreateParamList().impl == nullptr;
  const bool noneCounted = ListsAlive() == alive;
  bool storeRefused = false;
  try {
    TQSetBinaryValue(before, "a", taken[0], 1 << 20);
  } catch (const std::bad_alloc&) {
    storeRefused = true;
  }
  for (void* block : taken) TQFree(block);
  Say(std::string(listRefused ? "null" : "a list") + (noneCounted ? ", not counted" : ", counted") +
      (storeRefused ? ", bad_alloc" : ", stored"));
  return 0;
}

TEST(Handles, AreNullWhenThereIsNoMemory) {
  ChildProcess child("createListsWithoutMemory");
  const auto line = child.ReadLine();
  ASSERT_TRUE(line);
  // A sanitizer's process cannot be limited.
  EXPECT_TRUE(*line == "null, not counted, bad_alloc" || *line == "not limited") << *line;
  EXPECT_TRUE(child.ExpectSuccess());
}

}  // namespace
}  // namespace TQ::test
