// Every process-wide object of the library, in the order in which it is made at load. Destruction
// goes in reverse.
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
#include "session/application_registry.h"
#include "session/challenge.h"
#include "session/dispatcher.h"
#include "session/session.h"
#include "signals/signal_table.h"
#include "signals/slot_table.h"
#include "transport/listener_settings.h"

#include <random>

namespace TQ::detail {
// The private heap.
platform::HeapHandle g_heap = CreatePrivateHeap();

// Counters.
ObjectCounters g_objectCounts;

// Log state: a library that nobody configured logs nothing.
std::atomic<uint32_t> g_logMask{0};
std::atomic<int32_t> g_logVerbosity{0};
std::atomic<TQLogCallback> g_logCallback{nullptr};

// Settings.
namespace {
NeverDestroyed<LimitSettings> defaultLimitsStorage(DEFAULT_RECORD);
NeverDestroyed<LimitSettings> limitsStorage(DEFAULT_RECORD);
NeverDestroyed<GuardedText> localApplicationNameStorage;
}  // namespace
LimitSettings& defaultLimits = *defaultLimitsStorage;
LimitSettings& limits = *limitsStorage;
StopFlag stopAll{0};
GuardedText& localApplicationName = *localApplicationNameStorage;
std::atomic<TQConnectListener> g_connectListener{nullptr};
std::atomic<TQDisconnectListener> g_disconnectListener{nullptr};
std::atomic<TQAuthFailedListener> g_authFailedListener{nullptr};
std::atomic<TQUnknownConnectListener> g_unknownConnectListener{nullptr};

// Listener settings and gates.
namespace {
NeverDestroyed<CountedRef<ConnThreadInfo>> connThreadInfoStorage(
    CountedRef<ConnThreadInfo>(new ConnThreadInfo()));
NeverDestroyed<CountedRef<ConnPipeThreadInfo>> connPipeThreadInfoStorage(
    CountedRef<ConnPipeThreadInfo>(new ConnPipeThreadInfo()));
NeverDestroyed<CountedRef<MTObjects::ISyncEvent>> socketListenerGateStorage(
    CountedRef<MTObjects::ISyncEvent>(new MTObjects::ISyncEvent()));
NeverDestroyed<CountedRef<MTObjects::ISyncEvent>> pipeListenerGateStorage(
    CountedRef<MTObjects::ISyncEvent>(new MTObjects::ISyncEvent()));
}  // namespace
CountedRef<ConnThreadInfo>& connThreadInfo = *connThreadInfoStorage;
CountedRef<ConnPipeThreadInfo>& connPipeThreadInfo = *connPipeThreadInfoStorage;
CountedRef<MTObjects::ISyncEvent>& socketListenerGate = *socketListenerGateStorage;
CountedRef<MTObjects::ISyncEvent>& pipeListenerGate = *pipeListenerGateStorage;

// Slot table, signal table, registry, dispatch queue, generator.
namespace {
NeverDestroyed<SlotTable> slotsStorage;
NeverDestroyed<SignalTable> signalsStorage;
NeverDestroyed<ApplicationRegistry> applicationsStorage;
NeverDestroyed<MessageQueue> dispatchQueueStorage;
NeverDestroyed<RandomGenerator> randomGeneratorStorage(std::random_device{}());
}  // namespace
SlotTable& g_slots = *slotsStorage;
SignalTable& g_signals = *signalsStorage;
ApplicationRegistry& g_applications = *applicationsStorage;
MessageQueue& g_dispatchQueue = *dispatchQueueStorage;
RandomGenerator& randomGenerator = *randomGeneratorStorage;

namespace {

/// Releases at library unload what the dispatcher has left behind, uncompleted.
struct DispatchQueueLeftovers {
  ~DispatchQueueLeftovers() { g_dispatchQueue.ReleaseAll(); }
} dispatchQueueLeftovers;

}  // namespace

std::thread pipeListenerThread;
std::thread socketListenerThread;
std::thread dispatcherThread;

}  // namespace TQ::detail
