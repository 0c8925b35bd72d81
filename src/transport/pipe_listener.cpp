#include "transport/pipe_listener.h"

#include "frame/log.h"
#include "platform/threads.h"
#include "transport/listener_settings.h"

namespace TQ::detail {

void RunPipeListener() {
  platform::SetCurrentThreadName("tq-listen-pipe");
  pipeListenerGate->Wait(WAIT_FOREVER);
  Log(TQ_LOG_INFO, "ConnThread Pipe Startup");
  Log(TQ_LOG_INFO, "ConnThread Pipe stopped - pipes are not defined");
}

}  // namespace TQ::detail
