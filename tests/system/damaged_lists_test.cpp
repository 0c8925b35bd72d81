// Lists with every byte damaged and cut anywhere, sent by a peer in calls to a slot that runs every
// function of lists over what it gets.
#include "support/damaged_lists.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <atomic>
#include <optional>
#include <string>

#include "support/every_list_function.h"
#include "support/hex.h"
#include "system/neighbour.h"

namespace TQ::test {
namespace {

constexpr uint32_t USE_AND_ECHO = 7;

/// A peer that connects again when it has lost its session.
class PersistentPeer final {
 public:
  explicit PersistentPeer(Neighbourhood& neighbourhood) : town(neighbourhood) {}

  ~PersistentPeer() {
    if (!peer) return;
    peer->ShutdownWrite();
    ExpectEnd();
  }

  /// Sends a call that the host is to answer with the same list, nested.
  void ExpectEcho(const RawList& list) {
    ASSERT_TRUE(Connected().SendRequest(++id, RAW_CALL, USE_AND_ECHO, list)) << peer->Problem();
    const auto reply = peer->ReadFrame();
    ASSERT_TRUE(reply) << peer->Problem();
    EXPECT_EQ(ToHex(reply->bytes), ToHex(ReplyBytes(id, RawList().Handle("h", list))));
  }

  /// Sends a call that ends the session.
  void ExpectRefusal(const RawList& list) {
    ASSERT_TRUE(Connected().SendRequest(++id, RAW_CALL, USE_AND_ECHO, list)) << peer->Problem();
    ExpectEnd();
    EXPECT_EQ(town.host.Log().CountOf("Deserialization failed"), 1u) << town.host.Log().Dump();
    town.host.Log().Clear();
  }

 private:
  RawPeer& Connected() {
    if (!peer) {
      name = "evil:" + std::to_string(++sessions) + "/raw";
      peer.emplace(town.host.Admit(name));
    }
    return *peer;
  }

  void ExpectEnd() {
    EXPECT_TRUE(town.host.WaitForEnd(name)) << town.host.Log().Dump();
    EXPECT_TRUE(peer->WaitClosed()) << peer->Problem();
    peer.reset();
  }

  Neighbourhood& town;
  std::optional<RawPeer> peer;
  std::string name;
  uint32_t sessions = 0;
  uint32_t id = 0;
};

class DamagedListsFromAPeer : public testing::TestWithParam<DamageableList> {};

TEST_P(DamagedListsFromAPeer, AreRefusedOrUsedWithoutHarm) {
  const RawList& whole = GetParam().list;
  std::atomic<uint32_t> answers{0};
  const QuietErrorStream quiet;
  Neighbourhood town;
  ScopedSlot slot(USE_AND_ECHO, [&](const SlotCall& call) {
    answers += RunEveryListFunction(call.params).answers;
    TQSetHandleValue(call.result, "h", call.params);
  });
  {
    PersistentPeer peer(town);
    uint32_t accepted = 0;
    ForEachDamage(whole.Block(), [&](const Bytes& block, const std::string& what) {
      if (HasFailure()) return;
      if (CanBeWalked(block)) {
        peer.ExpectEcho(WithBlock(whole, block));
        ++accepted;
      } else {
        peer.ExpectRefusal(WithBlock(whole, block));
      }
      if (HasFailure()) ADD_FAILURE() << what << ": " << ToHex(block);
    });
    EXPECT_EQ(slot.Calls(), accepted);
    EXPECT_GT(accepted, whole.BlockSize());
  }
  EXPECT_GT(answers, 0u);
  town.ExpectUnharmed();
}

INSTANTIATE_TEST_SUITE_P(OfEveryType, DamagedListsFromAPeer, testing::ValuesIn(DamageableLists()),
                         [](const auto& list) { return list.param.name; });

}  // namespace
}  // namespace TQ::test
