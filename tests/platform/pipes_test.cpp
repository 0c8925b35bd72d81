#include "platform/pipes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/bytes.h"
#include "support/channel_ends.h"
#include "support/child_process.h"
#include "support/free_port.h"
#include "support/hex.h"
#include "support/host_conditions.h"
#include "support/md5.h"
#include "support/platform.h"
#include "support/process_info.h"
#include "support/raw_peer.h"
#include "support/socket_state.h"
#include "support/system_faults.h"
#include "support/transport.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

namespace door = TQ::platform;
using door::PipeAccess;
using door::PipeEnd;
using door::PipeEvent;
using door::PipeStatus;
using door::PipeWait;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Texts = std::vector<std::string>;

constexpr milliseconds SHORT{50};

std::string FreshName() { return PipeName(FreePort()); }

std::string PathOf(const std::string& name) { return door::PIPE_PREFIX + name; }

PipeEnd Create(const std::string& name) {
  return door::CreatePipeEnd(PathOf(name), PipeAccess::READ, 16284);
}

PipeEnd Open(const std::string& name, const PipeEnd* companion = nullptr) {
  return door::OpenPipeEnd(PathOf(name), PipeAccess::WRITE, companion);
}

/// Waits for a peer as the accepting side does.
bool Admit(PipeEnd& pipe, milliseconds limit = DEFAULT_DEADLINE) {
  PipeEvent event;
  const PipeStatus status = door::StartPipeConnect(pipe, event);
  if (status != PipeStatus::PENDING) return status == PipeStatus::DONE;
  return door::WaitPipeEvent(event, static_cast<uint32_t>(limit.count())) == PipeWait::SIGNALLED;
}

/// At most `length` bytes, waiting for them; nullopt at the end of the stream.
std::optional<Bytes> Read(const PipeEnd& pipe, uint32_t length) {
  PipeEvent event;
  Bytes bytes(length);
  uint32_t count = 0;
  if (door::StartPipeRead(pipe, event, bytes.data(), length) == PipeStatus::FAILED ||
      !door::FinishPipeRead(event, &count)) {
    return std::nullopt;
  }
  bytes.resize(count);
  return bytes;
}

bool Write(const PipeEnd& pipe, const Bytes& bytes) {
  uint32_t count = 0;
  return door::WritePipe(pipe, bytes.data(), uint32_t(bytes.size()), &count) &&
         count == bytes.size();
}

/// The system's table may change while it is read.
bool ShowsWaiting(const std::string& part, const Texts& names) {
  return WaitUntil([&] { return platform::WaitingPipes(part) == names; });
}

/// Runs an operation on a thread of its own, which ends with the object.
template <typename Result>
class Running final {
 public:
  explicit Running(std::function<Result()> operation)
      : thread([this, run = std::move(operation)] {
          result = run();
          ended = true;
        }) {}
  ~Running() {
    if (thread.joinable()) thread.join();
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  bool HasEnded() const { return ended; }
  Result Take() {
    thread.join();
    return std::move(result);
  }

 private:
  Result result{};
  std::atomic<bool> ended{false};
  std::thread thread;
};

/// Both ends of one pipe, by the door alone.
struct Pipe {
  explicit Pipe(std::string pipeName = FreshName()) : name(std::move(pipeName)) {
    accepted = Create(name);
    Running<PipeEnd> opener([this] { return Open(name); });
    EXPECT_TRUE(Admit(accepted));
    opened = opener.Take();
    EXPECT_TRUE(opened.IsOpen());
  }

  std::string name;
  PipeEnd accepted;
  PipeEnd opened;
};

/// Says "at once" or nothing by a count: the sockets that were made since the construction.
class SocketCount final {
 public:
  int Made() const { return SocketsMade() - before; }

