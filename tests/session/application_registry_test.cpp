// The registry of sessions by name: keys and their order, references, and what a look-up costs.
#include "session/application_registry.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "session/session.h"

namespace {

// Allocations of the process, counted while a test wants to know.
std::atomic<bool> g_counting{false};
std::atomic<size_t> g_allocations{0};

void* CountedAllocation(std::size_t size) noexcept {
  if (g_counting) ++g_allocations;
  return std::malloc(size != 0 ? size : 1);
}

// Not inlined, or a compiler that sees the one half of a pair alone takes it for a mistake.
[[gnu::noinline]] void Free(void* block) noexcept { std::free(block); }

}  // namespace

void* operator new(std::size_t size) {
  if (void* block = CountedAllocation(size)) return block;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return CountedAllocation(size);
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return CountedAllocation(size);
}
void operator delete(void* block) noexcept { Free(block); }
void operator delete(void* block, std::size_t) noexcept { Free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { Free(block); }
void operator delete[](void* block) noexcept { Free(block); }
void operator delete[](void* block, std::size_t) noexcept { Free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { Free(block); }

namespace TQ::test {
namespace {

using detail::ApplicationKey;
using detail::ApplicationRegistry;
using detail::SessionRef;

SessionRef NewSession() { return SessionRef(new TQAPPImpl()); }

uint32_t SessionsAlive() { return DEBUG_TQObjectCount().sessions; }

TEST(ApplicationRegistry, IsEmptyAtLoad) {
  EXPECT_EQ(detail::g_applications.Size(), 0u);
  EXPECT_FALSE(detail::g_applications.First());
  EXPECT_FALSE(detail::g_applications.Find(""));
  EXPECT_FALSE(detail::g_applications.Find("host:1/app"));
}

TEST(ApplicationRegistry, FindsASessionByItsExactName) {
  ApplicationRegistry registry;
  const SessionRef session = NewSession();
  registry.Set("Host:1/App", session);
  EXPECT_EQ(registry.Size(), 1u);
  EXPECT_EQ(registry.Find("Host:1/App"), session);
  for (const char* other :
       {"", "Host:1/Ap", "Host:1/App2", "host:1/App", "Host:1/app", "Host:01/App", "Host:1//App"}) {
    EXPECT_FALSE(registry.Find(other)) << other;
  }
}

TEST(ApplicationRegistry, KeepsACopyOfTheName) {
  ApplicationRegistry registry;
  std::string name = "host:1/app";
  registry.Set(name, NewSession());
  std::fill(name.begin(), name.end(), 'x');
  EXPECT_TRUE(registry.Find("host:1/app"));
  EXPECT_FALSE(registry.Find(name.c_str()));
}

TEST(ApplicationRegistry, TakesNamesOfAnyLength) {
  ApplicationRegistry registry;
  std::vector<std::pair<std::string, SessionRef>> entries;
  for (const size_t length : {0u, 1u, 254u, 255u, 256u, 257u, 300u, 5000u}) {
    entries.emplace_back(std::string(length, 'n'), NewSession());
    registry.Set(entries.back().first, entries.back().second);
  }
  EXPECT_EQ(registry.Size(), entries.size());
  for (const auto& [name, session] : entries) {
    EXPECT_EQ(registry.Find(name.c_str()), session) << name.size();
    registry.Erase(name);
    EXPECT_FALSE(registry.Find(name.c_str())) << name.size();
  }
  EXPECT_EQ(registry.Size(), 0u);
}

TEST(ApplicationRegistry, HoldsAReferenceToEachSession) {
  ApplicationRegistry registry;
  registry.Set("a", NewSession());
  EXPECT_EQ(SessionsAlive(), 1u);
  registry.Erase("a");
  EXPECT_EQ(SessionsAlive(), 0u);
}

TEST(ApplicationRegistry, GivesALookUpAReferenceOfItsOwn) {
  ApplicationRegistry registry;
  registry.Set("a", NewSession());
  SessionRef found = registry.Find("a");
  SessionRef first = registry.First();
  EXPECT_EQ(found, first);
  registry.Erase("a");
  EXPECT_EQ(SessionsAlive(), 1u);
  found.Reset();
  EXPECT_EQ(SessionsAlive(), 1u);
  first.Reset();
  EXPECT_EQ(SessionsAlive(), 0u);
}

TEST(ApplicationRegistry, LetsANewSessionTakeANameOver) {
  ApplicationRegistry registry;
  const SessionRef newer = NewSession();
  registry.Set("a", NewSession());
  registry.Set("a", newer);
  EXPECT_EQ(registry.Size(), 1u);
  EXPECT_EQ(registry.Find("a"), newer);
  EXPECT_EQ(SessionsAlive(), 1u);
}

TEST(ApplicationRegistry, TakesNoSecondReferenceToTheSessionThatHasTheName) {
  ApplicationRegistry registry;
  SessionRef session = NewSession();
  registry.Set("a", session);
  registry.Set("a", session);
  EXPECT_EQ(registry.Size(), 1u);
  registry.Erase("a");
  EXPECT_EQ(SessionsAlive(), 1u);
  session.Reset();
  EXPECT_EQ(SessionsAlive(), 0u);
}

TEST(ApplicationRegistry, KeepsOneSessionUnderTwoNames) {
  ApplicationRegistry registry;
  registry.Set("a", NewSession());
  registry.Set("b", registry.Find("a"));
  EXPECT_EQ(registry.Size(), 2u);
  registry.Erase("a");
  EXPECT_EQ(SessionsAlive(), 1u);
  registry.Erase("b");
  EXPECT_EQ(SessionsAlive(), 0u);
}

TEST(ApplicationRegistry, ErasesByTheNameWhicheverSessionHasIt) {
  ApplicationRegistry registry;
  const SessionRef older = NewSession();
  const SessionRef newer = NewSession();
  registry.Set("a", older);
  registry.Set("a", newer);
  // The end of the older one.
  registry.Erase("a");
  EXPECT_FALSE(registry.Find("a"));
  EXPECT_EQ(registry.Size(), 0u);
}

TEST(ApplicationRegistry, ErasesNothingUnderAnUnknownName) {
  ApplicationRegistry registry;
  registry.Set("b", NewSession());
  registry.Erase("a");
  registry.Erase("c");
  registry.Erase("");
  EXPECT_EQ(registry.Size(), 1u);
  EXPECT_TRUE(registry.Find("b"));
}

TEST(ApplicationRegistry, OrdersNamesAsUnsignedBytesWithPrefixesFirst) {
  // In the wanted order; inserted from the back and from the middle.
  const std::vector<std::string> ordered{"",   "A", "Z",     "a",     "a:1/b", "a:1/bb",
                                         "ab", "b", "z\x7f", "z\x80", "z\xff", "\xff"};
  for (const size_t start : {size_t{0}, ordered.size() / 2}) {
    ApplicationRegistry registry;
    for (size_t i = 0; i < ordered.size(); ++i) {
      registry.Set(ordered[(2 * ordered.size() - 1 - i - start) % ordered.size()], NewSession());
    }
    ASSERT_EQ(registry.Size(), ordered.size());
    for (const std::string& name : ordered) {
      const SessionRef session = registry.Find(name.c_str());
      ASSERT_TRUE(session);
      EXPECT_EQ(registry.First(), session) << name;
      registry.Erase(name);
    }
  }
}

TEST(ApplicationKey, ComparesBorrowedAndOwnedTextsAlike) {
  const ApplicationKey owned(ApplicationKey::Owning{}, "host:1/b");
  EXPECT_STREQ(owned.Text(), "host:1/b");
  EXPECT_LT(ApplicationKey("host:1/a"), owned);
  EXPECT_LT(owned, ApplicationKey("host:1/ba"));
  EXPECT_FALSE(owned < ApplicationKey("host:1/b"));
  EXPECT_FALSE(ApplicationKey("host:1/b") < owned);
}

TEST(ApplicationKey, BorrowsTheCallersString) {
  const char text[] = "host:1/a";
  EXPECT_EQ(ApplicationKey(text).Text(), text);
}

TEST(ApplicationRegistry, AllocatesNothingForALookUp) {
  ApplicationRegistry registry;
  const std::string longName(100000, 'n');
  registry.Set("host:1/a", NewSession());
  registry.Set(longName, NewSession());
  g_counting = true;
  size_t found = 0;
  for (int i = 0; i < 100; ++i) {
    found += registry.Find("host:1/a") ? 1 : 0;
    found += registry.Find(longName.c_str()) ? 1 : 0;
    found += registry.Find("host:1/unknown") ? 1 : 0;
    found += registry.First() ? 1 : 0;
  }
  g_counting = false;
  EXPECT_EQ(found, 300u);
  EXPECT_EQ(g_allocations, 0u);
  // The counter works.
  g_counting = true;
  registry.Set("host:1/b", NewSession());
  g_counting = false;
  EXPECT_GT(g_allocations, 0u);
}

TEST(ApplicationRegistry, CanBeEnteredAgainByTheThreadThatHoldsItsLock) {
  ApplicationRegistry registry;
  const SessionRef session = NewSession();
  const detail::LockScope held(registry.applicationsLock);
  registry.Set("a", session);
  EXPECT_EQ(registry.Find("a"), session);
  EXPECT_EQ(registry.FindLocked("a"), session);
  registry.Erase("a");
}

TEST(ApplicationRegistry, ServesManyThreadsAtATime) {
  constexpr int ROUNDS = 2000;
  ApplicationRegistry registry;
  registry.Set("stays", NewSession());
  std::vector<std::thread> threads;
  std::atomic<int> missed{0};
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&registry, &missed, i] {
      const std::string own = "own" + std::to_string(i);
      for (int round = 0; round < ROUNDS; ++round) {
        registry.Set("shared", NewSession());
        registry.Set(own, registry.Find("stays"));
        missed += registry.Find("stays") ? 0 : 1;
        missed += registry.Find(own.c_str()) ? 0 : 1;
        registry.Erase(own);
        (void)registry.Find("shared");
        registry.Erase("shared");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(missed, 0);
  EXPECT_EQ(registry.Size(), 1u);
  EXPECT_EQ(SessionsAlive(), 1u);
}

}  // namespace
}  // namespace TQ::test
