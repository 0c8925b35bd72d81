#include <tq/counted_base.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

namespace MTObjects {
namespace {

/// Opens what the base keeps for its derived classes, and tells when it dies.
class Probe final : public MTReferencedTypeBase {
 public:
  explicit Probe(uint32_t* deathCount = nullptr) : deaths(deathCount) {}
  ~Probe() override {
    if (deaths != nullptr) ++*deaths;
  }

  using MTReferencedTypeBase::AddRef;
  using MTReferencedTypeBase::IsValid;
  using MTReferencedTypeBase::Release;

  /// The counter stands behind the virtual table's address.
  int32_t Count() const {
    int32_t count;
    std::memcpy(&count, reinterpret_cast<const char*>(this) + sizeof(void*), sizeof count);
    return count;
  }

  bool CheckValid() const override {
    ++asked;
    return valid;
  }

  bool valid = true;
  mutable uint32_t asked = 0;

 private:
  uint32_t* deaths;
};

TEST(CountedBase, ANewObjectHasNoReference) {
  const Probe probe;
  EXPECT_EQ(probe.Count(), 0);
}

TEST(CountedBase, TheLastReleaseDestroysTheObject) {
  uint32_t deaths = 0;
  auto* probe = new Probe(&deaths);
  probe->AddRef();
  EXPECT_EQ(probe->Count(), 1);
  probe->AddRef();
  EXPECT_EQ(probe->Count(), 2);
  probe->Release();
  EXPECT_EQ(probe->Count(), 1);
  EXPECT_EQ(deaths, 0u);
  probe->Release();
  EXPECT_EQ(deaths, 1u);
}

TEST(CountedBase, AReleaseWithoutReferenceIsNotGuarded) {
  // The count goes below 0 and nothing is destroyed; only a release of exactly 1 does that.
  uint32_t deaths = 0;
  {
    Probe probe(&deaths);
    probe.Release();
    EXPECT_EQ(probe.Count(), -1);
    probe.Release();
    EXPECT_EQ(probe.Count(), -2);
    probe.AddRef();
    EXPECT_EQ(probe.Count(), -1);
    EXPECT_EQ(deaths, 0u);
  }
  EXPECT_EQ(deaths, 1u);
}

TEST(CountedBase, IsValidAsksCheckValid) {
  Probe probe;
  const Probe& constant = probe;
  EXPECT_TRUE(probe.IsValid());
  EXPECT_TRUE(constant.IsValid());
  probe.valid = false;
  EXPECT_FALSE(probe.IsValid());
  EXPECT_FALSE(constant.IsValid());
  EXPECT_EQ(probe.asked, 4u);
}

TEST(CountedBase, TheObjectDiesThroughItsOwnDestructorAndDelete) {
  static uint32_t deletes = 0;
  struct WithDelete : MTReferencedTypeBase {
    using MTReferencedTypeBase::AddRef;
    using MTReferencedTypeBase::Release;
    static void* operator new(std::size_t size) { return ::operator new(size); }
    static void operator delete(void* object) {
      ++deletes;
      ::operator delete(object);
    }
    bool CheckValid() const override { return true; }
  };
  auto* object = new WithDelete();
  object->AddRef();
  object->Release();
  EXPECT_EQ(deletes, 1u);
}

TEST(CountedBase, CountsReferencesOfManyThreads) {
  uint32_t deaths = 0;
  auto* probe = new Probe(&deaths);
  probe->AddRef();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    probe->AddRef();
    threads.emplace_back([probe] {
      for (int i = 0; i < 10000; ++i) {
        probe->AddRef();
        probe->Release();
      }
      probe->Release();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(probe->Count(), 1);
  EXPECT_EQ(deaths, 0u);
  probe->Release();
  EXPECT_EQ(deaths, 1u);
}

TEST(CountedBase, DiesOnceOnWhicheverThreadReleasesLast) {
  for (int round = 0; round < 200; ++round) {
    uint32_t deaths = 0;
    auto* probe = new Probe(&deaths);
    probe->AddRef();
    probe->AddRef();
    std::thread other([probe] { probe->Release(); });
    probe->Release();
    other.join();
    ASSERT_EQ(deaths, 1u);
  }
}

}  // namespace
}  // namespace MTObjects
