// What the shared library throws, as a host catches it: across the boundary, by its type.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <optional>
#include <ostream>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>

#include "support/child_process.h"
#include "support/free_port.h"
#include "support/raw_peer.h"
#include "support/thread_faults.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

using DataDamaged = _tag_TQPARAMVALUE::DataDamaged;
using NoDataExeption = TQMemoryBufferTpl2<0>::NoDataExeption;

static_assert(!std::is_base_of_v<std::exception, DataDamaged>);
static_assert(!std::is_base_of_v<std::exception, NoDataExeption>);
static_assert(!std::is_base_of_v<DataDamaged, NoDataExeption>);
static_assert(!std::is_base_of_v<NoDataExeption, DataDamaged>);

// A list whose second entry cannot be read: its name is longer than an entry can say, and what
// stands where the type is looked for is this byte.
class UnreadableList final {
 public:
  explicit UnreadableList(char typeByte) {
    TQSetInt32Value(handle, "first", 1);
    TQSetInt32Value(handle, std::string(300, typeByte).c_str(), 2);
  }
  ~UnreadableList() { TQCloseHandle(handle); }
  UnreadableList(const UnreadableList&) = delete;
  UnreadableList& operator=(const UnreadableList&) = delete;

  const _tag_HTQPARAMLIST handle = TQCreateParamList();
};

constexpr char UNKNOWN_TYPE = 'z';
// A binary, the length of which is made of the same bytes.
constexpr char TYPE_OF_A_BINARY = '\x05';

// Every way in which a host's call walks over the whole list.
struct Walk {
  const char* name;
  void (*run)(_tag_HTQPARAMLIST list);
};

void PrintTo(const Walk& walk, std::ostream* stream) { *stream << walk.name; }

class WalkOver : public testing::TestWithParam<Walk> {};

_tag_TQ_ERROR Ignore(const char*, unsigned, _tag_HTQPARAMLIST, _tag_HTQPARAMLIST, void*) {
  return TQ_ERR_OK;
}

INSTANTIATE_TEST_SUITE_P(
    By, WalkOver,
    testing::Values(
        Walk{"Getter", [](_tag_HTQPARAMLIST list) { (void)TQGetInt32Value(list, "absent"); }},
        Walk{"Setter", [](_tag_HTQPARAMLIST list) { TQSetInt64Value(list, "absent", 1); }},
        Walk{"Remover", [](_tag_HTQPARAMLIST list) { TQRemoveValue(list, "absent"); }},
        Walk{"Search", [](_tag_HTQPARAMLIST list) { (void)TQParamInfo(list, "absent"); }},
        Walk{"Iteration",
             [](_tag_HTQPARAMLIST list) {
               const auto* entry = TQGetFirstParam(list);
               while (entry != nullptr) entry = TQGetNextParam(list, entry);
             }},
        Walk{"Index", [](_tag_HTQPARAMLIST list) { (void)TQParamByIndex(list, 5); }},
        Walk{"CallWithFlow",
             [](_tag_HTQPARAMLIST list) { (void)TQCallWithFlow(1, "nowhere:1/nobody", 1, list); }},
        Walk{"NotifyWithFlow",
             [](_tag_HTQPARAMLIST list) {
               TQNotifyWithFlow(1, "nowhere:1/nobody", 1, list, &Ignore, nullptr);
             }},
        Walk{"EmitWithFlow",
             [](_tag_HTQPARAMLIST list) { TQEmitWithFlow(1, "nothing", list, &Ignore, nullptr); }}),
    [](const auto& walk) { return std::string(walk.param.name); });

TEST_P(WalkOver, AnUnknownTypeThrowsDataDamaged) {
  const UnreadableList list(UNKNOWN_TYPE);
  const uint32_t size = TQGetHandleSize(list.handle);
  EXPECT_THROW(GetParam().run(list.handle), DataDamaged);
  EXPECT_EQ(TQGetHandleSize(list.handle), size) << "the list stays as it was";
  EXPECT_EQ(TQGetParamCount(list.handle), 2u);
  EXPECT_EQ(TQGetInt32Value(list.handle, "first"), 1u);
}

