// Loading and unloading the shared library, as a host does that is not linked with it.
#include <dlfcn.h>

#include <gtest/gtest.h>
#include <tq/types.h>

#include <chrono>
#include <fstream>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/free_port.h"
#include "support/process_info.h"
#include "support/raw_peer.h"
#include "support/transport.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

using std::chrono::milliseconds;

const std::string NAME = "test:1/raw";

bool IsMapped() {
  const std::string file = TQ_LIBRARY_FILE;
  const std::string fileName = file.substr(file.rfind('/') + 1);
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/" + fileName) != std::string::npos) return true;
  }
  return false;
}

[[noreturn]] void Throw() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the last error is kept for each thread
  throw std::runtime_error(dlerror());
}

/// The library, loaded while the object lives or until Unload.
class LoadedLibrary final {
 public:
  LoadedLibrary() : handle(dlopen(TQ_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL)) {
    if (handle == nullptr) Throw();
  }
  ~LoadedLibrary() { Unload(); }
  LoadedLibrary(const LoadedLibrary&) = delete;
  LoadedLibrary& operator=(const LoadedLibrary&) = delete;

  /// The exported function of this name, called with `arguments`.
  template <typename Result, typename... Arguments>
  Result Call(const char* name, Arguments... arguments) const {
    const auto function = reinterpret_cast<Result (*)(Arguments...)>(dlsym(handle, name));
    if (function == nullptr) Throw();
    return function(arguments...);
  }

  /// Without a port it only connects out.
  _tag_TQ_ERROR Initialize(const char* name, uint16_t port = 0) const {
    const std::string host = port != 0 ? HostText(port) : std::string();
    return Call<_tag_TQ_ERROR>("TQInitializeEx", host.c_str(), name, int32_t{port},
                               static_cast<const _tag_TQLIMITS*>(nullptr));
  }
  _tag_TQ_ERROR Shutdown() const { return Call<_tag_TQ_ERROR>("TQShutdown"); }
  TQObjectCounts Counts() const { return Call<TQObjectCounts>("DEBUG_TQObjectCount"); }

  /// Connects to a raw peer, whose end is returned.
  RawPeer ConnectOut() const {
    RawListener listener(FreePort());
    std::optional<RawPeer> peer;
    bool completed = false;
    std::thread acceptor([&] {
      peer = listener.Accept();
      completed = peer && peer->HandshakeAsAcceptor(NAME).Completed();
    });
    const std::string host = HostText(listener.Port());
    const auto result = Call<_tag_TQ_ERROR>("TQConnect", host.c_str(), int32_t{listener.Port()},
                                            static_cast<char*>(nullptr), uint32_t{0},
                                            static_cast<const uint8_t*>(nullptr), int32_t{0});
    acceptor.join();
    if (result != TQ_ERR_OK || !completed) throw std::runtime_error("no connection");
    return std::move(*peer);
  }

  /// What a host has to do before it unloads: nothing of the library runs any more.
  bool WaitUntilIdle(int threadsBefore) const {
    return WaitUntil([&] { return Counts().sessions == 0 && ThreadCount() == threadsBefore; });
  }

  void Unload() {
    if (handle == nullptr) return;
    EXPECT_EQ(dlclose(handle), 0);
    handle = nullptr;
  }

 private:
  void* handle;
};

/// Threads of this process now; a sanitizer's own thread is among them from the first time on.
int CountThreads() {
  std::thread([] {}).join();
  return ThreadCount();
}

int Echo(_tag_HTQPARAMLIST, _tag_HTQPARAMLIST, const TQSlotCallInfo*) { return 0; }

TEST(Unload, OfAnUnusedLibraryLeavesNothingBehind) {
  ASSERT_FALSE(IsMapped()) << "this test must not be linked with the library";
  const int threads = CountThreads();
  const int descriptors = OpenDescriptorCount();
  for (int i = 0; i < 5; ++i) {
    LoadedLibrary library;
    EXPECT_TRUE(IsMapped());
    library.Unload();
    EXPECT_FALSE(IsMapped());
  }
  EXPECT_EQ(ThreadCount(), threads);
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
}

