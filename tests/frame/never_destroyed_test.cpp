#include "frame/never_destroyed.h"

#include "support/child_process.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>

namespace TQ::detail {
namespace {

using test::ChildProcess;
using test::Say;

uint32_t g_constructed = 0;
uint32_t g_destroyed = 0;

struct Probe {
  Probe(int firstValue, std::string secondValue)
      : first(firstValue), second(std::move(secondValue)) {
    ++g_constructed;
  }
  ~Probe() { ++g_destroyed; }
  int first;
  std::string second;
};

TEST(NeverDestroyed, ConstructsItsObjectFromTheArguments) {
  const uint32_t before = g_constructed;
  NeverDestroyed<Probe> probe(7, std::string("text"));
  EXPECT_EQ(probe->first, 7);
  EXPECT_EQ((*probe).second, "text");
  EXPECT_EQ(probe.Get(), &*probe);
  EXPECT_EQ(g_constructed, before + 1);
  probe->~Probe();
}

TEST(NeverDestroyed, LeavesItsObjectAliveAtTheEndOfItsScope) {
  const uint32_t before = g_destroyed;
  { NeverDestroyed<Probe> probe(7, std::string("short")); }
  EXPECT_EQ(g_destroyed, before);
}

TEST(NeverDestroyed, HoldsItsObjectAlignedInItsOwnStorage) {
  struct alignas(64) Aligned {
    uint8_t bytes[64];
  };
  NeverDestroyed<Aligned> aligned;
  EXPECT_EQ(reinterpret_cast<uintptr_t>(aligned.Get()) % 64, 0u);
  EXPECT_EQ(static_cast<void*>(aligned.Get()), static_cast<void*>(&aligned));
}

/// Says something in the exit handlers, when every ordinary static object of this file that was
/// made later is gone.
struct SayAtExit {
  ~SayAtExit();
} g_sayAtExit;

bool g_active = false;
NeverDestroyed<Probe> g_probe(42, std::string("a text that is too long for the string itself"));

struct OrdinaryProbe {
  ~OrdinaryProbe() {
    if (g_active) Say("ordinary one destroyed");
  }
} g_ordinary;

SayAtExit::~SayAtExit() {
  if (!g_active) return;
  Say("probe " + std::to_string(g_probe->first) + " " + g_probe->second);
  Say("destroyed " + std::to_string(g_destroyed));
}

TQ_TEST_ROLE(useAtExit) {
  g_active = true;
  return 0;
}

TEST(NeverDestroyed, CanBeUsedInExitHandlers) {
  ChildProcess child("useAtExit");
  EXPECT_TRUE(child.ExpectLine("ordinary one destroyed"));
  EXPECT_TRUE(child.ExpectLine("probe 42 a text that is too long for the string itself"));
  EXPECT_TRUE(child.ExpectLine("destroyed 0"));
  EXPECT_TRUE(child.ExpectSuccess());
}

}  // namespace
}  // namespace TQ::detail