TEST_P(WalkOver, AnEntryBeyondTheEndThrowsNoDataExeption) {
  const UnreadableList list(TYPE_OF_A_BINARY);
  const uint32_t size = TQGetHandleSize(list.handle);
  EXPECT_THROW(GetParam().run(list.handle), NoDataExeption);
  EXPECT_EQ(TQGetHandleSize(list.handle), size);
  EXPECT_EQ(TQGetInt32Value(list.handle, "first"), 1u);
}

TEST(Exceptions, OfTheLibraryAreCaughtByTheirTypeAlone) {
  const UnreadableList damaged(UNKNOWN_TYPE);
  const UnreadableList cutOff(TYPE_OF_A_BINARY);
  const auto kindOf = [](_tag_HTQPARAMLIST list) -> std::string {
    try {
      (void)TQGetInt32Value(list, "absent");
    } catch (const std::exception&) {
      return "standard";
    } catch (const NoDataExeption&) {
      return "NoDataExeption";
    } catch (DataDamaged) {
      return "DataDamaged";
    } catch (...) {
      return "unknown";
    }
    return "none";
  };
  EXPECT_EQ(kindOf(damaged.handle), "DataDamaged");
  EXPECT_EQ(kindOf(cutOff.handle), "NoDataExeption");
}

TEST(Exceptions, CanBeKeptAndRaisedAgainOnAnotherThread) {
  std::exception_ptr kept;
  {
    const UnreadableList list(UNKNOWN_TYPE);
    try {
      (void)TQGetInt32Value(list.handle, "absent");
    } catch (...) {
      kept = std::current_exception();
    }
  }
  ASSERT_TRUE(kept);
  std::atomic<bool> caught{false};
  std::thread([&] {
    try {
      std::rethrow_exception(kept);
    } catch (const DataDamaged&) {
      caught = true;
    }
  }).join();
  EXPECT_TRUE(caught);
}

// ---- in a slot ---------------------------------------------------------------------------------

TEST(Exceptions, OfASlotsListFunctionsCanBeCaughtInTheSlot) {
  static std::atomic<int> caught{0};
  TQRegisterSlot(
      5,
      [](_tag_HTQPARAMLIST, _tag_HTQPARAMLIST result, const TQSlotCallInfo*) {
        const UnreadableList list(UNKNOWN_TYPE);
        try {
          (void)TQGetInt32Value(list.handle, "absent");
        } catch (const DataDamaged&) {
          ++caught;
          TQSetInt32Value(result, "caught", 1);
        }
        return 0;
      },
      nullptr);
  RawListener listener(FreePort());
  ASSERT_EQ(TQInitialize("host", 0, nullptr), TQ_ERR_OK);
  std::optional<RawPeer> peer;
  std::thread acceptor([&] {
    peer = listener.Accept();
    ASSERT_TRUE(peer);
    EXPECT_TRUE(peer->HandshakeAsAcceptor("test:1/raw").Completed());
  });
  EXPECT_EQ(TQConnect("127.0.0.1", listener.Port(), nullptr, 0, nullptr, 0), TQ_ERR_OK);
  acceptor.join();
  ASSERT_TRUE(peer);
  peer->SendRequest(1, RAW_CALL, 5);
  const auto reply = peer->ReadFrame();
  ASSERT_TRUE(reply) << peer->Problem();
  EXPECT_EQ(reply->list, RawList().Int32("caught", 1));
  EXPECT_EQ(caught, 1);
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
}

// ---- system errors -----------------------------------------------------------------------------