TEST(Unload, AfterUseReallyTakesTheLibraryOutOfTheProcess) {
  const int threads = CountThreads();
  const int descriptors = OpenDescriptorCount();
  {
    LoadedLibrary library;
    library.Call<_tag_TQ_ERROR>("_Z15TQRegisterSlotsPK21_tag_SLOT_DESCRIPTIONi",
                                static_cast<const _tag_SLOT_DESCRIPTION*>(nullptr), 0);
    library.Call<_tag_TQ_ERROR>("TQRegisterSlot", 5u, &Echo, static_cast<void*>(nullptr));
    library.Call<_tag_TQ_ERROR>("TQRegisterSignal", "a signal with a name of some length");
    ASSERT_EQ(library.Initialize("host"), TQ_ERR_OK);
    RawPeer peer = library.ConnectOut();
    peer.SendRequest(
        1, RAW_NOTIFY, RAW_CONNECT_SIGNAL,
        RawList().String("signalName", "a signal with a name of some length").Int32("slotName", 7));
    peer.SendRequest(2, RAW_CALL, 5);
    ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
    const auto list = library.Call<_tag_HTQPARAMLIST>("TQCreateParamList");
    library.Call<_tag_TQ_ERROR>("TQSetInt32Value", list, "x", 7u);
    EXPECT_EQ(library.Call<_tag_TQ_ERROR>("TQEmit", "a signal with a name of some length", list,
                                          static_cast<TQNotifyCallback>(nullptr),
                                          static_cast<void*>(nullptr)),
              TQ_ERR_OK);
    const auto signal = peer.ReadFrame();
    ASSERT_TRUE(signal) << peer.Problem();
    EXPECT_EQ(signal->list, RawList().Int32("x", 7));
    library.Call<_tag_TQ_ERROR>("TQCloseHandle", list);
    EXPECT_EQ(library.Shutdown(), TQ_ERR_OK);
    ASSERT_TRUE(library.WaitUntilIdle(threads));
    library.Unload();
  }
  EXPECT_FALSE(IsMapped());
  EXPECT_EQ(dlopen(TQ_LIBRARY_FILE, RTLD_NOW | RTLD_NOLOAD), nullptr);
  EXPECT_EQ(ThreadCount(), threads);
  EXPECT_TRUE(WaitUntil([&] { return OpenDescriptorCount() == descriptors; }));
}

TEST(Unload, LetsTheNextLoadBeginAnew) {
  const int threads = CountThreads();
  for (int life = 0; life < 3; ++life) {
    LoadedLibrary library;
    // Neither slots nor the count, the name or the ids of an earlier life are there.
    EXPECT_EQ(library.Call<_tag_TQ_ERROR>("TQUnregisterSlot", 0xFFFFFFFFu), TQ_ERR_NO_SUCH_SLOT);
    EXPECT_EQ(library.Call<_tag_TQ_ERROR>("TQUnregisterSignal", "ticks"), TQ_ERR_NO_SUCH_SIGNAL);
    const std::string name = "host" + std::to_string(life);
    ASSERT_EQ(library.Initialize(name.c_str()), TQ_ERR_OK);
    library.Call<_tag_TQ_ERROR>("TQRegisterSignal", "ticks");
    {
      RawPeer peer = library.ConnectOut();
      EXPECT_EQ(library.Call<_tag_TQ_ERROR>(
                    "TQNotify", NAME.c_str(), 7u, _tag_HTQPARAMLIST{nullptr},
                    static_cast<TQNotifyCallback>(nullptr), static_cast<void*>(nullptr)),
                TQ_ERR_OK);
      const auto frame = peer.ReadFrame();
      ASSERT_TRUE(frame) << peer.Problem();
      EXPECT_EQ(frame->id, 1u);
    }
    EXPECT_EQ(library.Shutdown(), TQ_ERR_OK);
    ASSERT_TRUE(library.WaitUntilIdle(threads));
    library.Unload();
    ASSERT_FALSE(IsMapped());
  }
}