 private:
  const int before = SocketsMade();
};

// ---- ends --------------------------------------------------------------------------------------

TEST(PipeEnd, OwnsItsHandleAndClosesItOnce) {
  const int before = OpenDescriptorCount();
  PipeEnd none;
  EXPECT_FALSE(none.IsOpen());
  EXPECT_EQ(none.Handle(), door::NO_PIPE);
  {
    PipeEnd first = Create(FreshName());
    ASSERT_TRUE(first.IsOpen());
    const door::PipeHandle handle = first.Handle();
    PipeEnd second(std::move(first));
    EXPECT_FALSE(first.IsOpen());  // NOLINT(bugprone-use-after-move): that is what is asked
    EXPECT_EQ(second.Handle(), handle);
    none = std::move(second);
    EXPECT_EQ(none.Handle(), handle);
    EXPECT_EQ(OpenDescriptorCount(), before + 1);
  }
  EXPECT_EQ(OpenDescriptorCount(), before + 1);
  none.Close();
  EXPECT_FALSE(none.IsOpen());
  EXPECT_EQ(OpenDescriptorCount(), before);
  none.Close();
  EXPECT_EQ(OpenDescriptorCount(), before);
}

// ---- names -------------------------------------------------------------------------------------

TEST(PipeNames, PrefixAndTheBackslashesBehindItAreCut) {
  const std::string name = FreshName();
  for (const std::string& spelling :
       {name, "\\" + name, "\\\\" + name, std::string(10, '\\') + name}) {
    const PipeEnd pipe = Create(spelling);
    ASSERT_TRUE(pipe.IsOpen()) << spelling;
    EXPECT_TRUE(ShowsWaiting(name, Texts{"tq.pipe:" + name})) << spelling;
  }
}

TEST(PipeNames, OneSpellingReachesTheOther) {
  const std::string name = FreshName();
  PipeEnd pipe = Create(name);
  Running<PipeEnd> opener([&] { return Open("\\" + name); });
  EXPECT_TRUE(Admit(pipe));
  const PipeEnd opened = opener.Take();
  ASSERT_TRUE(opened.IsOpen());
  EXPECT_TRUE(Write(opened, Pattern(10)));
  EXPECT_EQ(Read(pipe, 10), Pattern(10));
}

TEST(PipeNames, EverythingElseOfANameIsKept) {
  const std::string name = FreshName();
  for (const std::string& kept :
       {name + "\\inner\\\\more", name + "/a/../b", name + " with blanks ", name + "\xC3\xA4",
        name + "\\", "." + name, name + ":%s"}) {
    const PipeEnd pipe = Create(kept);
    EXPECT_TRUE(ShowsWaiting(name, Texts{"tq.pipe:" + kept}));
  }
}

TEST(PipeNames, CaseCounts) {
  const std::string name = FreshName();
  const PipeEnd lower = Create(name + "abc");
  const PipeEnd upper = Create(name + "ABC");
  EXPECT_TRUE(lower.IsOpen());
  EXPECT_TRUE(upper.IsOpen());
  EXPECT_EQ(platform::OpenPipe(name + "Abc", platform::NO_HANDLE, SHORT), platform::NO_HANDLE);
}

std::string DigestName(const std::string& name) {
  return "tq.pipe#" + ToHex(Md5(ToBytes(name)), "");
}

TEST(PipeNames, UpTo99BytesStandAsTheyAreAndLongerOnesAsTheirDigest) {
  const std::string fresh = FreshName() + "-";
  for (const size_t length : {98u, 99u, 100u, 101u, 200u, 5000u}) {
    const std::string name = fresh + std::string(length - fresh.size(), 'x');
    const PipeEnd pipe = Create("\\" + name);
    ASSERT_TRUE(pipe.IsOpen()) << length;
    const std::string expected = length <= 99 ? "tq.pipe:" + name : DigestName(name);
    EXPECT_TRUE(ShowsWaiting(expected, Texts{expected})) << length;
  }
}

TEST(PipeNames, LongNamesAreToldApartByTheirLastByte) {
  const std::string name = FreshName() + std::string(200, 'y');
  PipeEnd first = Create(name + "1");
  const PipeEnd second = Create(name + "2");
  ASSERT_TRUE(first.IsOpen());
  ASSERT_TRUE(second.IsOpen());
  Running<PipeEnd> opener([&] { return Open("\\" + name + "1"); });
  EXPECT_TRUE(Admit(first));
  EXPECT_TRUE(opener.Take().IsOpen());
}

TEST(PipeNames, LeaveNoFileAndGoWithTheirPipe) {
  const std::string name = FreshName();
  {
    PipeEnd waiting = Create(name + "_waits");
    Pipe connected(name + "_used");
    EXPECT_TRUE(ShowsWaiting(name, Texts{"tq.pipe:" + name + "_waits"}));
    EXPECT_EQ(platform::FilesNamed(name), Texts());
  }
  EXPECT_TRUE(ShowsWaiting(name, Texts()));
  EXPECT_EQ(platform::FilesNamed(name), Texts());
}

// ---- creating ----------------------------------------------------------------------------------

TEST(CreatePipeEnd, BothKindsOfAccessAndEverySizeAreTheSameHere) {
  for (const uint32_t size : {0u, 1u, 16284u, 0xFFFFFFFFu}) {
    const auto inbound = door::CreatePipeEnd(PathOf(FreshName()), PipeAccess::READ, size);
    const auto outbound = door::CreatePipeEnd(PathOf(FreshName()), PipeAccess::WRITE, size);
    EXPECT_TRUE(inbound.IsOpen());
    EXPECT_TRUE(outbound.IsOpen());
  }
}

TEST(CreatePipeEnd, WishForASizeLeavesRoomForManySmallWrites) {
  Pipe pipe;
  Running<bool> writing([&] {
    for (int i = 0; i < 100; ++i) {
      if (!Write(pipe.opened, Pattern(20))) return false;
    }
    return true;
  });
  EXPECT_TRUE(WaitUntil([&] { return writing.HasEnded(); }));
  Bytes all;
  while (all.size() < 2000) Append(all, *Read(pipe.accepted, 2000));
  EXPECT_TRUE(writing.Take());
}

TEST(CreatePipeEnd, NameThatStaysTakenIsTriedForATenthOfASecondAndNoProcessorIsKeptBusy) {
  const std::string name = FreshName();
  const PipeEnd holder = Create(name);
  const int descriptors = OpenDescriptorCount();
  const SocketCount sockets;
  const auto start = steady_clock::now();
  EXPECT_FALSE(Create(name).IsOpen());
  EXPECT_GE(ElapsedMs(start), 100);
  EXPECT_GE(sockets.Made(), 1);
  EXPECT_LE(sockets.Made(), 12) << "a pause of 10 ms between two attempts";
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  EXPECT_TRUE(holder.IsOpen());
}

// On a machine that stands still for a tenth of a second there is one attempt and no second one.
TEST(CreatePipeEnd, NameThatBecomesFreeMeanwhileIsHad) {
  const std::string name = FreshName();
  EXPECT_TRUE(WaitUntil([&] {
    PipeEnd holder = Create(name);
    const SocketCount sockets;
    Running<PipeEnd> creator([&] { return Create(name); });
    EXPECT_TRUE(WaitUntil([&] { return sockets.Made() >= 2; }));
    holder.Close();
    return creator.Take().IsOpen();
  }));
}

TEST(CreatePipeEnd, EveryFailureIsTriedAgainAndLeavesNothingOpen) {
  for (const SystemCall call : {SystemCall::SOCKET, SystemCall::BIND, SystemCall::LISTEN}) {
    EXPECT_TRUE(WaitUntil([&] {
      const int descriptors = OpenDescriptorCount();
      const int failed = FailedCalls(call);
      const std::string name = FreshName();
      FailCalls(call, 2);
      const PipeEnd pipe = Create(name);
      FailCalls(call, 0);
      EXPECT_GE(FailedCalls(call), failed + 1);
      EXPECT_EQ(OpenDescriptorCount(), descriptors + (pipe.IsOpen() ? 1 : 0));
      return pipe.IsOpen() && FailedCalls(call) == failed + 2;
    }));
  }
}

TEST(CreatePipeEnd, FailureThatLastsIsNoPipe) {
  const std::string name = FreshName();
  const int descriptors = OpenDescriptorCount();
  FailCalls(SystemCall::SOCKET, 1000);
  const auto start = steady_clock::now();
  EXPECT_FALSE(Create(name).IsOpen());
  EXPECT_GE(ElapsedMs(start), 100);
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
}

TEST(CreatePipeEnd, NameIsFreeAgainOnceItsPeerWasTaken) {
  Pipe pipe;
  const PipeEnd next = Create(pipe.name);
  EXPECT_TRUE(next.IsOpen());
  EXPECT_TRUE(Write(pipe.opened, Pattern(10)));
  EXPECT_EQ(Read(pipe.accepted, 10), Pattern(10));
}

// ---- the accepting side ------------------------------------------------------------------------

TEST(StartPipeConnect, IsPendingWhenNobodyIsThereAndSignalledWhenSomebodyComes) {
  const std::string name = FreshName();
  PipeEnd pipe = Create(name);
  PipeEvent event;
  ASSERT_EQ(door::StartPipeConnect(pipe, event), PipeStatus::PENDING);
  Running<PipeEnd> opener([&] { return Open(name); });
  EXPECT_EQ(door::WaitPipeEvent(event, door::NO_PIPE_TIME_LIMIT), PipeWait::SIGNALLED);
  const PipeEnd opened = opener.Take();
  ASSERT_TRUE(opened.IsOpen());
  EXPECT_TRUE(Write(opened, Pattern(10)));
  EXPECT_EQ(Read(pipe, 10), Pattern(10));
}

TEST(StartPipeConnect, IsDoneWhenAPeerWasThereFirst) {
  const std::string name = FreshName();
  PipeEnd pipe = Create(name);
  const Running<int64_t> opener([&] {
    const auto opened = platform::OpenPipe(name, platform::NO_HANDLE, DEFAULT_DEADLINE);
    platform::CloseSocket(opened);
    return opened;
  });
  ASSERT_TRUE(WaitUntil([&] { return HasWaitingPeer(pipe.Handle()); }));
  PipeEvent event;
  (void)TakePollLimits();
  EXPECT_EQ(door::StartPipeConnect(pipe, event), PipeStatus::DONE);
  EXPECT_TRUE(TakePollLimits().empty()) << "nothing is waited for";
}

TEST(StartPipeConnect, WaitRunsOutAndMayBeGoneOnWith) {
  const std::string name = FreshName();
  PipeEnd pipe = Create(name);
  PipeEvent event;
  ASSERT_EQ(door::StartPipeConnect(pipe, event), PipeStatus::PENDING);
  const auto start = steady_clock::now();
  EXPECT_EQ(door::WaitPipeEvent(event, 50), PipeWait::TIMED_OUT);
  EXPECT_GE(ElapsedMs(start), 50);
  EXPECT_EQ(door::WaitPipeEvent(event, 0), PipeWait::TIMED_OUT);
  Running<PipeEnd> opener([&] { return Open(name); });
  EXPECT_EQ(door::WaitPipeEvent(event, 20000), PipeWait::SIGNALLED);
  EXPECT_TRUE(opener.Take().IsOpen());
}

TEST(StartPipeConnect, OperationThatWasCancelledCannotBeWaitedFor) {
  PipeEnd pipe = Create(FreshName());
  PipeEvent event;
  EXPECT_EQ(door::WaitPipeEvent(event, 0), PipeWait::FAILED) << "none was started";
  ASSERT_EQ(door::StartPipeConnect(pipe, event), PipeStatus::PENDING);
  door::CancelPipeOperation(pipe, event);
  EXPECT_EQ(door::WaitPipeEvent(event, 0), PipeWait::FAILED);
  uint32_t count = 0;
  EXPECT_FALSE(door::FinishPipeRead(event, &count));
}

TEST(StartPipeConnect, FailsWithTheSystem) {
  const std::string name = FreshName();
  PipeEnd pipe = Create(name);
  PipeEvent event;
  FailCalls(SystemCall::ACCEPT, 1);
  EXPECT_EQ(door::StartPipeConnect(pipe, event), PipeStatus::FAILED);
  ASSERT_EQ(door::StartPipeConnect(pipe, event), PipeStatus::PENDING);
  FailCalls(SystemCall::POLL, 1);
  EXPECT_EQ(door::WaitPipeEvent(event, 20000), PipeWait::FAILED);
  FailCalls(SystemCall::ACCEPT, 1);
  EXPECT_EQ(door::WaitPipeEvent(event, 20000), PipeWait::FAILED);
  FailCalls(SystemCall::DUPLICATE, 1);
  const Running<int64_t> opener([&] {
    const auto opened = platform::OpenPipe(name, platform::NO_HANDLE, DEFAULT_DEADLINE);
    platform::CloseSocket(opened);
    return opened;
  });
  EXPECT_EQ(door::WaitPipeEvent(event, 20000), PipeWait::FAILED);
  EXPECT_EQ(FailedCalls(SystemCall::DUPLICATE), 1);
  EXPECT_EQ(door::WaitPipeEvent(event, 0), PipeWait::TIMED_OUT) << "the peer was let go";
}

TEST(StartPipeConnect, PeerThatHasGoneAgainIsPassedOver) {
  const std::string name = FreshName();
  PipeEnd pipe = Create(name);
  // It leaves without waiting for its grant.
  EXPECT_EQ(platform::OpenPipe(name, platform::NO_HANDLE, milliseconds{0}), platform::NO_HANDLE);
  PipeEvent event;
  ASSERT_EQ(door::StartPipeConnect(pipe, event), PipeStatus::PENDING);
  Running<PipeEnd> opener([&] { return Open(name); });
  EXPECT_EQ(door::WaitPipeEvent(event, 20000), PipeWait::SIGNALLED);
  EXPECT_TRUE(opener.Take().IsOpen());
}

TEST(StartPipeConnect, OfTwoPeersOneIsTakenAndTheOtherTriesAgain) {
  const std::string name = FreshName();
  PipeEnd first = Create(name);
  Running<PipeEnd> one([&] { return Open(name); });
  Running<PipeEnd> other([&] { return Open(name); });
  ASSERT_TRUE(Admit(first));
  ASSERT_TRUE(WaitUntil([&] { return one.HasEnded() || other.HasEnded(); }));
  std::this_thread::sleep_for(SHORT);
  const bool oneCameFirst = one.HasEnded();
  EXPECT_FALSE(one.HasEnded() && other.HasEnded());
  PipeEnd second = Create(name);
  ASSERT_TRUE(Admit(second));
  const PipeEnd ofOne = one.Take();
  const PipeEnd ofOther = other.Take();
  EXPECT_TRUE(Write(ofOne, {1}));
  EXPECT_TRUE(Write(ofOther, {2}));
  EXPECT_EQ(Read(first, 1), Bytes{uint8_t(oneCameFirst ? 1 : 2)});
  EXPECT_EQ(Read(second, 1), Bytes{uint8_t(oneCameFirst ? 2 : 1)});
}

// ---- the second pipe ---------------------------------------------------------------------------

/// A first pipe that is connected, and a second one that waits.
struct SecondPipe {
  SecondPipe() : outName(first.name + "_out"), waiting(Create(outName)) {}