TEST(SystemErrors, OfThreadsThatCannotBeStartedReachTheHost) {
  g_threadsLeft = 0;
  std::optional<std::error_code> raised;
  try {
    (void)TQInitialize("host", 0, nullptr);
  } catch (const std::system_error& error) {
    raised = error.code();
  }
  g_threadsLeft = -1;
  EXPECT_EQ(raised, std::make_error_code(std::errc::resource_unavailable_try_again));
  // The call has counted, and its shutdown finds no thread to join.
  raised.reset();
  try {
    (void)TQShutdown();
  } catch (const std::system_error& error) {
    raised = error.code();
  }
  EXPECT_EQ(raised, std::make_error_code(std::errc::invalid_argument));
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
}

TEST(SystemErrors, OfASessionsThreadsReachTheHost) {
  RawListener listener(FreePort());
  g_threadsLeft = 0;
  std::optional<std::error_code> raised;
  try {
    (void)TQConnect("127.0.0.1", listener.Port(), nullptr, 0, nullptr, 0);
  } catch (const std::system_error& error) {
    raised = error.code();
  }
  g_threadsLeft = -1;
  EXPECT_EQ(raised, std::make_error_code(std::errc::resource_unavailable_try_again));
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 0u);
  auto peer = listener.Accept();
  ASSERT_TRUE(peer);
  EXPECT_TRUE(peer->WaitClosed());
}

TQ_TEST_ROLE(shutdownInASlotOfTheSharedLibrary) {
  static std::atomic<bool> tried{false};
  TQRegisterSlot(
      5,
      [](_tag_HTQPARAMLIST, _tag_HTQPARAMLIST, const TQSlotCallInfo*) {
        try {
          TQShutdown();
          Say("returned");
        } catch (const std::system_error& error) {
          Say(error.code() == std::errc::resource_deadlock_would_occur ? "would deadlock"
                                                                       : error.what());
        }
        tried = true;
        return 0;
      },
      nullptr);
  TQInitialize("host", std::stoi(args.at(0)), nullptr);
  TQConnectionReady();
  EXPECT_TRUE(WaitUntil([] { return tried.load(); }));
  return 0;
}

TEST(SystemErrors, OfAThreadThatWouldJoinItselfReachTheHost) {
  const uint16_t port = FreePort();
  // A slot that shuts down takes the lock of the slots before the one of initialisation, which
  // takes them the other way round. A deadlock detector is right to report that.
  setenv("TSAN_OPTIONS", "detect_deadlocks=0", 1);  // NOLINT(concurrency-mt-unsafe): one thread yet
  ChildProcess child("shutdownInASlotOfTheSharedLibrary", {std::to_string(port)},
                     ErrorOutput::MERGED);
  auto peer = RawPeer::Connect(port);
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->HandshakeAsConnector("test:1/raw").Completed());
  peer->SendRequest(1, RAW_CALL, 5);
  EXPECT_TRUE(child.ExpectLine("would deadlock"));
  const auto status = child.Wait();
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->Aborted()) << *status;
}

// ---- the host's own exceptions -----------------------------------------------------------------

struct HostsOwn {};

TEST(HostsExceptions, OfALogCallbackPassThroughTheLibrary) {
  TQSetLogLevel(15, 0, [](uint32_t, int32_t, const char*) { throw HostsOwn(); });
  EXPECT_THROW((void)TQInitialize("host", 0, nullptr), HostsOwn);
  TQSetLogLevel(0, 0, nullptr);
  // That was before anything had been done: the next one is the first.
  EXPECT_EQ(TQInitialize("another", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
}

TEST(HostsExceptions, OfAnEmittersCallbackPassThroughTheLibrary) {
  TQRegisterSignal("ticks");
  const auto raise = [](const char*, unsigned, _tag_HTQPARAMLIST, _tag_HTQPARAMLIST,
                        void*) -> _tag_TQ_ERROR { throw HostsOwn(); };
  EXPECT_THROW((void)TQEmit("ticks", {nullptr}, raise, nullptr), HostsOwn);
  EXPECT_EQ(TQEmit("ticks", {nullptr}, &Ignore, nullptr), TQ_ERR_OK) << "no lock is left behind";
  EXPECT_EQ(TQUnregisterSignal("ticks"), TQ_ERR_OK);
}

}  // namespace
}  // namespace TQ::test
