#include "platform/threads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "support/process_info.h"

namespace TQ::test {
namespace {

size_t CountOf(const std::string& name) {
  const std::vector<std::string> names = ThreadNames();
  return static_cast<size_t>(std::count(names.begin(), names.end(), name));
}

TEST(Threads, NameShowsForTheCallingThreadAlone) {
  const size_t before = ThreadNames().size();
  ASSERT_EQ(CountOf("tq-name-test"), 0u);
  std::thread named([&] {
    TQ::platform::SetCurrentThreadName("tq-name-test");
    EXPECT_EQ(CountOf("tq-name-test"), 1u);
    EXPECT_GT(ThreadNames().size(), before);
  });
  named.join();
  EXPECT_EQ(CountOf("tq-name-test"), 0u);
}

TEST(Threads, NameOfFifteenCharactersIsKeptWhole) {
  std::thread named([] {
    TQ::platform::SetCurrentThreadName("exactly-fifteen");
    EXPECT_EQ(CountOf("exactly-fifteen"), 1u);
  });
  named.join();
}

TEST(Threads, NameThatIsTooLongIsNoFailure) {
  std::thread named([] {
    TQ::platform::SetCurrentThreadName("before");
    TQ::platform::SetCurrentThreadName("a-name-of-more-than-fifteen-characters");
    const std::vector<std::string> names = ThreadNames();
    // Refused or cut, as the platform has it, and nothing else is touched.
    EXPECT_EQ(std::count_if(names.begin(), names.end(),
                            [](const std::string& name) {
                              return name == "before" || name.rfind("a-name-of-more", 0) == 0;
                            }),
              1);
  });
  named.join();
}

}  // namespace
}  // namespace TQ::test
