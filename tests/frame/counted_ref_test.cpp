#include "frame/counted_ref.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>
#include <vector>

namespace TQ::detail {
namespace {

uint32_t g_alive = 0;

class Counted : public MTObjects::MTReferencedTypeBase {
 public:
  Counted() { ++g_alive; }
  ~Counted() override { --g_alive; }
  bool CheckValid() const override { return valid; }
  bool valid = true;
  uint32_t value = 7;
};

using Ref = CountedRef<Counted>;

class CountedRefs : public testing::Test {
 protected:
  void SetUp() override { g_alive = 0; }
};

TEST_F(CountedRefs, AreEmptyAtFirst) {
  const Ref made;
  const Ref null = nullptr;
  const Ref fromNull(static_cast<Counted*>(nullptr));
  for (const Ref* ref : {&made, &null, &fromNull}) {
    EXPECT_FALSE(*ref);
    EXPECT_EQ(ref->Get(), nullptr);
    EXPECT_FALSE(ref->IsValid());
  }
}

TEST_F(CountedRefs, TakeAReferenceOfTheirOwnFromARawPointer) {
  auto* object = new Counted();
  {
    const Ref first(object);
    {
      const Ref second(object);
      EXPECT_EQ(second.Get(), object);
    }
    EXPECT_EQ(g_alive, 1u);
    EXPECT_EQ(first->value, 7u);
    EXPECT_EQ((*first).value, 7u);
  }
  EXPECT_EQ(g_alive, 0u);
}

TEST_F(CountedRefs, ShareAnObjectWhenTheyAreCopied) {
  Ref first(new Counted());
  Ref second = first;
  EXPECT_TRUE(first == second);
  first.Reset();
  EXPECT_FALSE(first);
  EXPECT_EQ(g_alive, 1u);
  second = nullptr;
  EXPECT_EQ(g_alive, 0u);
}

TEST_F(CountedRefs, HandTheirReferenceOverWhenTheyAreMoved) {
  Ref first(new Counted());
  Counted* const object = first.Get();
  Ref second = std::move(first);
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): what a move leaves is the question
  EXPECT_TRUE(second == object);
  Ref third;
  third = std::move(second);
  EXPECT_EQ(third.Get(), object);
  EXPECT_EQ(g_alive, 1u);
  third.Reset();
  EXPECT_EQ(g_alive, 0u);
  third.Reset();
  EXPECT_EQ(g_alive, 0u);
}

TEST_F(CountedRefs, ReleaseTheOldObjectWhenTheyAreAssigned) {
  Ref ref(new Counted());
  ref = Ref(new Counted());
  EXPECT_EQ(g_alive, 1u);
  const Ref other(new Counted());
  ref = other;
  EXPECT_EQ(g_alive, 1u);
  EXPECT_TRUE(ref == other);
}

TEST_F(CountedRefs, SurviveTheirAssignmentToThemselves) {
  Ref ref(new Counted());
  Ref& same = ref;
  ref = same;
  EXPECT_EQ(g_alive, 1u);
  EXPECT_EQ(ref->value, 7u);
}

TEST_F(CountedRefs, AdoptAReferenceAndDetachIt) {
  Ref ref(new Counted());
  Counted* const object = ref.Detach();
  EXPECT_FALSE(ref);
  EXPECT_EQ(g_alive, 1u);
  {
    const Ref adopted = Ref::Adopt(object);
    EXPECT_TRUE(adopted == object);
  }
  EXPECT_EQ(g_alive, 0u);
  EXPECT_FALSE(Ref::Adopt(nullptr));
  EXPECT_EQ(Ref().Detach(), nullptr);
}

TEST_F(CountedRefs, AreValidIfTheirObjectSaysSo) {
  const Ref ref(new Counted());
  EXPECT_TRUE(ref.IsValid());
  ref->valid = false;
  EXPECT_FALSE(ref.IsValid());
  EXPECT_TRUE(ref);
}

TEST_F(CountedRefs, CompareByObject) {
  const Ref one(new Counted());
  const Ref other(new Counted());
  EXPECT_FALSE(one == other);
  EXPECT_TRUE(one == Ref(one.Get()));
  EXPECT_TRUE(Ref() == Ref());
  EXPECT_FALSE(one == Ref());
}

/// Holds the reference through which it lives.
struct Chained : Counted {
  CountedRef<Chained> next;
};

TEST_F(CountedRefs, AreEmptyAlreadyWhenTheirObjectDies) {
  // The destructor may come back to the very reference that destroys it.
  static CountedRef<Chained> global;
  struct Looking : Chained {
    ~Looking() override { sawEmpty = !global; }
    static bool& Saw() {
      static bool saw = false;
      return saw;
    }
    bool& sawEmpty = Saw();
  };
  global = CountedRef<Chained>(new Looking());
  global.Reset();
  EXPECT_TRUE(Looking::Saw());
  EXPECT_EQ(g_alive, 0u);
}

TEST_F(CountedRefs, ReleaseAChain) {
  CountedRef<Chained> first(new Chained());
  for (int i = 0; i < 100; ++i) {
    CountedRef<Chained> front(new Chained());
    front->next = std::move(first);
    first = std::move(front);
  }
  EXPECT_EQ(g_alive, 101u);
  first = first->next;
  EXPECT_EQ(g_alive, 100u);
  first.Reset();
  EXPECT_EQ(g_alive, 0u);
}

TEST_F(CountedRefs, LiveInContainers) {
  std::vector<Ref> refs;
  for (int i = 0; i < 20; ++i) refs.emplace_back(new Counted());
  refs.erase(refs.begin() + 3, refs.begin() + 8);
  EXPECT_EQ(g_alive, 15u);
  refs.clear();
  EXPECT_EQ(g_alive, 0u);
}

}  // namespace
}  // namespace TQ::detail
