// The main() of every test executable: the tests, or one role if the process was started for it by
// support/child_process.h ("--role=NAME" and the role's own arguments).
#include "support/child_process.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

int main(int argc, char** argv) {
  constexpr std::string_view ROLE_OPTION = "--role=";
  const std::string_view first = argc > 1 ? argv[1] : "";
  if (first.substr(0, ROLE_OPTION.size()) == ROLE_OPTION) {
    const std::vector<std::string> args(argv + 2, argv + argc);
    // A role's arguments are its own; googletest gets none of them.
    int googleTestArgc = 1;
    testing::InitGoogleTest(&googleTestArgc, argv);
    return TQ::test::RunRole(std::string(first.substr(ROLE_OPTION.size())), args);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
