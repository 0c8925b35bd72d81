// What the shared library throws, as a host catches it: across the boundary, by its type.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <streambuf>
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

// Puts the standard error stream's output into another buffer for a scope.
class ErrorStreamInto final {
 public:
  explicit ErrorStreamInto(std::streambuf* buffer) : former(std::cerr.rdbuf(buffer)) {}
  ~ErrorStreamInto() { std::cerr.rdbuf(former); }
  ErrorStreamInto(const ErrorStreamInto&) = delete;
  ErrorStreamInto& operator=(const ErrorStreamInto&) = delete;

 private:
  std::streambuf* const former;
};

// Every way in which a host's call walks over the whole list, but for the clone, which loses
// memory.
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
        Walk{"Copy",
             [](_tag_HTQPARAMLIST list) {
               auto target = ParamListHolder::FromRefHandle(TQCreateParamList());
               auto source = ParamListHolder::FromHandle(list);
               (void)target.CopyDataFrom(source);
             }},
        Walk{"HoldersIteration",
             [](_tag_HTQPARAMLIST list) {
               const auto holder = ParamListHolder::FromHandle(list);
               (void)std::distance(holder.begin(), holder.end());
             }},
        Walk{"HoldersGetter",
             [](_tag_HTQPARAMLIST list) {
               (void)ParamListHolder::FromHandle(list).GetHandle("absent", 0);
             }},
        Walk{"DumpIntoMemory",
             [](_tag_HTQPARAMLIST list) {
               char text[100];
               PrintHandleInfoToBuffer(list, true, text, sizeof text);
             }},
        Walk{"DumpToAStream",
             [](_tag_HTQPARAMLIST list) {
               std::ostringstream stream;
               PrintHandleInfoRecurse(stream, list, true, 0);
             }},
        Walk{"DumpOnTheErrorStream",
             [](_tag_HTQPARAMLIST list) {
               std::ostringstream stream;
               const ErrorStreamInto redirected(stream.rdbuf());
               PrintHandleInfo(list, true);
             }},
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

TQ_TEST_ROLE(cloneADamagedList) {
  for (const char typeByte : {UNKNOWN_TYPE, TYPE_OF_A_BINARY}) {
    const UnreadableList list(typeByte);
    try {
      (void)TQCloneHandle(list.handle);
      Say("cloned");
    } catch (const DataDamaged&) {
      Say("DataDamaged");
    } catch (const NoDataExeption&) {
      Say("NoDataExeption");
    }
  }
  Say("left " + std::to_string(DEBUG_TQObjectCount().paramLists));
  return AwaitCommand("never") ? 0 : 1;
}

TEST(Exceptions, OfACloneReachTheHostAndCostItTheNewList) {
  ChildProcess child("cloneADamagedList");
  EXPECT_TRUE(child.ExpectLine("DataDamaged"));
  EXPECT_TRUE(child.ExpectLine("NoDataExeption"));
  EXPECT_TRUE(child.ExpectLine("left 2"));
  // Without the checks at an orderly end: the lost lists are what a checker of leaks looks for.
  child.Kill();
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

// A host's stream whose buffer fails.
class FailingBuffer final : public std::streambuf {
 protected:
  int_type overflow(int_type) override { throw HostsOwn(); }
  std::streamsize xsputn(const char*, std::streamsize) override { throw HostsOwn(); }
};

TEST(HostsExceptions, OfAStreamPassThroughADump) {
  FailingBuffer buffer;
  std::ostream stream(&buffer);
  stream.exceptions(std::ios::badbit);
  const UnreadableList dumped(UNKNOWN_TYPE);
  EXPECT_THROW(PrintHandleInfoRecurse(stream, dumped.handle, true, 0), HostsOwn);

  {
    const ErrorStreamInto redirected(&buffer);
    std::cerr.exceptions(std::ios::badbit);
    EXPECT_THROW(PrintHandleInfo({nullptr}, true), HostsOwn);
    std::cerr.exceptions(std::ios::goodbit);
    std::cerr.clear();
  }
  std::ostringstream kept;
  const ErrorStreamInto redirected(kept.rdbuf());
  PrintHandleInfo({nullptr}, true);
  EXPECT_EQ(kept.str().substr(0, 5), "=====") << "no lock is left behind";
}

}  // namespace
}  // namespace TQ::test