TEST(Unload, ClosesTheGatesThatNothingElseCloses) {
  const int threads = CountThreads();
  const uint16_t port = FreePort();
  for (int life = 0; life < 2; ++life) {
    LoadedLibrary library;
    ASSERT_EQ(library.Initialize("host", port), TQ_ERR_OK);
    EXPECT_FALSE(RawPeer::TryConnect(port)) << "it waits at its gate in every life";
    EXPECT_EQ(library.Shutdown(), TQ_ERR_OK);
    ASSERT_TRUE(library.WaitUntilIdle(threads));
  }
}

// Lines that the library logs, while it is unloaded, too.
std::mutex g_linesLock;
std::vector<std::string> g_lines;

void KeepLine(uint32_t, int32_t, const char* text) {
  const std::lock_guard held(g_linesLock);
  g_lines.emplace_back(text);
}

TEST(Unload, ReleasesTheMessagesThatNobodyHasServed) {
  const int threads = CountThreads();
  LoadedLibrary library;
  library.Call<void>("TQSetLogLevel", 15u, 0, &KeepLine);
  // Without an initialisation there is no dispatcher: the call stays in its queue, and with it the
  // session.
  RawPeer peer = library.ConnectOut();
  peer.SendRequest(1, RAW_CALL, 5);
  ASSERT_TRUE(WaitUntil([&] { return library.Counts().messages == 1; }));
  library.Call<_tag_TQ_ERROR>("TQDisconnect", NAME.c_str());
  ASSERT_TRUE(WaitUntil([&] { return ThreadCount() == threads; }));
  EXPECT_EQ(library.Counts().sessions, 1u);
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds(50))) << "the connection is still open";
  {
    const std::lock_guard held(g_linesLock);
    g_lines.clear();
  }
  library.Unload();
  EXPECT_FALSE(IsMapped());
  EXPECT_TRUE(peer.WaitClosed());
  const std::lock_guard held(g_linesLock);
  ASSERT_FALSE(g_lines.empty());
  EXPECT_EQ(g_lines.front().rfind("Destroying TQAPPImpl::~TQAPPImpl(" + NAME + "):", 0), 0u)
      << g_lines.front();
  const char* last = OverPipes() ? "Destroyed TQAPPImpl::" : "Socket channel has been closed ";
  EXPECT_EQ(g_lines.back().rfind(last, 0), 0u) << g_lines.back();
}

TQ_TEST_ROLE(unloadWithoutShutdown) {
  LoadedLibrary library;
  if (args.at(0) == "initialized") {
    EXPECT_EQ(library.Initialize("host"), TQ_ERR_OK);
  }
  Say("unloading");
  library.Unload();
  Say("unloaded");
  return 0;
}

TEST(Unload, WithoutTheLastShutdownTerminatesTheProcess) {
  ChildProcess child("unloadWithoutShutdown", {"initialized"}, ErrorOutput::MERGED);
  ASSERT_TRUE(child.ExpectLine("unloading"));
  for (const std::string& line : child.ReadRemainingLines()) EXPECT_NE(line, "unloaded");
  const auto status = child.Wait();
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->Aborted()) << *status;
}

TEST(Unload, WithoutAnInitializationIsHarmless) {
  ChildProcess child("unloadWithoutShutdown", {"unused"});
  EXPECT_TRUE(child.ExpectLine("unloading"));
  EXPECT_TRUE(child.ExpectLine("unloaded"));
  EXPECT_TRUE(child.ExpectSuccess());
}

}  // namespace
}  // namespace TQ::test
