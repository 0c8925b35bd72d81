// Every byte of lists of every type damaged, and their blocks cut anywhere: a reader takes just
// what can be walked, and every function of lists deals with what it took.
#include "support/damaged_lists.h"
#include "support/every_list_function.h"
#include "support/param_lists.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace TQ::test {
namespace {

/// Reads `raw` as a peer's list and uses it if it is accepted. True if it was.
bool ReadAndUse(const RawList& raw, FunctionResults* results) {
  const OwnedList list;
  MemoryChannel channel(raw.Stream());
  const detail::ListDescriptor own{raw.BlockSize(), raw.HandleCount()};
  if (detail::ReadParamList(list.Impl(), channel, own, nullptr) < 0) return false;
  EXPECT_EQ(RawOf(list), raw);
  const FunctionResults more = RunEveryListFunction(list);
  results->answers += more.answers;
  results->refusals += more.refusals;
  return true;
}

class DamagedLists : public testing::TestWithParam<DamageableList> {
 protected:
  /// Each damage of the parameter's block, as a list that `around` makes of it.
  void TryEachDamage(const std::function<RawList(const RawList&)>& around) {
    const RawList& whole = GetParam().list;
    const uint32_t before = ListsAlive();
    uint32_t accepted = 0;
    uint32_t refused = 0;
    ForEachDamage(whole.Block(), [&](const Bytes& block, const std::string& what) {
      if (HasFailure()) return;
      const bool taken = ReadAndUse(around(WithBlock(whole, block)), &results);
      EXPECT_EQ(taken, CanBeWalked(block));
      EXPECT_EQ(ListsAlive(), before);
      if (HasFailure()) ADD_FAILURE() << what << ": " << ToHex(block);
      ++(taken ? accepted : refused);
    });
    // Or this test would say nothing.
    EXPECT_GT(accepted, whole.BlockSize());
    EXPECT_GT(refused, whole.BlockSize());
    EXPECT_GT(results.answers, accepted);
  }

  QuietErrorStream quiet;
  FunctionResults results;
};

TEST_P(DamagedLists, AreRefusedOrUsedWithoutHarm) {
  TryEachDamage([](const RawList& damaged) { return damaged; });
}

TEST_P(DamagedLists, InsideOthersAreRefusedOrUsedWithoutHarm) {
  TryEachDamage([](const RawList& damaged) {
    return RawList().Handle("g", RawList()).Handle("h", damaged).Handle("i", RawList());
  });
}

TEST_P(DamagedLists, WhoseStreamEndsTooSoonAreRefused) {
  const RawList& whole = GetParam().list;
  const Bytes stream = whole.Stream();
  const uint32_t before = ListsAlive();
  for (size_t size = 0; size < stream.size(); ++size) {
    const OwnedList list;
    MemoryChannel channel(Prefix(stream, size));
    const detail::ListDescriptor own{whole.BlockSize(), whole.HandleCount()};
    EXPECT_EQ(detail::ReadParamList(list.Impl(), channel, own, nullptr), -1) << size;
  }
  EXPECT_EQ(ListsAlive(), before);
}

TEST_P(DamagedLists, AreAcceptedBeforeTheyAreDamaged) {
  EXPECT_TRUE(ReadAndUse(GetParam().list, &results));
  EXPECT_EQ(results.refusals, 0u);
}

INSTANTIATE_TEST_SUITE_P(OfEveryType, DamagedLists, testing::ValuesIn(DamageableLists()),
                         [](const auto& list) { return list.param.name; });

}  // namespace
}  // namespace TQ::test