  /// The wait of the accepting side, on a thread of its own.
  std::function<bool()> Await() {
    return [this] { return door::AwaitPipePeer(waiting, first.accepted); };
  }

  Pipe first;
  const std::string outName;
  PipeEnd waiting;
};

TEST(AwaitPipePeer, TakesThePeerOfTheFirstPipe) {
  SecondPipe pipes;
  Running<bool> accepting(pipes.Await());
  const PipeEnd second = Open(pipes.outName, &pipes.first.opened);
  ASSERT_TRUE(second.IsOpen());
  EXPECT_TRUE(accepting.Take());
  EXPECT_TRUE(Write(pipes.waiting, Pattern(10)));
  EXPECT_EQ(Read(second, 10), Pattern(10));
  EXPECT_TRUE(ShowsWaiting(pipes.outName, Texts()));
}

TEST(AwaitPipePeer, WaitsWithoutALimit) {
  SecondPipe pipes;
  (void)TakePollLimits();
  Running<bool> accepting(pipes.Await());
  EXPECT_TRUE(WaitUntil([] {
    const auto limits = TakePollLimits();
    return !limits.empty() && limits[0] == -1;
  }));
  std::this_thread::sleep_for(SHORT);
  EXPECT_FALSE(accepting.HasEnded());
  EXPECT_TRUE(Open(pipes.outName, &pipes.first.opened).IsOpen());
  EXPECT_TRUE(accepting.Take());
}

TEST(AwaitPipePeer, StrangerDoesNotGetIn) {
  SecondPipe pipes;
  Running<bool> accepting(pipes.Await());
  // Neither one without a first pipe, nor one with a first pipe of somebody else.
  EXPECT_EQ(platform::OpenPipe(pipes.outName, platform::NO_HANDLE, DEFAULT_DEADLINE),
            platform::NO_HANDLE);
  Pipe other;
  EXPECT_EQ(platform::OpenPipe(pipes.outName, other.opened.Handle(), DEFAULT_DEADLINE),
            platform::NO_HANDLE);
  EXPECT_FALSE(accepting.HasEnded());
  const PipeEnd second = Open(pipes.outName, &pipes.first.opened);
  EXPECT_TRUE(second.IsOpen());
  EXPECT_TRUE(accepting.Take());
  EXPECT_TRUE(Write(pipes.waiting, Pattern(10)));
  EXPECT_EQ(Read(second, 10), Pattern(10));
}

// Its first pipe belongs to an accepting side that is gone; the names have a new owner.
TEST(AwaitPipePeer, LatePeerOfADeadAcceptingSideDoesNotGetIn) {
  SecondPipe dead;
  const std::string name = dead.first.name;
  dead.waiting.Close();
  dead.first.accepted.Close();
  Pipe renewed(name);
  PipeEnd waiting = Create(dead.outName);
  Running<bool> accepting([&] { return door::AwaitPipePeer(waiting, renewed.accepted); });
  EXPECT_EQ(platform::OpenPipe(dead.outName, dead.first.opened.Handle(), DEFAULT_DEADLINE),
            platform::NO_HANDLE);
  EXPECT_FALSE(accepting.HasEnded());
  EXPECT_TRUE(Open(dead.outName, &renewed.opened).IsOpen());
  EXPECT_TRUE(accepting.Take());
}

TEST(AwaitPipePeer, FailsWithTheSystem) {
  SecondPipe pipes;
  FailCalls(SystemCall::ACCEPT, 1);
  EXPECT_FALSE(pipes.Await()());
  FailCalls(SystemCall::POLL, 1);
  EXPECT_FALSE(pipes.Await()());
  EXPECT_EQ(FailedCalls(SystemCall::POLL), 1);
}

TEST(AwaitPipePeer, PeerWhoseAddressCannotBeToldDoesNotGetIn) {
  SecondPipe pipes;
  Running<bool> accepting(pipes.Await());
  for (const int known : {0, 1}) {
    FailCalls(SystemCall::GET_PEER_NAME, 1, known);
    EXPECT_EQ(platform::OpenPipe(pipes.outName, pipes.first.opened.Handle(), DEFAULT_DEADLINE),
              platform::NO_HANDLE);
  }
  EXPECT_EQ(FailedCalls(SystemCall::GET_PEER_NAME), 2);
  EXPECT_TRUE(Open(pipes.outName, &pipes.first.opened).IsOpen());
  EXPECT_TRUE(accepting.Take());
}

// ---- the connecting side -----------------------------------------------------------------------

TEST(WaitForPipeName, IsTrueAtOnceAndTouchesNothing) {
  const std::string path = PathOf(FreshName());
  const SocketCount sockets;
  EXPECT_TRUE(door::WaitForPipeName(path, 10000));
  EXPECT_EQ(sockets.Made(), 0);
}

TEST(OpenPipeEnd, GivesUpAfterTenSeconds) {
  const std::string name = FreshName();
  const int descriptors = OpenDescriptorCount();
  const SocketCount sockets;
  const auto start = steady_clock::now();
  EXPECT_FALSE(Open(name).IsOpen());
  EXPECT_GE(ElapsedMs(start), 10000);
  EXPECT_LE(sockets.Made(), 502) << "a pause of 20 ms between two attempts";
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
}

TEST(OpenPipeEnd, TimeInTheQueueIsPartOfTheTenSeconds) {
  const std::string name = FreshName();
  const PipeEnd neverTaking = Create(name);
  (void)TakePollLimits();
  const auto start = steady_clock::now();
  EXPECT_FALSE(Open(name).IsOpen());
  EXPECT_GE(ElapsedMs(start), 10000);
  const std::vector<int64_t> limits = TakePollLimits();
  ASSERT_GE(limits.size(), 1u);
  EXPECT_LE(limits[0], 10000000);
  EXPECT_GT(limits[0], 5000000);
}

TEST(OpenPipeEnd, WaitsForANameThatComesLater) {
  const std::string name = FreshName();
  const SocketCount sockets;
  Running<PipeEnd> opener([&] { return Open(name); });
  ASSERT_TRUE(WaitUntil([&] { return sockets.Made() >= 2; }));
  PipeEnd pipe = Create(name);
  EXPECT_TRUE(Admit(pipe));
  EXPECT_TRUE(opener.Take().IsOpen());
}

TEST(OpenPipeEnd, IsNotOpenBeforeItsGrant) {
  const std::string name = FreshName();
  const platform::Handle listener = platform::ListenPipe(name);
  Running<PipeEnd> opener([&] { return Open(name); });
  const auto ungranted = platform::AcceptPipe(listener, DEFAULT_DEADLINE, false);
  ASSERT_NE(ungranted, platform::NO_HANDLE);
  std::this_thread::sleep_for(SHORT);
  EXPECT_FALSE(opener.HasEnded());
  // Closed without a grant, it tries again.
  platform::CloseSocket(ungranted);
  const auto granted = platform::AcceptPipe(listener, DEFAULT_DEADLINE);
  const PipeEnd opened = opener.Take();
  ASSERT_TRUE(opened.IsOpen());
  EXPECT_TRUE(Write(opened, {1, 2}));
  Bytes bytes(2);
  EXPECT_EQ(platform::ReceiveSome(granted, bytes.data(), 2, DEFAULT_DEADLINE).count, 2u);
  EXPECT_EQ(bytes, (Bytes{1, 2})) << "the grant is no part of the stream";
  platform::CloseSocket(granted);
  platform::CloseSocket(listener);
}

TEST(OpenPipeEnd, GrantIsNoPartOfTheStream) {
  const std::string name = FreshName();
  const platform::Handle listener = platform::ListenPipe(name);
  Running<PipeEnd> opener(
      [&] { return door::OpenPipeEnd(PathOf(name), PipeAccess::READ, nullptr); });
  RawPeer peer(platform::AcceptPipe(listener, DEFAULT_DEADLINE));
  const PipeEnd opened = opener.Take();
  ASSERT_TRUE(opened.IsOpen());
  ASSERT_TRUE(peer.SendBytes(Pattern(10)));
  EXPECT_EQ(Read(opened, 10), Pattern(10));
  platform::CloseSocket(listener);
}

// The accepting side may take the peer at the moment at which that gives up. It would wait for the
// second pipe of a peer that is not coming.
TEST(OpenPipeEnd, GrantThatComesAsTheWaitEndsCounts) {
  const std::string name = FreshName();
  const platform::Handle listener = platform::ListenPipe(name);
  platform::Handle accepted = platform::NO_HANDLE;
  BeforePoll([&] {
    if (accepted == platform::NO_HANDLE) accepted = platform::AcceptPipe(listener, SHORT);
  });
  FailCalls(SystemCall::POLL, 1);  // as if the time had run out
  const SocketCount sockets;
  const PipeEnd opened = Open(name);
  EXPECT_EQ(sockets.Made(), 1);
  ASSERT_TRUE(opened.IsOpen());
  BeforePoll(nullptr);
  EXPECT_TRUE(Write(opened, Pattern(10)));
  RawPeer peer(accepted);
  EXPECT_EQ(peer.ReceiveExactly(10), Pattern(10));
  platform::CloseSocket(listener);
}

TEST(OpenPipeEnd, PeerThatHasGivenUpIsNotTaken) {
  const std::string name = FreshName();
  const platform::Handle listener = platform::ListenPipe(name);
  FailCalls(SystemCall::POLL, 1);
  Running<PipeEnd> opener([&] { return Open(name); });
  ASSERT_TRUE(WaitUntil([&] { return FailedCalls(SystemCall::POLL) == 1; }));
  // The attempt that gave up is passed over, and the next one is taken.
  RawPeer peer(platform::AcceptPipe(listener, DEFAULT_DEADLINE));
  const PipeEnd opened = opener.Take();
  ASSERT_TRUE(opened.IsOpen());
  EXPECT_TRUE(Write(opened, Pattern(10)));
  EXPECT_EQ(peer.ReceiveExactly(10), Pattern(10));
  platform::CloseSocket(listener);
}

TEST(OpenPipeEnd, SecondPipeFailsAtOnceWhenTheFirstHasHungUp) {
  Pipe first;
  first.accepted.Close();
  const SocketCount sockets;
  EXPECT_FALSE(Open(first.name + "_out", &first.opened).IsOpen());
  EXPECT_EQ(sockets.Made(), 1);
}

TEST(OpenPipeEnd, SecondPipeIsGivenUpWhenTheFirstHangsUpMeanwhile) {
  SecondPipe pipes;
  const SocketCount sockets;
  const platform::Handle queued = pipes.waiting.Handle();
  Running<PipeEnd> opener([&] { return Open(pipes.outName, &pipes.first.opened); });
  ASSERT_TRUE(WaitUntil([&] { return HasWaitingPeer(queued); }));
  pipes.first.accepted.Close();
  pipes.waiting.Close();
  EXPECT_FALSE(opener.Take().IsOpen());
  EXPECT_EQ(sockets.Made(), 1);
}

// The name of the second may have another owner by then, who takes nobody yet.
TEST(OpenPipeEnd, SecondPipeIsGivenUpInItsQueueWhenTheFirstHangsUp) {
  SecondPipe pipes;
  const SocketCount sockets;
  Running<PipeEnd> opener([&] { return Open(pipes.outName, &pipes.first.opened); });
  ASSERT_TRUE(WaitUntil([&] { return HasWaitingPeer(pipes.waiting.Handle()); }));
  const int expired = ExpiredPolls();
  pipes.first.accepted.Close();
  EXPECT_FALSE(opener.Take().IsOpen());
  EXPECT_EQ(sockets.Made(), 1);
  EXPECT_EQ(ExpiredPolls(), expired) << "the limit of the wait has nothing to do with it";
}

TEST(OpenPipeEnd, SecondPipeIsWaitedForWhileTheFirstStands) {
  Pipe first;
  const SocketCount sockets;
  Running<PipeEnd> opener([&] { return Open(first.name + "_out", &first.opened); });
  ASSERT_TRUE(WaitUntil([&] { return sockets.Made() >= 2; }));
  PipeEnd second = Create(first.name + "_out");
  EXPECT_TRUE(door::AwaitPipePeer(second, first.accepted));
  EXPECT_TRUE(opener.Take().IsOpen());
}

TEST(OpenPipeEnd, EveryFailureIsTriedAgainAndLeavesNothingOpen) {
  for (const SystemCall call : {SystemCall::SOCKET, SystemCall::BIND, SystemCall::CONNECT,
                                SystemCall::GET_OPTION, SystemCall::POLL}) {
    const std::string name = FreshName();
    const platform::Handle listener = platform::ListenPipe(name);
    const int descriptors = OpenDescriptorCount();
    FailCalls(call, 1);
    std::optional<PipeEnd> opened;
    {
      Running<PipeEnd> opener([&] { return Open(name); });
      // An attempt that has failed behind its connect stands in the queue and is gone.
      ASSERT_TRUE(WaitUntil([&] {
        platform::CloseSocket(platform::AcceptPipe(listener, SHORT));
        return opener.HasEnded();
      }));
      opened = opener.Take();
    }
    EXPECT_TRUE(opened->IsOpen());
    EXPECT_GE(FailedCalls(call), 1);
    opened.reset();
    EXPECT_EQ(OpenDescriptorCount(), descriptors);
    platform::CloseSocket(listener);
  }
}

TEST(OpenPipeEnd, SecondPipeNeedsTheAddressOfTheFirst) {
  SecondPipe pipes;
  Running<bool> accepting(pipes.Await());
  FailCalls(SystemCall::GET_SOCKET_NAME, 1);
  EXPECT_TRUE(Open(pipes.outName, &pipes.first.opened).IsOpen()) << "at the second attempt";
  EXPECT_EQ(FailedCalls(SystemCall::GET_SOCKET_NAME), 1);
  EXPECT_TRUE(accepting.Take());
}

// ---- other users -------------------------------------------------------------------------------

unsigned OtherUser() { return OwnUser() + 12345; }

TEST(PipeUsers, PeerOfAnotherUserIsPassedOverAsIfNobodyHadCome) {
  const std::string name = FreshName();
  PipeEnd pipe = Create(name);
  PeersBelongTo(OtherUser(), 1);
  Running<int64_t> refused(
      [&] { return int64_t{platform::OpenPipe(name, platform::NO_HANDLE, DEFAULT_DEADLINE)}; });
  ASSERT_TRUE(WaitUntil([&] { return HasWaitingPeer(pipe.Handle()); }));
  PipeEvent event;
  EXPECT_EQ(door::StartPipeConnect(pipe, event), PipeStatus::PENDING);
  EXPECT_EQ(refused.Take(), platform::NO_HANDLE) << "closed without a grant";
  EXPECT_EQ(PeerAnswersLeft(), 0);
  Running<PipeEnd> opener([&] { return Open(name); });
  EXPECT_EQ(door::WaitPipeEvent(event, 20000), PipeWait::SIGNALLED);
  EXPECT_TRUE(opener.Take().IsOpen());
}

TEST(PipeUsers, StrangersThatComeWithoutEndDoNotProlongTheWait) {
  const std::string name = FreshName();
  PipeEnd pipe = Create(name);
  PeersBelongTo(OtherUser(), 1000000);
  std::atomic<bool> over{false};
  std::thread stranger([&] {
    while (!over) {
      platform::CloseSocket(
          platform::OpenPipe(name, platform::NO_HANDLE, std::chrono::milliseconds{0}));
    }
  });
  // Each wait finds the next stranger in the queue.
  BeforePoll([&] { (void)WaitUntil([&] { return over || HasWaitingPeer(pipe.Handle()); }); });
  PipeEvent event;
  EXPECT_EQ(door::StartPipeConnect(pipe, event), PipeStatus::PENDING);
  EXPECT_EQ(door::WaitPipeEvent(event, 100), PipeWait::TIMED_OUT);
  over = true;
  stranger.join();
  BeforePoll(nullptr);
}

TEST(PipeUsers, PeerWhoseUserCannotBeToldIsPassedOver) {
  const std::string name = FreshName();
  PipeEnd pipe = Create(name);
  Running<int64_t> refused(
      [&] { return int64_t{platform::OpenPipe(name, platform::NO_HANDLE, DEFAULT_DEADLINE)}; });
  ASSERT_TRUE(WaitUntil([&] { return HasWaitingPeer(pipe.Handle()); }));
  FailCalls(SystemCall::GET_OPTION, 1);
  PipeEvent event;
  EXPECT_EQ(door::StartPipeConnect(pipe, event), PipeStatus::PENDING);
  EXPECT_EQ(refused.Take(), platform::NO_HANDLE);
}

TEST(PipeUsers, PipeOfAnotherUserIsNotOpened) {
  const std::string name = FreshName();
  const platform::Handle listener = platform::ListenPipe(name);
  PeersBelongTo(OtherUser(), 3);
  const SocketCount sockets;
  Running<PipeEnd> opener([&] { return Open(name); });
  // It hangs up before it looks for the grant, three times, and is then content.
  EXPECT_TRUE(WaitUntil([&] {
    platform::CloseSocket(platform::AcceptPipe(listener, SHORT));
    return opener.HasEnded();
  }));
  EXPECT_TRUE(opener.Take().IsOpen());
  EXPECT_EQ(PeerAnswersLeft(), 0);
  EXPECT_GE(sockets.Made(), 4);
  platform::CloseSocket(listener);
}

TEST(PipeUsers, RootIsWelcomeOnBothSides) {
  const std::string name = FreshName();
  PipeEnd pipe = Create(name);
  PeersBelongTo(0, 2);
  Running<PipeEnd> opener([&] { return Open(name); });
  EXPECT_TRUE(Admit(pipe));
  EXPECT_TRUE(opener.Take().IsOpen());
  EXPECT_EQ(PeerAnswersLeft(), 0);
}

// A process of another user. "pipe NAME" makes a pipe and takes a peer, "open NAME" opens one.
TQ_TEST_ROLE(otherUser) {
  if (!platform::BecomeOtherUser()) return 1;
  Say("user");
  const std::string& name = args.at(1);
  if (args.at(0) == "pipe") {
    PipeEnd pipe = Create(name);
    Say(pipe.IsOpen() ? "waits" : "no pipe");
    if (Admit(pipe)) Say("admitted");
  } else {
    Say(Open(name).IsOpen() ? "open" : "not open");
  }
  return 0;
}

bool CanChangeTheUser() { return OwnUser() == 0; }

TEST(PipeUsers, RealPeerOfAnotherUserIsPassedOverByRoot) {
  if (!CanChangeTheUser()) GTEST_SKIP() << "only root can become another user";
  const std::string name = FreshName();
  PipeEnd pipe = Create(name);
  ChildProcess child("otherUser", {"open", name});
  ASSERT_TRUE(child.ExpectLine("user"));
  PipeEvent event;
  PipeStatus status = door::StartPipeConnect(pipe, event);
  // Turned away again and again, for the ten seconds of its open.
  std::optional<std::string> answer;
  ASSERT_TRUE(WaitUntil([&] {
    status = door::StartPipeConnect(pipe, event);
    answer = child.ReadLine(milliseconds{1});
    return answer.has_value() || status != PipeStatus::PENDING;
  }));
  EXPECT_EQ(status, PipeStatus::PENDING);
  EXPECT_EQ(answer, "not open");
  EXPECT_TRUE(child.ExpectSuccess());
}

TEST(PipeUsers, RealPipeOfAnotherUserIsNotOpenedByRootWhichIsWelcomeItself) {
  if (!CanChangeTheUser()) GTEST_SKIP() << "only root can become another user";
  const std::string name = FreshName();
  ChildProcess child("otherUser", {"pipe", name});
  ASSERT_TRUE(child.ExpectLine("user"));
  ASSERT_TRUE(child.ExpectLine("waits"));
  EXPECT_FALSE(Open(name).IsOpen());
  // It was taken for a peer if it was seen before it hung up; one that stays is for certain.
  platform::CloseSocket(platform::OpenPipe(name, platform::NO_HANDLE, DEFAULT_DEADLINE));
  EXPECT_TRUE(child.ExpectLine("admitted"));
  EXPECT_TRUE(child.ExpectSuccess());
}

// ---- transfers ---------------------------------------------------------------------------------

TEST(PipeTransfers, ReadOfWhatIsThereIsDoneAtOnceAndTakesNoMoreThanAsked) {
  Pipe pipe;
  ASSERT_TRUE(Write(pipe.opened, Pattern(10)));
  PipeEvent event;
  Bytes bytes(20, 0xEE);
  uint32_t count = 0;
  EXPECT_EQ(door::StartPipeRead(pipe.accepted, event, bytes.data(), 4), PipeStatus::DONE);
  EXPECT_TRUE(door::FinishPipeRead(event, &count));
  EXPECT_EQ(count, 4u);
  EXPECT_EQ(Prefix(bytes, 5), Concat({Prefix(Pattern(10), 4), {0xEE}}));
  EXPECT_EQ(door::StartPipeRead(pipe.accepted, event, bytes.data(), 20), PipeStatus::DONE);
  EXPECT_TRUE(door::FinishPipeRead(event, &count));
  EXPECT_EQ(count, 6u);
}

TEST(PipeTransfers, PendingReadIsSignalledByDataAndFinishedWithThem) {
  Pipe pipe;
  PipeEvent event;
  Bytes bytes(4, 0xEE);
  ASSERT_EQ(door::StartPipeRead(pipe.accepted, event, bytes.data(), 4), PipeStatus::PENDING);
  const auto start = steady_clock::now();
  EXPECT_EQ(door::WaitPipeEvent(event, 50), PipeWait::TIMED_OUT);
  EXPECT_GE(ElapsedMs(start), 50);
  ASSERT_TRUE(Write(pipe.opened, {1, 2}));
  EXPECT_EQ(door::WaitPipeEvent(event, 20000), PipeWait::SIGNALLED);
  uint32_t count = 0;
  EXPECT_TRUE(door::FinishPipeRead(event, &count));
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(bytes, (Bytes{1, 2, 0xEE, 0xEE}));
  EXPECT_FALSE(door::FinishPipeRead(event, &count)) << "once";
}

TEST(PipeTransfers, FinishWaitsForAReadThatHasNotEnded) {
  Pipe pipe;
  PipeEvent event;
  Bytes bytes(4);
  ASSERT_EQ(door::StartPipeRead(pipe.accepted, event, bytes.data(), 4), PipeStatus::PENDING);
  uint32_t count = 0;
  Running<bool> finishing([&] { return door::FinishPipeRead(event, &count); });
  std::this_thread::sleep_for(SHORT);
  EXPECT_FALSE(finishing.HasEnded());
  ASSERT_TRUE(Write(pipe.opened, Pattern(4)));
  EXPECT_TRUE(finishing.Take());
  EXPECT_EQ(count, 4u);
  EXPECT_EQ(bytes, Pattern(4));
}

TEST(PipeTransfers, CancelledReadTakesNothing) {
  Pipe pipe;
  PipeEvent event;
  Bytes bytes(4, 0xEE);
  ASSERT_EQ(door::StartPipeRead(pipe.accepted, event, bytes.data(), 4), PipeStatus::PENDING);
  door::CancelPipeOperation(pipe.accepted, event);
  ASSERT_TRUE(Write(pipe.opened, Pattern(4)));
  uint32_t count = 0;
  EXPECT_FALSE(door::FinishPipeRead(event, &count));
  EXPECT_EQ(door::WaitPipeEvent(event, 0), PipeWait::FAILED);
  EXPECT_EQ(bytes, Bytes(4, 0xEE));
  EXPECT_EQ(Read(pipe.accepted, 4), Pattern(4)) << "the event serves the next one";
}

TEST(PipeTransfers, CloseOfTheWriterFailsTheReadAtItsStartOrAtItsEnd) {
  Pipe pipe;
  PipeEvent event;
  Bytes bytes(4);
  ASSERT_EQ(door::StartPipeRead(pipe.accepted, event, bytes.data(), 4), PipeStatus::PENDING);
  pipe.opened.Close();
  EXPECT_EQ(door::WaitPipeEvent(event, 20000), PipeWait::SIGNALLED);
  uint32_t count = 0;
  EXPECT_FALSE(door::FinishPipeRead(event, &count));
  EXPECT_EQ(door::StartPipeRead(pipe.accepted, event, bytes.data(), 4), PipeStatus::FAILED);
}

TEST(PipeTransfers, WriteWaitsForRoom) {
  Pipe pipe;
  const Bytes large = Pattern(size_t{4} << 20);
  Running<bool> writing([&] { return Write(pipe.opened, large); });
  std::this_thread::sleep_for(SHORT);
  EXPECT_FALSE(writing.HasEnded());
  Bytes all;
  while (all.size() < large.size()) Append(all, *Read(pipe.accepted, 1 << 20));
  EXPECT_TRUE(all == large);
  EXPECT_TRUE(writing.Take());
}

TEST(PipeTransfers, AcceptedSideWritesAndWaitsForRoomToo) {
  Pipe pipe;
  const Bytes large = Pattern(size_t{4} << 20);
  Running<bool> writing([&] { return Write(pipe.accepted, large); });
  Bytes all;
  while (all.size() < large.size()) Append(all, *Read(pipe.opened, 1 << 20));
  EXPECT_TRUE(all == large);
  EXPECT_TRUE(writing.Take());
}

TEST(PipeTransfers, WriteToAClosedPeerFailsAndEndsNothing) {
  Pipe pipe;
  const SignalState before = SignalState::Current();
  pipe.accepted.Close();
  uint32_t count = 77;
  EXPECT_FALSE(door::WritePipe(pipe.opened, "x", 1, &count));
  EXPECT_EQ(count, 77u);
  Pipe other;
  other.opened.Close();
  EXPECT_FALSE(Write(other.accepted, {1}));
  EXPECT_EQ(SignalState::Current(), before);
}

TEST(PipeTransfers, WhatWasWrittenIsReadBehindTheClose) {
  Pipe pipe;
  ASSERT_TRUE(Write(pipe.opened, Pattern(100)));
  pipe.opened.Close();
  EXPECT_EQ(Read(pipe.accepted, 200), Pattern(100));
  EXPECT_EQ(Read(pipe.accepted, 200), std::nullopt);
}

// ---- a difficult host --------------------------------------------------------------------------

TEST(PipesInAHost, NothingIsInherited) {
  SecondPipe pipes;
  const PipeEnd waiting = Create(FreshName());
  for (const platform::Handle end : platform::OpenPipeEnds()) EXPECT_FALSE(IsInheritable(end));
  EXPECT_EQ(platform::OpenPipeEnds().size(), 4u);
  EXPECT_FALSE(IsInheritable(pipes.first.accepted.Handle()));
}

TEST(PipesInAHost, StreamsBlockAndWaitingPipesDoNot) {
  SecondPipe pipes;
  EXPECT_FALSE(IsNonBlocking(pipes.first.accepted.Handle()));
  EXPECT_FALSE(IsNonBlocking(pipes.first.opened.Handle()));
  EXPECT_TRUE(IsNonBlocking(pipes.waiting.Handle()));
}

TEST(PipesInAHost, SignalsEndNoWait) {
  const SignalStorm storm;
  const std::string name = FreshName();
  PipeEnd pipe = Create(name);
  PipeEvent event;
  ASSERT_EQ(door::StartPipeConnect(pipe, event), PipeStatus::PENDING);
  auto start = steady_clock::now();
  EXPECT_EQ(door::WaitPipeEvent(event, 200), PipeWait::TIMED_OUT);
  EXPECT_GE(ElapsedMs(start), 200);
  for (int i = 0; i < 20; ++i) {
    SecondPipe pipes;
    Running<bool> accepting(pipes.Await());
    std::this_thread::sleep_for(milliseconds{5});
    EXPECT_FALSE(accepting.HasEnded());
    const PipeEnd second = Open(pipes.outName, &pipes.first.opened);
    ASSERT_TRUE(second.IsOpen());
    ASSERT_TRUE(accepting.Take());
    Running<std::optional<Bytes>> reading([&] { return Read(second, 10); });
    std::this_thread::sleep_for(milliseconds{5});
    EXPECT_FALSE(reading.HasEnded());
    EXPECT_TRUE(Write(pipes.waiting, Pattern(10)));
    EXPECT_EQ(reading.Take(), Pattern(10));
  }
  if (SignalStorm::IsAvailable()) {
    EXPECT_GT(SignalStorm::Delivered(), 100u);
  }
}

TEST(PipesInAHost, SignalsEndNoWrite) {
  Pipe pipe;
  const SignalStorm storm;
  const Bytes large = Pattern(size_t{4} << 20);
  Running<bool> writing([&] {
    size_t written = 0;
    while (written < large.size()) {
      uint32_t count = 0;
      if (!door::WritePipe(pipe.opened, large.data() + written, uint32_t(large.size() - written),
                           &count)) {
        return false;
      }
      written += count;
    }
    return true;
  });
  EXPECT_TRUE(
      WaitUntil([] { return !SignalStorm::IsAvailable() || SignalStorm::Delivered() > 100; }));
  EXPECT_FALSE(writing.HasEnded());
  Bytes all;
  while (all.size() < large.size()) Append(all, *Read(pipe.accepted, 1 << 20));
  EXPECT_TRUE(all == large);
  EXPECT_TRUE(writing.Take());
}

TEST(PipesInAHost, WorkWithDescriptorsAboveTheOldSetLimit) {
  const DescriptorsInUse used(1100);
  SecondPipe pipes;
  ASSERT_GT(pipes.first.accepted.Handle(), 1100);
  Running<bool> accepting(pipes.Await());
  EXPECT_TRUE(Open(pipes.outName, &pipes.first.opened).IsOpen());
  EXPECT_TRUE(accepting.Take());
}

}  // namespace
}  // namespace TQ::test
