#include "support/child_process.h"

#include "support/process_info.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <thread>

namespace TQ::test {
namespace {

TQ_TEST_ROLE(echo) {
  for (const std::string& argument : args) {
    Say("argument " + argument);
  }
  while (const auto command = ReadCommand()) {
    Say("got " + *command);
  }
  Say("end of input");
  return 0;
}

TEST(ChildProcess, TalksInLinesWithItsRole) {
  ChildProcess child("echo", {"one", "", "--two=3 4"});
  EXPECT_GT(child.Pid(), 0);
  EXPECT_TRUE(child.ExpectLine("argument one"));
  EXPECT_TRUE(child.ExpectLine("argument "));
  EXPECT_TRUE(child.ExpectLine("argument --two=3 4"));
  EXPECT_TRUE(child.WriteLine("hello"));
  EXPECT_TRUE(child.WriteLine(""));
  EXPECT_TRUE(child.ExpectLine("got hello"));
  EXPECT_TRUE(child.ExpectLine("got "));
  EXPECT_FALSE(child.AtEnd());
  child.CloseInput();
  EXPECT_TRUE(child.ExpectLine("end of input"));
  EXPECT_EQ(child.ReadLine(), std::nullopt);
  EXPECT_TRUE(child.AtEnd());
  EXPECT_TRUE(child.ExpectSuccess());
  EXPECT_FALSE(child.WriteLine("too late"));
}

TEST(ChildProcess, CarriesLinesThatExceedThePipesBuffer) {
  ChildProcess child("echo");
  const std::string text(300000, 'x');
  std::thread writer([&] { EXPECT_TRUE(child.WriteLine(text)); });
  EXPECT_EQ(child.ReadLine(), "got " + text);
  writer.join();
}

TEST(ChildProcess, GivesNoLineWhenTheTimeIsOver) {
  ChildProcess child("echo");
  EXPECT_EQ(child.ReadLine(std::chrono::milliseconds{20}), std::nullopt);
  EXPECT_FALSE(child.AtEnd());
  EXPECT_TRUE(child.IsRunning());
}

TEST(ChildProcess, FailsTheTestForAnotherLine) {
  ChildProcess child("echo", {"one"});
  EXPECT_NONFATAL_FAILURE(child.ExpectLine("argument two"),
                          "role echo: expected the line \"argument two\", got \"argument one\"");
  child.CloseInput();
  EXPECT_TRUE(child.ExpectLine("end of input"));
  EXPECT_NONFATAL_FAILURE(child.ExpectLine("more"), "its output has ended");
}

TEST(ChildProcess, SkipsLinesUpToAPrefix) {
  ChildProcess child("echo", {"one", "two", "three"});
  EXPECT_EQ(child.ReadLineStarting("argument tw"), "argument two");
  child.CloseInput();
  EXPECT_EQ(child.ReadRemainingLines(),
            (std::vector<std::string>{"argument three", "end of input"}));
}

TQ_TEST_ROLE(exitWithCode) { return std::atoi(args.at(0).c_str()); }

TEST(ChildProcess, TellsTheExitCode) {
  ChildProcess child("exitWithCode", {"42"});
  const auto status = child.Wait();
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->exited);
  EXPECT_EQ(status->code, 42);
  EXPECT_FALSE(status->Succeeded());
  EXPECT_FALSE(status->Aborted());
  EXPECT_EQ(child.Wait()->code, 42);
  EXPECT_FALSE(child.IsRunning());
  EXPECT_NONFATAL_FAILURE(child.ExpectSuccess(), "ended with exit code 42");
}

TQ_TEST_ROLE(terminate) {
  std::cerr << "about to terminate" << std::endl;
  std::terminate();
}

TEST(ChildProcess, TellsAnAbortFromAnExit) {
  ChildProcess child("terminate", {}, ErrorOutput::MERGED);
  EXPECT_TRUE(child.ExpectLine("about to terminate"));
  const auto status = child.Wait();
  ASSERT_TRUE(status);
  EXPECT_FALSE(status->exited);
  EXPECT_TRUE(status->Aborted());
}

TEST(ChildProcess, IsKilledOnRequest) {
  ChildProcess child("echo");
  EXPECT_FALSE(child.Wait(std::chrono::milliseconds{20}));
  child.Kill();
  const auto status = child.Wait();
  ASSERT_TRUE(status);
  EXPECT_FALSE(status->exited);
  EXPECT_FALSE(status->Aborted());
}

TEST(ChildProcess, WritesToAnEndedChildWithoutASignal) {
  ChildProcess child("exitWithCode", {"0"});
  EXPECT_TRUE(child.ExpectSuccess());
  EXPECT_FALSE(child.WriteLine("nobody reads this"));
}

TEST(ChildProcess, LeavesNoDescriptorAndNoProcessBehind) {
  const int before = OpenDescriptorCount();
  int64_t pid = 0;
  {
    ChildProcess child("echo");
    pid = child.Pid();
    EXPECT_GT(OpenDescriptorCount(), before);
  }
  EXPECT_EQ(OpenDescriptorCount(), before);
  EXPECT_FALSE(platform::ProcessExists(pid));
}

TEST(ChildProcess, RunsSeveralAtOnceWithPipesOfTheirOwn) {
  ChildProcess first("echo", {"first"});
  ChildProcess second("echo", {"second"});
  EXPECT_TRUE(second.ExpectLine("argument second"));
  EXPECT_TRUE(first.ExpectLine("argument first"));
  first.CloseInput();
  EXPECT_TRUE(first.ExpectLine("end of input"));
  EXPECT_TRUE(first.ExpectSuccess());
  EXPECT_TRUE(second.IsRunning());
}

TEST(ChildProcess, TurnsAnUnknownRoleIntoItsOwnExitCode) {
  ChildProcess child("noSuchRole");
  ASSERT_TRUE(child.Wait());
  EXPECT_EQ(child.Wait()->code, EXIT_UNKNOWN_ROLE);
}

TQ_TEST_ROLE(failsACheck) {
  EXPECT_EQ(1, 2) << "wanted failure";
  Say("still here");
  return 0;
}

TEST(ChildProcess, TurnsAFailedCheckOfTheRoleIntoAnExitCode) {
  ChildProcess child("failsACheck", {}, ErrorOutput::MERGED);
  EXPECT_TRUE(child.ReadLineStarting("wanted failure"));
  EXPECT_TRUE(child.ExpectLine("still here"));
  ASSERT_TRUE(child.Wait());
  EXPECT_EQ(child.Wait()->code, EXIT_FAILED_CHECK);
}

// Starts a role of its own, tells its process id and dies without any clean-up.
TQ_TEST_ROLE(dieAsParent) {
  ChildProcess grandchild("echo", {"started"});
  if (!grandchild.ExpectLine("argument started")) {
    return 1;
  }
  Say(std::to_string(grandchild.Pid()));
  (void)ReadCommand();
  std::_Exit(7);
}

TEST(ChildProcess, EndsWhenItsParentIsGone) {
  ChildProcess parent("dieAsParent");
  const auto line = parent.ReadLine();
  ASSERT_TRUE(line);
  const int64_t grandchild = std::stoll(*line);
  EXPECT_TRUE(platform::ProcessExists(grandchild));
  parent.WriteLine("die");
  ASSERT_TRUE(parent.Wait());
  EXPECT_EQ(parent.Wait()->code, 7);
  EXPECT_TRUE(WaitUntil([&] { return !platform::ProcessExists(grandchild); }));
}

TEST(ChildProcess, OutlivesTheThreadThatStartedIt) {
  std::optional<ChildProcess> child;
  std::thread starter([&] { child.emplace("echo"); });
  starter.join();
  EXPECT_TRUE(child->WriteLine("still there"));
  EXPECT_TRUE(child->ExpectLine("got still there"));
}

TQ_TEST_ROLE(overstayWatchdog) {
  platform::StartWatchdog(std::chrono::milliseconds{20});
  (void)ReadCommand();
  return 0;
}

TEST(ChildProcess, EndsAtTheTimeLimitOfItsWatchdog) {
  ChildProcess child("overstayWatchdog", {}, ErrorOutput::MERGED);
  EXPECT_TRUE(child.ExpectLine("role process: time limit reached"));
  ASSERT_TRUE(child.Wait());
  EXPECT_EQ(child.Wait()->code, platform::EXIT_TIME_LIMIT);
}

}  // namespace
}  // namespace TQ::test
