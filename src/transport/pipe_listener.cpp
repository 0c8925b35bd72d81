#include "transport/pipe_listener.h"

#include "frame/log.h"
#include "frame/settings.h"
#include "platform/pipes.h"
#include "platform/threads.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "transport/listener_settings.h"
#include "transport/pipe_channel.h"

#include <utility>

namespace TQ::detail {
namespace {

constexpr uint32_t PIPE_BUFFER_SIZE = 16284;  ///< intended, and not 16384
constexpr uint32_t INBOUND_WAIT_MS = 10000;

std::string PathOf(const std::string& pipeName) { return platform::PIPE_PREFIX + pipeName; }

/// False if no peer comes in time.
bool AwaitInboundPeer(platform::PipeEnd& pipe, platform::PipeEvent& connected) {
  const auto started = platform::StartPipeConnect(pipe, connected);
  // Intended: a peer that was there first is not told of.
  if (started == platform::PipeStatus::DONE) return true;
  if (started == platform::PipeStatus::FAILED) return false;
  if (platform::WaitPipeEvent(connected, INBOUND_WAIT_MS) != platform::PipeWait::SIGNALLED) {
    return false;
  }
  Log(TQ_LOG_INFO, "Inbound pipe ", PathOf(inboundPipeName), " connected");
  return true;
}

/// Names that nobody has defined in this life of the library stay as they were.
bool TakeNames(const ConnPipeThreadInfo& info) {
  const std::string baseName = info.pipeName.Copy();
  if (!baseName.empty()) {
    inboundPipeName = baseName + "_in";
    outboundPipeName = baseName + "_out";
  }
  return !inboundPipeName.empty() && !outboundPipeName.empty() &&
         inboundPipeName != outboundPipeName;
}

void Serve(const ChannelRef& channel) {
  const SessionRef session(new TQAPPImpl());
  if (!session) {
    Log(TQ_LOG_ERROR, "Cannot create application object");
  } else if (!session->AcceptHandshake(channel)) {
    Log(TQ_LOG_ERROR, "Application start failed");
  }
}

void ServeOnePeer() {
  const ChannelRef channel = AcceptPipe();
  // Intended: no pause after a failure.
  if (!channel.IsValid()) return;
  // Intended: strict, as with sockets, but without a line in the log.
  if (g_applications.Size() > limits.MaxConnections()) return;
  Serve(channel);
}

}  // namespace

ChannelRef AcceptPipe() {
  auto inbound = platform::CreatePipeEnd(PathOf(inboundPipeName), platform::PipeAccess::READ,
                                         PIPE_BUFFER_SIZE);
  auto outbound = platform::CreatePipeEnd(PathOf(outboundPipeName), platform::PipeAccess::WRITE,
                                          PIPE_BUFFER_SIZE);
  platform::PipeEvent connected;
  // Intended: where the system has an event object, one more stays open with each call.
  connected.LeaveOpen();
  if (!inbound.IsOpen() || !outbound.IsOpen()) return nullptr;
  if (!AwaitInboundPeer(inbound, connected)) {
    platform::CancelPipeOperation(inbound, connected);
    return nullptr;
  }
  // Intended: no limit. A peer that opens one pipe and never the other keeps this thread here.
  if (!platform::AwaitPipePeer(outbound, inbound)) return nullptr;
  Log(TQ_LOG_INFO, "Outbound pipe ", PathOf(outboundPipeName), " connected");
  return ChannelRef(
      new PipeChannel(std::move(inbound), std::move(outbound), inboundPipeName, outboundPipeName));
}

void RunPipeListener() {
  platform::SetCurrentThreadName("tq-listen-pipe");
  pipeListenerGate->Wait(WAIT_FOREVER);
  Log(TQ_LOG_INFO, "ConnThread Pipe Startup");
  const CountedRef<ConnPipeThreadInfo> info = connPipeThreadInfo;
  if (!TakeNames(*info)) {
    Log(TQ_LOG_INFO, "ConnThread Pipe stopped - pipes are not defined");
    return;
  }
  while (!StopAllRequested()) ServeOnePeer();
  Log(TQ_LOG_INFO, "ConnThread Shutdown");
}

}  // namespace TQ::detail
