// The process-wide objects of the library whose order matters, in the order in which they are made
// at load. Destruction goes in reverse. A few that depend on nothing, and on which nothing here
// depends, stand with the code that uses them.
//
// What a session's sending thread may touch at its end is never destroyed: nobody joins that
// thread, and it may still run while the process's exit handlers do. The three thread objects come
// last and so are destroyed first. A host that goes without its last TQShutdown thus ends the
// process before anything else is gone.
#include "frame/globals.h"

#include "frame/log.h"
#include "frame/never_destroyed.h"
#include "frame/object_counts.h"
#include "frame/private_heap.h"
#include "frame/settings.h"
#include "params/dump.h"
#include "session/application_registry.h"
#include "session/challenge.h"
#include "session/dispatcher.h"
#include "session/session.h"
#include "signals/signal_table.h"
#include "signals/slot_table.h"
#include "transport/listener_settings.h"
#include "transport/pipe_listener.h"

#include <random>
#include <string>

namespace TQ::detail {
// The private heap.
platform::HeapHandle g_heap = CreatePrivateHeap();

// Counters.
ObjectCounters g_objectCounts;

// Log state: a library that nobody configured logs nothing.
std::atomic<uint32_t> g_logMask{0};
std::atomic<int32_t> g_logVerbosity{0};
std::atomic<TQLogCallback> g_logCallback{nullptr};

// The lock of the dumps.
Mutex g_printMutex;

// Settings.
namespace {
NeverDestroyed<LimitSettings> limitsStorage(DEFAULT_RECORD);
NeverDestroyed<GuardedText> localApplicationNameStorage;
}  // namespace
LimitSettings defaultLimits(DEFAULT_RECORD);
LimitSettings& limits = *limitsStorage;
StopFlag stopAll{0};
GuardedText& localApplicationName = *localApplicationNameStorage;
std::atomic<TQConnectListener> g_connectListener{nullptr};
std::atomic<TQDisconnectListener> g_disconnectListener{nullptr};
std::atomic<TQAuthFailedListener> g_authFailedListener{nullptr};
std::atomic<TQUnknownConnectListener> g_unknownConnectListener{nullptr};

// Listener settings and gates.
CountedRef<ConnThreadInfo> connThreadInfo(new ConnThreadInfo());
CountedRef<ConnPipeThreadInfo> connPipeThreadInfo(new ConnPipeThreadInfo());
std::string inboundPipeName;
std::string outboundPipeName;
CountedRef<MTObjects::ISyncEvent> socketListenerGate(new MTObjects::ISyncEvent());
CountedRef<MTObjects::ISyncEvent> pipeListenerGate(new MTObjects::ISyncEvent());

// Slot table, signal table, registry, dispatch queue, generator.
namespace {
NeverDestroyed<SlotTable> slotsStorage;
NeverDestroyed<SignalTable> signalsStorage;
NeverDestroyed<ApplicationRegistry> applicationsStorage;
NeverDestroyed<MessageQueue> dispatchQueueStorage;
}  // namespace
SlotTable& g_slots = *slotsStorage;
SignalTable& g_signals = *signalsStorage;
ApplicationRegistry& g_applications = *applicationsStorage;
MessageQueue& g_dispatchQueue = *dispatchQueueStorage;
RandomGenerator randomGenerator(std::random_device{}());

namespace {

/// Releases at library unload what is left in the objects that stay: messages that the dispatcher
/// has left behind, uncompleted, slots, signals with their subscribers, and the name.
struct Leftovers {
  ~Leftovers() {
    g_dispatchQueue.ReleaseAll();
    g_signals.Clear();
    g_slots.Clear();
    localApplicationName.Set({});
  }
} leftovers;

}  // namespace

std::thread pipeListenerThread;
std::thread socketListenerThread;
std::thread dispatcherThread;

}  // namespace TQ::detail
